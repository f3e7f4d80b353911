#include "desktop.h"
#include "desktophost.h"

#include <QtCore/qdir.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qlockfile.h>
#include <QtCore/qprocess.h>
#include <QtCore/qscopeguard.h>
#include <QtGui/qaccessible.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>
#include <QtWidgets/qapplication.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qplaintextedit.h>
#include <QtWidgets/qpushbutton.h>
#include <QtWidgets/qtabbar.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 20000;

const QString updates = u"Aggiornamenti"_s;
const QString purchase = u"Acquisto"_s;
const QString usage = u"Utilizzo"_s;

QString accessibleName(const QWidget *widget)
{
    QAccessibleInterface *face =
        QAccessible::queryAccessibleInterface(const_cast<QWidget *>(widget)); // NOLINT
    return face ? face->text(QAccessible::Name) : QString();
}

} // namespace

// What holds for the whole window of the desktop example, and for its command line.
class tst_DesktopWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void everythingByKeyboard();
    void tabGoesFromTopToBottom_data();
    void tabGoesFromTopToBottom();
    void focusComesBackAfterWaiting();
    void focusStaysInFieldThatCanBeUsed();
    void focusStaysOnOtherPage();
    void mnemonicsDiffer_data();
    void mnemonicsDiffer();
    void whatCanBeUsedHasAName_data();
    void whatCanBeUsedHasAName();
    void textIsNeverRich();
    void nothingIsClipped_data();
    void nothingIsClipped();
    void coloursAreTheSystems();
    void tellsServiceAndProduct();
    void hasNoPanelOfFaults();
    void opensOnPendingPurchase();

    void commandLine_data();
    void commandLine();
    void secondWindowIsRefused();
    void helpFitsAScreen();
    void programRuns();

private:
    // The texts for which there is no room.
    QStringList clipped() const;
    // The page with all that it can show.
    void openPage(const QString &title, bool withFaults = false);
    QString focused() const;
    static QPair<int, QString> run(const QStringList &arguments);

    std::unique_ptr<Desktop> m_desktop;
};

void tst_DesktopWindow::init()
{
    QTest::failOnWarning(Desktop::warnings());
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_desktop->sandbox.isRunning());
}

void tst_DesktopWindow::cleanup()
{
    QCOMPARE(m_desktop->sandbox.complaints(), QString());
    m_desktop.reset();
}

void tst_DesktopWindow::everythingByKeyboard()
{
    MainWindow *window = nullptr;
    const auto press = [&](Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        QTest::keyClick(window->focusWidget() ? window->focusWidget() : window, key, modifiers);
    };
    const auto pressAlt = [&](Qt::Key key) { press(key, Qt::AltModifier); };
    m_desktop->open();
    window = m_desktop->window();

    QVERIFY(m_desktop->waitForLine(u"È disponibile"_s));
    // What a shortcut presses is seen to be pressed for a while, and only then acts.
    QSignalSpy changed(&m_desktop->host()->updates, &Updates::changed);
    press(Qt::Key_F5);
    QVERIFY(changed.wait(timeout));
    QVERIFY(m_desktop->waitForLine(u"È disponibile"_s));
    pressAlt(Qt::Key_C);
    QVERIFY(changed.wait(timeout));
    QVERIFY(m_desktop->waitForLine(u"È disponibile"_s));
    pressAlt(Qt::Key_S);
    QVERIFY(m_desktop->waitForLine(u"Versione 1.5.0 scaricata"_s));
    pressAlt(Qt::Key_T);
    QVERIFY(QTest::qWaitFor([this] { return m_desktop->opened.size() == 1; }, timeout));

    pressAlt(Qt::Key_Q);
    QVERIFY(m_desktop->waitForLine(u"| Abbonamento mensile"_s));
    pressAlt(Qt::Key_P);
    QVERIFY(m_desktop->waitForLine(u"Scegli un piano"_s));
    press(Qt::Key_Down);
    pressAlt(Qt::Key_N);
    for (const QString &text : {u"Ada"_s, u"Rossi"_s, u"ada@example.org"_s}) {
        QTest::keyClicks(window->focusWidget(), text);
        press(Qt::Key_Tab);
    }
    QCOMPARE(focused(), u"Acquista con PayPal"_s);
    press(Qt::Key_Space);
    QVERIFY(m_desktop->waitForLine(u"Pagamento avviato."_s));
    QVERIFY(m_desktop->page().contains(u"\nPiano ANNUALE, ordine "_s));
    QCOMPARE(m_desktop->opened.size(), 2);
    m_desktop->sandbox.ask("POST", m_desktop->opened.last().path());
    pressAlt(Qt::Key_T);
    QVERIFY(m_desktop->waitForLine(u"Pagamento completato."_s));

    pressAlt(Qt::Key_U);
    pressAlt(Qt::Key_I);
    QVERIFY(m_desktop->waitForLine(u"[Invia adesso]"_s));
    pressAlt(Qt::Key_O);
    QVERIFY(m_desktop->waitForLine(u"Dati inviati."_s));
}

