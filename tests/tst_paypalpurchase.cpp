#include "host.h"
#include "plainnetwork.h"

#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <functional>
#include <limits>

using namespace Qt::StringLiterals;

class tst_PayPalPurchase : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void refusesWhenNotConfigured_data();
    void refusesWhenNotConfigured();
    void sendsRequest_data();
    void sendsRequest();
    void reportsStart();
    void refusedStartKeepsItsIds();
    void reportsCapture();
    void resumeIsReportedLikeAStart();
    void startFlagIsATrueAlone_data();
    void startFlagIsATrueAlone();
    void captureFlagIsATrueAlone_data();
    void captureFlagIsATrueAlone();
    void readsWholeNumbersOnly_data();
    void readsWholeNumbersOnly();
    void readsTextsOnly_data();
    void readsTextsOnly();
    void choosesMessage_data();
    void choosesMessage();
    void unreadableBodyIsARefusal_data();
    void unreadableBodyIsARefusal();
    void overlappingCallsEachAnswer();
};

using Call = std::function<void(Corvane &)>;

namespace {

QJsonObject objectFrom(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

void start(Corvane &client)
{
    client.startPayPalPurchase(u"P"_s, u"A"_s, u"B"_s, u"a@b"_s);
}

void resume(Corvane &client)
{
    client.resumePayPalPurchase(u"K"_s);
}

void capture(Corvane &client)
{
    client.capturePayPalPurchase(u"O"_s);
}

QStringList reportFor(const Call &call, const QByteArray &body, int status = 200)
{
    Host host;
    host.server.script(LoopbackServer::response(status, body));
    call(host.client);
    return host.log.settled();
}

// The record of an answer that holds nothing that the parser reads.
PurchaseStartInfo notStarted(const QByteArray &body)
{
    PurchaseStartInfo purchase;
    purchase.message = u"Pagamento non avviato."_s;
    purchase.raw = objectFrom(body);
    return purchase;
}

PurchaseCaptureInfo notPaid(const QByteArray &body)
{
    PurchaseCaptureInfo capture;
    capture.message = u"Pagamento non completato."_s;
    capture.raw = objectFrom(body);
    return capture;
}

} // namespace

void tst_PayPalPurchase::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_PayPalPurchase::refusesWhenNotConfigured_data()
{
    QTest::addColumn<Call>("call");
    QTest::addColumn<bool>("hasServerUrl");

    QTest::newRow("start-without-server-url") << Call(start) << false;
    QTest::newRow("start-without-product-code") << Call(start) << true;
    QTest::newRow("resume-without-server-url") << Call(resume) << false;
    QTest::newRow("resume-without-product-code") << Call(resume) << true;
    QTest::newRow("capture-without-server-url") << Call(capture) << false;
    QTest::newRow("capture-without-product-code") << Call(capture) << true;
}

void tst_PayPalPurchase::refusesWhenNotConfigured()
{
    QFETCH(Call, call);
    QFETCH(bool, hasServerUrl);

    Host host;
    if (hasServerUrl)
        host.client.setProductCode({});
    else
        host.client.setServerUrl({});
    call(host.client);
    QCOMPARE(host.log.lines(),
             QStringList{SignalLog::networkError(u"Server URL o product code non configurati."_s)});
    QVERIFY(!host.client.findChild<QNetworkReply *>());
}

void tst_PayPalPurchase::sendsRequest_data()
{
    QTest::addColumn<Call>("call");
    QTest::addColumn<QByteArray>("ownPart");

    const auto row = [](const char *name, const Call &call, const char *path, const char *body) {
        QTest::newRow(name) << call
                            << QByteArray(QByteArray("POST /api/v1/purchase/") + path
                                          + "\ncontent-type: application/json\n\n" + body);
    };
    row(
        "start",
        [](Corvane &client) {
            client.startPayPalPurchase(u" annuale  2 \n"_s, u"\tAda  Maria "_s, u" De  LUCA\n"_s,
                                       u" Ada  Luca@Example.ORG "_s);
        },
        "start",
        R"({"email":"ada  luca@example.org","first_name":"Ada  Maria","last_name":"De  LUCA",)"
        R"("plan_code":"ANNUALE  2","product_code":"DEMO"})");
    row(
        "start-unicode",
        [](Corvane &client) {
            client.startPayPalPurchase(u"\u2003stra\u00DFe"_s, u"\u00C8ve"_s, u"\u00D6z"_s,
                                       u"\u00C9V\u00B5@EXAMPLE.ORG\u3000"_s);
        },
        "start",
        "{\"email\":\"\xC3\xA9v\xC2\xB5@example.org\",\"first_name\":\"\xC3\x88ve\",\"last_name\":"
        "\"\xC3\x96z\",\"plan_code\":\"STRASSE\",\"product_code\":\"DEMO\"}");
    row(
        "start-empty-texts",
        [](Corvane &client) {
            client.startPayPalPurchase(QString(), QString(), QString(), QString());
        },
        "start",
        R"({"email":"","first_name":"","last_name":"","plan_code":"","product_code":"DEMO"})");
    row(
        "resume", [](Corvane &client) { client.resumePayPalPurchase(u" Key  aB \n"_s); }, "resume",
        R"({"license_key":"Key  aB","product_code":"DEMO"})");
    row(
        "resume-empty-text", [](Corvane &client) { client.resumePayPalPurchase({}); }, "resume",
        R"({"license_key":"","product_code":"DEMO"})");
    row(
        "capture", [](Corvane &client) { client.capturePayPalPurchase(u"\t5oRd  er "_s); },
        "capture", R"({"paypal_order_id":"5oRd  er"})");
    row(
        "capture-empty-text", [](Corvane &client) { client.capturePayPalPurchase({}); }, "capture",
        R"({"paypal_order_id":""})");
}

void tst_PayPalPurchase::sendsRequest()
{
    QFETCH(Call, call);
    QFETCH(QByteArray, ownPart);

    Host host;
    call(host.client);
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(PlainNetwork::ownPart(host.server, host.server.requests().constFirst()), ownPart);
}

void tst_PayPalPurchase::reportsStart()
{
    const QByteArray body =
        R"({"success":true,"payment_id":2147483647,"license_id":-3,"license_key":" Ky ",)"
        R"("paypal_order_id":"oR","approval_url":" HTTP://P.Example/%7ea|b","extra":{"x":[1]}})";
    const PurchaseStartInfo expected{true,
                                     2147483647,
                                     -3,
                                     u" Ky "_s,
                                     u"oR"_s,
                                     u" HTTP://P.Example/%7ea|b"_s,
                                     u"Pagamento avviato."_s,
                                     objectFrom(body)};
    QCOMPARE(reportFor(start, body), QStringList{SignalLog::purchaseStarted(expected)});
}

void tst_PayPalPurchase::refusedStartKeepsItsIds()
{
    const QByteArray body =
        R"({"success":false,"payment_id":1,"license_id":2,"license_key":"K",)"
        R"("paypal_order_id":"O","approval_url":"u","error":{"message":"Rifiutato"}})";
    const PurchaseStartInfo expected{false,           1, 2, u"K"_s, u"O"_s, u"u"_s, u"Rifiutato"_s,
                                     objectFrom(body)};
    QCOMPARE(reportFor(start, body), QStringList{SignalLog::purchaseStarted(expected)});
    QCOMPARE(reportFor(start, body, 409), QStringList{SignalLog::purchaseStarted(expected)});
}

void tst_PayPalPurchase::reportsCapture()
{
    const QByteArray body = R"({"paid":true,"license_id":9,"license_key":"K","success":false,)"
                            R"("error":{"message":"not read"}})";
    const PurchaseCaptureInfo expected{true, 9, u"Pagamento completato."_s, objectFrom(body)};
    QCOMPARE(reportFor(capture, body), QStringList{SignalLog::purchaseCaptured(expected)});
    // The HTTP status is not the parser's business: what the body says counts.
    QCOMPARE(reportFor(capture, body, 500), QStringList{SignalLog::purchaseCaptured(expected)});
}

void tst_PayPalPurchase::resumeIsReportedLikeAStart()
{
    const QByteArray body = R"({"success":true,"payment_id":4,"paypal_order_id":"O2"})";
    PurchaseStartInfo expected = notStarted(body);
    expected.success = true;
    expected.paymentId = 4;
    expected.paypalOrderId = u"O2"_s;
    expected.message = u"Pagamento avviato."_s;
    QCOMPARE(reportFor(resume, body), QStringList{SignalLog::purchaseStarted(expected)});
    QCOMPARE(reportFor(resume, "{}"), QStringList{SignalLog::purchaseStarted(notStarted("{}"))});
}

static void addValuesThatAreNotTrue()
{
    QTest::addColumn<QByteArray>("value");
    for (const char *value : {"false", "null", R"("true")", "1", "[true]", R"({"true":true})"})
        QTest::newRow(value) << QByteArray(value);
}

void tst_PayPalPurchase::startFlagIsATrueAlone_data()
{
    addValuesThatAreNotTrue();
}

void tst_PayPalPurchase::startFlagIsATrueAlone()
{
    QFETCH(QByteArray, value);

    const QByteArray body = R"({"paid":true,"success":)" + value + '}';
    QCOMPARE(reportFor(start, body), QStringList{SignalLog::purchaseStarted(notStarted(body))});
}

void tst_PayPalPurchase::captureFlagIsATrueAlone_data()
{
    addValuesThatAreNotTrue();
}

void tst_PayPalPurchase::captureFlagIsATrueAlone()
{
    QFETCH(QByteArray, value);

    const QByteArray body = R"({"success":true,"paid":)" + value + '}';
    QCOMPARE(reportFor(capture, body), QStringList{SignalLog::purchaseCaptured(notPaid(body))});
}

void tst_PayPalPurchase::readsWholeNumbersOnly_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("number");

