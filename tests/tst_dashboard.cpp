#include "browser.h"
#include "corvane.h"
#include "files.h"
#include "rawclient.h"
#include "sandbox.h"
#include "signallog.h"

#include <QtCore/qjsondocument.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

namespace {

// Would leave a mark in the page if it were ever taken for HTML.
const QString hostile = uR"(<img src=x onerror="window.hit = 1"><script>hit = 1</script>&amp;)"_s;

QString quoted(const QString &text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.sliced(1, array.size() - 2));
}

} // namespace

// The page that shows what goes on in the sandbox, in a browser.
class tst_Dashboard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void saysWhatToDoAtFirst();
    void showsRequestsAsTheyCome();
    void isNoPartOfTheService();
    void showsRequestsThatHaveNotEnded();
    void opensAnExchange_data();
    void opensAnExchange();
    void keyboardGoesFromRowToRow();
    void bodiesKeepTheirTokens();
    void bodiesThatAreNoTextAreShown();
    void filters();
    void clearsItsView();
    void pauses();
    void keepsTheNewestRequests();
    void putsAScenarioInForce();
    void showsFaultsOfOthers();
    void showsStateAsItChanges();
    void plotsUsage_data();
    void plotsUsage();
    void plotsTheChosenSpan();
    void resetsOnceConfirmed();
    void tellsOfALostConnection();
    void refusalsAreTold();
    void whatCameOverTheWireStaysText();
    void maskedSandboxShowsNoSecrets();
    void fitsTheScreen_data();
    void fitsTheScreen();
    void textCanBeRead_data();
    void textCanBeRead();

private:
    void startSandbox(const QStringList &arguments = {});
    void open();
    bool shows(const QString &selector, const QString &text);
    bool showsFault(const QString &name, const QString &rest);
    bool counts(const QString &selector, int number);
    QString row(int number);
    PurchaseStartInfo buy();
    void makeEverything();

    QTemporaryDir m_folder;
    std::unique_ptr<Browser> m_browser;
    std::unique_ptr<Sandbox> m_sandbox;
    std::unique_ptr<Corvane> m_client;
    std::unique_ptr<SignalLog> m_log;
};

void tst_Dashboard::initTestCase()
{
    m_browser = std::make_unique<Browser>();
    QVERIFY(m_browser->isRunning());
}

void tst_Dashboard::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
    m_browser->setSize(1400, 1000);
    m_browser->setDark(false);
    startSandbox();
}

void tst_Dashboard::cleanup()
{
    QCOMPARE(m_sandbox->complaints(), QString());
}

void tst_Dashboard::cleanupTestCase()
{
    m_browser.reset();
}

void tst_Dashboard::saysWhatToDoAtFirst()
{
    open();
    const QString address = m_sandbox->url(QString()).toString();
    QVERIFY(m_browser->text(u"#requests-empty"_s)
                .startsWith("No requests yet: point a host at "_L1 + address));
    for (const QString &part : {u"faults"_s, u"usage"_s, u"orders"_s, u"licences"_s})
        QVERIFY2(!m_browser->text(u"#%1-empty"_s.arg(part)).isEmpty(), qPrintable(part));
    QCOMPARE(m_browser->evaluate(u"document.querySelectorAll('tbody tr').length"_s).toInt(), 0);
    QCOMPARE(m_browser->text(u"#connection"_s), u"Live"_s);
}

void tst_Dashboard::showsRequestsAsTheyCome()
{
    open();
    m_browser->evaluate(u"window.mark = 1"_s);
    m_client->fetchPurchasePlans();
    QVERIFY(shows(u"#requests-rows"_s, u"sent"_s));
    const QString plans = row(1);
    QVERIFY2(QRegularExpression(u"^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} GET /api/v1/purchase/plans"
                                "\\?product_code=DEMO plans 200 sent  [\\d.]+ ms$"_s)
                 .match(plans)
                 .hasMatch(),
             qPrintable(plans));
    m_client->checkForUpdate(u"1.5.0"_s, u"stable"_s);
    QVERIFY(counts(u"#requests-rows tr"_s, 2));
    QVERIFY(row(1).contains("update-check"_L1));
    QCOMPARE(row(2), plans);
    QCOMPARE(m_browser->text(u"#requests-count"_s), u"2"_s);
    QVERIFY(!m_browser->evaluate(u"document.querySelector('#requests-empty').offsetParent"_s)
                 .isObject());
    QCOMPARE(m_browser->evaluate(u"window.mark"_s).toInt(), 1);
}

// Nor do the faults concern it.
void tst_Dashboard::isNoPartOfTheService()
{
    startSandbox({u"--scenario"_s, u"service-down"_s});
    open();
    QVERIFY(showsFault(u"service-down"_s, u"any 0 0"_s));
    const QJsonObject journal = m_sandbox->get(u"/sandbox/journal"_s).json();
    QVERIFY(journal.value("entries"_L1).toArray().isEmpty());
}

