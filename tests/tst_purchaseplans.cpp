#include "host.h"
#include "plainnetwork.h"

#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

class tst_PurchasePlans : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void refusesWhenNotConfigured_data();
    void refusesWhenNotConfigured();
    void sendsRequest();
    void setsNothingOnTheRequest();
    void replacesPathAndQueryOfTheServerUrl();
    void encodesProductCode_data();
    void encodesProductCode();
    void passesPlansOnAsSent();
    void answerWithoutListIsAnEmptyList_data();
    void answerWithoutListIsAnEmptyList();
    void failedTransferIsANetworkError();
    void overlappingCallsEachAnswer();
};

void tst_PurchasePlans::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_PurchasePlans::refusesWhenNotConfigured_data()
{
    QTest::addColumn<QUrl>("serverUrl");
    QTest::addColumn<QString>("productCode");

    QTest::newRow("no-server-url") << QUrl() << u"DEMO"_s;
    QTest::newRow("invalid-server-url") << QUrl(u"http://[bad"_s) << u"DEMO"_s;
    QTest::newRow("no-product-code") << QUrl(u"http://127.0.0.1:1"_s) << QString();
}

void tst_PurchasePlans::refusesWhenNotConfigured()
{
    QFETCH(QUrl, serverUrl);
    QFETCH(QString, productCode);

    Host host;
    host.client.setServerUrl(serverUrl);
    host.client.setProductCode(productCode);
    host.client.fetchPurchasePlans();
    QCOMPARE(host.log.lines(),
             QStringList{SignalLog::networkError(u"Server URL o product code non configurati."_s)});
    QVERIFY(!host.client.findChild<QNetworkReply *>());
}

void tst_PurchasePlans::sendsRequest()
{
    Host host;
    host.client.fetchPurchasePlans();
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(PlainNetwork::ownPart(host.server, host.server.requests().constFirst()),
             "GET /api/v1/purchase/plans?product_code=DEMO\n\n");
}

void tst_PurchasePlans::setsNothingOnTheRequest()
{
    Host host;
    host.client.fetchPurchasePlans();
    const QNetworkReply *reply = host.client.findChild<QNetworkReply *>();
    QVERIFY(reply);
    QNetworkAccessManager plain;
    const QNetworkReply *plainReply = plain.get(QNetworkRequest(reply->url()));
    QCOMPARE(reply->request(), plainReply->request());
    QCOMPARE(reply->operation(), QNetworkAccessManager::GetOperation);
}

void tst_PurchasePlans::replacesPathAndQueryOfTheServerUrl()
{
    Host host;
    QUrl url = host.server.url(u"/base/path"_s);
    url.setUserInfo(u"user:secret"_s);
    url.setQuery(u"old=1&product_code=OLD"_s);
    url.setFragment(u"part"_s);
    host.client.setServerUrl(url);
    host.client.fetchPurchasePlans();

    QUrl expected = url;
    expected.setPath(u"/api/v1/purchase/plans"_s);
    expected.setQuery(u"product_code=DEMO"_s);
    QCOMPARE(host.client.findChild<QNetworkReply *>()->url(), expected);
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(host.server.requests().constFirst().target,
             "/api/v1/purchase/plans?product_code=DEMO");
}

void tst_PurchasePlans::encodesProductCode_data()
{
    QTest::addColumn<QString>("productCode");
    QTest::addColumn<QByteArray>("inQuery");

    QTest::newRow("unreserved") << u"AZ09-._~"_s << QByteArray("AZ09-._~");
    QTest::newRow("blank") << u"A B"_s << QByteArray("A%20B");
    QTest::newRow("ampersand") << u"A&X=1"_s << QByteArray("A%26X%3D1");
    QTest::newRow("plus") << u"A+B"_s << QByteArray("A%2BB");
    QTest::newRow("percent") << u"A%20B"_s << QByteArray("A%2520B");
    QTest::newRow("hash") << u"A#B"_s << QByteArray("A%23B");
    QTest::newRow("reserved") << u"/?:@!$'()*,;[]\""_s
                              << QByteArray("%2F%3F%3A%40%21%24%27%28%29%2A%2C%3B%5B%5D%22");
    QTest::newRow("not-ascii") << u"\u00E8"_s << QByteArray("%C3%88");
    QTest::newRow("outside-the-basic-plane") << u"\U0001F600"_s << QByteArray("%F0%9F%98%80");
}

