#include "host.h"

#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

class tst_UsageEvents : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void sendsMembers_data();
    void sendsMembers();
    void reportsAnswer_data();
    void reportsAnswer();
};

void tst_UsageEvents::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_UsageEvents::sendsMembers_data()
{
    QTest::addColumn<QString>("licenseKey");
    QTest::addColumn<QString>("machineId");
    QTest::addColumn<QString>("eventType");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("empty-payload")
        << u"K"_s << u"M"_s << u"E"_s << QByteArray("{}")
        << QByteArray(R"({"event_type":"E","license_key":"K","machine_fingerprint":"M",)"
                      R"("product_code":"DEMO"})");
    QTest::newRow("empty-texts-sent")
        << QString() << QString() << QString() << QByteArray("{}")
        << QByteArray(R"({"event_type":"","license_key":"","machine_fingerprint":"",)"
                      R"("product_code":"DEMO"})");
    QTest::newRow("key-trimmed-others-not")
        << u" \n Key  k\t"_s << u" m "_s << u"\te\n"_s << QByteArray("{}")
        << QByteArray(R"({"event_type":"\te\n","license_key":"Key  k",)"
                      R"("machine_fingerprint":" m ","product_code":"DEMO"})");
    QTest::newRow("payload-cannot-override")
        << u"K"_s << u"M"_s << u"E"_s
        << QByteArray(R"({"event_type":1,"license_key":null,"machine_fingerprint":{},)"
                      R"("product_code":"X","z":true})")
        << QByteArray(R"({"event_type":"E","license_key":"K","machine_fingerprint":"M",)"
                      R"("product_code":"DEMO","z":true})");
    QTest::newRow("payload-of-every-type")
        << u"K"_s << u"M"_s << u"E"_s
        << QByteArray(R"({"a":null,"b":false,"c":-1.5,"d":"t","f":[[],{}],"g":{"h":[1]}})")
        << QByteArray(R"({"a":null,"b":false,"c":-1.5,"d":"t","event_type":"E","f":[[],{}],)"
                      R"("g":{"h":[1]},"license_key":"K","machine_fingerprint":"M",)"
                      R"("product_code":"DEMO"})");
}

void tst_UsageEvents::sendsMembers()
{
    QFETCH(QString, licenseKey);
    QFETCH(QString, machineId);
    QFETCH(QString, eventType);
    QFETCH(QByteArray, payload);
    QFETCH(QByteArray, body);

    Host host;
    host.client.sendUsage(licenseKey, machineId, eventType,
                          QJsonDocument::fromJson(payload).object());
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(host.server.requests().constFirst().target, "/api/v1/client/usage");
    QCOMPARE(host.server.requests().constFirst().body, body);
}

void tst_UsageEvents::reportsAnswer_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<QString>("message");

    const auto row = [](const char *name, const char *body, bool accepted, const QString &message) {
        QTest::newRow(name) << QByteArray(body) << accepted << message;
    };
    row("true", R"({"success":true})", true, {});
    row("true-with-message", R"({"success":true,"error":{"message":"Quasi"}})", true, u"Quasi"_s);
    row("false", R"({"success":false})", false, {});
    row("false-with-message", R"({"success":false,"error":{"message":"No"}})", false, u"No"_s);
    row("missing", "{}", false, {});
    row("null", R"({"success":null})", false, {});
    row("text", R"({"success":"true"})", false, {});
    row("number", R"({"success":1})", false, {});
    row("array", R"({"success":[true]})", false, {});
    row("object", R"({"success":{"success":true}})", false, {});
    row("error-text", R"({"error":"No"})", false, {});
    row("error-null", R"({"error":null})", false, {});
    row("error-number", R"({"error":1})", false, {});
    row("error-true", R"({"error":true})", false, {});
    row("error-array", R"({"error":[{"message":"No"}]})", false, {});
    row("error-empty", R"({"error":{}})", false, {});
    row("message-empty", R"({"error":{"message":""}})", false, {});
    row("message-null", R"({"error":{"message":null}})", false, {});
    row("message-number", R"({"error":{"message":1}})", false, {});
    row("message-true", R"({"error":{"message":true}})", false, {});
    row("message-array", R"({"error":{"message":["No"]}})", false, {});
    row("message-object", R"({"error":{"message":{"message":"No"}}})", false, {});
    row("message-at-top-level", R"({"message":"No"})", false, {});
    row("message-as-sent", R"({"error":{"message":" No\n\ud83d\ude00"}})", false,
        u" No\n\U0001F600"_s);
    row("empty-body", "", false, {});
    row("html", "<html>true</html>", false, {});
    row("truncated", R"({"success":true)", false, {});
    row("top-level-array", R"([{"success":true}])", false, {});
    row("top-level-scalar", "true", false, {});
}

void tst_UsageEvents::reportsAnswer()
{
    QFETCH(QByteArray, body);
    QFETCH(bool, accepted);
    QFETCH(QString, message);

    Host host;
    host.server.script(LoopbackServer::response(200, body));
    host.client.sendUsage(u"K"_s, u"M"_s, u"E"_s, {});
    QCOMPARE(host.log.settled(), QStringList{SignalLog::usageSent(accepted, message)});
}

QTEST_GUILESS_MAIN(tst_UsageEvents)
#include "tst_usageevents.moc"