void tst_Dashboard::showsRequestsThatHaveNotEnded()
{
    startSandbox({u"--fault"_s, uR"({"do": {"delay": 600000}})"_s});
    open();
    auto host = std::make_unique<RawClient>(m_sandbox->port());
    host->send("GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
    QVERIFY(counts(u"#requests-rows .pending"_s, 1));
    QVERIFY(row(1).endsWith(u" GET /x other … … delay 600000 …"_s));
    m_browser->click(u"#requests-rows tr"_s);
    QVERIFY(m_browser->text(u"#exchange"_s).contains("The reply is still on its way."_L1));
    host.reset();
    QVERIFY(shows(u"#exchange"_s, u"client-left"_s));
    QVERIFY(row(1).contains("client-left"_L1));
}

void tst_Dashboard::opensAnExchange_data()
{
    QTest::addColumn<QString>("key");
    QTest::newRow("mouse") << QString();
    QTest::newRow("enter") << Browser::enter;
    QTest::newRow("space") << u" "_s;
}

void tst_Dashboard::opensAnExchange()
{
    QFETCH(const QString, key);
    open();
    m_client->startPayPalPurchase(u"ANNUALE"_s, u"Ada"_s, u"Rossi"_s, u"ada@example.org"_s);
    QVERIFY(shows(u"#requests-rows"_s, u"sent"_s));
    if (key.isEmpty()) {
        m_browser->click(u"#requests-rows tr"_s);
    } else {
        m_browser->evaluate(u"document.querySelector('#clear').focus()"_s);
        m_browser->press(Browser::tab);
        m_browser->press(key);
    }
    QVERIFY(m_browser->evaluate(u"document.querySelector('#exchange').open"_s).toBool());
    QCOMPARE(m_browser->text(u"#exchange-title"_s), u"POST /api/v1/purchase/start"_s);
    const QString content = m_browser->text(u"#exchange-content"_s);
    for (const QString &part :
         {u"Operation\nstart"_s, u"Ended\nsent"_s, u"Reply: 200"_s,
          u"{\n  \"email\": \"ada@example.org\",\n"_s, u"  \"payment_id\": 1,\n"_s})
        QVERIFY2(content.contains(part), qPrintable(content));
    // Names are in lower case in some versions of Qt.
    QVERIFY(content.contains("content-type application/json\n"_L1, Qt::CaseInsensitive));

    m_browser->press(Browser::escape);
    QVERIFY(m_browser->waitFor(u"!document.querySelector('#exchange').open"_s));
    if (!key.isEmpty()) {
        QCOMPARE(m_browser->evaluate(u"document.activeElement.tagName"_s).toString(), u"TR"_s);
    }
}

void tst_Dashboard::keyboardGoesFromRowToRow()
{
    for (const QString &path : {u"/a"_s, u"/hidden"_s, u"/b"_s, u"/c"_s})
        m_sandbox->get(path);
    open();
    QVERIFY(counts(u"#requests-rows tr"_s, 4));
    m_browser->evaluate(uR"([...document.querySelectorAll('#requests-rows tr')].find(
        row => row.textContent.includes('hidden')).hidden = true)"_s);
    m_browser->evaluate(u"document.querySelector('#clear').focus()"_s);
    const auto press = [this](const QString &key) {
        m_browser->press(key);
        return m_browser->evaluate(u"document.activeElement.children[1]?.innerText"_s).toString();
    };
    const QString down = u"\uE015"_s;
    const QString up = u"\uE013"_s;
    QCOMPARE(press(Browser::tab), u"GET /c"_s);
    QCOMPARE(press(down), u"GET /b"_s);
    QCOMPARE(press(down), u"GET /a"_s);
    QCOMPARE(press(down), u"GET /a"_s);
    QCOMPARE(press(up), u"GET /b"_s);
    // The rows are one stop for the tab key, at the row that was left.
    m_browser->press(Browser::tab);
    QVERIFY(!m_browser->evaluate(u"document.activeElement.closest('#requests-rows')"_s).isObject());
    QCOMPARE(press(Browser::shift + Browser::tab), u"GET /b"_s);
}

void tst_Dashboard::bodiesKeepTheirTokens()
{
    const QByteArray body =
        R"({"a":1.0,"a":[],"b": [1,{"c\"{":null}, 12345678901234567890],"d":{}})";
    m_sandbox->ask("POST", u"/x"_s, body, {{"Content-Type", "text/plain"}});
    m_sandbox->ask("POST", u"/x"_s, "{not: json}", {{"Content-Type", "text/plain"}});
    open();
    QVERIFY(counts(u"#requests-rows tr"_s, 2));
    const auto requestBody = [this] {
        return m_browser->evaluate(u"document.querySelector('#exchange pre').textContent"_s)
            .toString();
    };
    m_browser->click(u"#requests-rows tr"_s);
    QCOMPARE(requestBody(), u"{not: json}"_s);
    m_browser->press(Browser::escape);
    m_browser->click(u"#requests-rows tr:nth-child(2)"_s);
    QCOMPARE(requestBody(), uR"({
  "a": 1.0,
  "a": [],
  "b": [
    1,
    {
      "c\"{": null
    },
    12345678901234567890
  ],
  "d": {}
})"_s);
}

