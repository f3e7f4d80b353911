#include "browser.h"
#include "corvane.h"
#include "files.h"
#include "loopbackserver.h"
#include "sandbox.h"

#include <QtCore/qjsondocument.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 20000;

const QString pendingTitle = u"Approva il pagamento"_s;
const QString approvedTitle = u"Pagamento approvato"_s;
const QString cancelledTitle = u"Pagamento annullato"_s;
const QString unknownTitle = u"Ordine sconosciuto"_s;

const QString payButton = u"form button:first-child"_s;
const QString cancelButton = u"form button:last-child"_s;

} // namespace

// The page at which the buyer approves or cancels, in a browser.
class tst_ApprovalPage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void showsTheOrder();
    void paysByMouse();
    void paysByKeyboard_data();
    void paysByKeyboard();
    void cancelsByMouse();
    void cancelsByKeyboard();
    void keyboardGoesFromButtonToButton();
    void loadingAgainPostsNothing();
    void goingBackShowsWhatBecameOfTheOrder();
    void firstDecisionStays_data();
    void firstDecisionStays();
    void unknownOrderIsSaidToBe();
    void orderThatIsGoneIsSaidToBe();
    void namesAreText();
    void anyOrderIdLeadsBack();
    void fitsAPhone_data();
    void fitsAPhone();
    void textCanBeRead_data();
    void textCanBeRead();
    void isSaidToBeItalian();
    void pagesOfOtherSitesDecideNothing_data();
    void pagesOfOtherSitesDecideNothing();
    void maskedPageShowsNoAddress();

private:
    void startSandbox(const QStringList &arguments = {});
    PurchaseStartInfo start(const QString &firstName = u"Ada"_s,
                            const QString &lastName = u"Rossi"_s);
    PurchaseStartInfo open();
    bool waitForTitle(const QString &title);
    QString focused();
    PurchaseCaptureInfo capture(const PurchaseStartInfo &started);
    QString stateOf(const PurchaseStartInfo &started) const;

    std::unique_ptr<Browser> m_browser;
    std::unique_ptr<Sandbox> m_sandbox;
    std::unique_ptr<Corvane> m_client;
};

void tst_ApprovalPage::initTestCase()
{
    m_browser = std::make_unique<Browser>();
    QVERIFY(m_browser->isRunning());
}

void tst_ApprovalPage::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
    m_browser->setSize(1280, 800);
    m_browser->setDark(false);
    startSandbox();
}

void tst_ApprovalPage::cleanup()
{
    QCOMPARE(m_sandbox->complaints(), QString());
}

void tst_ApprovalPage::cleanupTestCase()
{
    m_browser.reset();
}

void tst_ApprovalPage::showsTheOrder()
{
    const PurchaseStartInfo started = open();
    QCOMPARE(m_browser->title(), pendingTitle);
    QCOMPARE(m_browser->text(u"body"_s),
             u"Approva il pagamento\n"
             "Controlla l'ordine, poi paga o annulla.\n"
             "Ordine\n%1\n"
             "Piano\nAbbonamento annuale\n"
             "Acquirente\nAda Rossi\n"
             "E-mail\nada@example.org\n"
             "Prezzo\n99,00 EUR\n"
             "Paga\nAnnulla\n"
             "Servizio di prova: nessun denaro viene addebitato."_s.arg(started.paypalOrderId));
}

void tst_ApprovalPage::paysByMouse()
{
    const PurchaseStartInfo started = open();
    m_browser->click(payButton);
    QVERIFY(waitForTitle(approvedTitle));
    QCOMPARE(m_browser->url(), QUrl(started.approvalUrl));
    QCOMPARE(m_browser->text(u"main p"_s),
             u"Ora puoi chiudere questa pagina e tornare all'applicazione."_s);
    QCOMPARE(m_browser->evaluate(u"document.forms.length"_s).toInt(), 0);

    const PurchaseCaptureInfo captured = capture(started);
    QVERIFY(captured.paid);
    QCOMPARE(captured.licenseId, started.licenseId);
    QCOMPARE(captured.raw.value("license_key"_L1).toString(), started.licenseKey);
}

