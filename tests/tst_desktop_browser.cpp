#include "browser.h"
#include "desktop.h"

#include <QtCore/qjsonarray.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

namespace {

const QString payButton = u"form button:first-child"_s;
const QString cancelButton = u"form button:last-child"_s;

const QString approvedTitle = u"Pagamento approvato"_s;
const QString cancelledTitle = u"Pagamento annullato"_s;

const QString started = u"Pagamento avviato."_s;
const QString paid = u"Pagamento completato."_s;
const QString cancelled = u"Il pagamento è stato annullato."_s;

} // namespace

// A purchase in the desktop example, with the buyer's approval in a browser.
class tst_DesktopBrowser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void paysAndReturns();
    void cancelsAndReturns();
    void returnsUndecided();
    void paysWhileTheApplicationIsClosed();
    void cancelsWhileTheApplicationIsClosed();
    void paysAfterResuming();

private:
    // Until the purchase is pending, and the browser shows its page.
    void start();
    // The page that the application has opened last.
    void openInBrowser();
    void press(const QString &button, const QString &titleThen);
    QJsonArray rows(const QString &table) const;
    // What the application shows at the top, and at the bottom.
    QString licence() const { return m_desktop->page().section(u'\n', 1, 1); }
    QString told() const { return m_desktop->page().section(u'\n', -1); }

    std::unique_ptr<Browser> m_browser;
    std::unique_ptr<Desktop> m_desktop;
};

void tst_DesktopBrowser::initTestCase()
{
    m_browser = std::make_unique<Browser>();
    QVERIFY(m_browser->isRunning());
}

void tst_DesktopBrowser::init()
{
    QTest::failOnWarning(Desktop::warnings());
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_desktop->sandbox.isRunning());
}

void tst_DesktopBrowser::cleanup()
{
    QCOMPARE(m_desktop->sandbox.complaints(), QString());
    m_desktop.reset();
}

void tst_DesktopBrowser::cleanupTestCase()
{
    m_browser.reset();
}

void tst_DesktopBrowser::paysAndReturns()
{
    start();
    m_desktop->leave();
    press(payButton, approvedTitle);
    // Nobody has told the application yet.
    QCOMPARE(rows(u"payments"_s).size(), 0);
    QCOMPARE(told(), started);

    m_desktop->comeBack();
    QVERIFY2(m_desktop->waitForLine(paid), qPrintable(m_desktop->page()));
    QCOMPARE(rows(u"payments"_s).size(), 1);
    QCOMPARE(licence(), u'<' + rows(u"licenses"_s).at(0)["license_key"_L1].toString() + u'>');
    QVERIFY(m_desktop->button(u"Acquista con PayPal"_s));
    QVERIFY(!m_desktop->button(u"Completa l'acquisto"_s));
}

void tst_DesktopBrowser::cancelsAndReturns()
{
    start();
    m_desktop->leave();
    press(cancelButton, cancelledTitle);
    m_desktop->comeBack();
    QVERIFY2(m_desktop->waitForLine(cancelled), qPrintable(m_desktop->page()));
    QCOMPARE(told(), cancelled);
    QVERIFY(m_desktop->button(u"Completa l'acquisto"_s));

    m_desktop->click(u"Abbandona"_s);
    QVERIFY(m_desktop->button(u"Acquista con PayPal"_s));
    QVERIFY(!m_desktop->button(u"Completa l'acquisto"_s));
    QCOMPARE(rows(u"payments"_s).size(), 0);
}

void tst_DesktopBrowser::returnsUndecided()
{
    start();
    m_desktop->leave();
    m_desktop->comeBack();
    QVERIFY(m_desktop->waitForLine(u"Il pagamento non è ancora stato approvato."_s));

    m_desktop->click(u"Apri la pagina di pagamento"_s);
    m_desktop->leave();
    openInBrowser();
    press(payButton, approvedTitle);
    m_desktop->comeBack();
    QVERIFY2(m_desktop->waitForLine(paid), qPrintable(m_desktop->page()));
}

void tst_DesktopBrowser::paysWhileTheApplicationIsClosed()
{
    start();
    m_desktop->close();
    press(payButton, approvedTitle);
    m_desktop->open();
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY2(m_desktop->waitForLine(paid), qPrintable(m_desktop->page()));
    QCOMPARE(licence(), u'<' + rows(u"licenses"_s).at(0)["license_key"_L1].toString() + u'>');
    QCOMPARE(rows(u"payments"_s).size(), 1);
}

void tst_DesktopBrowser::cancelsWhileTheApplicationIsClosed()
{
    start();
    m_desktop->close();
    press(cancelButton, cancelledTitle);
    m_desktop->open();
    m_desktop->click(u"Riprendi"_s);
    QVERIFY(m_desktop->waitForLine(u"Questo acquisto è stato annullato."_s));
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(m_desktop->waitForLine(cancelled));
    QCOMPARE(rows(u"payments"_s).size(), 0);
}

void tst_DesktopBrowser::paysAfterResuming()
{
    start();
    m_desktop->open();
    m_desktop->click(u"Riprendi"_s);
    QVERIFY2(m_desktop->waitForLine(started), qPrintable(m_desktop->page()));
    QCOMPARE(m_desktop->opened.size(), 2);
    m_desktop->leave();
    openInBrowser();
    press(payButton, approvedTitle);
    m_desktop->comeBack();
    QVERIFY2(m_desktop->waitForLine(paid), qPrintable(m_desktop->page()));
    QCOMPARE(rows(u"payments"_s).size(), 1);
    QCOMPARE(rows(u"orders"_s).size(), 1);
}

void tst_DesktopBrowser::start()
{
    m_desktop->open();
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"| Abbonamento annuale"_s));
    m_desktop->fillForm(u"Abbonamento annuale"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY2(m_desktop->waitForLine(started), qPrintable(m_desktop->page()));
    openInBrowser();
}

void tst_DesktopBrowser::openInBrowser()
{
    m_browser->open(m_desktop->opened.constLast());
    QCOMPARE(m_browser->title(), u"Approva il pagamento"_s);
}

void tst_DesktopBrowser::press(const QString &button, const QString &titleThen)
{
    m_browser->click(button);
    QVERIFY(m_browser->waitFor(u"document.title === '%1'"_s.arg(titleThen)));
}

QJsonArray tst_DesktopBrowser::rows(const QString &table) const
{
    return m_desktop->sandbox.get(u"/sandbox/state"_s).json().value(table).toArray();
}

QTEST_MAIN(tst_DesktopBrowser)
#include "tst_desktop_browser.moc"
