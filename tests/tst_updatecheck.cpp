#include "host.h"
#include "plainnetwork.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qlocale.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qscopeguard.h>
#include <QtCore/qurlquery.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

class tst_UpdateCheck : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void refusesWhenNotConfigured_data();
    void refusesWhenNotConfigured();
    void refusalKeepsTheStoredVersion();
    void sendsRequest();
    void setsNothingElseOnTheRequest();
    void stampsRequestWithTheTime();
    void requestsOfOneMillisecondAreAlike();
    void replacesPathAndQueryOfTheServerUrl();
    void encodesProductCodeInThePath_data();
    void encodesProductCodeInThePath();
    void encodesChannelInTheQuery_data();
    void encodesChannelInTheQuery();
    void acceptsEmptyVersionAndChannel();
    void reportsRelease();
    void comparesVersionsLetterForLetter_data();
    void comparesVersionsLetterForLetter();
    void reportsAnswerWithoutUsableRelease_data();
    void reportsAnswerWithoutUsableRelease();
    void readsTextsOnly_data();
    void readsTextsOnly();
    void neitherUrlStandsInForTheOther_data();
    void neitherUrlStandsInForTheOther();
    void keepsTextsAsSent();
    void reportsReleaseOfAnotherProduct();
    void failedTransferIsANetworkError();
    void overlappingChecksShareTheVersionGivenLast();
};

namespace {

const auto notConfigured = SignalLog::networkError(u"Server URL o product code non configurati."_s);

QJsonObject objectFrom(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

// What the client reports for this body, answered with success to a check from version 1.4.0.
QStringList reportFor(const QByteArray &body, const QString &currentVersion = u"1.4.0"_s)
{
    Host host;
    host.server.script(LoopbackServer::response(200, body));
    host.client.checkForUpdate(currentVersion, u"stable"_s);
    return host.log.settled();
}

// The record of an answer that offers nothing.
UpdateInfo nothing(const QByteArray &body, const QString &currentVersion = u"1.4.0"_s)
{
    UpdateInfo update;
    update.currentVersion = currentVersion;
    update.raw = objectFrom(body);
    return update;
}

} // namespace

void tst_UpdateCheck::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_UpdateCheck::refusesWhenNotConfigured_data()
{
    QTest::addColumn<QUrl>("serverUrl");
    QTest::addColumn<QString>("productCode");

    const QUrl url(u"http://127.0.0.1:1"_s);
    QTest::newRow("nothing-set") << QUrl() << QString();
    QTest::newRow("no-server-url") << QUrl() << u"DEMO"_s;
    QTest::newRow("invalid-server-url") << QUrl(u"http://[bad"_s) << u"DEMO"_s;
    QTest::newRow("no-product-code") << url << QString();
    QTest::newRow("blank-product-code") << url << u" \t\n"_s;
}

void tst_UpdateCheck::refusesWhenNotConfigured()
{
    QFETCH(QUrl, serverUrl);
    QFETCH(QString, productCode);

    Corvane client;
    SignalLog log(&client);
    client.setServerUrl(serverUrl);
    client.setProductCode(productCode);
    client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    QCOMPARE(log.lines(), QStringList{notConfigured}); // before the call returned
    QVERIFY(!client.findChild<QNetworkReply *>());
}

void tst_UpdateCheck::refusalKeepsTheStoredVersion()
{
    Host host;
    host.client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    QVERIFY(host.server.waitForRequests(1));
    host.client.setServerUrl(QUrl());
    host.client.checkForUpdate(u"9.9.9"_s, u"stable"_s);
    host.server.reply(0, LoopbackServer::response(200, "{}"));

    QCOMPARE(host.log.settled(),
             (QStringList{notConfigured, SignalLog::updateChecked(nothing("{}"))}));
    QCOMPARE(host.server.requests().size(), 1);
}

void tst_UpdateCheck::sendsRequest()
{
    Host host;
    host.server.script(LoopbackServer::response(200, "{}"));
    host.client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    host.log.settled();

    const LoopbackServer::Request request = host.server.requests().constFirst();
    QByteArray sent = PlainNetwork::ownPart(host.server, request);
    static const QRegularExpression digits(u"&_=[1-9][0-9]{12}\n"_s);
    const QString canonical = QString::fromUtf8(sent).replace(digits, u"&_=<time>\n"_s);
    QCOMPARE(canonical,
             u"GET /api/v1/releases/latest/DEMO?channel=stable&_=<time>\n"
             "cache-control: no-cache\n"
             "pragma: no-cache\n"
             "\n"_s);
}

// The network layer adds the two headers by itself for the attribute, so the wire cannot tell
// whether the client set them: the request object can.
void tst_UpdateCheck::setsNothingElseOnTheRequest()
{
    Host host;
    host.client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    const QNetworkReply *reply = host.client.findChild<QNetworkReply *>();
    QVERIFY(reply);

    QVERIFY(PlainNetwork::isUncachedGet(reply->request()));
    QCOMPARE(reply->operation(), QNetworkAccessManager::GetOperation);
}

void tst_UpdateCheck::stampsRequestWithTheTime()
{
    Host host;
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    host.client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    const qint64 after = QDateTime::currentMSecsSinceEpoch();

    const QUrlQuery query(host.client.findChild<QNetworkReply *>()->url());
    QCOMPARE(query.queryItems().size(), 2);
    QCOMPARE(query.queryItems().at(0).first, u"channel"_s);
    QCOMPARE(query.queryItems().at(1).first, u"_"_s);
    const qint64 stamp = query.queryItemValue(u"_"_s).toLongLong();
    QVERIFY(before <= stamp && stamp <= after);
}

void tst_UpdateCheck::requestsOfOneMillisecondAreAlike()
{
    // Some pair of calls falls into one millisecond; a thousand tries are more than enough, even
    // where all is slow, as no connection is made.
    Corvane client;
    client.setServerUrl(QUrl(u"unknown://127.0.0.1"_s));
    client.setProductCode(u"DEMO"_s);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        qDeleteAll(client.findChildren<QNetworkReply *>());
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
        client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
        if (QDateTime::currentMSecsSinceEpoch() != before)
            continue;
        const auto replies = client.findChildren<QNetworkReply *>();
        QCOMPARE(replies.size(), 2);
        QCOMPARE(replies.at(0)->url(), replies.at(1)->url());
        return;
    }
    QFAIL("No two calls fell into one millisecond");
}