void tst_ApprovalPage::paysByKeyboard_data()
{
    QTest::addColumn<QString>("key");
    QTest::newRow("enter") << Browser::enter;
    QTest::newRow("space") << u" "_s;
}

void tst_ApprovalPage::paysByKeyboard()
{
    QFETCH(const QString, key);
    const PurchaseStartInfo started = open();
    m_browser->press(Browser::tab);
    m_browser->press(key);
    QVERIFY(waitForTitle(approvedTitle));
    QVERIFY(capture(started).paid);
}

void tst_ApprovalPage::cancelsByMouse()
{
    const PurchaseStartInfo started = open();
    m_browser->click(cancelButton);
    QVERIFY(waitForTitle(cancelledTitle));
    QCOMPARE(m_browser->url(), QUrl(started.approvalUrl));
    QCOMPARE(m_browser->text(u"main p"_s),
             u"Per acquistare, avvia di nuovo l'acquisto dall'applicazione."_s);
    QCOMPARE(m_browser->evaluate(u"document.forms.length"_s).toInt(), 0);

    const PurchaseCaptureInfo captured = capture(started);
    QVERIFY(!captured.paid);
    QCOMPARE(captured.message, u"Il pagamento è stato annullato."_s);
    QSignalSpy resumed(m_client.get(), &Corvane::purchaseStarted);
    m_client->resumePayPalPurchase(started.licenseKey);
    QVERIFY(resumed.wait(timeout));
    QCOMPARE(resumed.at(0).at(0).value<PurchaseStartInfo>().message,
             u"Questo acquisto è stato annullato."_s);
}

void tst_ApprovalPage::cancelsByKeyboard()
{
    const PurchaseStartInfo started = open();
    m_browser->press(Browser::tab);
    m_browser->press(Browser::tab);
    m_browser->press(Browser::enter);
    QVERIFY(waitForTitle(cancelledTitle));
    QCOMPARE(stateOf(started), u"cancelled"_s);
}

void tst_ApprovalPage::keyboardGoesFromButtonToButton()
{
    const auto outline = [this] {
        return m_browser
            ->evaluate(u"(style => style.outlineStyle + ' ' + style.outlineWidth)"
                       "(getComputedStyle(document.activeElement))"_s)
            .toString();
    };
    open();
    m_browser->press(Browser::tab);
    QCOMPARE(focused(), u"Paga"_s);
    QCOMPARE(outline(), u"solid 3px"_s);
    m_browser->press(Browser::tab);
    QCOMPARE(focused(), u"Annulla"_s);
    QCOMPARE(outline(), u"solid 3px"_s);
    m_browser->press(Browser::shift + Browser::tab);
    QCOMPARE(focused(), u"Paga"_s);
}

void tst_ApprovalPage::loadingAgainPostsNothing()
{
    const auto requests = [this] {
        QStringList methods;
        const QJsonArray entries =
            m_sandbox->get(u"/sandbox/journal"_s).json().value("entries"_L1).toArray();
        for (const auto &entry : entries) {
            if (entry["operation"_L1] == "approval"_L1)
                methods.append(entry["request"_L1]["method"_L1].toString());
        }
        return methods.join(u' ');
    };
    open();
    m_browser->click(payButton);
    QVERIFY(waitForTitle(approvedTitle));
    QCOMPARE(requests(), u"GET POST GET"_s);
    m_browser->reload();
    QCOMPARE(requests(), u"GET POST GET GET"_s);
    QCOMPARE(m_browser->title(), approvedTitle);
}

// Nothing that the browser has kept invites to pay once more.
void tst_ApprovalPage::goingBackShowsWhatBecameOfTheOrder()
{
    const PurchaseStartInfo started = open();
    m_browser->click(payButton);
    QVERIFY(waitForTitle(approvedTitle));
    m_browser->open(QUrl(start().approvalUrl));
    QCOMPARE(m_browser->title(), pendingTitle);
    for (int page = 0; page < 2; ++page) {
        m_browser->back();
        QCOMPARE(m_browser->url(), QUrl(started.approvalUrl));
        QCOMPARE(m_browser->title(), approvedTitle);
    }
}

