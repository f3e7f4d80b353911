#include "rawclient.h"
#include "sandbox.h"

#include <QtCore/qcryptographichash.h>
#include <QtCore/qdatetime.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <limits>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

const QString plansPath = u"/api/v1/purchase/plans?product_code=DEMO"_s;
const QString journalPath = u"/sandbox/journal"_s;

} // namespace

// What the journal tells of requests and replies.
class tst_SandboxJournal : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void exchangeIsKeptWhole();
    void exchangesAreInOrder();
    void malformedRequestsAreKept();
    void longBodiesAreKeptAsTheirDigest();
    void bodiesThatAreNoTextAreEncoded();
    void faultIsNamed();
    void entryIsThereBeforeItsReply();
    void newEntriesAreAskedFor();
    void newestEntriesAreAskedFor();
    void waitEndsWithTheNextChange();
    void waitEndsWithoutAChange();
    void oldestEntriesAreDropped();
    void bodiesAreKeptUpToABound();
    void secretsAreMasked();

private:
    QJsonObject journal(qint64 since = 0) const;
    QJsonArray entries() const { return journal().value("entries"_L1).toArray(); }

    std::unique_ptr<Sandbox> m_sandbox;
};

void tst_SandboxJournal::init()
{
    m_sandbox = std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_sandbox->isRunning());
}

void tst_SandboxJournal::cleanup()
{
    QCOMPARE(m_sandbox->complaints(), QString());
    m_sandbox.reset();
}

void tst_SandboxJournal::exchangeIsKeptWhole()
{
    RawClient client(m_sandbox->port());
    client.send("POST /api/v1/client/usage?a=b HTTP/1.1\r\nHost: a\r\nX-Two:  words \r\n"
                "Content-Length: 8\r\n\r\n{\"\xc3\xa8\": 1");
    const QByteArray reply = client.reply();
    QVERIFY(reply.startsWith("HTTP/1.1 400 "));
    const QJsonObject whole = journal();
    QCOMPARE(whole.value("entries"_L1).toArray().size(), 1);
    QJsonObject entry = whole.value("entries"_L1)[0].toObject();

    const QDateTime time =
        QDateTime::fromString(entry.take("time"_L1).toString(), Qt::ISODateWithMs);
    QVERIFY(qAbs(time.msecsTo(QDateTime::currentDateTimeUtc())) < 60'000);
    QCOMPARE(time.timeSpec(), Qt::UTC);
    const double duration = entry.take("duration_ms"_L1).toDouble(-1);
    QVERIFY(duration > 0 && duration < 60'000);
    const QString body = QString::fromUtf8(reply.sliced(reply.indexOf("\r\n\r\n") + 4));
    const QJsonObject expected{
        {u"id"_s, 1},
        {u"operation"_s, u"usage"_s},
        {u"ending"_s, u"sent"_s},
        {u"request"_s,
         QJsonObject{{u"method"_s, u"POST"_s},
                     {u"target"_s, u"/api/v1/client/usage?a=b"_s},
                     {u"headers"_s,
                      QJsonArray{QJsonArray{u"Host"_s, u"a"_s}, QJsonArray{u"X-Two"_s, u"words"_s},
                                 QJsonArray{u"Content-Length"_s, u"8"_s}}},
                     {u"body"_s, u"{\"è\": 1"_s}}},
        {u"reply"_s,
         QJsonObject{
             {u"status"_s, 400},
             {u"headers"_s,
              QJsonArray{QJsonArray{u"Content-Type"_s, u"application/json"_s},
                         QJsonArray{u"Content-Length"_s, QString::number(body.toUtf8().size())}}},
             {u"body"_s, body}}}};
    QCOMPARE(QJsonDocument(entry).toJson(), QJsonDocument(expected).toJson());
}

void tst_SandboxJournal::exchangesAreInOrder()
{
    m_sandbox->get(plansPath);
    m_sandbox->get(u"/releases/DEMO/stable/latest"_s);
    m_sandbox->approve(m_sandbox->start());
    m_sandbox->get(u"/x"_s);
    QStringList operations;
    const QJsonArray all = entries();
    for (const auto &entry : all)
        operations += QString::number(entry["id"_L1].toInt()) + entry["operation"_L1].toString();
    QCOMPARE(operations.join(u' '), u"1plans 2download 3start 4approval 5other"_s);
}

void tst_SandboxJournal::malformedRequestsAreKept()
{
    RawClient client(m_sandbox->port());
    client.send("GET /x HTTP/1.1\r\nHost : a\r\n\r\n");
    QVERIFY(client.waitForEnd());
    const QJsonArray all = entries();
    QCOMPARE(all.size(), 1);
    QCOMPARE(all[0]["operation"_L1].toString(), u"other"_s);
    QCOMPARE(all[0]["request"_L1]["target"_L1].toString(), u"/x"_s);
    QCOMPARE(all[0]["reply"_L1]["status"_L1].toInt(), 400);
}

void tst_SandboxJournal::longBodiesAreKeptAsTheirDigest()
{
    constexpr qsizetype longest = 64 * 1024;
    for (const qsizetype size : {longest, longest + 1}) {
        const QByteArray body(size, 'x');
        m_sandbox->ask("POST", u"/x"_s, body, {{"Content-Type", "text/plain"}});
        const QJsonObject request = entries().last()["request"_L1].toObject();
        QCOMPARE(request.contains("body"_L1), size == longest);
        if (size == longest)
            QVERIFY(request.value("body"_L1).toString().toUtf8() == body);
        else {
            QCOMPARE(request.value("body_size"_L1).toInteger(), size);
            QCOMPARE(request.value("body_sha256"_L1).toString().toLatin1(),
                     QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex());
        }
    }
}

void tst_SandboxJournal::bodiesThatAreNoTextAreEncoded()
{
    m_sandbox->ask("POST", u"/x"_s, "\xff\xfe", {{"Content-Type", "text/plain"}});
    m_sandbox->get(u"/releases/DEMO/stable/latest"_s);
    const QJsonArray all = entries();
    QCOMPARE(all[0]["request"_L1]["body_base64"_L1].toString(), u"//4="_s);
    QCOMPARE(QByteArray::fromBase64(all[1]["reply"_L1]["body_base64"_L1].toString().toLatin1()),
             Sandbox::release);
}

void tst_SandboxJournal::faultIsNamed()
{
    m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, u"recovering"_s}});
    for (int i = 0; i < 3; ++i)
        m_sandbox->get(plansPath);
    const QJsonArray all = entries();
    QCOMPARE(all[1]["fault"_L1]["scenario"_L1].toString(), u"recovering"_s);
    QCOMPARE(all[1]["fault"_L1]["do"_L1]["status"_L1].toInt(), 503);
    QVERIFY(!all[2].toObject().contains("fault"_L1));
}