void tst_UpdateCheck::replacesPathAndQueryOfTheServerUrl()
{
    Host host;
    QUrl url = host.server.url(u"/base/path"_s);
    url.setUserInfo(u"user:secret"_s);
    url.setQuery(u"old=1"_s);
    url.setFragment(u"part"_s);
    host.client.setServerUrl(url);
    host.client.checkForUpdate(u"1.4.0"_s, u"stable"_s);

    const QUrl sent = host.client.findChild<QNetworkReply *>()->url();
    QUrl expected = url;
    expected.setPath(u"/api/v1/releases/latest/DEMO"_s);
    expected.setQuery(sent.query());
    QCOMPARE(sent, expected);
    QVERIFY(sent.query().startsWith("channel=stable&_="_L1));
    QVERIFY(host.server.waitForRequests(1));
    QVERIFY(host.server.requests().constFirst().target.startsWith(
        "/api/v1/releases/latest/DEMO?channel=stable&_="));
}

void tst_UpdateCheck::encodesProductCodeInThePath_data()
{
    QTest::addColumn<QString>("productCode");
    QTest::addColumn<QByteArray>("inPath");

    QTest::newRow("blank") << u"A B"_s << QByteArray("A%20B");
    QTest::newRow("percent-is-literal") << u"A%20B"_s << QByteArray("A%2520B");
    QTest::newRow("question-mark") << u"A?B"_s << QByteArray("A%3FB");
    QTest::newRow("hash") << u"A#B"_s << QByteArray("A%23B");
    QTest::newRow("ampersand-and-plus") << u"A&B+C"_s << QByteArray("A&B+C");
    QTest::newRow("slash") << u"A/B"_s << QByteArray("A/B");
    QTest::newRow("not-ascii") << u"\u00E8"_s << QByteArray("%C3%88");
    QTest::newRow("outside-the-basic-plane") << u"\U0001F600"_s << QByteArray("%F0%9F%98%80");
}