void tst_ApprovalPage::firstDecisionStays_data()
{
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("state");

    const QString approve = u"/paypal/approve/"_s;
    const QString cancel = u"/paypal/cancel/"_s;
    QTest::newRow("paga-twice") << approve << payButton << approvedTitle << u"approved"_s;
    QTest::newRow("annulla-twice") << cancel << cancelButton << cancelledTitle << u"cancelled"_s;
    QTest::newRow("annulla-after-paga")
        << approve << cancelButton << approvedTitle << u"approved"_s;
    QTest::newRow("paga-after-annulla") << cancel << payButton << cancelledTitle << u"cancelled"_s;
}

// The buyer has the page open in two tabs.
void tst_ApprovalPage::firstDecisionStays()
{
    QFETCH(const QString, first);
    QFETCH(const QString, button);
    QFETCH(const QString, title);
    QFETCH(const QString, state);
    const PurchaseStartInfo started = open();
    m_sandbox->ask("POST", first + started.paypalOrderId);
    QCOMPARE(stateOf(started), state);
    m_browser->click(button);
    QVERIFY(waitForTitle(title));
    QCOMPARE(stateOf(started), state);
}

void tst_ApprovalPage::unknownOrderIsSaidToBe()
{
    m_browser->open(m_sandbox->url(u"/paypal/approve/NESSUNO"_s));
    QCOMPARE(m_browser->title(), unknownTitle);
    QCOMPARE(m_browser->text(u"main"_s),
             unknownTitle
                 + "\nQuesto ordine non esiste. Avvia di nuovo l'acquisto dall'applicazione."_L1);
    QCOMPARE(m_browser->evaluate(u"document.forms.length"_s).toInt(), 0);
}

void tst_ApprovalPage::orderThatIsGoneIsSaidToBe()
{
    for (const QString &button : {payButton, cancelButton}) {
        open();
        m_sandbox->post(u"/sandbox/reset"_s, {});
        m_browser->click(button);
        QVERIFY(waitForTitle(unknownTitle));
    }
}

void tst_ApprovalPage::namesAreText()
{
    const QString firstName = u"<b>%1 & \"x\""_s;
    const QString lastName = u"</dd><script>document.title = '%2'</script>&lt;"_s;
    m_browser->open(QUrl(start(firstName, lastName).approvalUrl));
    for (const QString &title : {pendingTitle, approvedTitle}) {
        QVERIFY(waitForTitle(title));
        QCOMPARE(m_browser->text(u"dl div:nth-child(3) dd"_s), firstName + u' ' + lastName);
        if (title == pendingTitle)
            m_browser->click(payButton);
    }
}

void tst_ApprovalPage::anyOrderIdLeadsBack()
{
    const QTemporaryDir dir;
    const QString file = dir.filePath(u"data.json"_s);
    const QString id = u"a/b?c#d\"e'f<g>&h %i"_s;
    const QJsonObject order{{u"product_code"_s, u"P"_s},  {u"plan_code"_s, u"Q"_s},
                            {u"state"_s, u"pending"_s},   {u"first_name"_s, u"Ada"_s},
                            {u"last_name"_s, u"Rossi"_s}, {u"email"_s, u"ada@example.org"_s},
                            {u"license_key"_s, u"K"_s},   {u"paypal_order_id"_s, id}};
    const QJsonObject data{
        {u"products"_s, QJsonArray{QJsonObject{{u"product_code"_s, u"P"_s}, {u"name"_s, u"P"_s}}}},
        {u"plans"_s,
         QJsonArray{QJsonObject{{u"product_code"_s, u"P"_s},
                                {u"plan_code"_s, u"Q"_s},
                                {u"name"_s, u"Q"_s},
                                {u"price"_s, u"1.00"_s},
                                {u"currency"_s, u"EUR"_s}}}},
        {u"orders"_s, QJsonArray{order}}};
    Files::write(file, QJsonDocument(data).toJson());

    for (const bool pays : {true, false}) {
        startSandbox({u"--data"_s, file});
        const QString path = QString::fromLatin1(QUrl::toPercentEncoding(id));
        const QUrl url = m_sandbox->url("/paypal/approve/"_L1 + path);
        m_browser->open(url);
        QCOMPARE(m_browser->text(u"dd"_s), id);
        m_browser->click(pays ? payButton : cancelButton);
        QVERIFY(waitForTitle(pays ? approvedTitle : cancelledTitle));
        QCOMPARE(m_browser->url(), url);
    }
}