    const auto row = [](const char *name, const char *value, int number) {
        QTest::newRow(name) << QByteArray(value) << number;
    };
    row("whole", "12", 12);
    row("zero-fraction", "12.0", 12);
    row("exponent", "12e1", 120);
    row("negative", "-12", -12);
    row("largest", "2147483647", std::numeric_limits<int>::max());
    row("smallest", "-2147483648", std::numeric_limits<int>::min());
    row("above-range", "2147483648", 0);
    row("below-range", "-2147483649", 0);
    row("above-range-with-zero-fraction", "2147483648.0", 0);
    row("far-above-range", "1e300", 0);
    row("beyond-64-bits", "18446744073709551617", 0);
    row("fraction", "12.5", 0);
    row("digits-in-a-text", R"("12")", 0);
    row("true", "true", 0);
    row("null", "null", 0);
    row("array", "[12]", 0);
    row("object", R"({"id":12})", 0);
}

void tst_PayPalPurchase::readsWholeNumbersOnly()
{
    QFETCH(QByteArray, value);
    QFETCH(int, number);

    QByteArray body = R"({"payment_id":)" + value + '}';
    PurchaseStartInfo purchase = notStarted(body);
    purchase.paymentId = number;
    QCOMPARE(reportFor(start, body), QStringList{SignalLog::purchaseStarted(purchase)});

    body = R"({"license_id":)" + value + '}';
    purchase = notStarted(body);
    purchase.licenseId = number;
    QCOMPARE(reportFor(start, body), QStringList{SignalLog::purchaseStarted(purchase)});

    PurchaseCaptureInfo captured = notPaid(body);
    captured.licenseId = number;
    QCOMPARE(reportFor(capture, body), QStringList{SignalLog::purchaseCaptured(captured)});
}

