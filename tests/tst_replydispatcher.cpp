#include "files.h"
#include "host.h"
#include "operations.h"
#include "plainnetwork.h"

#include <QtCore/qdir.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qtemporarydir.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>
#include <QtTest/qtesteventloop.h>

#include <memory>

using namespace Qt::StringLiterals;

// Which signal every operation's reply ends in, and what all replies have in common.
class tst_ReplyDispatcher : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void routesReply_data();
    void routesReply();
    void onlyAStatusAboveZeroCarriesAnExplanation_data();
    void onlyAStatusAboveZeroCarriesAnExplanation();
    void refusedUsageTakesTheServicesTextOrTheNetworks_data();
    void refusedUsageTakesTheServicesTextOrTheNetworks();
    void anyBodyGivesOneSignal_data();
    void anyBodyGivesOneSignal();
    void anySchemeGivesOneSignal_data();
    void anySchemeGivesOneSignal();
    void downloadsDataUrl();
    void signalsFollowTheOrderOfReplies();
    void replyLivesUntilTheEventLoopThenIsGone_data();
    void replyLivesUntilTheEventLoopThenIsGone();
    void replyIsGoneBeforeWhatASlotPosts_data();
    void replyIsGoneBeforeWhatASlotPosts();
    void everyOperationMayBeCalledFromASlot();
    void connectionBelongsToTheClient();
    void destroyedClientSaysNothing();

private:
    QString destination() const { return m_dir.filePath(u"download"_s); }

    QTemporaryDir m_dir;
};

namespace {

// Stands in an expected line for the text that a plain request gets.
const QString errorText = u"<error text>"_s;

// An answer that every operation can make something of.
const QByteArray answer = R"({"success":true,"paid":true,"plans":[1],"release":{"version":"2"},)"
                          R"("error":{"message":"Testo"}})";

// Of the operations in their order.
const QStringList resultSignals{
    u"usageSent"_s,       u"updateChecked"_s,   u"updateDownloaded"_s, u"purchasePlansReceived"_s,
    u"purchaseStarted"_s, u"purchaseStarted"_s, u"purchaseCaptured"_s};

UpdateInfo updateOf(const QJsonObject &reply)
{
    UpdateInfo update;
    update.updateAvailable = true;
    update.currentVersion = u"x"_s;
    update.latestVersion = u"2"_s;
    update.raw = reply;
    return update;
}

PurchaseStartInfo purchaseOf(const QJsonObject &reply, bool success, const QString &message)
{
    PurchaseStartInfo purchase;
    purchase.success = success;
    purchase.message = message;
    purchase.raw = reply;
    return purchase;
}

PurchaseCaptureInfo captureOf(const QJsonObject &reply, bool paid, const QString &message)
{
    PurchaseCaptureInfo capture;
    capture.paid = paid;
    capture.message = message;
    capture.raw = reply;
    return capture;
}

} // namespace

void tst_ReplyDispatcher::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
    QFile::remove(destination());
}

void tst_ReplyDispatcher::routesReply_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<QByteArray>("response"); // null: nothing listens
    QTest::addColumn<QString>("line");

    const QJsonObject object = QJsonDocument::fromJson(answer).object();
    const QString started =
        SignalLog::purchaseStarted(purchaseOf(object, true, u"Pagamento avviato."_s));
    const QString captured =
        SignalLog::purchaseCaptured(captureOf(object, true, u"Pagamento completato."_s));
    const QString notStarted =
        SignalLog::purchaseStarted(purchaseOf({}, false, u"Pagamento non avviato."_s));
    const QString notCaptured =
        SignalLog::purchaseCaptured(captureOf({}, false, u"Pagamento non completato."_s));
    const QString error = SignalLog::networkError(errorText);

    const struct
    {
        const char *name;
        QByteArray response;
        QStringList lines; // of the operations in their order
    } replies[] = {
        {"success",
         LoopbackServer::response(200, answer),
         {SignalLog::usageSent(true, u"Testo"_s), SignalLog::updateChecked(updateOf(object)),
          SignalLog::updateDownloaded(destination()), SignalLog::purchasePlansReceived({1}),
          started, started, captured}},
        {"answered-failure",
         LoopbackServer::response(403, answer),
         {SignalLog::usageSent(false, u"Testo"_s), error, error, error, started, started,
          captured}},
        {"answered-failure-html",
         LoopbackServer::response(502, "<html></html>", "text/html"),
         {SignalLog::usageSent(false, errorText), error, error, error, notStarted, notStarted,
          notCaptured}},
        {"failure-without-body",
         LoopbackServer::response(403, ""),
         {error, error, error, error, error, error, error}},
        {"failure-without-status", {}, {error, error, error, error, error, error, error}},
    };
    const QList<Operation> all = operations({}, {});
    for (const auto &reply : replies) {
        for (int i = 0; i < all.size(); ++i)
            QTest::addRow("%s-%s", all.at(i).name, reply.name)
                << i << reply.response << reply.lines.at(i);
    }
}

