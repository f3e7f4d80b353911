#include "corvane.h"
#include "rawclient.h"
#include "sandbox.h"
#include "signallog.h"

#include <QtCore/qjsondocument.h>
#include <QtCore/qrandom.h>
#include <QtTest/qtest.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestHead = 32 * 1024;
constexpr qsizetype longestBody = 1024 * 1024;

const QByteArray plans = "GET /api/v1/purchase/plans?product_code=DEMO HTTP/1.1\r\nHost: a\r\n";
const QByteArray usage = "POST /api/v1/client/usage HTTP/1.1\r\nHost: a\r\n";
const QByteArray usageEvent =
    R"({"product_code":"DEMO","license_key":"","machine_fingerprint":"m",)"
    R"("event_type":"avvio"})";
const QByteArray accepted = R"({"success":true})";

const QString invalid = u"La richiesta non è HTTP valido."_s;
const QString bodyTooLarge = u"La richiesta è troppo grande."_s;
const QString headTooLarge = u"L'intestazione della richiesta è troppo grande."_s;

QByteArray withLength(const QByteArray &body)
{
    return "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

QByteArray chunk(const QByteArray &bytes)
{
    return QByteArray::number(bytes.size(), 16) + "\r\n" + bytes + "\r\n";
}

// The event, filled up to the size.
QByteArray eventOf(qsizetype size)
{
    const QByteArray rest = usageEvent.sliced(1);
    const QByteArray begin = R"({"x":")";
    const QByteArray end = R"(",)";
    return begin + QByteArray(size - begin.size() - end.size() - rest.size(), 'x') + end + rest;
}

// What comes between the empty line and the end.
QByteArray bodyOf(const QByteArray &reply)
{
    return reply.sliced(reply.indexOf("\r\n\r\n") + 4);
}

int statusOf(const QByteArray &reply)
{
    return reply.startsWith("HTTP/1.1 ") ? reply.sliced(9, 3).toInt() : 0;
}

} // namespace

// The sandbox's HTTP, over sockets of the tests' own: what it takes, and what it refuses.
class tst_SandboxHttp : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void refusesWhatIsNoHttp_data();
    void refusesWhatIsNoHttp();
    void takesWhatIsUnusual_data();
    void takesWhatIsUnusual();
    void survivesAnything();
    void bodyMayBeAsLongAsTheLimit_data();
    void bodyMayBeAsLongAsTheLimit();
    void bodyOverTheLimitIsRefused_data();
    void bodyOverTheLimitIsRefused();
    void libraryHearsThatABodyIsTooLarge();
    void headMayBeAsLongAsTheLimit();
    void headOverTheLimitIsRefused_data();
    void headOverTheLimitIsRefused();
    void connectionIsKept();
    void requestsMayBeSentAhead();
    void connectionIsClosedOnDemand_data();
    void connectionIsClosedOnDemand();
    void clientMayWaitForLeaveToSendTheBody();
    void leaveIsNotGivenForABodyOverTheLimit();
    void requestMayComeInPieces();

private:
    std::unique_ptr<Sandbox> m_sandbox;
};

void tst_SandboxHttp::init()
{
    m_sandbox = std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_sandbox->isRunning());
}

// Whatever came, the service goes on and has nothing to complain about.
void tst_SandboxHttp::cleanup()
{
    QCOMPARE(m_sandbox->get(u"/api/v1/purchase/plans?product_code=DEMO"_s).status, 200);
    QCOMPARE(m_sandbox->complaints(), QString());
    m_sandbox.reset();
}

