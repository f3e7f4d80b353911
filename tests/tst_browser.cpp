#include "browser.h"
#include "files.h"
#include "loopbackserver.h"

#include <QtCore/qendian.h>
#include <QtTest/qtest.h>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

const QString phoneHead = u"<meta name=viewport content='width=device-width'>"_s;

// What /proc says of the process after the key; null if it is gone.
QString statusOf(qint64 process, const QString &key)
{
    const QRegularExpression line(u"\\n%1:\\s+(\\w+)"_s.arg(key));
    QFile status(u"/proc/%1/status"_s.arg(process));
    return status.open(QIODevice::ReadOnly)
        ? line.match(QString::fromLatin1(status.readAll())).captured(1)
        : QString();
}

// Who has ended but has not been asked for how is a zombie.
bool hasEnded(qint64 process)
{
    const QString state = statusOf(process, u"State"_s);
    return state.isNull() || state == "Z"_L1;
}

} // namespace

// What the tests in a browser stand on.
class tst_Browser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void pageIsRead();
    void elementIsWaitedFor();
    void conditionIsWaitedForOverPageLoads();
    void waitEndsInTime();
    void elementsAreClickedAndTypedInto();
    void keysArePressed();
    void reloadsAndGoesBack();
    void phoneAsksThePageForItsWidth();
    void darkIsWhatThePageIsTold();
    void screenshotHasThePagesSize();
    void namesLeadNowhere();
    void endsWithTheObject();
    void endsWithItsDriver();

private:
    void serve(const QString &html, const QByteArray &target = {});
    void show(const QString &html);

    std::unique_ptr<Browser> m_browser;
    std::unique_ptr<LoopbackServer> m_server;
};

void tst_Browser::initTestCase()
{
    m_browser = std::make_unique<Browser>();
    QVERIFY(m_browser->isRunning());
}

void tst_Browser::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
    m_server = std::make_unique<LoopbackServer>();
    m_browser->setSize(800, 600);
}

void tst_Browser::cleanupTestCase()
{
    m_browser.reset();
}

void tst_Browser::pageIsRead()
{
    show(u"<title>Prova</title><p>È <b>vista</b><i hidden>, o no</i></p><a id=x href='/a'>a</a>"_s);
    QCOMPARE(m_browser->url(), m_server->url());
    QCOMPARE(m_browser->title(), u"Prova"_s);
    QCOMPARE(m_browser->text(u"p"_s), u"È vista"_s);
    QCOMPARE(m_browser->attribute(u"#x"_s, u"href"_s), u"/a"_s);
    QVERIFY(m_browser->attribute(u"#x"_s, u"target"_s).isNull());
    QCOMPARE(m_browser->property(u"#x"_s, u"href"_s).toString(), m_server->url(u"/a"_s).toString());
    QCOMPARE(m_browser->evaluate(u"1 + 1"_s).toInt(), 2);
}

void tst_Browser::elementIsWaitedFor()
{
    show(u"<script>setTimeout(() => document.body.innerHTML = '<p>tardi</p>', 300)</script>"_s);
    QCOMPARE(m_browser->text(u"p"_s), u"tardi"_s);
}

void tst_Browser::conditionIsWaitedForOverPageLoads()
{
    serve(u"<title>due</title>"_s, "/2");
    show(u"<title>uno</title><script>setTimeout(() => location = '/2', 300)</script>"_s);
    QVERIFY(m_browser->waitFor(u"document.title === 'due'"_s));
    QCOMPARE(m_browser->url(), m_server->url(u"/2"_s));
}

void tst_Browser::waitEndsInTime()
{
    show(u"<title>uno</title>"_s);
    QVERIFY(!m_browser->waitFor(u"document.title === 'due'"_s, 50));
    QVERIFY(!m_browser->waitFor(u"nonsense.at.all"_s, 50));
}

void tst_Browser::elementsAreClickedAndTypedInto()
{
    show(u"<input><button onclick='document.title = [event.isTrusted, event.detail]'>x</button>"_s);
    m_browser->type(u"input"_s, u"più \"e\" meno"_s);
    QCOMPARE(m_browser->property(u"input"_s, u"value"_s).toString(), u"più \"e\" meno"_s);
    m_browser->click(u"button"_s);
    QCOMPARE(m_browser->title(), u"true,1"_s);
}