void tst_Dashboard::bodiesThatAreNoTextAreShown()
{
    const QByteArray large(64 * 1024 + 1, 'x');
    m_sandbox->ask("POST", u"/x"_s, "\xff\xfe", {{"Content-Type", "text/plain"}});
    m_sandbox->ask("POST", u"/x"_s, large, {{"Content-Type", "text/plain"}});
    open();
    QVERIFY(counts(u"#requests-rows tr"_s, 2));
    m_browser->click(u"#requests-rows tr"_s);
    QVERIFY(m_browser->text(u"#exchange"_s).contains("A body of 65,537 bytes, SHA-256 "_L1));
    m_browser->press(Browser::escape);
    m_browser->click(u"#requests-rows tr:nth-child(2)"_s);
    QVERIFY(m_browser->text(u"#exchange"_s).contains("In Base64:\n//4="_L1));
}

void tst_Dashboard::filters()
{
    m_client->fetchPurchasePlans();
    m_client->checkForUpdate(u"1.5.0"_s, u"stable"_s);
    QVERIFY(m_log->waitForLines(2));
    m_client->sendUsage(QString(), u"pc-1"_s, u"Avvio"_s, {});
    QVERIFY(m_log->waitForLines(3));
    open();
    QVERIFY(counts(u"#requests-rows tr"_s, 3));
    const auto visible = [this] {
        return m_browser
            ->evaluate(uR"([...document.querySelectorAll('#requests-rows tr')]
            .filter(row => !row.hidden).map(row => row.children[2].textContent).sort().join(' '))"_s)
            .toString();
    };
    // In the bodies, too, and in any case.
    m_browser->type(u"#filter"_s, u"AVVIO"_s);
    QCOMPARE(visible(), u"usage"_s);
    // What comes later is filtered as well.
    m_client->fetchPurchasePlans();
    QVERIFY(counts(u"#requests-rows tr"_s, 4));
    QCOMPARE(visible(), u"usage"_s);
    m_browser->type(u"#filter"_s, u"x"_s);
    QCOMPARE(visible(), QString());
    QCOMPARE(m_browser->text(u"#requests-none"_s), u"No request matches the filter."_s);
    m_browser->evaluate(u"document.querySelector('#filter').select()"_s);
    m_browser->type(u"#filter"_s, u"\uE003/api/v1"_s);
    QCOMPARE(visible(), u"plans plans update-check usage"_s);
    m_browser->click(u"#operation option[value=''] ~ option:nth-child(4)"_s);
    QCOMPARE(visible(), u"plans plans"_s);
}

void tst_Dashboard::clearsItsView()
{
    startSandbox({u"--fault"_s, uR"({"when": {"times": 1}, "do": {"delay": 600000}})"_s});
    auto host = std::make_unique<RawClient>(m_sandbox->port());
    host->send("GET /a HTTP/1.1\r\nHost: a\r\n\r\n");
    open();
    QVERIFY(counts(u"#requests-rows tr"_s, 1));
    m_browser->click(u"#clear"_s);
    QVERIFY(counts(u"#requests-rows tr"_s, 0));
    // What was cleared stays so, even when it ends now.
    host.reset();
    QVERIFY(QTest::qWaitFor(
        [this] { return m_sandbox->get(u"/sandbox/journal"_s).body.contains("client-left"); }));
    m_sandbox->get(u"/b"_s);
    QVERIFY(shows(u"#requests-rows"_s, u"GET /b other 404 sent"_s));
    QVERIFY(counts(u"#requests-rows tr"_s, 1));
    const QJsonObject journal = m_sandbox->get(u"/sandbox/journal"_s).json();
    QCOMPARE(journal.value("entries"_L1).toArray().size(), 2);
}

void tst_Dashboard::pauses()
{
    open();
    m_browser->click(u"#pause"_s);
    QCOMPARE(m_browser->text(u"#connection"_s), u"Paused"_s);
    QCOMPARE(m_browser->attribute(u"#pause"_s, u"aria-pressed"_s), u"true"_s);
    m_sandbox->get(u"/a"_s);
    // The page's own requests go on, and another answer has come since.
    m_browser->evaluate(u"void fetch('/sandbox/state').then(() => window.answered = 1)"_s);
    QVERIFY(m_browser->waitFor(u"window.answered"_s));
    QVERIFY(counts(u"#requests-rows tr"_s, 0));
    // What is ordered here is shown all the same.
    m_browser->click(u"[data-name=maintenance]"_s);
    QVERIFY(showsFault(u"maintenance"_s, u"any 0 0"_s));
    m_browser->click(u"#pause"_s);
    QVERIFY(counts(u"#requests-rows tr"_s, 1));
    QVERIFY(shows(u"#connection"_s, u"Live"_s));
}