void tst_PayPalPurchase::readsTextsOnly_data()
{
    QTest::addColumn<QByteArray>("member");
    QTest::addColumn<QByteArray>("value");

    for (const char *member : {"license_key", "paypal_order_id", "approval_url"}) {
        for (const char *value : {"null", "true", "15", R"(["x"])", R"({"x":"x"})"})
            QTest::addRow("%s-%s", member, value) << QByteArray(member) << QByteArray(value);
    }
}

void tst_PayPalPurchase::readsTextsOnly()
{
    QFETCH(QByteArray, member);
    QFETCH(QByteArray, value);

    const QByteArray body = R"({"success":true,")" + member + R"(":)" + value + '}';
    PurchaseStartInfo expected = notStarted(body);
    expected.success = true;
    expected.message = u"Pagamento avviato."_s;
    QCOMPARE(reportFor(start, body), QStringList{SignalLog::purchaseStarted(expected)});
}

void tst_PayPalPurchase::choosesMessage_data()
{
    QTest::addColumn<QByteArray>("members");
    QTest::addColumn<bool>("done");
    QTest::addColumn<QString>("message"); // null for the default

    const auto row = [](const char *name, const char *members, bool done, const QString &message) {
        QTest::newRow(name) << QByteArray(members) << done << message;
    };
    const QString byDefault;
    row("done", R"("x":1)", true, byDefault);
    row("done-despite-error", R"("error":{"message":"No"})", true, byDefault);
    row("error-missing", R"("x":1)", false, byDefault);
    row("error-message", R"("error":{"message":"Carta \u00e8 scaduta"})", false,
        u"Carta \u00E8 scaduta"_s);
    row("error-message-as-sent", R"("error":{"message":" No\n"})", false, u" No\n"_s);
    row("error-message-empty", R"("error":{"message":""})", false, u""_s);
    row("error-message-null", R"("error":{"message":null})", false, byDefault);
    row("error-message-number", R"("error":{"message":1})", false, byDefault);
    row("error-message-true", R"("error":{"message":true})", false, byDefault);
    row("error-message-array", R"("error":{"message":["No"]})", false, byDefault);
    row("error-message-object", R"("error":{"message":{}})", false, byDefault);
    row("error-empty", R"("error":{})", false, byDefault);
    row("error-text", R"("error":"No")", false, byDefault);
    row("error-null", R"("error":null)", false, byDefault);
    row("error-number", R"("error":1)", false, byDefault);
    row("error-true", R"("error":true)", false, byDefault);
    row("error-array", R"("error":[{"message":"No"}])", false, byDefault);
    row("message-at-top-level", R"("message":"No")", false, byDefault);
}