void tst_ReplyDispatcher::routesReply()
{
    QFETCH(int, operation);
    QFETCH(QByteArray, response);
    QFETCH(QString, line);

    Host host;
    const QUrl nowhere(u"http://127.0.0.1:1/"_s);
    if (response.isNull())
        host.client.setServerUrl(nowhere);
    host.server.script(response, LoopbackServer::Close);
    operations(response.isNull() ? nowhere : host.server.url(), destination())
        .at(operation)
        .call(host.client);
    const QStringList lines = host.log.settled();

    if (line.contains(errorText)) {
        const QString text = response.isNull()
            ? PlainNetwork::errorString(nowhere)
            : PlainNetwork::ask(host.server, host.server.requests().constFirst(), response,
                                LoopbackServer::Close)
                  .errorString;
        line.replace(
            u'"' + errorText + u'"',
            QString::fromUtf8(QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact))
                .chopped(1)
                .sliced(1));
    }
    QCOMPARE(lines, QStringList{line});
    QCOMPARE(QFile::exists(destination()), line.startsWith("updateDownloaded"_L1));
}

void tst_ReplyDispatcher::onlyAStatusAboveZeroCarriesAnExplanation_data()
{
    QTest::addColumn<QByteArray>("status");
    QTest::addColumn<bool>("explained");

    QTest::newRow("200") << QByteArray("200") << true;
    QTest::newRow("1") << QByteArray("001") << true;
    QTest::newRow("0") << QByteArray("000") << false;
    QTest::newRow("negative") << QByteArray("-12") << false;
}

// The network layer takes any three characters that are a number for a status. It makes an error,
// with the body so far, of a connection that closes too early only if it notices the two together:
// a few times in a hundred. The client goes by what its own reply says.
void tst_ReplyDispatcher::onlyAStatusAboveZeroCarriesAnExplanation()
{
    QFETCH(QByteArray, status);
    QFETCH(bool, explained);

    for (int round = 0; round < 100; ++round) {
        Host host;
        host.client.sendUsage(u"K"_s, u"M"_s, u"E"_s, {});
        const auto *reply = host.client.findChild<QNetworkReply *>();
        QString line = SignalLog::usageSent(false, {});
        connect(reply, &QNetworkReply::finished, this, [&line, reply, explained] {
            if (reply->error() != QNetworkReply::NoError)
                line = explained ? SignalLog::usageSent(false, reply->errorString())
                                 : SignalLog::networkError(reply->errorString());
        });
        QSignalSpy readable(reply, &QIODevice::readyRead);
        QVERIFY(host.server.waitForRequests(1));
        host.server.reply(0, "HTTP/1.1 " + status + " X\r\nContent-Length: 99\r\n\r\n{");
        QVERIFY(readable.wait());
        host.server.reply(0, {}, LoopbackServer::Close);
        const QStringList lines = host.log.settled();
        QCOMPARE(lines, QStringList{line});
    }
}

void tst_ReplyDispatcher::refusedUsageTakesTheServicesTextOrTheNetworks_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("message"); // null for the network layer's text

    const auto row = [](const char *name, const char *body, const QString &message) {
        QTest::newRow(name) << QByteArray(body) << message;
    };
    const QString networks;
    row("message", R"({"success":false,"error":{"message":"No"}})", u"No"_s);
    row("message-despite-success", R"({"success":true,"error":{"message":"No"}})", u"No"_s);
    row("message-empty", R"({"error":{"message":""}})", u""_s);
    row("message-null", R"({"error":{"message":null}})", networks);
    row("message-number", R"({"error":{"message":1}})", networks);
    row("message-array", R"({"error":{"message":["No"]}})", networks);
    row("error-missing", R"({"success":true})", networks);
    row("error-text", R"({"error":"No"})", networks);
    row("error-array", R"({"error":[{"message":"No"}]})", networks);
    row("message-at-top-level", R"({"message":"No"})", networks);
    row("empty-object", "{}", networks);
    row("plain-text", "No", networks);
    row("html", "<html>No</html>", networks);
    row("blank", " ", networks);
}