void tst_Dashboard::keepsTheNewestRequests()
{
    constexpr int most = 300;
    RawClient host(m_sandbox->port());
    const auto send = [&host](const QByteArray &path, int times) {
        host.send(("GET " + path + " HTTP/1.1\r\nHost: a\r\n\r\n").repeated(times));
        for (int i = 0; i < times; ++i)
            QVERIFY(host.reply().startsWith("HTTP/1.1 404 "));
    };
    send("/old", 10'000);
    open();
    QVERIFY(counts(u"#requests-rows tr"_s, most));
    QCOMPARE(m_browser->text(u"#requests-count"_s), u"the newest 300"_s);
    send("/new", 100);
    QVERIFY(m_browser->waitFor(
        u"[...document.querySelectorAll('#requests-rows tr')].slice(0, 101).filter("
        "row => row.textContent.includes('/new')).length === 100"_s));
    QVERIFY(counts(u"#requests-rows tr"_s, most));
    send("/newer", 1000);
    QVERIFY(m_browser->waitFor(
        u"[...document.querySelectorAll('#requests-rows tr')].every("
        "row => row.textContent.includes('/newer') && row.textContent.includes('sent'))"_s));
    QVERIFY(counts(u"#requests-rows tr"_s, most));
}

void tst_Dashboard::putsAScenarioInForce()
{
    open();
    const QJsonArray scenarios =
        m_sandbox->get(u"/sandbox/scenarios"_s).json().value("scenarios"_L1).toArray();
    QVERIFY(counts(u"#scenarios button"_s, int(scenarios.size())));
    for (const auto &scenario : scenarios) {
        const QString button = u"#scenarios [data-name=%1]"_s.arg(scenario["name"_L1].toString());
        QCOMPARE(m_browser->property(button, u"innerText"_s).toString(),
                 scenario["name"_L1].toString() + u'\n' + scenario["sentence"_L1].toString());
    }

    m_browser->click(u"[data-name=maintenance]"_s);
    QVERIFY(showsFault(u"maintenance"_s, u"any 0 0"_s));
    QCOMPARE(m_browser->attribute(u"[data-name=maintenance]"_s, u"aria-pressed"_s), u"true"_s);
    QCOMPARE(m_browser->text(u"#outcome"_s), u"“maintenance” is in force."_s);
    m_client->sendUsage(QString(), u"pc-1"_s, u"avvio"_s, {});
    QVERIFY(m_log->waitForLines(1));
    QCOMPARE(m_log->lines(),
             QStringList{
                 SignalLog::usageSent(false, u"Servizio in manutenzione. Riprova più tardi."_s)});
    QVERIFY(showsFault(u"maintenance"_s, u"any 1 1"_s));
    QVERIFY(shows(u"#requests-rows"_s, u"503 sent maintenance"_s));

    m_browser->click(u"[data-name=expired-licence]"_s);
    QVERIFY(counts(u"#faults-rows tr"_s, 2));
    QCOMPARE(m_browser->attribute(u"[data-name=maintenance]"_s, u"aria-pressed"_s), u"false"_s);
    m_browser->click(u"#clear-faults"_s);
    QVERIFY(counts(u"#faults-rows tr"_s, 0));
    QVERIFY(shows(u"#faults-empty"_s, u"Nothing goes wrong."_s));
    QCOMPARE(m_sandbox->get(u"/sandbox/faults"_s).body, QByteArray("{\"faults\":[]}"));
}

void tst_Dashboard::showsFaultsOfOthers()
{
    open();
    const QJsonObject rule{{u"operation"_s, u"usage"_s},
                           {u"when"_s, QJsonObject{{u"times"_s, 2}}},
                           {u"do"_s, QJsonObject{{u"bytes"_s, u"reset"_s}}}};
    m_sandbox->post(u"/sandbox/faults"_s, {{u"faults"_s, QJsonArray{rule}}});
    QVERIFY(showsFault(u"bytes reset"_s, u"usage 0 0"_s));
    QCOMPARE(m_browser->text(u"#faults-rows code"_s),
             uR"({"when":{"times":2},"do":{"bytes":"reset"}})"_s);
}

void tst_Dashboard::showsStateAsItChanges()
{
    open();
    const PurchaseStartInfo started = buy();
    QVERIFY(shows(u"#orders-rows"_s,
                  started.paypalOrderId + " pending Abbonamento annuale 99.00 EUR Ada Rossi "_L1));
    QVERIFY(shows(u"#licences-rows"_s,
                  "1001 "_L1 + started.licenseKey + " pending DEMO ANNUALE Ada Rossi "_L1));
    QCOMPARE(m_browser->property(u"#orders-rows a"_s, u"href"_s).toString(), started.approvalUrl);
    m_sandbox->ask("POST", "/paypal/approve/"_L1 + started.paypalOrderId);
    QVERIFY(shows(u"#orders-rows"_s, u"approved"_s));
    m_client->capturePayPalPurchase(started.paypalOrderId);
    QVERIFY(shows(u"#orders-rows"_s, u"paid"_s));
    QVERIFY(shows(u"#licences-rows"_s, u"active"_s));
    m_client->sendUsage(started.licenseKey, u"pc-1"_s, u"avvio"_s, {});
    QVERIFY(shows(u"#legend"_s, u"avvio 1"_s));
    QCOMPARE(m_browser->text(u"#usage-count"_s), u"1"_s);
}

void tst_Dashboard::plotsUsage_data()
{
    QTest::addColumn<QStringList>("events"); // times*type@time
    QTest::addColumn<QString>("bars"); // their events
    QTest::addColumn<QString>("heights"); // of 230
    QTest::addColumn<QString>("ticks"); // of the events
    QTest::addColumn<QString>("unit");
    QTest::newRow("one") << QStringList{u"1*a@2026-01-05T10:00:00Z"_s} << u"1"_s << u"230"_s
                         << u"0 1"_s << u"events in 1 second"_s;
    QTest::newRow("few") << QStringList{u"2*a@2026-01-05T10:00:00Z"_s,
                                        u"1*b@2026-01-05T10:00:30Z"_s,
                                        u"1*a@2026-01-05T10:45:00Z"_s}
                         << u"3 1"_s << u"230 77"_s << u"0 1 2 3"_s << u"events in 1 minute"_s;
    QTest::newRow("10000") << QStringList{u"9990*a@2026-01-05T10:00:00Z"_s,
                                          u"10*b@2026-01-07T10:00:00Z"_s}
                           << u"9990 10"_s << u"230 2"_s << u"0 5,000 10,000"_s
                           << u"events in 1 hour"_s;
}

void tst_Dashboard::plotsUsage()
{
    QFETCH(const QStringList, events);
    QFETCH(const QString, bars);
    QFETCH(const QString, heights);
    QFETCH(const QString, ticks);
    QFETCH(const QString, unit);
    QJsonArray all;
    for (const QString &text : events) {
        const QJsonObject event{{u"product_code"_s, u"DEMO"_s},
                                {u"machine_fingerprint"_s, u"pc-1"_s},
                                {u"event_type"_s, text.section(u'*', 1).section(u'@', 0, 0)},
                                {u"received_at"_s, text.section(u'@', 1)}};
        for (int i = 0; i < text.section(u'*', 0, 0).toInt(); ++i)
            all.append(event);
    }
    const QJsonObject product{{u"product_code"_s, u"DEMO"_s}, {u"name"_s, u"Demo"_s}};
    const QString file = m_folder.filePath(u"data.json"_s);
    Files::write(
        file,
        QJsonDocument(QJsonObject{{u"products"_s, QJsonArray{product}}, {u"usage_events"_s, all}})
            .toJson());
    startSandbox({u"--data"_s, file});
    open();
    QVERIFY(m_browser->waitFor(u"document.querySelector('.bucket')"_s));
    QCOMPARE(m_browser
                 ->evaluate(uR"([...document.querySelectorAll('.bucket')].map(
        bar => bar.dataset.events).join(' '))"_s)
                 .toString(),
             bars);
    QCOMPARE(m_browser
                 ->evaluate(uR"([...document.querySelectorAll('.bucket')].map(
        bar => Math.round(bar.getBoundingClientRect().height)).join(' '))"_s)
                 .toString(),
             heights);
    QCOMPARE(m_browser
                 ->evaluate(uR"([...document.querySelectorAll('#plot text[text-anchor=end]')]
        .map(text => text.textContent).slice(0, -1).join(' '))"_s)
                 .toString(),
             ticks);
    QCOMPARE(m_browser->text(u"#plot text"_s), unit);
    QVERIFY(m_browser->text(u"#plot"_s).endsWith("time, UTC"_L1));
    // No text is cut off.
    QCOMPARE(m_browser
                 ->evaluate(uR"((() => {
        const plot = document.querySelector('#plot svg').getBoundingClientRect();
        return [...document.querySelectorAll('#plot text')].filter(text => {
            const {left, right, bottom} = text.getBoundingClientRect();
            return left < plot.left || right > plot.right || bottom > plot.bottom;
        }).map(text => text.textContent).join(', ');
    })())"_s)
                 .toString(),
             QString());
    // All bars can be seen, and none is outside or over another.
    QVERIFY(m_browser
                ->evaluate(uR"((() => {
        const plot = document.querySelector('#plot svg').getBoundingClientRect();
        let right = plot.left;
        return [...document.querySelectorAll('.bucket')].every(bucket => {
            const bar = bucket.getBoundingClientRect();
            const isFree = bar.left >= right;
            right = bar.right;
            return isFree && right <= plot.right && bar.width >= 1 && bar.height >= 1
                && bar.width < 40 && bar.top >= plot.top && bar.bottom <= plot.bottom;
        });
    })())"_s)
                .toBool());
}

