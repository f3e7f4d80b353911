#include "corvane.h"
#include "files.h"
#include "plainnetwork.h"
#include "rawclient.h"
#include "sandbox.h"
#include "signallog.h"

#include <QtCore/qelapsedtimer.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>

using namespace Qt::StringLiterals;
using PlainNetwork::Outcome;

namespace {

const QString plansPath = u"/api/v1/purchase/plans?product_code=DEMO"_s;
const QByteArray askForPlans =
    "GET /api/v1/purchase/plans?product_code=DEMO HTTP/1.1\r\nHost: a\r\n\r\n";

enum Call { Usage, Check, Download, Plans, Start, Resume, Capture };
const QStringList callNames{u"usage"_s, u"update-check"_s, u"download"_s, u"plans"_s,
                            u"start"_s, u"resume"_s,       u"capture"_s};

// The one signal that this outcome of the call has to end in.
QString lineFor(int call, const Outcome &outcome, const QString &file)
{
    const bool good = outcome.error == QNetworkReply::NoError;
    const bool isPost = call == Usage || call >= Start;
    if (!good && (!isPost || outcome.status == 0 || outcome.body.isEmpty()))
        return SignalLog::networkError(outcome.errorString);

    const QJsonObject reply = QJsonDocument::fromJson(outcome.body).object();
    const auto text = [&reply](const char *member) {
        return reply.value(QLatin1StringView(member)).toString();
    };
    const auto error = [&reply](const QString &otherwise) {
        return reply.value("error"_L1).toObject().value("message"_L1).toString(otherwise);
    };
    if (call == Usage) {
        return SignalLog::usageSent(good && reply.value("success"_L1) == true,
                                    error(good ? QString() : outcome.errorString));
    }
    if (call == Check) {
        const QJsonObject release = reply.value("release"_L1).toObject();
        const auto of = [&release](const char *member) {
            return release.value(QLatin1StringView(member)).toString();
        };
        return SignalLog::updateChecked(
            {!of("version").isEmpty(), of("product_code"), u"1.0"_s, of("version"),
             of("download_url"), of("stable_download_url"), of("sha256"), of("notes"), reply});
    }
    if (call == Download)
        return SignalLog::updateDownloaded(file);
    if (call == Plans)
        return SignalLog::purchasePlansReceived(reply.value("plans"_L1).toArray());
    if (call == Capture) {
        const bool paid = reply.value("paid"_L1) == true;
        return SignalLog::purchaseCaptured(
            {paid, reply.value("license_id"_L1).toInt(),
             paid ? u"Pagamento completato."_s : error(u"Pagamento non completato."_s), reply});
    }
    const bool success = reply.value("success"_L1) == true;
    return SignalLog::purchaseStarted(
        {success, reply.value("payment_id"_L1).toInt(), reply.value("license_id"_L1).toInt(),
         text("license_key"), text("paypal_order_id"), text("approval_url"),
         success ? u"Pagamento avviato."_s : error(u"Pagamento non avviato."_s), reply});
}

QByteArray bodyOf(const QByteArray &reply)
{
    return reply.sliced(reply.indexOf("\r\n\r\n") + 4);
}

} // namespace

// Faults on demand, as raw bytes and as the library meets them.
class tst_SandboxFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void wrongRulesAreRefused_data();
    void wrongRulesAreRefused();
    void wrongArgumentsAreRefused_data();
    void wrongArgumentsAreRefused();
    void happensWhenItIsDue_data();
    void happensWhenItIsDue();
    void chanceIsTheSameForTheSameSeed();
    void concernsItsOperationAlone_data();
    void concernsItsOperationAlone();
    void firstRuleThatIsDueWins();
    void answersInTheServicesPlace_data();
    void answersInTheServicesPlace();
    void headersArePutInAndTakenOut();
    void membersArePutInAndTakenOut();
    void replyIsDelayed();
    void replyIsSlow();
    void bytesAreSpoilt_data();
    void bytesAreSpoilt();
    void replyStallsUntilTheClientLeaves();
    void serviceActsUnlessItIsReplaced_data();
    void serviceActsUnlessItIsReplaced();
    void argumentsAreInForceFromTheStart();
    void scenariosAreListed();
    void everyScenarioEndsAsTheLibrarySays_data();
    void everyScenarioEndsAsTheLibrarySays();
    void flakyNetworkBreaksAndDelaysSome();
    void scenarioIsWhatItSays_data();
    void scenarioIsWhatItSays();
    void stalledCallsStayOpen_data();
    void stalledCallsStayOpen();