void tst_SandboxJournal::entryIsThereBeforeItsReply()
{
    m_sandbox->post(
        u"/sandbox/faults"_s,
        {{u"faults"_s, QJsonArray{QJsonObject{{u"do"_s, QJsonObject{{u"delay"_s, 600'000}}}}}}});
    auto client = std::make_unique<RawClient>(m_sandbox->port());
    client->send("GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
    QJsonObject now = m_sandbox->get(journalPath + "?wait=20"_L1).json();
    QCOMPARE(now.value("entries"_L1)[0]["request"_L1]["target"_L1].toString(), u"/x"_s);
    QVERIFY(!now.value("entries"_L1)[0].toObject().contains("ending"_L1));

    // The client gives up: the same entry, changed.
    client.reset();
    now =
        m_sandbox->get(journalPath + u"?wait=20&since=%1"_s.arg(now.value("change"_L1).toInteger()))
            .json();
    QCOMPARE(now.value("entries"_L1)[0]["id"_L1].toInt(), 1);
    QCOMPARE(now.value("entries"_L1)[0]["ending"_L1].toString(), u"client-left"_s);
}

void tst_SandboxJournal::newEntriesAreAskedFor()
{
    m_sandbox->get(plansPath);
    const qint64 change = journal().value("change"_L1).toInteger();
    QVERIFY(journal(change).value("entries"_L1).toArray().isEmpty());
    m_sandbox->get(u"/x"_s);
    const QJsonArray more = journal(change).value("entries"_L1).toArray();
    QCOMPARE(more.size(), 1);
    QCOMPARE(more[0]["id"_L1].toInt(), 2);
}

void tst_SandboxJournal::newestEntriesAreAskedFor()
{
    for (int i = 0; i < 4; ++i)
        m_sandbox->get(u"/x"_s);
    const auto ids = [this](const QString &query) {
        const QJsonObject now = m_sandbox->get(journalPath + query).json();
        QStringList list;
        const QJsonArray all = now.value("entries"_L1).toArray();
        for (const QJsonValue &entry : all)
            list += QString::number(entry["id"_L1].toInt());
        return list.join(u' ');
    };
    QCOMPARE(ids(u"?most=2"_s), u"3 4"_s);
    QCOMPARE(ids(u"?most=4"_s), u"1 2 3 4"_s);
    QCOMPARE(ids(u"?most=9"_s), u"1 2 3 4"_s);
    QCOMPARE(ids(u"?most=0"_s), QString());
    // Two changes each: begun and ended.
    QCOMPARE(ids(u"?since=4&most=1"_s), u"4"_s);
    QCOMPARE(ids(u"?since=4&most=9"_s), u"3 4"_s);
}

void tst_SandboxJournal::waitEndsWithTheNextChange()
{
    QNetworkAccessManager network;
    const std::unique_ptr<QNetworkReply> reply(
        network.get(QNetworkRequest(m_sandbox->url(journalPath + "?wait=60"_L1))));
    QSignalSpy finished(reply.get(), &QNetworkReply::finished);
    // Once another answer has come over a new connection, this one waits or has been answered.
    QCOMPARE(m_sandbox->get(u"/sandbox/faults"_s).status, 200);
    QCOMPARE(finished.size(), 0);
    m_sandbox->get(plansPath);
    QVERIFY(!finished.isEmpty() || finished.wait(20000));
    const QJsonArray all = QJsonDocument::fromJson(reply->readAll())["entries"_L1].toArray();
    QCOMPARE(all.size(), 1);
    QCOMPARE(all[0]["operation"_L1].toString(), u"plans"_s);
}

void tst_SandboxJournal::waitEndsWithoutAChange()
{
    const Sandbox::Answer answer = m_sandbox->get(journalPath + "?wait=1"_L1);
    QCOMPARE(answer.body, QByteArray(R"({"change":0,"dropped":0,"entries":[],"first":1})"));
}

void tst_SandboxJournal::oldestEntriesAreDropped()
{
    constexpr int most = 10'000;
    constexpr int more = 7;
    RawClient client(m_sandbox->port());
    client.send(QByteArray("GET /x HTTP/1.1\r\nHost: a\r\n\r\n").repeated(most + more));
    for (int i = 0; i < most + more; ++i)
        QVERIFY(client.reply().startsWith("HTTP/1.1 404 "));
    const QJsonObject now = journal();
    QCOMPARE(now.value("entries"_L1).toArray().size(), most);
    QCOMPARE(now.value("dropped"_L1).toInt(), more);
    QCOMPARE(now.value("first"_L1).toInt(), more + 1);
    QCOMPARE(now.value("entries"_L1)[0]["id"_L1].toInt(), more + 1);
}

void tst_SandboxJournal::bodiesAreKeptUpToABound()
{
    constexpr qint64 size = 64 * 1024;
    constexpr qint64 bound = 64 * 1024 * 1024;
    constexpr qint64 all = bound / size + 1;
    const QByteArray request = "POST /x HTTP/1.1\r\nHost: a\r\nContent-Length: "
        + QByteArray::number(size) + "\r\n\r\n" + QByteArray(size, 'x');
    RawClient client(m_sandbox->port());
    for (qint64 i = 0; i < all; ++i) {
        client.send(request);
        QVERIFY(client.reply().startsWith("HTTP/1.1 404 "));
    }
    // Nothing has changed since then: the answer tells the numbers alone.
    const QJsonObject now = journal(std::numeric_limits<qint64>::max());
    const qint64 dropped = now.value("dropped"_L1).toInteger();
    QCOMPARE(now.value("first"_L1).toInteger(), dropped + 1);
    QVERIFY((all - dropped) * size <= bound);
    QVERIFY((all - dropped) * size > bound * 9 / 10);
}

void tst_SandboxJournal::secretsAreMasked()
{
    m_sandbox =
        std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH), QStringList{u"--mask"_s});
    const QJsonObject started = m_sandbox->start();
    const QByteArray key = started.value("license_key"_L1).toString().toUtf8();
    QCOMPARE(key.size(), 19); // clients get it whole
    m_sandbox->approve(started);
    const QByteArray page = m_sandbox->get(started.value("approval_url"_L1).toString()).body;
    QVERIFY(page.contains("Ada Rossi"));
    m_sandbox->post(u"/api/v1/purchase/resume"_s,
                    {{u"product_code"_s, u"DEMO"_s}, {u"license_key"_s, u"SEGRETO-1"_s}});
    const Sandbox::Headers text{{"Content-Type", "text/plain"}};
    m_sandbox->ask("POST", u"/x?email=ada%40example.org&license_key=SEGRETO-2"_s,
                   R"({"license_key": "SEGRETO-3", )", text);
    m_sandbox->ask("POST", u"/x"_s, "ada@example.org " + key, text);
    m_sandbox->ask("POST", u"/x"_s, R"({"a":["ada\u0040example.org"],"b":{"email":"SEGRETO-4"}})",
                   text);
    m_sandbox->ask("POST", u"/x"_s, "\xff ada@example.org", text);
    m_sandbox->get(u"/x"_s, {{"From", "ada@example.org"}});

    for (const QByteArray &shown :
         {m_sandbox->get(journalPath).body, m_sandbox->get(u"/sandbox/state"_s).body, page})
    {
        QVERIFY(!shown.isEmpty());
        for (const QByteArray &secret : {key, QByteArray("example.org"), QByteArray("SEGRETO"),
                                         QByteArray("ada@example.org").toBase64().first(12)})
            QVERIFY2(!shown.contains(secret), shown.constData());
        QVERIFY(shown.contains("***"));
    }
}

QJsonObject tst_SandboxJournal::journal(qint64 since) const
{
    return m_sandbox->get(journalPath + u"?since=%1"_s.arg(since)).json();
}

QTEST_GUILESS_MAIN(tst_SandboxJournal)

#include "tst_sandbox_journal.moc"