void tst_Dashboard::plotsTheChosenSpan()
{
    const QJsonObject product{{u"product_code"_s, u"DEMO"_s}, {u"name"_s, u"Demo"_s}};
    const QJsonObject old{{u"product_code"_s, u"DEMO"_s},
                          {u"machine_fingerprint"_s, u"pc-1"_s},
                          {u"event_type"_s, u"vecchio"_s},
                          {u"received_at"_s, u"2026-01-05T10:00:00Z"_s}};
    const QString file = m_folder.filePath(u"data.json"_s);
    Files::write(file,
                 QJsonDocument(QJsonObject{{u"products"_s, QJsonArray{product}},
                                           {u"usage_events"_s, QJsonArray{old}}})
                     .toJson());
    startSandbox({u"--data"_s, file});
    m_client->sendUsage(QString(), u"pc-1"_s, u"nuovo"_s, {});
    QVERIFY(m_log->waitForLines(1));
    open();
    QVERIFY(shows(u"#legend"_s, u"vecchio 1 nuovo 1"_s));
    m_browser->click(u"#span option[value='3600']"_s);
    QVERIFY(
        m_browser->waitFor(u"document.querySelector('#legend').innerText.trim() === 'nuovo 1'"_s));
    QVERIFY(counts(u".bucket"_s, 1));
}