void tst_UpdateCheck::encodesProductCodeInThePath()
{
    QFETCH(QString, productCode);
    QFETCH(QByteArray, inPath);

    Host host;
    host.client.setProductCode(productCode);
    host.client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    QVERIFY(host.server.waitForRequests(1));
    const QByteArray target = host.server.requests().constFirst().target;
    QCOMPARE(target.left(target.indexOf('?')), "/api/v1/releases/latest/" + inPath);
}

void tst_UpdateCheck::encodesChannelInTheQuery_data()
{
    QTest::addColumn<QString>("channel");
    QTest::addColumn<QByteArray>("inQuery");

    QTest::newRow("blanks-and-case-kept") << u" Beta "_s << QByteArray("%20Beta%20");
    QTest::newRow("ampersand") << u"a&_=1"_s << QByteArray("a%26_%3D1");
    QTest::newRow("hash") << u"a#b"_s << QByteArray("a%23b");
    QTest::newRow("plus") << u"a+b"_s << QByteArray("a+b");
    QTest::newRow("bare-percent") << u"100%"_s << QByteArray("100%25");
    QTest::newRow("not-ascii") << u"\u00E8"_s << QByteArray("%C3%A8");
    QTest::newRow("outside-the-basic-plane") << u"\U0001F600"_s << QByteArray("%F0%9F%98%80");
}

void tst_UpdateCheck::encodesChannelInTheQuery()
{
    QFETCH(QString, channel);
    QFETCH(QByteArray, inQuery);

    Host host;
    host.client.checkForUpdate(u"1.4.0"_s, channel);
    QVERIFY(host.server.waitForRequests(1));
    const QByteArray target = host.server.requests().constFirst().target;
    QCOMPARE(target.left(target.lastIndexOf("&_=")),
             "/api/v1/releases/latest/DEMO?channel=" + inQuery);
}

void tst_UpdateCheck::acceptsEmptyVersionAndChannel()
{
    Host host;
    const QByteArray body = R"({"success":true,"release":{"version":"1"}})";
    host.server.script(LoopbackServer::response(200, body));
    host.client.checkForUpdate(u""_s, u""_s);

    UpdateInfo expected = nothing(body, u""_s);
    expected.latestVersion = u"1"_s;
    expected.updateAvailable = true;
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateChecked(expected)});
    QVERIFY(host.server.requests().constFirst().target.startsWith(
        "/api/v1/releases/latest/DEMO?channel=&_="));
}

void tst_UpdateCheck::reportsRelease()
{
    const QByteArray body =
        R"({"success":true,"extra":[1],"release":{"product_code":"DEMO",)"
        R"("version":"1.5.0","download_url":"http://d/1","stable_download_url":)"
        R"("http://d/2","sha256":"00FF","notes":"Novità"}})";
    UpdateInfo expected;
    expected.updateAvailable = true;
    expected.productCode = u"DEMO"_s;
    expected.currentVersion = u"1.4.0"_s;
    expected.latestVersion = u"1.5.0"_s;
    expected.downloadUrl = u"http://d/1"_s;
    expected.stableDownloadUrl = u"http://d/2"_s;
    expected.sha256 = u"00FF"_s;
    expected.notes = u"Novit\u00E0"_s;
    expected.raw = objectFrom(body);
    QCOMPARE(reportFor(body), QStringList{SignalLog::updateChecked(expected)});
}

void tst_UpdateCheck::comparesVersionsLetterForLetter_data()
{
    QTest::addColumn<QString>("currentVersion");
    QTest::addColumn<QString>("latestVersion");
    QTest::addColumn<bool>("updateAvailable");

    QTest::newRow("equal") << u"1.4.0"_s << u"1.4.0"_s << false;
    QTest::newRow("newer") << u"1.4.0"_s << u"1.5.0"_s << true;
    QTest::newRow("older") << u"1.10"_s << u"1.9"_s << true;
    QTest::newRow("other-case") << u"1.4.0-rc"_s << u"1.4.0-RC"_s << true;
    QTest::newRow("surrounding-blank") << u"1.4.0"_s << u"1.4.0 "_s << true;
    QTest::newRow("leading-v") << u"1.4.0"_s << u"v1.4.0"_s << true;
    QTest::newRow("trailing-zero") << u"1.4"_s << u"1.4.0"_s << true;
    QTest::newRow("composed-otherwise") << u"\u00E9"_s << u"e\u0301"_s << true;
    QTest::newRow("blanks-around-installed") << u" 1.4.0 "_s << u"1.4.0"_s << true;
    QTest::newRow("nothing-installed") << QString() << u"1.4.0"_s << true;
    QTest::newRow("nothing-offered") << u"1.4.0"_s << QString() << false;
    QTest::newRow("nothing-at-all") << QString() << QString() << false;
}