void tst_SandboxHttp::refusesWhatIsNoHttp_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("status");

    const auto row = [](const char *tag, const QByteArray &request, int status = 400) {
        QTest::newRow(tag) << request << status;
    };
    row("tls", QByteArray::fromHex("160301020001"));
    row("tls-with-a-long-first-line",
        QByteArray::fromHex("160301020001") + QByteArray(longestHead, 'x'));
    row("binary", QByteArray::fromHex("00ff1f8b0d0a0d0a80c0fe7b22007d"));
    row("http2", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505);
    row("words", "Buon giorno\r\n\r\n");
    row("too-few-words", "GET /\r\n\r\n");
    row("too-many-words", "GET / / HTTP/1.1\r\nHost: a\r\n\r\n");
    row("two-blanks", "GET  / HTTP/1.1\r\nHost: a\r\n\r\n");
    row("blank-first", " GET / HTTP/1.1\r\nHost: a\r\n\r\n");
    row("method-with-brackets", "GET() / HTTP/1.1\r\nHost: a\r\n\r\n");
    row("no-method", "\t/ HTTP/1.1\r\nHost: a\r\n\r\n");
    row("target-not-ascii", "GET /\xc3\xa8 HTTP/1.1\r\nHost: a\r\n\r\n");
    row("target-with-control", "GET /\x7f HTTP/1.1\r\nHost: a\r\n\r\n");
    row("version-2", "GET / HTTP/2 \r\nHost: a\r\n\r\n");
    row("version-1.2", "GET / HTTP/1.2\r\nHost: a\r\n\r\n", 505);
    row("version-lower-case", "GET / http/1.1\r\nHost: a\r\n\r\n");
    row("bare-line-feed", "GET / HTTP/1.1\nHost: a\n\n");
    row("bare-line-feed-in-head", plans + "A: b\nC: d\r\n\r\n");
    row("line-feed-alone", "\n");
    row("no-host", "GET / HTTP/1.1\r\n\r\n");
    row("two-hosts", plans + "Host: b\r\n\r\n");
    row("header-without-colon", plans + "Header\r\n\r\n");
    row("header-without-name", plans + ": value\r\n\r\n");
    row("blank-before-colon", plans + "Header : value\r\n\r\n");
    row("folded-header", plans + "Header: a\r\n b\r\n\r\n");
    row("header-value-with-null", plans + QByteArray("A: \0\r\n\r\n", 8));
    row("header-value-with-return", plans + "A: b\rC: d\r\n\r\n");
    row("header-value-with-return-at-its-end", plans + "A: b\r\r\n\r\n");
    row("header-value-with-vertical-tab-at-its-start", plans + "A: \vb\r\n\r\n");
    for (const char *length : {"-1", "+1", "many", "", "0x10", "1 1", "1,1", "1.0"}) {
        QTest::addRow("length-\"%s\"", length) << usage + "Content-Length: " + length + "\r\n\r\n"
                                               << 400;
    }
    row("two-lengths", usage + "Content-Length: 1\r\nContent-Length: 1\r\n\r\nx");
    row("length-and-chunks",
        usage + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
    row("unknown-coding", usage + "Transfer-Encoding: gzip\r\n\r\n", 501);
    row("two-codings", usage + "Transfer-Encoding: gzip, chunked\r\n\r\n", 501);
    row("unknown-expectation", usage + "Expect: miracles\r\n" + withLength(usageEvent), 417);
    const QByteArray chunked = usage + "Transfer-Encoding: chunked\r\n\r\n";
    for (const char *size : {"", "x", "-1", "0x1", "g", " 1", "1\r"})
        QTest::addRow("chunk-size-\"%s\"", size) << chunked + size + "\r\n" << 400;
    row("chunk-longer-than-its-size", chunked + "1\r\nab\r\n");
    row("chunk-line-feed", chunked + "1\na\n");
}

void tst_SandboxHttp::refusesWhatIsNoHttp()
{
    QFETCH(const QByteArray, request);
    QFETCH(const int, status);

    RawClient client(m_sandbox->port());
    client.send(request);
    const QByteArray reply = client.untilClosed();
    QCOMPARE(statusOf(reply), status);
    QVERIFY(reply.contains("\r\nContent-Type: application/json\r\n"));
    QVERIFY(reply.contains("\r\nConnection: close\r\n"));
    QCOMPARE(Sandbox::Answer({status, bodyOf(reply)}).error(), invalid);
}