void tst_DesktopWindow::tabGoesFromTopToBottom_data()
{
    QTest::addColumn<QString>("page");
    QTest::addColumn<QStringList>("stops");

    QTest::newRow("updates") << updates
                             << QStringList{updates, u"Cerca aggiornamenti"_s,
                                            u"Scarica e verifica"_s, u"Novità"_s};
    QTest::newRow("purchase")
        << purchase
        << QStringList{purchase,     u"Piani in vendita"_s, u"Aggiorna l'elenco"_s,  u"Nome"_s,
                       u"Cognome"_s, u"E-mail"_s,           u"Acquista con PayPal"_s};
    QTest::newRow("usage") << usage
                           << QStringList{usage, u"Dati che vengono inviati"_s,
                                          u"Invia questi dati a ogni avvio"_s};
    QTest::newRow("faults")
        << updates
        << QStringList{updates,     u"Cerca aggiornamenti"_s, u"Scarica e verifica"_s, u"Novità"_s,
                       u"Guasto"_s, u"Metti in atto"_s,       u"Fine del guasto"_s};
}

void tst_DesktopWindow::tabGoesFromTopToBottom()
{
    QFETCH(const QString, page);
    QFETCH(const QStringList, stops);

    openPage(page, stops.contains(u"Guasto"_s));
    m_desktop->window()->findChild<QWidget *>(u"qt_tabwidget_tabbar"_s)->setFocus();
    QStringList seen;
    do {
        seen += focused();
        QTest::keyClick(m_desktop->window()->focusWidget(), Qt::Key_Tab);
    } while (focused() != stops.first() && seen.size() < 20);
    QCOMPARE(seen, stops);
}

void tst_DesktopWindow::focusComesBackAfterWaiting()
{
    openPage(updates);
    m_desktop->sandbox.setFaults(uR"({"do": {"bytes": "stall", "after": 0}})"_s);
    m_desktop->button(u"Cerca aggiornamenti"_s)->setFocus();
    QTest::keyClick(m_desktop->window()->focusWidget(), Qt::Key_Space);
    QCOMPARE(focused(), u"Annulla"_s);
    QTest::keyClick(m_desktop->window()->focusWidget(), Qt::Key_Space);
    QCOMPARE(focused(), u"Cerca aggiornamenti"_s);
}

void tst_DesktopWindow::focusStaysInFieldThatCanBeUsed()
{
    openPage(purchase);
    QTest::keyClick(m_desktop->window(), Qt::Key_N, Qt::AltModifier);
    m_desktop->sandbox.setFaults(uR"({"do": {"bytes": "stall", "after": 0}})"_s);
    m_desktop->host()->plans.fetch();
    QVERIFY(m_desktop->page().contains(u"[Annulla]"_s));
    QCOMPARE(focused(), u"Nome"_s);
}

// A result that comes while the user types somewhere else does not disturb him.
void tst_DesktopWindow::focusStaysOnOtherPage()
{
    openPage(purchase);
    m_desktop->sandbox.setFaults(uR"({"operation": "update-check", "do": {"delay": 500}})"_s);
    QTest::keyClick(m_desktop->window(), Qt::Key_N, Qt::AltModifier);
    QCOMPARE(focused(), u"Nome"_s);
    QSignalSpy changed(&m_desktop->host()->updates, &Updates::changed);
    m_desktop->host()->updates.check();
    QCOMPARE(focused(), u"Nome"_s);
    QVERIFY(changed.size() == 1 && changed.wait(timeout));
    QCOMPARE(m_desktop->host()->updates.state(), Updates::State::Available);
    QCOMPARE(focused(), u"Nome"_s);
}