void tst_PurchasePlans::encodesProductCode()
{
    QFETCH(QString, productCode);
    QFETCH(QByteArray, inQuery);

    Host host;
    host.client.setProductCode(productCode);
    host.client.fetchPurchasePlans();
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(host.server.requests().constFirst().target,
             "/api/v1/purchase/plans?product_code=" + inQuery);
}

void tst_PurchasePlans::passesPlansOnAsSent()
{
    const QByteArray plans = R"([{"z":1,"a":[null,true],"code":"M"},{"code":"Y","price":9.90},)"
                             R"("text",null,[]])";
    Host host;
    host.server.script(LoopbackServer::response(200, R"({"success":false,"plans":)" + plans + '}'));
    host.client.fetchPurchasePlans();
    QCOMPARE(host.log.settled(),
             QStringList{SignalLog::purchasePlansReceived(QJsonDocument::fromJson(plans).array())});
}

void tst_PurchasePlans::answerWithoutListIsAnEmptyList_data()
{
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("missing") << QByteArray(R"({"success":true})");
    QTest::newRow("empty") << QByteArray(R"({"plans":[]})");
    QTest::newRow("object") << QByteArray(R"({"plans":{"0":{}}})");
    QTest::newRow("null") << QByteArray(R"({"plans":null})");
    QTest::newRow("text") << QByteArray(R"({"plans":"[1]"})");
    QTest::newRow("number") << QByteArray(R"({"plans":1})");
    QTest::newRow("true") << QByteArray(R"({"plans":true})");
    QTest::newRow("other-case") << QByteArray(R"({"Plans":[1]})");
    QTest::newRow("empty-object") << QByteArray("{}");
    QTest::newRow("empty-body") << QByteArray();
    QTest::newRow("html") << QByteArray("<html>[1]</html>");
    QTest::newRow("truncated") << QByteArray(R"({"plans":[1])");
    QTest::newRow("top-level-array") << QByteArray(R"([{"code":"M"}])");
    QTest::newRow("top-level-scalar") << QByteArray("1");
}

void tst_PurchasePlans::answerWithoutListIsAnEmptyList()
{
    QFETCH(QByteArray, body);

    Host host;
    host.server.script(LoopbackServer::response(200, body));
    host.client.fetchPurchasePlans();
    QCOMPARE(host.log.settled(), QStringList{SignalLog::purchasePlansReceived({})});
}

void tst_PurchasePlans::failedTransferIsANetworkError()
{
    const QByteArray refusal =
        LoopbackServer::response(403, R"({"plans":[1],"error":{"message":"No"}})");
    Host host;
    host.server.script(refusal);
    host.client.fetchPurchasePlans();
    const QStringList lines = host.log.settled();
    const QString text =
        PlainNetwork::ask(host.server, host.server.requests().constFirst(), refusal).errorString;
    QCOMPARE(lines, QStringList{SignalLog::networkError(text)});
}

void tst_PurchasePlans::overlappingCallsEachAnswer()
{
    Host host;
    host.client.fetchPurchasePlans();
    host.client.fetchPurchasePlans();
    QVERIFY(host.server.waitForRequests(2));
    QSignalSpy received(&host.client, &Corvane::purchasePlansReceived);
    host.server.reply(1, LoopbackServer::response(200, R"({"plans":[1]})"));
    QVERIFY(received.wait());
    host.server.reply(0, LoopbackServer::response(200, R"({"plans":[2]})"));
    QCOMPARE(host.log.settled(),
             (QStringList{SignalLog::purchasePlansReceived({1}),
                          SignalLog::purchasePlansReceived({2})}));
}

QTEST_GUILESS_MAIN(tst_PurchasePlans)
#include "tst_purchaseplans.moc"