void tst_SandboxHttp::takesWhatIsUnusual_data()
{
    QTest::addColumn<QByteArray>("request");

    const QByteArray chunked = usage + "Transfer-Encoding: chunked\r\n\r\n";
    QTest::newRow("chunks") << chunked + chunk(usageEvent.first(9)) + chunk(usageEvent.sliced(9))
            + "0\r\n\r\n";
    QTest::newRow("chunk-extension") << chunked + QByteArray::number(usageEvent.size(), 16)
            + " ; a=\"b\"\r\n" + usageEvent + "\r\n0\r\n\r\n";
    QTest::newRow("chunk-size-in-capitals") << chunked
            + QByteArray::number(usageEvent.size(), 16).toUpper() + "\r\n" + usageEvent
            + "\r\n000\r\n\r\n";
    QTest::newRow("trailers") << chunked + chunk(usageEvent) + "0\r\nA: b\r\nC: d\r\n\r\n";
    QTest::newRow("coding-in-capitals")
        << usage + "TRANSFER-ENCODING: Chunked\r\n\r\n" + chunk(usageEvent) + "0\r\n\r\n";
    QTest::newRow("empty-lines-first") << "\r\n\r\n" + usage + withLength(usageEvent);
    QTest::newRow("header-in-capitals") << usage
            + "CONTENT-LENGTH:" + QByteArray::number(usageEvent.size()) + "\r\n\r\n" + usageEvent;
    QTest::newRow("header-in-tabs") << usage + "Content-Length:\t "
            + QByteArray::number(usageEvent.size()) + "\t\r\n\r\n" + usageEvent;
    QTest::newRow("header-not-ascii") << usage + "A: \xe8\xff\r\n" + withLength(usageEvent);
    QTest::newRow("empty-header") << usage + "A:\r\n" + withLength(usageEvent);
    QTest::newRow("whole-url") << "POST http://example.org/api/v1/client/usage HTTP/1.1\r\n"
                                  "Host: a\r\n"
            + withLength(usageEvent);
    QTest::newRow("query") << "POST /api/v1/client/usage?a=b HTTP/1.1\r\nHost: a\r\n"
            + withLength(usageEvent);
}

void tst_SandboxHttp::takesWhatIsUnusual()
{
    QFETCH(const QByteArray, request);
    RawClient client(m_sandbox->port());
    // The second is understood only if the first was read exactly to its end.
    client.send(request + request);
    for (int i = 0; i < 2; ++i) {
        const QByteArray reply = client.reply();
        QCOMPARE(statusOf(reply), 200);
        QCOMPARE(bodyOf(reply), accepted);
    }
}

// Requests with random bytes changed, put in and left out; cut short by the client's leaving.
void tst_SandboxHttp::survivesAnything()
{
    const QByteArrayList seeds{
        plans + "\r\n", usage + withLength(usageEvent),
        usage + "Transfer-Encoding: chunked\r\n\r\n" + chunk(usageEvent) + "0\r\n\r\n",
        usage + "Expect: 100-continue\r\n" + withLength(usageEvent),
        "GET /releases/DEMO/stable/latest HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"};
    QRandomGenerator random(20261121);
    for (int round = 0; round < 500; ++round) {
        QByteArray request = seeds.at(random.bounded(int(seeds.size())));
        for (int change = random.bounded(1, 6); change > 0; --change) {
            const int at = random.bounded(int(request.size()));
            const QByteArray bytes(random.bounded(3), char(random.bounded(256)));
            request.replace(at, random.bounded(3), bytes);
        }
        RawClient client(m_sandbox->port());
        client.send(request);
    }
}

void tst_SandboxHttp::bodyMayBeAsLongAsTheLimit_data()
{
    QTest::addColumn<bool>("chunked");
    QTest::newRow("length") << false;
    QTest::newRow("chunks") << true;
}