private:
    void set(const QByteArray &rules);
    QStringList statuses(int count) const;
    QString file() const { return m_dir.filePath(u"download"_s); }
    void begin(Corvane &client, int call, const QJsonObject &started) const;
    Outcome outcomeOf(Corvane &client, int call, const QJsonObject &started) const;

    QTemporaryDir m_dir;
    std::unique_ptr<Sandbox> m_sandbox;
};

void tst_SandboxFaults::init()
{
    m_sandbox = std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_sandbox->isRunning());
}

void tst_SandboxFaults::cleanup()
{
    QCOMPARE(m_sandbox->complaints(), QString());
    m_sandbox.reset();
}

void tst_SandboxFaults::wrongRulesAreRefused_data()
{
    QTest::addColumn<QByteArray>("rule");
    QTest::addColumn<QString>("error");

    const auto row = [](const char *tag, const char *rule, const QString &error) {
        QTest::newRow(tag) << QByteArray(rule) << "faults[1]"_L1 + error;
    };
    const QString operations = u"update-check, download, plans, start, resume, capture, usage, "
                               "approval, any"_s;
    row("no-object", "7", u": must be an object"_s);
    row("nothing", "{}", u": has no \"do\""_s);
    row("no-effect", R"({"do":{}})", u".do: must say what happens"_s);
    row("unknown-member", R"({"what":1,"do":{"status":500}})",
        u".what: is not known; there are operation, when, do"_s);
    row("unknown-operation", R"({"operation":"buy","do":{"status":500}})",
        u".operation: must be one of "_s + operations);
    row("operation-is-a-number", R"({"operation":1,"do":{"status":500}})",
        u".operation: must be one of "_s + operations);
    row("when-is-no-object", R"({"when":[],"do":{"status":500}})", u".when: must be an object"_s);
    row("unknown-when", R"({"when":{"evry":1},"do":{"status":500}})",
        u".when.evry: is not known; there are skip, times, every, probability, seed"_s);
    const struct
    {
        const char *name;
        qint64 least;
        qint64 most;
    } numbers[] = {{"skip", 0, 1'000'000'000},
                   {"times", 1, 1'000'000'000},
                   {"every", 1, 1'000'000'000},
                   {"seed", 0, 4'294'967'295}};
    for (const auto &[name, least, most] : numbers) {
        for (const QByteArray &value : {QByteArray::number(least - 1), QByteArray::number(most + 1),
                                        QByteArray("1.5"), QByteArray("\"1\""), QByteArray("null")})
        {
            const QByteArray rule =
                QByteArray(R"({"when":{")") + name + R"(":)" + value + R"(},"do":{"status":500}})";
            QTest::addRow("%s-%s", name, value.constData())
                << rule
                << u"faults[1].when.%1: must be a whole number from %2 to %3"_s.arg(
                       QString::fromLatin1(name), QString::number(least), QString::number(most));
        }
    }
    for (const char *value : {"-0.1", "1.1", "\"1\""}) {
        QTest::addRow("probability-%s", value)
            << QByteArray(R"({"when":{"probability":)") + value + R"(},"do":{"status":500}})"
            << u"faults[1].when.probability: must be a number from 0 to 1"_s;
    }
    row("status-too-small", R"({"do":{"status":199}})",
        u".do.status: must be a whole number from 200 to 599"_s);
    row("status-too-large", R"({"do":{"status":600}})",
        u".do.status: must be a whole number from 200 to 599"_s);
    row("two-bodies", R"({"do":{"error":"a","page":"b"}})",
        u".do.page: cannot stand beside error"_s);
    row("error-is-a-number", R"({"do":{"error":1}})", u".do.error: must be a text"_s);
    row("page-is-a-number", R"({"do":{"page":1}})", u".do.page: must be a text"_s);
    row("body-is-a-number", R"({"do":{"body":1}})", u".do.body: must be a text or an object"_s);
    row("redirect-splits-the-head", R"({"do":{"redirect":"/\r\nA: b"}})",
        u".do.redirect: must be a URL in ASCII"_s);
    row("headers-are-a-list", R"({"do":{"headers":[]}})", u".do.headers: must be an object"_s);
    const QString header = u": must be a header's name with a text in ASCII, or null"_s;
    row("header-is-a-number", R"({"do":{"headers":{"A":1}}})", u".do.headers.A"_s + header);
    row("header-splits-the-head", R"({"do":{"headers":{"A":"b\r\nC: d"}}})",
        u".do.headers.A"_s + header);
    row("header-name-with-colon", R"({"do":{"headers":{"A:":"b"}}})", u".do.headers.A:"_s + header);
    row("merge-is-a-text", R"({"do":{"merge":"a"}})", u".do.merge: must be an object"_s);
    row("delay-is-negative", R"({"do":{"delay":-1}})",
        u".do.delay: must be a whole number from 0 to 600000"_s);
    row("delay-too-long", R"({"do":{"delay":600001}})",
        u".do.delay: must be a whole number from 0 to 600000"_s);
    row("rate-is-zero", R"({"do":{"rate":0}})",
        u".do.rate: must be a whole number from 1 to 1099511627776"_s);
    row("unknown-bytes", R"({"do":{"bytes":"some"}})",
        u".do.bytes: must be one of reset, close, stall, garbage, wrong-length, corrupt, "
        "one-at-a-time"_s);
    row("after-alone", R"({"do":{"after":1}})",
        u".do.after: needs \"bytes\": \"close\" or \"stall\""_s);
}

// Nothing of what came is in force then, not even what is right.
void tst_SandboxFaults::wrongRulesAreRefused()
{
    QFETCH(const QByteArray, rule);
    QFETCH(const QString, error);
    const QByteArray body = R"({"faults":[{"do":{"status":500}},)" + rule + "]}";
    const Sandbox::Answer answer =
        m_sandbox->ask("POST", u"/sandbox/faults"_s, body, {{"Content-Type", "application/json"}});
    QCOMPARE(answer.error(), error);
    QCOMPARE(answer.status, 400);
    QCOMPARE(m_sandbox->get(u"/sandbox/faults"_s).body, QByteArray("{\"faults\":[]}"));
}

void tst_SandboxFaults::wrongArgumentsAreRefused_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");
    QTest::newRow("not-json") << QStringList{u"--fault"_s, u"{"_s}
                              << u"faults[0]: is not JSON: unterminated object at 1"_s;
    QTest::newRow("second") << QStringList{u"--fault"_s, u"{\"do\":{\"status\":500}}"_s,
                                           u"--fault"_s, u"{\"do\":{\"status\":1}}"_s}
                            << u"faults[1].do.status: must be a whole number from 200 to 599"_s;
    QTest::newRow("list") << QStringList{u"--fault"_s, u"[]"_s}
                          << u"faults[0]: must be an object"_s;
    QTest::newRow("scenario") << QStringList{u"--scenario"_s, u"rain"_s}
                              << u"\"rain\" is no scenario: see --list-scenarios"_s;
}

void tst_SandboxFaults::wrongArgumentsAreRefused()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const QString, error);
    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), arguments);
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 2);
    QCOMPARE(QString::fromUtf8(process.readAllStandardError()),
             u"corvane-sandbox: %1. See corvane-sandbox --help.\n"_s.arg(error));
}