void tst_Dashboard::resetsOnceConfirmed()
{
    open();
    makeEverything();
    QVERIFY(shows(u"#faults-rows"_s, u"maintenance"_s));
    QVERIFY(counts(u"#orders-rows tr"_s, 1));
    const QByteArray before = m_sandbox->get(u"/sandbox/state"_s).body;

    m_browser->click(u"#ask-reset"_s);
    QVERIFY(m_browser->evaluate(u"document.querySelector('#confirm-reset').open"_s).toBool());
    // What a hasty Enter presses.
    m_browser->press(Browser::enter);
    QVERIFY(m_browser->waitFor(u"!document.querySelector('#confirm-reset').open"_s));
    QCOMPARE(m_sandbox->get(u"/sandbox/state"_s).body, before);
    QVERIFY(m_browser->text(u"#outcome"_s).isEmpty());

    m_browser->click(u"#ask-reset"_s);
    m_browser->click(u"#reset"_s);
    QVERIFY(counts(u"tbody tr"_s, 0));
    QVERIFY(counts(u".bucket"_s, 0));
    QCOMPARE(m_browser->text(u"#outcome"_s), u"Everything is as it was at the start."_s);
    QCOMPARE(m_sandbox->get(u"/sandbox/faults"_s).body, QByteArray("{\"faults\":[]}"));
    m_sandbox->get(u"/after"_s);
    QVERIFY(shows(u"#requests-rows"_s, u"/after"_s));
}

void tst_Dashboard::tellsOfALostConnection()
{
    open();
    m_sandbox->get(u"/before"_s);
    QVERIFY(shows(u"#requests-rows"_s, u"/before"_s));
    const QString port = QString::number(m_sandbox->port());
    m_sandbox.reset();
    QVERIFY(m_browser->waitFor(u"!document.querySelector('#lost').hidden"_s));
    QCOMPARE(m_browser->text(u"#connection"_s), u"Connection lost"_s);
    QCOMPARE(m_browser->attribute(u"#lost"_s, u"role"_s), u"alert"_s);
    QVERIFY(row(1).contains("/before"_L1));

    startSandbox({u"--port"_s, port});
    m_sandbox->get(u"/a"_s);
    m_sandbox->get(u"/b"_s);
    QVERIFY(shows(u"#connection"_s, u"Live"_s));
    QVERIFY(m_browser->waitFor(u"document.querySelector('#lost').hidden"_s));
    QVERIFY(counts(u"#requests-rows tr"_s, 2));
    QVERIFY(row(1).contains("/b"_L1));
    QVERIFY(row(2).contains("/a"_L1));
}

void tst_Dashboard::refusalsAreTold()
{
    open();
    // A scenario that this sandbox does not know.
    m_browser->evaluate(
        uR"(void (window.fetch = new Proxy(window.fetch, {apply: (real, self, [path, options]) =>
        real.call(self, path, options?.method === 'POST' ? {...options, body: '{"name":"x"}'} : options)})))"_s);
    m_browser->click(u"#scenarios button"_s);
    QVERIFY(shows(u"#outcome"_s, u"That did not work: name: must be one of service-down, "_s));
    QVERIFY(counts(u"#faults-rows tr"_s, 0));
}