void tst_UpdateCheck::comparesVersionsLetterForLetter()
{
    QFETCH(QString, currentVersion);
    QFETCH(QString, latestVersion);
    QFETCH(bool, updateAvailable);

    // Where a comparison for people would take some of these texts for equal.
    const auto restore = qScopeGuard([before = QLocale()] { QLocale::setDefault(before); });
    QLocale::setDefault(QLocale(QLocale::Italian, QLocale::Italy));
    const QJsonObject reply{{u"success"_s, true},
                            {u"release"_s, QJsonObject{{u"version"_s, latestVersion}}}};
    const QByteArray body = QJsonDocument(reply).toJson();
    UpdateInfo expected = nothing(body, currentVersion);
    expected.latestVersion = latestVersion;
    expected.updateAvailable = updateAvailable;
    QCOMPARE(reportFor(body, currentVersion), QStringList{SignalLog::updateChecked(expected)});
}

void tst_UpdateCheck::reportsAnswerWithoutUsableRelease_data()
{
    QTest::addColumn<QByteArray>("body");

    const QByteArray release = R"("release":{"product_code":"P","version":"2","download_url":"d",)"
                               R"("stable_download_url":"s","sha256":"h","notes":"n"})";
    QTest::newRow("success-false") << QByteArray(R"({"success":false,)" + release + '}');
    QTest::newRow("success-missing") << QByteArray('{' + release + '}');
    QTest::newRow("success-null") << QByteArray(R"({"success":null,)" + release + '}');
    QTest::newRow("success-text") << QByteArray(R"({"success":"true",)" + release + '}');
    QTest::newRow("success-number") << QByteArray(R"({"success":1,)" + release + '}');
    QTest::newRow("success-array") << QByteArray(R"({"success":[true],)" + release + '}');
    QTest::newRow("success-object") << QByteArray(R"({"success":{},)" + release + '}');
    QTest::newRow("error-object") << QByteArray(R"({"success":false,"error":{"message":"No"}})");
    QTest::newRow("release-missing") << QByteArray(R"({"success":true})");
    QTest::newRow("release-null") << QByteArray(R"({"success":true,"release":null})");
    QTest::newRow("release-text") << QByteArray(R"({"success":true,"release":"2"})");
    QTest::newRow("release-number") << QByteArray(R"({"success":true,"release":2})");
    QTest::newRow("release-array") << QByteArray(R"({"success":true,"release":[{"version":"2"}]})");
    QTest::newRow("release-empty") << QByteArray(R"({"success":true,"release":{}})");
    QTest::newRow("members-at-top-level") << QByteArray(R"({"success":true,"version":"2"})");
    QTest::newRow("empty-object") << QByteArray("{}");
    QTest::newRow("empty-body") << QByteArray();
    QTest::newRow("html") << QByteArray("<html>200</html>");
    QTest::newRow("truncated") << QByteArray(R"({"success":true,"release":{"version":"2")");
    QTest::newRow("array") << QByteArray(R"([{"success":true,"release":{"version":"2"}}])");
    QTest::newRow("scalar") << QByteArray("true");
}

void tst_UpdateCheck::reportsAnswerWithoutUsableRelease()
{
    QFETCH(QByteArray, body);

    QCOMPARE(reportFor(body), QStringList{SignalLog::updateChecked(nothing(body))});
}

void tst_UpdateCheck::readsTextsOnly_data()
{
    QTest::addColumn<QByteArray>("member");
    QTest::addColumn<QByteArray>("value");

    for (const char *member :
         {"product_code", "version", "download_url", "stable_download_url", "sha256", "notes"})
    {
        for (const char *value : {"null", "true", "15", R"(["x"])", R"({"x":"x"})"})
            QTest::addRow("%s-%s", member, value) << QByteArray(member) << QByteArray(value);
    }
}

void tst_UpdateCheck::readsTextsOnly()
{
    QFETCH(QByteArray, member);
    QFETCH(QByteArray, value);

    const QByteArray body = R"({"success":true,"release":{")" + member + R"(":)" + value + "}}";
    QCOMPARE(reportFor(body), QStringList{SignalLog::updateChecked(nothing(body))});
}