void tst_SandboxFaults::happensWhenItIsDue_data()
{
    QTest::addColumn<QByteArray>("when");
    QTest::addColumn<QString>("statuses");
    QTest::newRow("always") << QByteArray("{}") << u"503 503 503 503 503 503 503 503"_s;
    QTest::newRow("twice") << QByteArray(R"({"times":2})") << u"503 503 200 200 200 200 200 200"_s;
    QTest::newRow("every-third") << QByteArray(R"({"every":3})")
                                 << u"200 200 503 200 200 503 200 200"_s;
    QTest::newRow("skip") << QByteArray(R"({"skip":5})") << u"200 200 200 200 200 503 503 503"_s;
    QTest::newRow("all") << QByteArray(R"({"skip":1,"every":2,"times":2})")
                         << u"200 200 503 200 503 200 200 200"_s;
    QTest::newRow("never") << QByteArray(R"({"probability":0})")
                           << u"200 200 200 200 200 200 200 200"_s;
}

void tst_SandboxFaults::happensWhenItIsDue()
{
    QFETCH(const QByteArray, when);
    QFETCH(const QString, statuses);
    set(R"([{"when":)" + when + R"(,"do":{"status":503}}])");
    QCOMPARE(this->statuses(8).join(u' '), statuses);

    const QJsonObject rule =
        m_sandbox->get(u"/sandbox/faults"_s).json().value("faults"_L1).toArray().at(0).toObject();
    QCOMPARE(rule.value("seen"_L1).toInt(), 8);
    QCOMPARE(rule.value("done"_L1).toInt(), int(statuses.count(u"503"_s)));
}

void tst_SandboxFaults::chanceIsTheSameForTheSameSeed()
{
    const auto draw = [this](const QByteArray &seed) {
        m_sandbox->ask("DELETE", u"/sandbox/faults"_s);
        set(R"([{"when":{"probability":0.5,"seed":)" + seed + R"(},"do":{"status":503}}])");
        return statuses(40);
    };
    const QStringList first = draw("7");
    QCOMPARE(draw("7"), first);
    QVERIFY(draw("8") != first);
    QVERIFY(first.contains(u"200"_s) && first.contains(u"503"_s));
}