void tst_ApprovalPage::fitsAPhone_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<QString>("button");
    for (const int width : {320, 360}) {
        QTest::addRow("%d-pending", width) << width << QString();
        QTest::addRow("%d-approved", width) << width << payButton;
        QTest::addRow("%d-cancelled", width) << width << cancelButton;
    }
}

void tst_ApprovalPage::fitsAPhone()
{
    QFETCH(const int, width);
    QFETCH(const QString, button);
    m_browser->setSize(width, 640);
    m_browser->open(
        QUrl(start(u"Massimiliano"_s.repeated(10), u"Rossi-"_s.repeated(20)).approvalUrl));
    QCOMPARE(m_browser->evaluate(u"innerWidth"_s).toInt(), width);
    const QString buttonSizes = u"[...document.querySelectorAll('button')]"
                                ".map(button => button.getBoundingClientRect())"_s;
    QCOMPARE(m_browser->evaluate(buttonSizes + ".length"_L1).toInt(), 2);
    const QString fit = u"every(size => size.height >= 44 && size.width >= 44"
                        " && size.left >= 0 && size.right <= innerWidth)"_s;
    QVERIFY(m_browser->evaluate(buttonSizes + '.'_L1 + fit).toBool());
    if (!button.isEmpty()) {
        m_browser->click(button);
        QVERIFY(m_browser->waitFor(u"document.forms.length === 0"_s));
    }
    QCOMPARE(m_browser->evaluate(u"document.documentElement.scrollWidth"_s).toInt(), width);
}

void tst_ApprovalPage::textCanBeRead_data()
{
    QTest::addColumn<bool>("isDark");
    QTest::addColumn<QString>("path");
    for (const bool isDark : {false, true}) {
        const char *const scheme = isDark ? "dark" : "light";
        QTest::addRow("%s-pending", scheme) << isDark << QString();
        QTest::addRow("%s-approved", scheme) << isDark << u"/paypal/approve/"_s;
        QTest::addRow("%s-cancelled", scheme) << isDark << u"/paypal/cancel/"_s;
    }
}

void tst_ApprovalPage::textCanBeRead()
{
    QFETCH(const bool, isDark);
    QFETCH(const QString, path);
    const PurchaseStartInfo started = start();
    if (!path.isEmpty())
        m_sandbox->ask("POST", path + started.paypalOrderId);
    m_browser->setDark(isDark);
    m_browser->open(QUrl(started.approvalUrl));
    const double contrast = m_browser->lowestContrast();
    QVERIFY2(contrast >= 4.5, qPrintable(QString::number(contrast)));
    const QString ground =
        m_browser->evaluate(u"getComputedStyle(document.body).backgroundColor"_s).toString();
    QCOMPARE(ground, isDark ? u"rgb(16, 20, 26)"_s : u"rgb(238, 241, 245)"_s);
}

void tst_ApprovalPage::isSaidToBeItalian()
{
    open();
    QCOMPARE(m_browser->attribute(u"html"_s, u"lang"_s), u"it"_s);
    QCOMPARE(m_browser->text(u"main h1"_s), pendingTitle);
}

void tst_ApprovalPage::pagesOfOtherSitesDecideNothing_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("approve") << u"/paypal/approve/"_s;
    QTest::newRow("cancel") << u"/paypal/cancel/"_s;
}