void tst_DesktopWindow::mnemonicsDiffer_data()
{
    QTest::addColumn<QString>("page");
    for (const QString &page : {updates, purchase, usage})
        QTest::newRow(qPrintable(page)) << page;
}

void tst_DesktopWindow::mnemonicsDiffer()
{
    QFETCH(const QString, page);

    openPage(page, true);
    // Hidden ones, too: they may be seen together later.
    QStringList letters;
    const auto note = [&letters](const QString &text) {
        const QKeySequence key = QKeySequence::mnemonic(text);
        if (!key.isEmpty())
            letters += key.toString();
    };
    auto *tabs = m_desktop->window()->findChild<QTabWidget *>();
    for (int i = 0; i < tabs->count(); ++i)
        note(tabs->tabText(i));
    QList<QWidget *> parts = tabs->currentWidget()->findChildren<QWidget *>();
    parts += m_desktop->panel()->findChildren<QWidget *>();
    for (const QWidget *part : std::as_const(parts)) {
        if (const auto *button = qobject_cast<const QAbstractButton *>(part))
            note(button->text());
        const auto *label = qobject_cast<const QLabel *>(part);
        if (label && label->buddy())
            note(label->text());
    }
    const QStringList all = letters;
    letters.removeDuplicates();
    QCOMPARE(all, letters);
    QVERIFY(all.size() >= 7);
}

void tst_DesktopWindow::whatCanBeUsedHasAName_data()
{
    mnemonicsDiffer_data();
}

void tst_DesktopWindow::whatCanBeUsedHasAName()
{
    QFETCH(const QString, page);

    openPage(page, true);
    QStringList nameless;
    int named = 0;
    const QList<QWidget *> parts = m_desktop->window()->findChildren<QWidget *>();
    for (const QWidget *part : parts) {
        const bool isUsed = part->isVisible() && (part->focusPolicy() & Qt::TabFocus)
            && !part->focusProxy() && !part->inherits("QDockWidgetTitleButton");
        if (isUsed && accessibleName(part).isEmpty())
            nameless += QString::fromLatin1(part->metaObject()->className());
        named += isUsed ? 1 : 0;
    }
    QCOMPARE(nameless.join(u' '), QString());
    QVERIFY(named >= 6);
}

// Texts come from the service: a page that took its place must not be shown as one.
void tst_DesktopWindow::textIsNeverRich()
{
    openPage(updates, true);
    const QList<QLabel *> labels = m_desktop->window()->findChildren<QLabel *>();
    QVERIFY(labels.size() > 10);
    for (const QLabel *label : labels)
        QVERIFY2(label->buddy() || label->textFormat() == Qt::PlainText || label->text().isEmpty(),
                 qPrintable(label->text()));
}

void tst_DesktopWindow::nothingIsClipped_data()
{
    QTest::addColumn<QString>("page");
    QTest::addColumn<int>("points");

    for (const QString &page : {updates, purchase, usage}) {
        for (const int points : {9, 20})
            QTest::addRow("%s-%d-points", qPrintable(page), points) << page << points;
    }
}

void tst_DesktopWindow::nothingIsClipped()
{
    QFETCH(const QString, page);
    QFETCH(const int, points);

    const QFont before = QApplication::font();
    const auto restore = qScopeGuard([&before] { QApplication::setFont(before); });
    QFont font = before;
    font.setPointSize(points);
    QApplication::setFont(font);
    openPage(page, true);
    if (page == purchase) {
        m_desktop->fillForm(u"Abbonamento annuale"_s);
        m_desktop->click(u"Acquista con PayPal"_s);
        QVERIFY(m_desktop->waitForLine(u"Pagamento avviato."_s));
    }
    QVERIFY2(QTest::qWaitFor([this] { return clipped().isEmpty(); }, timeout),
             qPrintable(clipped().join(u'\n')));
}