void tst_SandboxFaults::concernsItsOperationAlone_data()
{
    QTest::addColumn<QByteArray>("operation");
    QTest::addColumn<int>("index"); // of the operation in the list below
    const char *const names[] = {"update-check", "download", "plans",    "start", "resume",
                                 "capture",      "usage",    "approval", "any"};
    for (int i = 0; i < 9; ++i)
        QTest::newRow(names[i]) << QByteArray(names[i]) << i;
}

void tst_SandboxFaults::concernsItsOperationAlone()
{
    QFETCH(const QByteArray, operation);
    QFETCH(const int, index);
    set(R"([{"operation":")" + operation + R"(","do":{"status":507}}])");
    const QList<std::function<Sandbox::Answer()>> requests{
        [this] { return m_sandbox->get(u"/api/v1/releases/latest/DEMO?channel=stable"_s); },
        [this] { return m_sandbox->get(u"/releases/DEMO/stable/latest"_s); },
        [this] { return m_sandbox->get(plansPath); },
        [this] { return m_sandbox->post(u"/api/v1/purchase/start"_s, {}); },
        [this] { return m_sandbox->post(u"/api/v1/purchase/resume"_s, {}); },
        [this] { return m_sandbox->post(u"/api/v1/purchase/capture"_s, {}); },
        [this] { return m_sandbox->post(u"/api/v1/client/usage"_s, {}); },
        [this] { return m_sandbox->get(u"/paypal/approve/X"_s); },
        [this] { return m_sandbox->get(u"/sconosciuto"_s); },
    };
    for (int i = 0; i < requests.size(); ++i)
        QCOMPARE(requests.at(i)().status == 507, i == index || operation == "any");
}

// A rule sees what those before it have left.
void tst_SandboxFaults::firstRuleThatIsDueWins()
{
    set(R"([{"when":{"every":2},"do":{"status":501}},{"operation":"usage","do":{"status":502}},
            {"when":{"every":2},"do":{"status":503}}])");
    QCOMPARE(statuses(6).join(u' '), u"200 501 503 501 200 501"_s);
}