void tst_SandboxHttp::bodyMayBeAsLongAsTheLimit()
{
    QFETCH(const bool, chunked);
    const QByteArray body = eventOf(longestBody);
    RawClient client(m_sandbox->port());
    client.send(chunked ? usage + "Transfer-Encoding: chunked\r\n\r\n" + chunk(body.first(1000))
                        + chunk(body.sliced(1000)) + "0\r\n\r\n"
                        : usage + withLength(body));
    QCOMPARE(bodyOf(client.reply()), accepted);
}

void tst_SandboxHttp::bodyOverTheLimitIsRefused_data()
{
    QTest::addColumn<QByteArray>("request");
    const QByteArray body = eventOf(longestBody + 1);
    const QByteArray chunked = usage + "Transfer-Encoding: chunked\r\n\r\n";
    QTest::newRow("length") << usage + withLength(body);
    QTest::newRow("length-alone") << usage + "Content-Length: 1048577\r\n\r\n";
    QTest::newRow("length-beyond-numbers")
        << usage + "Content-Length: " + QByteArray(40, '9') + "\r\n\r\n";
    QTest::newRow("chunks") << chunked + chunk(body.first(1000)) + chunk(body.sliced(1000));
    QTest::newRow("chunk-beyond-numbers") << chunked + QByteArray(40, 'f') + "\r\n";
    QTest::newRow("much-more") << usage + withLength(QByteArray(longestBody * 20, 'x'));
}

// The reply arrives although the client has not stopped sending.
void tst_SandboxHttp::bodyOverTheLimitIsRefused()
{
    QFETCH(const QByteArray, request);
    RawClient client(m_sandbox->port());
    client.send(request);
    const QByteArray reply = client.untilClosed();
    QCOMPARE(statusOf(reply), 413);
    QCOMPARE(Sandbox::Answer({413, bodyOf(reply)}).error(), bodyTooLarge);
}

void tst_SandboxHttp::libraryHearsThatABodyIsTooLarge()
{
    Corvane corvane;
    corvane.setServerUrl(m_sandbox->url());
    corvane.setProductCode(u"DEMO"_s);
    SignalLog log(&corvane);
    corvane.sendUsage({}, u"m"_s, u"avvio"_s, {{u"x"_s, QString(longestBody, u'x')}});
    QVERIFY(log.waitForLines(1));
    QCOMPARE(log.lines(), QStringList{SignalLog::usageSent(false, bodyTooLarge)});
}

void tst_SandboxHttp::headMayBeAsLongAsTheLimit()
{
    RawClient client(m_sandbox->port());
    const QByteArray header = "A: ";
    const qsizetype rest = longestHead - plans.size() - header.size() - 4;
    client.send(plans + header + QByteArray(rest, 'a') + "\r\n\r\n");
    QCOMPARE(statusOf(client.reply()), 200);
}

void tst_SandboxHttp::headOverTheLimitIsRefused_data()
{
    QTest::addColumn<QByteArray>("request");
    const qsizetype rest = longestHead - plans.size() - 3 - 4;
    QTest::newRow("by-one") << plans + "A: " + QByteArray(rest + 1, 'a') + "\r\n\r\n";
    QTest::newRow("target") << "GET /" + QByteArray(longestHead, 'a') + " HTTP/1.1\r\n";
    QTest::newRow("endless-method") << QByteArray(longestHead + 1, 'G');
    QTest::newRow("endless-header") << plans + "A: " + QByteArray(longestHead, 'a');
    QTest::newRow("many-headers") << plans + QByteArray("A: b\r\n").repeated(longestHead / 6);
    QTest::newRow("trailers") << usage + "Transfer-Encoding: chunked\r\n\r\n0\r\n"
            + QByteArray("A: b\r\n").repeated(longestHead / 6);
    QTest::newRow("empty-lines") << QByteArray("\r\n").repeated(longestHead);
}