void tst_Dashboard::whatCameOverTheWireStaysText()
{
    m_client->startPayPalPurchase(u"ANNUALE"_s, hostile, hostile, u"a\"'<b>@example.org"_s);
    m_client->sendUsage(QString(), hostile, hostile, {{hostile, hostile}});
    QVERIFY(m_log->waitForLines(2));
    m_client->setProductCode(hostile);
    m_client->fetchPurchasePlans();
    QVERIFY(m_log->waitForLines(3));
    RawClient host(m_sandbox->port());
    const QByteArray raw = hostile.toUtf8();
    host.send("<b>x HTTP/1.1\r\n\r\n");
    QVERIFY(host.waitForEnd());
    m_sandbox->ask("POST", u"/x"_s, raw, {{"X-Hostile", raw}, {"Content-Type", "text/html"}});
    const QJsonObject rule{{u"when"_s, QJsonObject{{u"skip"_s, 9}}},
                           {u"do"_s, QJsonObject{{u"page"_s, hostile}}}};
    m_sandbox->post(u"/sandbox/faults"_s, {{u"faults"_s, QJsonArray{rule}}});
    open();
    QVERIFY(counts(u"#requests-rows tr"_s, 5));
    QVERIFY(shows(u"#orders-rows"_s, hostile));
    QVERIFY(shows(u"#licences-rows"_s, hostile));
    QVERIFY(shows(u"#legend"_s, hostile));
    QVERIFY(m_browser->waitFor(
        u"document.querySelector('.bucket title').textContent.includes(%1)"_s.arg(
            quoted(hostile))));
    QVERIFY(shows(u"#faults-rows"_s, u"<script>"_s));
    for (int number = 1; number <= 5; ++number) {
        m_browser->click(u"#requests-rows tr:nth-child(%1)"_s.arg(number));
        m_browser->press(Browser::escape);
    }
    m_browser->click(u"#requests-rows tr"_s);
    QVERIFY(shows(u"#exchange pre"_s, hostile));
    QVERIFY(shows(u"#exchange .headers"_s, hostile));
    QCOMPARE(m_browser
                 ->evaluate(u"[window.hit ?? 0, document.images.length, "
                            "document.scripts.length].join(' ')"_s)
                 .toString(),
             u"0 1 1"_s);
}

void tst_Dashboard::maskedSandboxShowsNoSecrets()
{
    startSandbox({u"--mask"_s});
    open();
    makeEverything();
    QVERIFY(counts(u"#orders-rows tr"_s, 1));
    QVERIFY(counts(u"#requests-rows tr"_s, 3));
    const QString key =
        QJsonDocument::fromJson(
            m_sandbox->get(u"/sandbox/state"_s).body)["licenses"_L1][0]["license_key"_L1]
            .toString();
    QCOMPARE(key, u"***"_s);
    for (int number = 1; number <= 3; ++number) {
        m_browser->click(u"#requests-rows tr:nth-child(%1)"_s.arg(number));
        const QString page =
            m_browser->evaluate(u"document.documentElement.outerHTML"_s).toString();
        QVERIFY(page.contains("***"_L1));
        QVERIFY(!page.contains("example.org"_L1));
        QVERIFY(!page.contains(QRegularExpression(u"[2-9A-Z]{4}(-[2-9A-Z]{4}){3}"_s)));
        m_browser->press(Browser::escape);
    }
}

void tst_Dashboard::fitsTheScreen_data()
{
    QTest::addColumn<int>("width");
    for (const int width : {1400, 1200, 800, 600, 360})
        QTest::addRow("%d", width) << width;
}

void tst_Dashboard::fitsTheScreen()
{
    QFETCH(const int, width);
    m_browser->setSize(width, 800);
    m_sandbox->get("/a/target/of/words/"_L1 + QString(300, u'x'));
    makeEverything();
    open();
    QVERIFY(counts(u"#orders-rows tr"_s, 1));
    QVERIFY(counts(u".bucket"_s, 1));
    const auto overflow = [this] {
        return m_browser->evaluate(u"document.scrollingElement.scrollWidth - innerWidth"_s).toInt();
    };
    QVERIFY(overflow() <= 0);
    QCOMPARE(m_browser->evaluate(u"innerWidth"_s).toInt(), width);
    // Nor do the panels and their lists scroll sideways.
    QCOMPARE(m_browser
                 ->evaluate(uR"([...document.querySelectorAll('section, section .scroll')]
        .filter(part => part.scrollWidth > part.clientWidth)
        .map(part => part.closest('section').id).join(' '))"_s)
                 .toString(),
             QString());
    m_browser->click(u"#requests-rows tr:last-child td:nth-child(2)"_s);
    QVERIFY(overflow() <= 0);
    QCOMPARE(m_browser
                 ->evaluate(u"document.querySelector('#exchange').scrollWidth"
                            " - document.querySelector('#exchange').clientWidth"_s)
                 .toInt(),
             0);
}