void tst_SandboxFaults::answersInTheServicesPlace_data()
{
    QTest::addColumn<QByteArray>("rule");
    QTest::addColumn<QByteArray>("reply");
    QTest::newRow("status") << QByteArray(R"({"status":404})")
                            << QByteArray("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    QTest::newRow("unknown-status") << QByteArray(R"({"status":599})")
                                    << QByteArray("HTTP/1.1 599 \r\nContent-Length: 0\r\n\r\n");
    QTest::newRow("no-content") << QByteArray(R"({"status":204,"body":"x"})")
                                << QByteArray("HTTP/1.1 204 No Content\r\n"
                                              "Content-Type: text/plain; charset=utf-8\r\n\r\n");
    QTest::newRow("error") << QByteArray(R"({"error":"È rotto"})")
                           << QByteArray("HTTP/1.1 500 Internal Server Error\r\n"
                                         "Content-Type: application/json\r\nContent-Length: 49\r\n"
                                         "\r\n"
                                         R"({"error":{"message":"È rotto"},"success":false})");
    QTest::newRow("page") << QByteArray(R"({"page":"<p>"})")
                          << QByteArray("HTTP/1.1 200 OK\r\n"
                                        "Content-Type: text/html; charset=utf-8\r\n"
                                        "Content-Length: 3\r\n\r\n<p>");
    QTest::newRow("empty-body")
        << QByteArray(R"({"body":""})")
        << QByteArray("HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\n"
                      "Content-Length: 0\r\n\r\n");
    QTest::newRow("json") << QByteArray(R"({"status":402,"body":{"paid":false}})")
                          << QByteArray("HTTP/1.1 402 Payment Required\r\n"
                                        "Content-Type: application/json\r\n"
                                        "Content-Length: 14\r\n\r\n{\"paid\":false}");
    QTest::newRow("redirect") << QByteArray(R"({"redirect":"/x"})")
                              << QByteArray("HTTP/1.1 302 Found\r\nLocation: /x\r\n"
                                            "Content-Length: 0\r\n\r\n");
    QTest::newRow("redirect-308") << QByteArray(R"({"status":308,"redirect":"http://a.example/"})")
                                  << QByteArray("HTTP/1.1 308 Permanent Redirect\r\n"
                                                "Location: http://a.example/\r\n"
                                                "Content-Length: 0\r\n\r\n");
}

void tst_SandboxFaults::answersInTheServicesPlace()
{
    QFETCH(const QByteArray, rule);
    QFETCH(const QByteArray, reply);
    set(R"([{"do":)" + rule + "}]");
    RawClient client(m_sandbox->port());
    for (int i = 0; i < 2; ++i) {
        client.send(askForPlans);
        QCOMPARE(client.reply(), QByteArray(reply).replace(": 49", ": 48"));
    }
}

void tst_SandboxFaults::headersArePutInAndTakenOut()
{
    set(R"([{"do":{"headers":{"content-type":null,"Retry-After":"30"}}}])");
    RawClient client(m_sandbox->port());
    client.send(askForPlans);
    const QByteArray reply = client.reply();
    QVERIFY(reply.startsWith("HTTP/1.1 200 OK\r\nRetry-After: 30\r\nContent-Length: "));
    QVERIFY(bodyOf(reply).startsWith("{\"plans\":[{"));
}

void tst_SandboxFaults::membersArePutInAndTakenOut()
{
    QJsonObject expected = m_sandbox->get(u"/api/v1/releases/latest/DEMO?channel=stable"_s).json();
    QJsonObject release = expected.value("release"_L1).toObject();
    release.insert("version"_L1, 2);
    release.remove("notes"_L1);
    expected.insert("release"_L1, release);
    expected.insert("new"_L1, QJsonObject{{u"a"_s, true}});
    set(R"([{"do":{"merge":{"release":{"version":2,"notes":null},"new":{"a":true}}}}])");
    QCOMPARE(m_sandbox->get(u"/api/v1/releases/latest/DEMO?channel=stable"_s).json(), expected);
    // What is no JSON stays as it is.
    QCOMPARE(m_sandbox->get(u"/releases/DEMO/stable/latest"_s).body, Sandbox::release);
}

void tst_SandboxFaults::replyIsDelayed()
{
    set(R"([{"operation":"plans","do":{"delay":300}}])");
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(m_sandbox->get(plansPath).status, 200);
    QVERIFY(timer.elapsed() >= 300);
}

void tst_SandboxFaults::replyIsSlow()
{
    set(R"([{"operation":"download","do":{"rate":50000}}])");
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(m_sandbox->get(u"/releases/DEMO/stable/latest"_s).body, Sandbox::release);
    // 10,000 bytes in parts of 2,500, each 50 ms after the one before it.
    QVERIFY(timer.elapsed() >= 150);
}

void tst_SandboxFaults::bytesAreSpoilt_data()
{
    QTest::addColumn<QByteArray>("rule");
    QTest::addColumn<QByteArray>("head"); // its beginning
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("ending");

    const QByteArray ok = "HTTP/1.1 200 OK\r\n";
    const QByteArray type = "Content-Type: text/plain; charset=utf-8\r\n";
    const QByteArray length = type + "Content-Length: 10\r\n\r\n";
    const auto row = [](const char *tag, const QByteArray &rule, const QByteArray &head,
                        const QByteArray &body, const QString &ending) {
        QTest::newRow(tag) << R"({"body":"0123456789",)" + rule + '}' << head << body << ending;
    };
    row("close", R"("bytes":"close")", ok + length, "01234", u"closed"_s);
    row("close-after", R"("bytes":"close","after":7)", ok + length, "0123456", u"closed"_s);
    row("close-at-once", R"("bytes":"close","after":0)", ok + length, "", u"closed"_s);
    row("close-after-all", R"("bytes":"close","after":99)", ok + length, "0123456789", u"closed"_s);
    row("wrong-length", R"("bytes":"wrong-length")",
        ok + type + "Content-Length: 5\r\nConnection: close\r\n\r\n", "0123456789", u"sent"_s);
    QTest::newRow("close-without-a-body")
        << QByteArray(R"({"status":404,"bytes":"close"})") << QByteArray("HTTP/1.1 404 Not Found")
        << QByteArray() << u"closed"_s;
    QTest::newRow("reset") << QByteArray(R"({"bytes":"reset"})") << QByteArray() << QByteArray()
                           << u"reset"_s;
}

void tst_SandboxFaults::bytesAreSpoilt()
{
    QFETCH(const QByteArray, rule);
    QFETCH(const QByteArray, head);
    QFETCH(const QByteArray, body);
    QFETCH(const QString, ending);
    set(R"([{"do":)" + rule + "}]");
    RawClient client(m_sandbox->port());
    client.send(askForPlans);
    const QByteArray received = client.untilClosed();
    if (head.endsWith("\r\n\r\n"))
        QCOMPARE(received, head + body);
    else
        QVERIFY2(head.isEmpty() == received.isEmpty() && head.startsWith(received),
                 received.constData());

    const QJsonArray entries =
        m_sandbox->get(u"/sandbox/journal"_s).json().value("entries"_L1).toArray();
    QCOMPARE(entries.size(), 1);
    QCOMPARE(entries.at(0).toObject().value("ending"_L1).toString(), ending);
}

void tst_SandboxFaults::replyStallsUntilTheClientLeaves()
{
    set(R"([{"do":{"body":"0123456789","bytes":"stall","after":3}}])");
    {
        RawClient client(m_sandbox->port());
        client.send(askForPlans);
        QVERIFY(client.waitFor(
            QByteArray("HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\n"
                       "Content-Length: 10\r\n\r\n012")
                .size()));
        const QJsonObject journal = m_sandbox->get(u"/sandbox/journal"_s).json();
        QCOMPARE(journal.value("entries"_L1)[0]["ending"_L1].toString(), u"stalled"_s);
        QCOMPARE(journal.value("entries"_L1)[0]["reply"_L1]["body"_L1].toString(), u"012"_s);
    }
    QCOMPARE(m_sandbox->get(u"/sandbox/faults"_s).status, 200);
}

void tst_SandboxFaults::serviceActsUnlessItIsReplaced_data()
{
    QTest::addColumn<QByteArray>("rule");
    QTest::addColumn<bool>("acts");
    QTest::newRow("bytes") << QByteArray(R"({"bytes":"reset"})") << true;
    QTest::newRow("headers") << QByteArray(R"({"headers":{"A":"b"}})") << true;
    QTest::newRow("merge") << QByteArray(R"({"merge":{"success":false}})") << true;
    QTest::newRow("status") << QByteArray(R"({"status":200})") << false;
    QTest::newRow("error") << QByteArray(R"({"error":"no"})") << false;
    QTest::newRow("status-and-bytes") << QByteArray(R"({"status":200,"bytes":"reset"})") << false;
}

void tst_SandboxFaults::serviceActsUnlessItIsReplaced()
{
    QFETCH(const QByteArray, rule);
    QFETCH(const bool, acts);
    set(R"([{"operation":"usage","when":{"times":1},"do":)" + rule + "}]");
    RawClient client(m_sandbox->port());
    const QByteArray event = R"({"product_code":"DEMO","license_key":"","machine_fingerprint":"",)"
                             R"("event_type":"avvio"})";
    client.send("POST /api/v1/client/usage HTTP/1.1\r\nHost: a\r\nConnection: close\r\n"
                "Content-Length: "
                + QByteArray::number(event.size()) + "\r\n\r\n" + event);
    QVERIFY(client.waitForEnd());
    const QJsonObject state = m_sandbox->get(u"/sandbox/state"_s).json();
    QCOMPARE(state.value("usage_events"_L1).toArray().size(), acts ? 1 : 0);
}

void tst_SandboxFaults::argumentsAreInForceFromTheStart()
{
    m_sandbox = std::make_unique<Sandbox>(
        QStringLiteral(CORVANE_SANDBOX_PATH),
        QStringList{u"--scenario"_s, u"maintenance"_s, u"--fault"_s,
                    u"{\"when\":{\"times\":1},\"do\":{\"status\":404}}"_s, u"--fault"_s,
                    u"{\"when\":{\"times\":1},\"do\":{\"status\":410}}"_s, u"--scenario"_s,
                    u"service-down"_s});
    QCOMPARE(statuses(4).join(u' '), u"404 410 503 503"_s);
    const QJsonObject faults = m_sandbox->get(u"/sandbox/faults"_s).json();
    QCOMPARE(faults.value("faults"_L1).toArray().size(), 4);
    QCOMPARE(faults.value("faults"_L1)[2]["scenario"_L1].toString(), u"maintenance"_s);
}

void tst_SandboxFaults::scenariosAreListed()
{
    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--list-scenarios"_s});
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 0);
    QString expected;
    const QJsonArray scenarios =
        m_sandbox->get(u"/sandbox/scenarios"_s).json().value("scenarios"_L1).toArray();
    QVERIFY(scenarios.size() > 20);
    for (const auto &scenario : scenarios) {
        QVERIFY(!scenario["rules"_L1].toArray().isEmpty());
        expected += scenario["name"_L1].toString().leftJustified(20) + u' '
            + scenario["sentence"_L1].toString() + u'\n';
    }
    QCOMPARE(QString::fromUtf8(process.readAllStandardOutput()), expected);
}

void tst_SandboxFaults::everyScenarioEndsAsTheLibrarySays_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<int>("call");
    const Sandbox sandbox(QStringLiteral(CORVANE_SANDBOX_PATH));
    const QJsonArray scenarios =
        sandbox.get(u"/sandbox/scenarios"_s).json().value("scenarios"_L1).toArray();
    for (const auto &scenario : scenarios) {
        // Chance decides in one, and in the others nothing ends: they have tests of their own.
        const QString name = scenario["name"_L1].toString();
        if (name == "flaky-network"_L1 || name == "silent-service"_L1)
            continue;
        for (int call = 0; call < callNames.size(); ++call) {
            if (name == "stalled-download"_L1 && call == Download)
                continue;
            QTest::addRow("%s-%s", qPrintable(name), qPrintable(callNames.at(call)))
                << name << call;
        }
    }
}