// It knows the order, and posts by itself.
void tst_ApprovalPage::pagesOfOtherSitesDecideNothing()
{
    QFETCH(const QString, path);
    const PurchaseStartInfo started = start();
    LoopbackServer site;
    const QString page = u"<form method=post action='%1'></form>"
                         "<script>document.forms[0].submit()</script>"_s.arg(
                             m_sandbox->url(path + started.paypalOrderId).toString());
    site.always(LoopbackServer::response(200, page.toUtf8(), "text/html"));
    m_browser->open(site.url());
    QVERIFY(waitForTitle(u"Richiesta rifiutata"_s));
    QCOMPARE(m_browser->text(u"main p"_s),
             u"La richiesta viene da un altro sito. Apri questa pagina dall'applicazione."_s);
    QCOMPARE(stateOf(started), u"pending"_s);
}

void tst_ApprovalPage::maskedPageShowsNoAddress()
{
    startSandbox({u"--mask"_s});
    const PurchaseStartInfo started = open();
    for (const QString &title : {pendingTitle, approvedTitle}) {
        QVERIFY(waitForTitle(title));
        QCOMPARE(m_browser->text(u"dl div:nth-child(4)"_s), u"E-mail\n***"_s);
        const QString page =
            m_browser->evaluate(u"document.documentElement.outerHTML"_s).toString();
        QVERIFY(!page.contains("@example"_L1));
        if (title == pendingTitle)
            m_browser->click(payButton);
    }
    // What the button is answered, before the browser goes on.
    const QByteArray answer = m_sandbox->ask("POST", QUrl(started.approvalUrl).path()).body;
    QVERIFY(answer.contains("<dd>***</dd>"));
    QVERIFY(!answer.contains("@example"));
}

void tst_ApprovalPage::startSandbox(const QStringList &arguments)
{
    m_sandbox = std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH), arguments);
    QVERIFY(m_sandbox->isRunning());
    m_client = std::make_unique<Corvane>();
    m_client->setServerUrl(m_sandbox->url());
    m_client->setProductCode(u"DEMO"_s);
}

PurchaseStartInfo tst_ApprovalPage::start(const QString &firstName, const QString &lastName)
{
    QSignalSpy started(m_client.get(), &Corvane::purchaseStarted);
    m_client->startPayPalPurchase(u"ANNUALE"_s, firstName, lastName, u"ada@example.org"_s);
    return started.wait(timeout) ? started.at(0).at(0).value<PurchaseStartInfo>()
                                 : PurchaseStartInfo();
}

// The page of a new purchase.
PurchaseStartInfo tst_ApprovalPage::open()
{
    PurchaseStartInfo started = start();
    m_browser->open(QUrl(started.approvalUrl));
    return started;
}

bool tst_ApprovalPage::waitForTitle(const QString &title)
{
    return m_browser->waitFor(u"document.title === '%1'"_s.arg(title));
}

QString tst_ApprovalPage::focused()
{
    return m_browser->evaluate(u"document.activeElement.textContent"_s).toString();
}

PurchaseCaptureInfo tst_ApprovalPage::capture(const PurchaseStartInfo &started)
{
    QSignalSpy captured(m_client.get(), &Corvane::purchaseCaptured);
    m_client->capturePayPalPurchase(started.paypalOrderId);
    return captured.wait(timeout) ? captured.at(0).at(0).value<PurchaseCaptureInfo>()
                                  : PurchaseCaptureInfo();
}

// As the sandbox's tables have it.
QString tst_ApprovalPage::stateOf(const PurchaseStartInfo &started) const
{
    const QJsonArray orders =
        m_sandbox->get(u"/sandbox/state"_s).json().value("orders"_L1).toArray();
    for (const auto &order : orders) {
        if (order["paypal_order_id"_L1] != started.paypalOrderId)
            continue;
        if (!order["approved_at"_L1].toString().isEmpty())
            return u"approved"_s;
        return order["cancelled_at"_L1].toString().isEmpty() ? u"pending"_s : u"cancelled"_s;
    }
    return u"gone"_s;
}

QTEST_GUILESS_MAIN(tst_ApprovalPage)

#include "tst_approvalpage.moc"