void tst_Dashboard::textCanBeRead_data()
{
    QTest::addColumn<bool>("isDark");
    QTest::newRow("light") << false;
    QTest::newRow("dark") << true;
}

void tst_Dashboard::textCanBeRead()
{
    QFETCH(const bool, isDark);
    m_browser->setDark(isDark);
    m_sandbox->get(u"/unknown"_s);
    for (const QString &scenario : {u"lost-payment-reply"_s, u"captive-portal"_s}) {
        m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, scenario}});
        m_client->capturePayPalPurchase(u"x"_s);
        QVERIFY(m_log->waitForLines(scenario == "captive-portal"_L1 ? 2 : 1));
    }
    m_sandbox->ask("DELETE", u"/sandbox/faults"_s);
    makeEverything();
    open();
    QVERIFY(counts(u"#orders-rows tr"_s, 1));
    QVERIFY(shows(u"#faults-rows"_s, u"maintenance"_s));
    QVERIFY(m_browser->lowestContrast() >= 4.5);
    m_browser->click(u"#requests-rows tr"_s);
    QVERIFY(m_browser->lowestContrast() >= 4.5);
    m_browser->press(Browser::escape);
    m_browser->click(u"#ask-reset"_s);
    QVERIFY(m_browser->lowestContrast() >= 4.5);
    m_browser->press(Browser::escape);
    for (const QString &state : {u"paused"_s, u"lost"_s}) {
        m_browser->evaluate(
            u"document.querySelector('#lost').hidden = false,"
            "document.querySelector('#connection').dataset.state = '%1'"_s.arg(state));
        QVERIFY(m_browser->lowestContrast() >= 4.5);
    }
}

void tst_Dashboard::startSandbox(const QStringList &arguments)
{
    m_sandbox.reset();
    m_sandbox = std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH), arguments);
    QVERIFY(m_sandbox->isRunning());
    m_client = std::make_unique<Corvane>();
    m_client->setServerUrl(m_sandbox->url());
    m_client->setProductCode(u"DEMO"_s);
    m_log = std::make_unique<SignalLog>(m_client.get());
}

// Returns when the page shows all that there is so far.
void tst_Dashboard::open()
{
    m_browser->open(m_sandbox->url(u"/sandbox/"_s));
    QVERIFY(
        m_browser->waitFor(u"document.querySelector('#connection').dataset.state === 'live'"_s));
}

// With one blank for all that lies between cells and lines.
bool tst_Dashboard::shows(const QString &selector, const QString &text)
{
    return m_browser->waitFor(
        uR"([...document.querySelectorAll(%1)].some(element => element.innerText
            .replace(/[\s]+/g, ' ').includes(%2)))"_s.arg(quoted(selector), quoted(text)));
}

// One alone, with its operation and counts.
bool tst_Dashboard::showsFault(const QString &name, const QString &rest)
{
    return m_browser->waitFor(
        uR"((([row, ...others]) => others.length === 0 && row.querySelector('b').textContent === %1
            && [...row.children].slice(1).map(cell => cell.textContent).join(' ') === %2
        )(document.querySelectorAll('#faults-rows tr')))"_s.arg(quoted(name), quoted(rest)));
}

bool tst_Dashboard::counts(const QString &selector, int number)
{
    return m_browser->waitFor(u"document.querySelectorAll(%1).length === %2"_s.arg(
        quoted(selector), QString::number(number)));
}

// The cells of a request's row.
QString tst_Dashboard::row(int number)
{
    return m_browser
        ->evaluate(u"[...document.querySelector('#requests-rows tr:nth-child(%1)').children]"
                   ".map(cell => cell.textContent).join(' ')"_s.arg(number))
        .toString();
}

PurchaseStartInfo tst_Dashboard::buy()
{
    QSignalSpy started(m_client.get(), &Corvane::purchaseStarted);
    m_client->startPayPalPurchase(u"ANNUALE"_s, u"Ada"_s, u"Rossi"_s, u"ada@example.org"_s);
    if (started.isEmpty() && !started.wait(20000))
        return {};
    return started.at(0).at(0).value<PurchaseStartInfo>();
}

// An order with its licence, a resumption, a usage event, a fault.
void tst_Dashboard::makeEverything()
{
    const PurchaseStartInfo started = buy();
    QSignalSpy resumed(m_client.get(), &Corvane::purchaseStarted);
    m_client->resumePayPalPurchase(started.licenseKey);
    QVERIFY(resumed.wait(20000));
    QSignalSpy sent(m_client.get(), &Corvane::usageSent);
    m_client->sendUsage(started.licenseKey, u"pc-1"_s, u"avvio"_s, {});
    QVERIFY(sent.wait(20000));
    m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, u"maintenance"_s}});
}

QTEST_GUILESS_MAIN(tst_Dashboard)

#include "tst_dashboard.moc"