// The signal is the one that the library's header says for what its own reply came to.
void tst_SandboxFaults::everyScenarioEndsAsTheLibrarySays()
{
    QFETCH(const QString, scenario);
    QFETCH(const int, call);
    const QJsonObject started = m_sandbox->start();
    m_sandbox->approve(started);
    QCOMPARE(m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, scenario}}).status, 200);

    Corvane client;
    SignalLog log(&client);
    const Outcome outcome = outcomeOf(client, call, started);
    QCOMPARE(log.settled(), QStringList{lineFor(call, outcome, file())});
    if (log.lines().constFirst().startsWith("updateDownloaded"_L1))
        QCOMPARE(Files::contentOf(file()), outcome.body);
}

void tst_SandboxFaults::flakyNetworkBreaksAndDelaysSome()
{
    QCOMPARE(m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, u"flaky-network"_s}}).status,
             200);
    // At once: the delays run beside each other.
    constexpr int all = 40;
    std::array<std::unique_ptr<RawClient>, all> clients;
    for (auto &client : clients) {
        client = std::make_unique<RawClient>(m_sandbox->port());
        client->send("GET /api/v1/purchase/plans?product_code=DEMO HTTP/1.1\r\nHost: a\r\n\r\n");
    }
    const auto broken = std::count_if(clients.begin(), clients.end(),
                                      [](const auto &client) { return client->reply().isEmpty(); });
    QVERIFY2(broken >= all / 8 && broken <= all * 3 / 8, qPrintable(QString::number(broken)));

    const QJsonArray entries =
        m_sandbox->get(u"/sandbox/journal"_s).json().value("entries"_L1).toArray();
    QCOMPARE(entries.size(), all);
    const auto late = std::count_if(entries.begin(), entries.end(), [](const QJsonValue &entry) {
        return entry["duration_ms"_L1].toDouble() >= 1500;
    });
    QVERIFY2(late >= all / 8 && late <= all * 3 / 8, qPrintable(QString::number(late)));
}