// A part with colours of its own would not follow a dark theme.
void tst_DesktopWindow::coloursAreTheSystems()
{
    QPalette dark(QColor(0x30, 0x30, 0x30));
    const QPalette before = QApplication::palette();
    const auto restore = qScopeGuard([&before] { QApplication::setPalette(before); });
    openPage(purchase, true);
    QApplication::setPalette(dark);
    const QList<QWidget *> parts = m_desktop->window()->findChildren<QWidget *>();
    for (const QWidget *part : parts) {
        QVERIFY2(part->styleSheet().isEmpty(), part->metaObject()->className());
        QVERIFY2(!part->testAttribute(Qt::WA_SetPalette), part->metaObject()->className());
    }
    // What the page's corner is filled with.
    QCoreApplication::processEvents();
    const QImage image = m_desktop->window()->grab().toImage();
    QVERIFY(image.pixelColor(2, image.height() - 2).lightness() < 0x60);
}

void tst_DesktopWindow::tellsServiceAndProduct()
{
    m_desktop->open();
    QVERIFY(
        Desktop::seen(m_desktop->window())
            .contains(u"Servizio: %1. Prodotto: DEMO."_s.arg(m_desktop->sandbox.url().toString())));
}

void tst_DesktopWindow::hasNoPanelOfFaults()
{
    m_desktop->open();
    QCOMPARE(m_desktop->panel(), nullptr);
    QCOMPARE(m_desktop->button(u"Metti in atto"_s), nullptr);
}

void tst_DesktopWindow::opensOnPendingPurchase()
{
    openPage(purchase);
    m_desktop->fillForm(u"Licenza perpetua"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(m_desktop->waitForLine(u"Pagamento avviato."_s));
    m_desktop->open();
    QVERIFY(m_desktop->waitForLine(u"Piano PERPETUA, ordine "_s));
}

void tst_DesktopWindow::commandLine_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("complaint");

    const QString server = u"--server=http://127.0.0.1:1"_s;
    const QString noServer =
        u"corvane-desktop: --server needs the service's URL, like http://127.0.0.1:8080.\n"_s;
    const QString badTime = u"corvane-desktop: A time-out is from 1 to 86400 seconds.\n"_s;
    QTest::newRow("nothing") << QStringList() << noServer;
    QTest::newRow("no-url") << QStringList{u"--server=nowhere"_s} << noServer;
    QTest::newRow("other-scheme") << QStringList{u"--server=ftp://127.0.0.1/"_s} << noServer;
    QTest::newRow("broken-url") << QStringList{u"--server=http://a b/"_s} << noServer;
    QTest::newRow("unknown-option")
        << QStringList{server, u"--fast"_s} << u"corvane-desktop: Unknown option 'fast'.\n"_s;
    QTest::newRow("argument") << QStringList{server, u"DEMO"_s}
                              << u"corvane-desktop: There are no arguments but options.\n"_s;
    QTest::newRow("time-zero") << QStringList{server, u"--timeout=0"_s} << badTime;
    QTest::newRow("time-too-long") << QStringList{server, u"--timeout=86401"_s} << badTime;
    QTest::newRow("time-no-number") << QStringList{server, u"--download-timeout=1s"_s} << badTime;
}

void tst_DesktopWindow::commandLine()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const QString, complaint);

    QCOMPARE(run(arguments), qMakePair(2, complaint));
}

// It would write over the first one's purchase.
void tst_DesktopWindow::secondWindowIsRefused()
{
    QDir().mkpath(m_desktop->stateFolder());
    QLockFile lock(m_desktop->stateFolder() + u"/blocco"_s);
    QVERIFY(lock.tryLock());
    QCOMPARE(run({u"--server=http://127.0.0.1:1"_s, u"--state"_s, m_desktop->stateFolder()}),
             qMakePair(2,
                       u"corvane-desktop: Another one is running with the state in %1.\n"_s.arg(
                           m_desktop->stateFolder())));
}

void tst_DesktopWindow::helpFitsAScreen()
{
    const auto [status, output] = run({u"--help"_s});
    QCOMPARE(status, 0);
    const QStringList lines = output.split(u'\n');
    QVERIFY(lines.size() <= 24);
    for (const QString &line : lines)
        QVERIFY2(line.size() <= 80, qPrintable(line));
    QVERIFY(output.contains(u"--faults"_s));
}

