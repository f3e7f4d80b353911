#include "host.h"
#include "plainnetwork.h"

#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

// What all requests with a body have in common, seen through a usage event.
class tst_JsonTransport : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void refusesWhenNotConfigured_data();
    void refusesWhenNotConfigured();
    void sendsCompactJsonUnderOneHeader();
    void setsNothingElseOnTheRequest();
    void replacesThePathOfTheServerUrlAlone();
    void sendsUtf8();
    void laterChangesDoNotReachTheRequest();
    void connectionClosedBeforeAnyAnswerEndsInOneSignal();
    void followsReplyOrderNotCallOrder();
};

void tst_JsonTransport::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_JsonTransport::refusesWhenNotConfigured_data()
{
    QTest::addColumn<bool>("hasServerUrl");
    QTest::addColumn<bool>("hasProductCode");

    QTest::newRow("nothing-set") << false << false;
    QTest::newRow("no-server-url") << false << true;
    QTest::newRow("no-product-code") << true << false;
}

void tst_JsonTransport::refusesWhenNotConfigured()
{
    QFETCH(bool, hasServerUrl);
    QFETCH(bool, hasProductCode);

    Host host;
    host.client.setServerUrl(hasServerUrl ? host.server.url() : QUrl(u"http://[bad"_s));
    host.client.setProductCode(hasProductCode ? u"DEMO"_s : u" \n"_s);
    host.client.sendUsage(u"K"_s, u"M"_s, u"E"_s, {});
    // Before the call returned.
    QCOMPARE(host.log.lines(),
             QStringList{SignalLog::networkError(u"Server URL o product code non configurati."_s)});
    QVERIFY(!host.client.findChild<QNetworkReply *>());
}

void tst_JsonTransport::sendsCompactJsonUnderOneHeader()
{
    Host host;
    host.server.script(LoopbackServer::response(200, "{}"));
    host.client.sendUsage(u"K"_s, u"M"_s, u"E"_s, {{u"list"_s, QJsonArray{1, u"a b"_s}}});
    host.log.settled();
    QCOMPARE(PlainNetwork::ownPart(host.server, host.server.requests().constFirst()),
             "POST /api/v1/client/usage\n"
             "content-type: application/json\n"
             "\n"
             R"({"event_type":"E","license_key":"K","list":[1,"a b"],"machine_fingerprint":"M",)"
             R"("product_code":"DEMO"})");
}

void tst_JsonTransport::setsNothingElseOnTheRequest()
{
    Host host;
    host.client.sendUsage(u"K"_s, u"M"_s, u"E"_s, {});
    const QNetworkReply *reply = host.client.findChild<QNetworkReply *>();
    QVERIFY(reply);
    QVERIFY(host.server.waitForRequests(1));

    QNetworkRequest expected(reply->url());
    expected.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    QNetworkAccessManager plain;
    const QNetworkReply *plainReply =
        plain.post(expected, host.server.requests().constFirst().body);
    QCOMPARE(reply->request(), plainReply->request());
    QCOMPARE(reply->operation(), QNetworkAccessManager::PostOperation);
}

void tst_JsonTransport::replacesThePathOfTheServerUrlAlone()
{
    Host host;
    QUrl url = host.server.url(u"/base/path"_s);
    url.setUserInfo(u"user:secret"_s);
    url.setQuery(u"kept=1"_s);
    url.setFragment(u"part"_s);
    host.client.setServerUrl(url);
    host.client.sendUsage(u"K"_s, u"M"_s, u"E"_s, {});

    QUrl expected = url;
    expected.setPath(u"/api/v1/client/usage"_s);
    QCOMPARE(host.client.findChild<QNetworkReply *>()->url(), expected);
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(host.server.requests().constFirst().target, "/api/v1/client/usage?kept=1");
}

void tst_JsonTransport::sendsUtf8()
{
    Host host;
    host.client.sendUsage(u"\u00E8\U0001F600"_s, u"\u65E5\u672C"_s, u"\"\\\n\u0001"_s, {});
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(host.server.requests().constFirst().body,
             "{\"event_type\":\"\\\"\\\\\\n\\u0001\",\"license_key\":\"\xC3\xA8\xF0\x9F\x98\x80\","
             "\"machine_fingerprint\":\"\xE6\x97\xA5\xE6\x9C\xAC\",\"product_code\":\"DEMO\"}");
}

void tst_JsonTransport::laterChangesDoNotReachTheRequest()
{
    Host host;
    QJsonObject payload{{u"a"_s, 1}};
    host.client.sendUsage(u"K"_s, u"M"_s, u"E"_s, payload);
    payload.insert(u"a"_s, 2);
    host.client.setProductCode(u"OTHER"_s);
    host.client.setServerUrl(QUrl());
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(host.server.requests().constFirst().body,
             R"({"a":1,"event_type":"E","license_key":"K","machine_fingerprint":"M",)"
             R"("product_code":"DEMO"})");
}

// The network layer may send such a request again by itself; the client must not on top of it.
void tst_JsonTransport::connectionClosedBeforeAnyAnswerEndsInOneSignal()
{
    Host host;
    for (int i = 0; i < 8; ++i)
        host.server.script({}, LoopbackServer::Close);
    host.client.capturePayPalPurchase(u"O"_s);
    const QStringList lines = host.log.settled();
    const qsizetype requestCount = host.server.requests().size();

    LoopbackServer plainServer;
    for (int i = 0; i < 7; ++i)
        plainServer.script({}, LoopbackServer::Close);
    const PlainNetwork::Answer plain = PlainNetwork::ask(
        plainServer, host.server.requests().constFirst(), {}, LoopbackServer::Close);
    QCOMPARE(lines, QStringList{SignalLog::networkError(plain.errorString)});
    QCOMPARE(requestCount, plainServer.requests().size());
}

void tst_JsonTransport::followsReplyOrderNotCallOrder()
{
    Host host;
    host.client.sendUsage(u"first"_s, u"M"_s, u"E"_s, {});
    QVERIFY(host.server.waitForRequests(1));
    host.client.sendUsage(u"second"_s, u"M"_s, u"E"_s, {});
    QVERIFY(host.server.waitForRequests(2));
    QVERIFY(host.server.requests().at(0).body.contains("first"));

    QSignalSpy sent(&host.client, &Corvane::usageSent);
    host.server.reply(1, LoopbackServer::response(200, R"({"error":{"message":"second"}})"));
    QVERIFY(sent.wait());
    host.server.reply(0, LoopbackServer::response(200, R"({"error":{"message":"first"}})"));
    QCOMPARE(host.log.settled(),
             (QStringList{SignalLog::usageSent(false, u"second"_s),
                          SignalLog::usageSent(false, u"first"_s)}));
}

QTEST_GUILESS_MAIN(tst_JsonTransport)
#include "tst_jsontransport.moc"