void tst_SandboxFaults::scenarioIsWhatItSays_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<int>("call");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text"); // in the signal
    const auto row = [](const char *scenario, Call call, int status, const QString &text) {
        QTest::addRow("%s-%d", scenario, int(call))
            << QString::fromLatin1(scenario) << int(call) << status << text;
    };
    row("service-down", Usage, 503, u"Service Unavailable"_s);
    row("maintenance", Start, 503, u"Servizio in manutenzione. Riprova più tardi."_s);
    row("internal-error", Start, 500, u"Errore interno del servizio."_s);
    row("rate-limited", Usage, 429, u"Troppe richieste. Riprova tra poco."_s);
    row("recovering", Capture, 503, u"Servizio non disponibile."_s);
    row("captive-portal", Capture, 200, u"Pagamento non completato."_s);
    row("captive-portal", Check, 200, u"[false,\"\",\"1.0\",\"\""_s);
    row("captive-portal", Download, 200, u"updateDownloaded"_s);
    row("garbled-replies", Start, 200, u"Pagamento non avviato."_s);
    row("slow-network", Check, 200, u"\"1.5.0\""_s);
    row("no-release", Check, 200, u"[false,\"\",\"1.0\",\"\""_s);
    row("wrong-digest", Check, 200, u"\"1.5.0\""_s);
    row("wrong-digest", Check, 200, QString(64, u'0'));
    row("missing-release", Download, 404, u"Not Found"_s);
    row("slow-download", Download, 200, u"updateDownloaded"_s);
    row("corrupt-download", Download, 200, u"updateDownloaded"_s);
    row("no-plans", Plans, 200, u"purchasePlansReceived [[]]"_s);
    row("payment-declined", Capture, 402, u"Il pagamento è stato rifiutato."_s);
    row("duplicate-capture", Capture, 409, u"Questo ordine è già stato pagato."_s);
    row("lost-payment-reply", Capture, 0, u"networkError"_s);
    row("expired-licence", Resume, 403, u"La licenza è scaduta."_s);
    row("expired-licence", Usage, 403, u"La licenza è scaduta."_s);
}