void tst_ReplyDispatcher::refusedUsageTakesTheServicesTextOrTheNetworks()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, message);

    for (const int status : {400, 401, 403, 404, 409, 422, 429, 500, 502, 503}) {
        Host host;
        const QByteArray response = LoopbackServer::response(status, body);
        host.server.script(response);
        host.client.sendUsage(u"K"_s, u"M"_s, u"E"_s, {});
        const QStringList lines = host.log.settled();
        const QString networks =
            PlainNetwork::ask(host.server, host.server.requests().constFirst(), response)
                .errorString;
        QCOMPARE(lines,
                 QStringList{SignalLog::usageSent(false, message.isNull() ? networks : message)});
    }
}

void tst_ReplyDispatcher::anyBodyGivesOneSignal_data()
{
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("blank") << QByteArray(" \r\n\t");
    QTest::newRow("zero-bytes") << QByteArray(64, '\0');
    QTest::newRow("not-utf-8") << QByteArray(
        "{\"error\":{\"message\":\"\xFF\xC0\x80\xED\xA0\x80\"}}");
    QTest::newRow("utf-16") << QByteArray("{\0}\0", 4);
    QTest::newRow("byte-order-mark") << QByteArray("\xEF\xBB\xBF") + answer;
    QTest::newRow("lone-surrogate") << QByteArray(R"({"error":{"message":"\ud800"}})");
    QTest::newRow("truncated") << answer.chopped(1);
    QTest::newRow("trailing-garbage") << answer + "}";
    QTest::newRow("twice") << answer + answer;
    QTest::newRow("duplicate-members") << QByteArray(R"({"success":true,"success":"no"})");
    QTest::newRow("huge-numbers") << QByteArray(
        R"({"payment_id":1e999,"license_id":-1e999,"success":1e999})");
    QTest::newRow("deep-arrays") << QByteArray(100000, '[');
    QTest::newRow("deep-objects") << QByteArray(R"({"error":)").repeated(100000);
    QTest::newRow("deep-and-closed")
        << QByteArray(R"({"a":)").repeated(900) + "1" + QByteArray("}").repeated(900);
    QTest::newRow("huge-text") << QByteArray(R"({"error":{"message":")") + QByteArray(8 << 20, 'x')
            + R"("}})";
    QTest::newRow("huge-garbage") << QByteArray(8 << 20, '\xAA');
    for (const char *value : {"null", "true", "1", R"("x")", "[]", "{}"}) {
        QByteArray body = "{";
        for (const char *member : {"success", "release", "plans", "paid", "error", "payment_id",
                                   "license_id", "license_key", "paypal_order_id", "approval_url"})
            body += QByteArray("\"") + member + "\":" + value + ',';
        QTest::addRow("every-member-%s", value) << QByteArray(body.chopped(1) + '}');
    }
}

void tst_ReplyDispatcher::anyBodyGivesOneSignal()
{
    QFETCH(QByteArray, body);

    for (const int status : {200, 500}) {
        Host host;
        const QList<Operation> all = operations(host.server.url(), destination());
        QStringList expected;
        for (int i = 0; i < all.size(); ++i) {
            host.server.script(LoopbackServer::response(status, body));
            all.at(i).call(host.client);
            host.log.settled();
            const bool explained = !body.isEmpty() && (i == 0 || i > 3);
            expected += status == 200 || explained ? resultSignals.at(i) : u"networkError"_s;
        }
        QStringList names;
        for (const QString &line : host.log.lines())
            names += line.section(u' ', 0, 0);
        QCOMPARE(names, expected);
    }
}