void tst_Browser::keysArePressed()
{
    show(u"<button id=a>a</button><button id=b onclick='document.title += event.detail'>b</button>"
         "<script>addEventListener('keyup', e => document.title += e.key + '-')</script>"_s);
    const auto hasFocus = [this](QLatin1StringView id) {
        return m_browser->waitFor(u"document.activeElement.id === '%1'"_s.arg(id));
    };
    m_browser->press(Browser::tab);
    QVERIFY(hasFocus("a"_L1));
    m_browser->press(Browser::tab);
    QVERIFY(hasFocus("b"_L1));
    m_browser->press(Browser::enter);
    m_browser->press(u" "_s);
    m_browser->press(Browser::shift + Browser::tab);
    QVERIFY(hasFocus("a"_L1));
    m_browser->press(Browser::escape);
    QCOMPARE(m_browser->title(), u"Tab-Tab-0Enter- -0Shift-Tab-Escape-"_s);
}

void tst_Browser::reloadsAndGoesBack()
{
    serve(u"<title>due</title>"_s, "/2");
    show(u"<title>uno</title>"_s);
    m_browser->evaluate(u"document.title = 'x'"_s);
    m_browser->reload();
    QCOMPARE(m_browser->title(), u"uno"_s);
    m_browser->open(m_server->url(u"/2"_s));
    m_browser->back();
    QCOMPARE(m_browser->title(), u"uno"_s);
}

void tst_Browser::phoneAsksThePageForItsWidth()
{
    const auto width = [this] { return m_browser->evaluate(u"innerWidth"_s).toInt(); };
    m_browser->setSize(320, 600);
    show(phoneHead + u"<p>"_s);
    QCOMPARE(width(), 320);
    show(u"<p>"_s);
    QCOMPARE(width(), 980);
    m_browser->setSize(700, 600);
    QCOMPARE(width(), 700);
}

void tst_Browser::darkIsWhatThePageIsTold()
{
    show(u"<p>"_s);
    for (const bool isDark : {true, false}) {
        m_browser->setDark(isDark);
        QCOMPARE(
            m_browser->evaluate(u"matchMedia('(prefers-color-scheme: dark)').matches"_s).toBool(),
            isDark);
    }
}

void tst_Browser::screenshotHasThePagesSize()
{
    const QTemporaryDir dir;
    show(phoneHead);
    m_browser->setSize(360, 640);
    m_browser->screenshot(dir.filePath(u"a.png"_s));
    const QByteArray image = Files::contentOf(dir.filePath(u"a.png"_s));
    QVERIFY(image.startsWith("\x89PNG\r\n"));
    QCOMPARE(qFromBigEndian<quint32>(image.constData() + 16), 360U);
    QCOMPARE(qFromBigEndian<quint32>(image.constData() + 20), 640U);
}

void tst_Browser::namesLeadNowhere()
{
    show(u"<p>"_s);
    const QString ask = u"fetch('//%1:%2', {mode: 'no-cors'}).then(() => 'yes', () => 'no')"_s;
    const QString port = QString::number(m_server->url().port());
    QCOMPARE(m_browser->evaluate(ask.arg(u"127.0.0.1"_s, port)).toString(), u"yes"_s);
    QCOMPARE(m_browser->evaluate(ask.arg(u"localhost"_s, port)).toString(), u"no"_s);
}

void tst_Browser::endsWithTheObject()
{
    auto browser = std::make_unique<Browser>();
    const qint64 process = browser->processId();
    QVERIFY(!hasEnded(process));
    browser.reset();
    QVERIFY(hasEnded(process));
}

// Killed, the driver cannot take the browser down.
void tst_Browser::endsWithItsDriver()
{
    const Browser browser;
    const int driver = statusOf(browser.processId(), u"PPid"_s).toInt();
    QVERIFY(driver > 1);
    QVERIFY(!hasEnded(browser.processId()));
    QCOMPARE(::kill(driver, SIGKILL), 0);
    QVERIFY(QTest::qWaitFor([&] { return hasEnded(browser.processId()); }, 20000));
}

void tst_Browser::serve(const QString &html, const QByteArray &target)
{
    m_server->always(LoopbackServer::response(200, "<!DOCTYPE html>" + html.toUtf8(),
                                              "text/html; charset=utf-8"),
                     LoopbackServer::KeepOpen, target);
}

void tst_Browser::show(const QString &html)
{
    serve(html);
    m_browser->open(m_server->url());
}

QTEST_GUILESS_MAIN(tst_Browser)

#include "tst_browser.moc"