void tst_SandboxFaults::scenarioIsWhatItSays()
{
    QFETCH(const QString, scenario);
    QFETCH(const int, call);
    QFETCH(const int, status);
    QFETCH(const QString, text);
    const QJsonObject started = m_sandbox->start();
    m_sandbox->approve(started);
    QCOMPARE(m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, scenario}}).status, 200);

    Corvane client;
    SignalLog log(&client);
    QCOMPARE(outcomeOf(client, call, started).status, status);
    QCOMPARE(log.settled().size(), 1);
    QVERIFY2(log.lines().constFirst().contains(text), qPrintable(log.lines().constFirst()));
    // Not "paid": false, by which the service would say that nothing was taken.
    if (scenario == "duplicate-capture"_L1)
        QVERIFY(!log.lines().constFirst().contains("\"paid\""_L1));
    if (scenario == "lost-payment-reply"_L1) {
        const QJsonObject state = m_sandbox->get(u"/sandbox/state"_s).json();
        QCOMPARE(state.value("payments"_L1).toArray().size(), 1);
    }
    if (call == Download && status == 200) {
        const QByteArray content = Files::contentOf(file());
        QCOMPARE(content == Sandbox::release, scenario == "slow-download"_L1);
        QCOMPARE(content.size() == Sandbox::release.size(), scenario != "captive-portal"_L1);
    }
}

void tst_SandboxFaults::stalledCallsStayOpen_data()
{
    QTest::addColumn<int>("call");
    for (int call = Usage; call <= Capture; ++call)
        QTest::newRow(callNames.at(call).toLatin1().constData()) << call;
}

// As the header says of a server that keeps silent; the host gives up by destroying the object.
void tst_SandboxFaults::stalledCallsStayOpen()
{
    QFETCH(const int, call);
    const QJsonObject started = m_sandbox->start();
    m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, u"silent-service"_s}});
    const qint64 before =
        m_sandbox->get(u"/sandbox/journal"_s).json().value("change"_L1).toInteger();
    auto client = std::make_unique<Corvane>();
    SignalLog log(client.get());
    begin(*client, call, started);
    // The call's entry is new, and then over.
    QString ending;
    qint64 change = before;
    while (ending.isEmpty()) {
        const QJsonObject journal =
            m_sandbox->get(u"/sandbox/journal?wait=20&since=%1"_s.arg(change)).json();
        QVERIFY(!journal.value("entries"_L1).toArray().isEmpty());
        change = journal.value("change"_L1).toInteger();
        ending = journal.value("entries"_L1)[0]["ending"_L1].toString();
    }
    QCOMPARE(ending, u"stalled"_s);
    QCOMPARE(m_sandbox->get(u"/sandbox/faults"_s).status, 200); // a whole round trip later
    QCOMPARE(log.lines(), QStringList());
    client.reset();
    QCOMPARE(log.lines(), QStringList());
}

void tst_SandboxFaults::set(const QByteArray &rules)
{
    const Sandbox::Answer answer =
        m_sandbox->ask("POST", u"/sandbox/faults"_s, R"({"faults":)" + rules + '}',
                       {{"Content-Type", "application/json"}});
    QVERIFY2(answer.status == 200, answer.body.constData());
}

// Of so many requests, one after the other.
QStringList tst_SandboxFaults::statuses(int count) const
{
    QStringList statuses;
    for (int i = 0; i < count; ++i)
        statuses += QString::number(m_sandbox->get(plansPath).status);
    return statuses;
}

// Of the purchase that was started, where the call is about one.
void tst_SandboxFaults::begin(Corvane &client, int call, const QJsonObject &started) const
{
    client.setServerUrl(m_sandbox->url());
    client.setProductCode(u"DEMO"_s);
    switch (call) {
    case Usage:
        return client.sendUsage({}, u"m"_s, u"avvio"_s, {});
    case Check:
        return client.checkForUpdate(u"1.0"_s, u"stable"_s);
    case Download:
        return client.downloadUpdate(m_sandbox->url(u"/releases/DEMO/stable/latest"_s), file());
    case Plans:
        return client.fetchPurchasePlans();
    case Start:
        return client.startPayPalPurchase(u"ANNUALE"_s, u"Ada"_s, u"Rossi"_s, u"a@example.org"_s);
    case Resume:
        return client.resumePayPalPurchase(started.value("license_key"_L1).toString());
    default:
        return client.capturePayPalPurchase(started.value("paypal_order_id"_L1).toString());
    }
}

// What the client's own reply says when it finishes: the client reads its body a moment later.
Outcome tst_SandboxFaults::outcomeOf(Corvane &client, int call, const QJsonObject &started) const
{
    begin(client, call, started);
    auto *reply = client.findChild<QNetworkReply *>();
    Outcome outcome{};
    if (!reply)
        return outcome;
    connect(reply, &QNetworkReply::readChannelFinished, reply,
            [&outcome, reply] { outcome = PlainNetwork::outcomeOf(reply); });
    QSignalSpy gone(reply, &QObject::destroyed);
    gone.wait(20000);
    return outcome;
}

QTEST_GUILESS_MAIN(tst_SandboxFaults)

#include "tst_sandbox_faults.moc"