void tst_ReplyDispatcher::anySchemeGivesOneSignal_data()
{
    QTest::addColumn<QUrl>("url");

    QTest::newRow("relative") << QUrl(u"relative"_s);
    QTest::newRow("no-scheme") << QUrl(u"//127.0.0.1:1/x"_s);
    QTest::newRow("no-host") << QUrl(u"http:///x"_s);
    QTest::newRow("scheme-alone") << QUrl(u"http:"_s);
    QTest::newRow("unknown-scheme") << QUrl(u"unknown://127.0.0.1/x"_s);
    QTest::newRow("ftp") << QUrl(u"ftp://127.0.0.1:1/x"_s);
    QTest::newRow("missing-file") << QUrl(u"file:///no/such/file"_s);
    QTest::newRow("existing-file") << QUrl(u"file:///dev/null"_s);
    QTest::newRow("mail") << QUrl(u"mailto:someone"_s);
}

void tst_ReplyDispatcher::anySchemeGivesOneSignal()
{
    QFETCH(QUrl, url);

    QVERIFY(url.isValid());
    Host host;
    host.client.setServerUrl(url);
    const QList<Operation> all = operations(url, destination());
    for (int i = 0; i < all.size(); ++i) {
        const qsizetype before = host.log.lines().size();
        all.at(i).call(host.client);
        PlainNetwork::Outcome own;
        auto *reply = host.client.findChild<QNetworkReply *>();
        connect(reply, &QNetworkReply::finished, this,
                [&own, reply] { own = PlainNetwork::outcomeOf(reply); });
        const QStringList lines = host.log.settled().sliced(before);
        // No service answers here, so nothing explains a failure.
        QCOMPARE(lines.size(), 1);
        if (own.error == QNetworkReply::NoError)
            QCOMPARE(lines.constFirst().section(u' ', 0, 0), resultSignals.at(i));
        else
            QCOMPARE(lines.constFirst(), SignalLog::networkError(own.errorString));
    }
}

// For a download alone: with a path of the service's in it a data URL is malformed, and newer
// versions of Qt warn by themselves when such a reply is read.
void tst_ReplyDispatcher::downloadsDataUrl()
{
    Host host;
    host.client.downloadUpdate(QUrl(u"data:,text"_s), destination());
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(destination())});
    QCOMPARE(Files::contentOf(destination()), "text");
}

void tst_ReplyDispatcher::signalsFollowTheOrderOfReplies()
{
    Host host;
    // As many as the network layer sends at once to one server.
    const QList<Operation> all = operations(host.server.url(), destination()).mid(0, 6);
    for (int i = 0; i < all.size(); ++i) {
        all.at(i).call(host.client);
        QVERIFY(host.server.waitForRequests(i + 1));
    }
    QStringList names;
    for (const int i : {4, 1, 0, 5, 3, 2}) {
        host.server.reply(i, LoopbackServer::response(200, answer));
        QVERIFY(host.log.waitForLines(names.size() + 1));
        names += host.log.lines().constLast().section(u' ', 0, 0);
    }
    QCOMPARE(
        names,
        (QStringList{u"purchaseStarted"_s, u"updateChecked"_s, u"usageSent"_s, u"purchaseStarted"_s,
                     u"purchasePlansReceived"_s, u"updateDownloaded"_s}));
    QCOMPARE(host.log.settled().size(), 6);
}

void tst_ReplyDispatcher::replyLivesUntilTheEventLoopThenIsGone_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<int>("status");

    const QList<Operation> all = operations({}, {});
    for (int i = 0; i < all.size(); ++i) {
        QTest::addRow("%s-success", all.at(i).name) << i << 200;
        QTest::addRow("%s-failure", all.at(i).name) << i << 500;
    }
}

void tst_ReplyDispatcher::replyLivesUntilTheEventLoopThenIsGone()
{
    QFETCH(int, operation);
    QFETCH(int, status);

    Host host;
    host.server.script(LoopbackServer::response(status, answer));
    operations(host.server.url(), destination()).at(operation).call(host.client);
    const QPointer<QNetworkReply> reply = host.client.findChild<QNetworkReply *>();
    QVERIFY(reply);
    bool handledAndAlive = false;
    // Connected after the client's own connection, so called after it has handled the reply, and
    // read it to its end.
    connect(reply, &QNetworkReply::finished, this, [&] {
        handledAndAlive = host.log.lines().size() == 1 && reply && !reply->bytesAvailable();
    });
    QSignalSpy destroyed(reply, &QObject::destroyed);
    host.log.settled();
    QVERIFY(handledAndAlive);
    QVERIFY(!reply);
    QCOMPARE(destroyed.size(), 1);
}