// With every option: what the program makes of them is seen in what it asks the service.
void tst_DesktopWindow::programRuns()
{
    QProcess program;
    program.setProcessChannelMode(QProcess::ForwardedChannels);
    program.start(QStringLiteral(CORVANE_DESKTOP_PATH),
                  {u"--server"_s, m_desktop->sandbox.url().toString(), u"--product"_s, u" demo "_s,
                   u"--installed"_s, u"1.2"_s, u"--channel"_s, u"beta"_s, u"--state"_s,
                   m_desktop->stateFolder(), u"--downloads"_s, m_desktop->downloads(),
                   u"--timeout"_s, u"5"_s, u"--download-timeout"_s, u"6"_s, u"--faults"_s});
    QVERIFY(program.waitForStarted(timeout));
    QByteArray target;
    QVERIFY(QTest::qWaitFor(
        [&] {
            const QJsonArray entries =
                m_desktop->sandbox.get(u"/sandbox/journal"_s).json().value("entries"_L1).toArray();
            target = entries.at(0)["request"_L1]["target"_L1].toString().toUtf8();
            return !target.isEmpty();
        },
        timeout));
    QVERIFY2(target.startsWith("/api/v1/releases/latest/DEMO?channel=beta&_="), target.constData());
    program.kill();
    QVERIFY(program.waitForFinished(timeout));
}

QStringList tst_DesktopWindow::clipped() const
{
    QStringList clipped;
    const QList<QWidget *> parts = m_desktop->window()->findChildren<QWidget *>();
    for (const QWidget *part : parts) {
        const auto *label = qobject_cast<const QLabel *>(part);
        const bool isButton = qobject_cast<const QPushButton *>(part);
        if (!part->isVisible() || (!label && !isButton))
            continue;
        const QSize needed = part->minimumSizeHint();
        const bool isClipped = label && label->wordWrap()
            ? label->height() < label->heightForWidth(label->width())
            : part->width() < needed.width() || part->height() < needed.height();
        if (isClipped)
            clipped += label ? label->text() : accessibleName(part);
    }
    return clipped;
}

void tst_DesktopWindow::openPage(const QString &title, bool withFaults)
{
    m_desktop->sandbox.setFaults(uR"({"operation": "update-check", "when": {"times": 1},
                               "do": {"merge": {"release": {"notes": "Più veloce."}}}})"_s);
    m_desktop->open(withFaults);
    QVERIFY(m_desktop->waitForLine(u"Più veloce."_s));
    m_desktop->showPage(title);
    if (title == purchase)
        QVERIFY(m_desktop->waitForLine(u"| Abbonamento mensile"_s));
    if (withFaults)
        QVERIFY(QTest::qWaitFor(
            [this] { return m_desktop->button(u"Metti in atto"_s)->isEnabled(); }, timeout));
}

QString tst_DesktopWindow::focused() const
{
    const QWidget *widget = m_desktop->window()->focusWidget();
    if (const auto *bar = qobject_cast<const QTabBar *>(widget))
        return bar->tabText(bar->currentIndex()).remove(u'&');
    if (!widget)
        return {};
    // Qt's combo boxes put their value in the place of the name, in some versions.
    return widget->accessibleName().isEmpty() ? accessibleName(widget) : widget->accessibleName();
}

QPair<int, QString> tst_DesktopWindow::run(const QStringList &arguments)
{
    QProcess program;
    QSignalSpy finished(&program, &QProcess::finished);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QTemporaryDir folder;
    environment.insert(u"XDG_RUNTIME_DIR"_s, folder.path());
    program.setProcessEnvironment(environment);
    program.start(QStringLiteral(CORVANE_DESKTOP_PATH), arguments);
    if (!finished.wait(timeout))
        return {-1, u"(not finished)"_s};
    return {program.exitStatus() == QProcess::NormalExit ? program.exitCode() : -1,
            QString::fromUtf8(program.readAllStandardOutput() + program.readAllStandardError())};
}

QTEST_MAIN(tst_DesktopWindow)
#include "tst_desktop_window.moc"