void tst_PayPalPurchase::choosesMessage()
{
    QFETCH(QByteArray, members);
    QFETCH(bool, done);
    QFETCH(QString, message);

    const QByteArray flag = done ? "true" : "false";
    QByteArray body = R"({"success":)" + flag + ',' + members + '}';
    PurchaseStartInfo purchase = notStarted(body);
    purchase.success = done;
    if (done)
        purchase.message = u"Pagamento avviato."_s;
    if (!message.isNull())
        purchase.message = message;
    QCOMPARE(reportFor(start, body), QStringList{SignalLog::purchaseStarted(purchase)});

    body = R"({"paid":)" + flag + ',' + members + '}';
    PurchaseCaptureInfo captured = notPaid(body);
    captured.paid = done;
    if (done)
        captured.message = u"Pagamento completato."_s;
    if (!message.isNull())
        captured.message = message;
    QCOMPARE(reportFor(capture, body), QStringList{SignalLog::purchaseCaptured(captured)});
}

void tst_PayPalPurchase::unreadableBodyIsARefusal_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");

    for (const int status : {200, 404, 502}) {
        QTest::addRow("%d-html", status) << status << QByteArray("<html>true</html>");
        QTest::addRow("%d-truncated", status)
            << status << QByteArray(R"({"success":true,"paid":true)");
        QTest::addRow("%d-array", status)
            << status << QByteArray(R"([{"success":true,"paid":true}])");
        QTest::addRow("%d-scalar", status) << status << QByteArray("true");
        QTest::addRow("%d-empty-object", status) << status << QByteArray("{}");
    }
    QTest::newRow("200-empty-body") << 200 << QByteArray();
}

void tst_PayPalPurchase::unreadableBodyIsARefusal()
{
    QFETCH(int, status);
    QFETCH(QByteArray, body);

    const QString started = SignalLog::purchaseStarted(notStarted({}));
    QCOMPARE(reportFor(start, body, status), QStringList{started});
    QCOMPARE(reportFor(resume, body, status), QStringList{started});
    QCOMPARE(reportFor(capture, body, status),
             QStringList{SignalLog::purchaseCaptured(notPaid({}))});
}

void tst_PayPalPurchase::overlappingCallsEachAnswer()
{
    Host host;
    start(host.client);
    QVERIFY(host.server.waitForRequests(1));
    resume(host.client);
    QVERIFY(host.server.waitForRequests(2));
    capture(host.client);
    QVERIFY(host.server.waitForRequests(3));

    QSignalSpy captured(&host.client, &Corvane::purchaseCaptured);
    QSignalSpy started(&host.client, &Corvane::purchaseStarted);
    host.server.reply(2, LoopbackServer::response(200, "{}"));
    QVERIFY(captured.wait());
    const QByteArray second = R"({"paypal_order_id":"second"})";
    host.server.reply(1, LoopbackServer::response(200, second));
    QVERIFY(started.wait());
    const QByteArray first = R"({"paypal_order_id":"first"})";
    host.server.reply(0, LoopbackServer::response(200, first));

    PurchaseStartInfo firstInfo = notStarted(first);
    firstInfo.paypalOrderId = u"first"_s;
    PurchaseStartInfo secondInfo = notStarted(second);
    secondInfo.paypalOrderId = u"second"_s;
    QCOMPARE(host.log.settled(),
             (QStringList{SignalLog::purchaseCaptured(notPaid("{}")),
                          SignalLog::purchaseStarted(secondInfo),
                          SignalLog::purchaseStarted(firstInfo)}));
}

QTEST_GUILESS_MAIN(tst_PayPalPurchase)
#include "tst_paypalpurchase.moc"