void tst_ReplyDispatcher::replyIsGoneBeforeWhatASlotPosts_data()
{
    replyLivesUntilTheEventLoopThenIsGone_data();
}

// The reply is scheduled for deletion before the signal, not after it.
void tst_ReplyDispatcher::replyIsGoneBeforeWhatASlotPosts()
{
    QFETCH(int, operation);
    QFETCH(int, status);

    Host host;
    host.server.script(LoopbackServer::response(status, answer));
    operations(host.server.url(), destination()).at(operation).call(host.client);
    const QPointer<QNetworkReply> reply = host.client.findChild<QNetworkReply *>();
    QVERIFY(reply);
    bool gone = false;
    const auto look = [&gone, &reply] {
        gone = !reply;
        QTestEventLoop::instance().exitLoop();
    };
    connect(&host.log, &SignalLog::lineAdded, this,
            [&host, look] { QMetaObject::invokeMethod(&host.client, look, Qt::QueuedConnection); });
    QTestEventLoop::instance().enterLoop(10);
    QVERIFY(!QTestEventLoop::instance().timeout());
    QVERIFY(gone);
}

void tst_ReplyDispatcher::everyOperationMayBeCalledFromASlot()
{
    Host host;
    const QList<Operation> all = operations(host.server.url(), destination());
    int next = 0;
    const auto callNext = [&] {
        if (next < all.size())
            all.at(next++).call(host.client);
    };
    connect(&host.client, &Corvane::usageSent, this, callNext);
    connect(&host.client, &Corvane::updateChecked, this, callNext);
    connect(&host.client, &Corvane::updateDownloaded, this, callNext);
    connect(&host.client, &Corvane::purchasePlansReceived, this, callNext);
    connect(&host.client, &Corvane::purchaseStarted, this, callNext);
    connect(&host.client, &Corvane::purchaseCaptured, this, callNext);
    connect(&host.client, &Corvane::networkError, this, callNext);
    for (int i = 0; i < all.size(); ++i)
        host.server.script(LoopbackServer::response(200, answer));
    host.client.downloadUpdate({}, {}); // refused within the call, and the chain begins
    QCOMPARE(next, 1);
    QVERIFY(host.log.waitForLines(1 + all.size()));
    QCOMPARE(host.log.settled().size(), 1 + all.size());
}

// Whatever cuts the client off from the reply, as its destruction does, ends the connection.
void tst_ReplyDispatcher::connectionBelongsToTheClient()
{
    Host host;
    host.client.fetchPurchasePlans();
    auto *reply = host.client.findChild<QNetworkReply *>();
    QVERIFY(disconnect(reply, nullptr, &host.client, nullptr));
    QSignalSpy finished(reply, &QNetworkReply::finished);
    host.server.script(LoopbackServer::response(200, answer));
    QVERIFY(finished.wait());
    QCOMPARE(host.log.lines(), QStringList());
}

void tst_ReplyDispatcher::destroyedClientSaysNothing()
{
    LoopbackServer server;
    int signalCount = 0;
    const auto count = [&signalCount] { ++signalCount; };
    {
        Corvane client;
        client.setServerUrl(server.url());
        client.setProductCode(u"DEMO"_s);
        connect(&client, &Corvane::usageSent, this, count);
        connect(&client, &Corvane::updateChecked, this, count);
        connect(&client, &Corvane::updateDownloaded, this, count);
        connect(&client, &Corvane::purchasePlansReceived, this, count);
        connect(&client, &Corvane::purchaseStarted, this, count);
        connect(&client, &Corvane::purchaseCaptured, this, count);
        connect(&client, &Corvane::networkError, this, count);
        const QList<Operation> all = operations(server.url(), destination());
        for (const Operation &operation : all)
            operation.call(client);
        QVERIFY(server.waitForRequests(6)); // the seventh waits for a connection
        for (int i = 0; i < 6; ++i)
            server.reply(i, LoopbackServer::response(i % 2 ? 200 : 500, answer));
    }
    // Another client's round trip gives whatever is left of the first time to show.
    Host other;
    other.server.script(LoopbackServer::response(200, answer));
    other.client.fetchPurchasePlans();
    QCOMPARE(other.log.settled().size(), 1);
    QCOMPARE(signalCount, 0);
    QVERIFY(!QFile::exists(destination()));
}

QTEST_GUILESS_MAIN(tst_ReplyDispatcher)
#include "tst_replydispatcher.moc"