void tst_SandboxHttp::headOverTheLimitIsRefused()
{
    QFETCH(const QByteArray, request);
    RawClient client(m_sandbox->port());
    client.send(request);
    const QByteArray reply = client.untilClosed();
    QCOMPARE(statusOf(reply), 431);
    QCOMPARE(Sandbox::Answer({431, bodyOf(reply)}).error(), headTooLarge);
}

void tst_SandboxHttp::connectionIsKept()
{
    RawClient client(m_sandbox->port());
    for (int i = 0; i < 3; ++i) {
        client.send(plans + "\r\n");
        QCOMPARE(statusOf(client.reply()), 200);
        client.send(usage + withLength(usageEvent));
        QCOMPARE(bodyOf(client.reply()), accepted);
        client.send("GET /releases/DEMO/stable/latest HTTP/1.1\r\nHost: a\r\n\r\n");
        QCOMPARE(bodyOf(client.reply()), Sandbox::release);
    }
}

void tst_SandboxHttp::requestsMayBeSentAhead()
{
    constexpr int count = 2000; // more than a socket's buffer holds
    RawClient client(m_sandbox->port());
    client.send((usage + withLength(usageEvent)).repeated(count));
    client.send("GET /sconosciuto HTTP/1.1\r\nHost: a\r\n\r\n");
    for (int i = 0; i < count; ++i)
        QCOMPARE(bodyOf(client.reply()), accepted);
    QCOMPARE(statusOf(client.reply()), 404);
}

void tst_SandboxHttp::connectionIsClosedOnDemand_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::newRow("close") << plans + "Connection: close\r\n\r\n";
    QTest::newRow("among-others") << plans + "Connection: te, Close\r\n\r\n";
    QTest::newRow("http-1.0") << QByteArray(
        "GET /api/v1/purchase/plans?product_code=DEMO HTTP/1.0\r\n\r\n");
}

void tst_SandboxHttp::connectionIsClosedOnDemand()
{
    QFETCH(const QByteArray, request);
    RawClient client(m_sandbox->port());
    client.send(request);
    const QByteArray reply = client.untilClosed();
    QCOMPARE(statusOf(reply), 200);
    QVERIFY(reply.contains("\r\nConnection: close\r\n"));
    QVERIFY(bodyOf(reply).startsWith("{\"plans\":["));
    QVERIFY(bodyOf(reply).endsWith("]}"));
}

void tst_SandboxHttp::clientMayWaitForLeaveToSendTheBody()
{
    RawClient client(m_sandbox->port());
    for (const QByteArray &head : {withLength(usageEvent).chopped(usageEvent.size()),
                                   QByteArray("Transfer-Encoding: chunked\r\n\r\n")})
    {
        client.send(usage + "Expect: 100-Continue\r\n" + head);
        QCOMPARE(client.reply(), QByteArray("HTTP/1.1 100 Continue\r\n\r\n"));
        client.send(head.startsWith("T") ? chunk(usageEvent) + "0\r\n\r\n" : usageEvent);
        QCOMPARE(bodyOf(client.reply()), accepted);
    }
}

void tst_SandboxHttp::leaveIsNotGivenForABodyOverTheLimit()
{
    RawClient client(m_sandbox->port());
    client.send(usage + "Expect: 100-continue\r\nContent-Length: 1048577\r\n\r\n");
    QCOMPARE(statusOf(client.untilClosed()), 413);
}

void tst_SandboxHttp::requestMayComeInPieces()
{
    RawClient client(m_sandbox->port());
    const QByteArray request =
        usage + "Transfer-Encoding: chunked\r\n\r\n" + chunk(usageEvent) + "0\r\n\r\n";
    for (const char byte : request)
        client.send(QByteArray(1, byte));
    QCOMPARE(bodyOf(client.reply()), accepted);
}

QTEST_GUILESS_MAIN(tst_SandboxHttp)

#include "tst_sandbox_http.moc"