void tst_UpdateCheck::neitherUrlStandsInForTheOther_data()
{
    QTest::addColumn<QByteArray>("release");
    QTest::addColumn<QString>("downloadUrl");
    QTest::addColumn<QString>("stableDownloadUrl");

    const auto row = [](const char *name, const char *release, const QString &downloadUrl,
                        const QString &stableDownloadUrl) {
        QTest::newRow(name) << QByteArray(release) << downloadUrl << stableDownloadUrl;
    };
    const QString url = u"http://d/1"_s;
    row("download-url-missing", R"({"stable_download_url":"http://d/1"})", {}, url);
    row("download-url-empty", R"({"download_url":"","stable_download_url":"http://d/1"})", {}, url);
    row("stable-download-url-missing", R"({"download_url":"http://d/1"})", url, {});
    row("stable-download-url-empty", R"({"download_url":"http://d/1","stable_download_url":""})",
        url, {});
}

void tst_UpdateCheck::neitherUrlStandsInForTheOther()
{
    QFETCH(QByteArray, release);
    QFETCH(QString, downloadUrl);
    QFETCH(QString, stableDownloadUrl);

    const QByteArray body = R"({"success":true,"release":)" + release + '}';
    UpdateInfo expected = nothing(body);
    expected.downloadUrl = downloadUrl;
    expected.stableDownloadUrl = stableDownloadUrl;
    QCOMPARE(reportFor(body), QStringList{SignalLog::updateChecked(expected)});
}

void tst_UpdateCheck::keepsTextsAsSent()
{
    const QByteArray body =
        R"({"success":true,"release":{"product_code":" demo ","version":" 1.5 ",)"
        R"("download_url":"not a url","stable_download_url":" ","sha256":"zz",)"
        R"("notes":"\n\ud83d\ude00\u0000"}})";
    UpdateInfo expected = nothing(body);
    expected.updateAvailable = true;
    expected.productCode = u" demo "_s;
    expected.latestVersion = u" 1.5 "_s;
    expected.downloadUrl = u"not a url"_s;
    expected.stableDownloadUrl = u" "_s;
    expected.sha256 = u"zz"_s;
    expected.notes = u"\n\U0001F600\0"_s;
    QCOMPARE(reportFor(body), QStringList{SignalLog::updateChecked(expected)});
}

void tst_UpdateCheck::reportsReleaseOfAnotherProduct()
{
    const QByteArray body = R"({"success":true,"release":{"product_code":"OTHER","version":"2"}})";
    UpdateInfo expected = nothing(body);
    expected.updateAvailable = true;
    expected.productCode = u"OTHER"_s;
    expected.latestVersion = u"2"_s;
    QCOMPARE(reportFor(body), QStringList{SignalLog::updateChecked(expected)});
}

void tst_UpdateCheck::failedTransferIsANetworkError()
{
    const QByteArray refusal =
        LoopbackServer::response(404, R"({"success":true,"error":{"message":"Sconosciuto"}})");
    Host host;
    host.server.script(refusal);
    host.client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    const QStringList lines = host.log.settled();
    const QString text =
        PlainNetwork::ask(host.server, host.server.requests().constFirst(), refusal).errorString;
    QCOMPARE(lines, QStringList{SignalLog::networkError(text)});
}

void tst_UpdateCheck::overlappingChecksShareTheVersionGivenLast()
{
    Host host;
    const QByteArray body = R"({"success":true,"release":{"version":"1.4.0"}})";
    host.client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    QVERIFY(host.server.waitForRequests(1));
    host.client.checkForUpdate(u"1.5.0"_s, u"stable"_s);
    QVERIFY(host.server.waitForRequests(2));
    host.server.reply(0, LoopbackServer::response(200, body));
    host.server.reply(1, LoopbackServer::response(200, body));

    UpdateInfo expected = nothing(body, u"1.5.0"_s);
    expected.latestVersion = u"1.4.0"_s;
    expected.updateAvailable = true;
    const QString line = SignalLog::updateChecked(expected);
    QCOMPARE(host.log.settled(), (QStringList{line, line}));
}

QTEST_GUILESS_MAIN(tst_UpdateCheck)
#include "tst_updatecheck.moc"
