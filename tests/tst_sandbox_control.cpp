#include "sandbox.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtTest/qtest.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

const QString faultsPath = u"/sandbox/faults"_s;
const Sandbox::Headers json{{"Content-Type", "application/json"}};

} // namespace

// The control interface, and who may not use it.
class tst_SandboxControl : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void refuses_data();
    void refuses();
    void pagesOfOtherSitesAreRefused_data();
    void pagesOfOtherSitesAreRefused();
    void ownPagesAreServed_data();
    void ownPagesAreServed();
    void methodsAreNamed();
    void rulesAreAddedAndTakenOut();
    void scenarioReplacesAllRules();
    void stateIsShown();
    void resetUndoesEverything();
    void resetBringsBackTheArguments();
    void controlIsNoPartOfTheService();
    void repliesAreNotCached();

private:
    std::unique_ptr<Sandbox> m_sandbox;
};

void tst_SandboxControl::init()
{
    m_sandbox = std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_sandbox->isRunning());
}

void tst_SandboxControl::cleanup()
{
    QCOMPARE(m_sandbox->complaints(), QString());
    m_sandbox.reset();
}

void tst_SandboxControl::refuses_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("error");

    const auto row = [](const char *tag, const char *method, const char *path, const char *body,
                        int status, const char *error) {
        QTest::newRow(tag) << QByteArray(method) << "/sandbox"_L1 + QString::fromLatin1(path)
                           << QByteArray(body) << status << QString::fromLatin1(error);
    };
    const char *const nothing =
        "there is nothing here: see state, faults, scenarios and journal below /sandbox/";
    row("root", "GET", "", "", 404, nothing);
    row("unknown", "GET", "/fault", "", 404, nothing);
    row("other-method", "PUT", "/faults", "{}", 405, "this method is not for this path");
    row("get-reset", "GET", "/reset", "", 405, "this method is not for this path");
    row("not-json", "POST", "/faults", "{", 400, "the body is not JSON: unterminated object at 1");
    row("no-body", "POST", "/faults", "", 400, "the body is not JSON: illegal value at 0");
    row("array", "POST", "/faults", "[]", 400, "the body must be an object");
    row("no-faults", "POST", "/faults", "{}", 400, "the body has no \"faults\"");
    row("unknown-member", "POST", "/faults", R"({"fault":[]})", 400,
        "fault: is not known; there are faults");
    row("faults-are-an-object", "POST", "/faults", R"({"faults":{}})", 400,
        "faults: must be an array");
    row("no-name", "POST", "/scenario", "{}", 400, "the body has no \"name\"");
    row("since-negative", "GET", "/journal?since=-1", "", 400,
        "since: must be a whole number from 0 to 9223372036854775807");
    row("since-empty", "GET", "/journal?since=", "", 400,
        "since: must be a whole number from 0 to 9223372036854775807");
    row("wait-text", "GET", "/journal?wait=long", "", 400,
        "wait: must be a whole number from 0 to 60");
    row("wait-too-long", "GET", "/journal?wait=61", "", 400,
        "wait: must be a whole number from 0 to 60");
}

void tst_SandboxControl::refuses()
{
    QFETCH(const QByteArray, method);
    QFETCH(const QString, path);
    QFETCH(const QByteArray, body);
    QFETCH(const int, status);
    QFETCH(const QString, error);
    const Sandbox::Answer answer = m_sandbox->ask(method, path, body, json);
    QCOMPARE(answer.error(), error);
    QCOMPARE(answer.status, status);
    QCOMPARE(m_sandbox->get(faultsPath).body, QByteArray("{\"faults\":[]}"));
}

void tst_SandboxControl::pagesOfOtherSitesAreRefused_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<Sandbox::Headers>("headers");
    QTest::addColumn<int>("status");

    const auto with = [](const QByteArray &name, const QByteArray &value) {
        Sandbox::Headers headers = json;
        headers.insert(name, value);
        return headers;
    };
    QTest::newRow("origin") << QByteArray("POST") << with("Origin", "http://a.example") << 403;
    QTest::newRow("origin-null") << QByteArray("POST") << with("Origin", "null") << 403;
    QTest::newRow("origin-port") << QByteArray("POST") << with("Origin", "http://127.0.0.1:1")
                                 << 403;
    QTest::newRow("delete") << QByteArray("DELETE") << with("Origin", "http://a.example") << 403;
    QTest::newRow("get") << QByteArray("GET") << with("Origin", "http://a.example") << 403;
    QTest::newRow("host") << QByteArray("POST") << with("Host", "a.example") << 403;
    QTest::newRow("host-with-port") << QByteArray("GET") << with("Host", "a.example:80") << 403;
    QTest::newRow("host-like-an-address")
        << QByteArray("GET") << with("Host", "127.0.0.1.a.example") << 403;
    QTest::newRow("host-with-user")
        << QByteArray("GET") << with("Host", "127.0.0.1@a.example") << 403;
    for (const char *type : {"text/plain", "application/x-www-form-urlencoded",
                             "multipart/form-data; boundary=a", "text/plain; application/json"})
        QTest::newRow(type) << QByteArray("POST") << Sandbox::Headers{{"Content-Type", type}}
                            << 415;
}

void tst_SandboxControl::pagesOfOtherSitesAreRefused()
{
    QFETCH(const QByteArray, method);
    QFETCH(const Sandbox::Headers, headers);
    QFETCH(const int, status);
    m_sandbox->post(
        faultsPath,
        {{u"faults"_s, QJsonArray{QJsonObject{{u"do"_s, QJsonObject{{u"status"_s, 500}}}}}}});
    const QByteArray before = m_sandbox->get(faultsPath).body;
    QCOMPARE(
        m_sandbox->ask(method, faultsPath, R"({"faults":[{"do":{"status":404}}]})", headers).status,
        status);
    QCOMPARE(m_sandbox->get(faultsPath).body, before);
}

void tst_SandboxControl::ownPagesAreServed_data()
{
    QTest::addColumn<QByteArray>("host");
    QTest::newRow("address") << QByteArray("127.0.0.1:80");
    QTest::newRow("name") << QByteArray("localhost:80");
    QTest::newRow("name-in-capitals") << QByteArray("LocalHost");
    QTest::newRow("ipv6") << QByteArray("[::1]:80");
}

void tst_SandboxControl::ownPagesAreServed()
{
    QFETCH(const QByteArray, host);
    const Sandbox::Answer answer =
        m_sandbox->ask("POST", u"/sandbox/reset"_s, {},
                       {{"Host", host},
                        {"Origin", "http://" + host},
                        {"Content-Type", "Application/JSON; charset=utf-8"}});
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.body, QByteArray("{\"success\":true}"));
}

void tst_SandboxControl::methodsAreNamed()
{
    QCOMPARE(m_sandbox->ask("PUT", faultsPath, {}, json).allow, QByteArray("GET, POST, DELETE"));
}

void tst_SandboxControl::rulesAreAddedAndTakenOut()
{
    const QJsonObject first{{u"do"_s, QJsonObject{{u"status"_s, 500}}}};
    const QJsonObject second{{u"operation"_s, u"usage"_s},
                             {u"when"_s, QJsonObject{{u"times"_s, 2}}},
                             {u"do"_s, QJsonObject{{u"delay"_s, 1}}}};
    const auto counted = [](QJsonObject rule) {
        rule.insert("seen"_L1, 0);
        rule.insert("done"_L1, 0);
        return rule;
    };
    QCOMPARE(m_sandbox->post(faultsPath, {{u"faults"_s, QJsonArray{first}}}).json(),
             (QJsonObject{{u"faults"_s, QJsonArray{counted(first)}}}));
    const QJsonObject both{{u"faults"_s, QJsonArray{counted(first), counted(second)}}};
    QCOMPARE(m_sandbox->post(faultsPath, {{u"faults"_s, QJsonArray{second}}}).json(), both);
    QCOMPARE(m_sandbox->get(faultsPath).json(), both);
    QCOMPARE(m_sandbox->ask("DELETE", faultsPath).body, QByteArray("{\"faults\":[]}"));
    QCOMPARE(m_sandbox->get(faultsPath).body, QByteArray("{\"faults\":[]}"));
}

void tst_SandboxControl::scenarioReplacesAllRules()
{
    for (const QString &name : {u"maintenance"_s, u"expired-licence"_s}) {
        const QJsonArray rules = m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, name}})
                                     .json()
                                     .value("faults"_L1)
                                     .toArray();
        QCOMPARE(rules.size(), name == "maintenance"_L1 ? 1 : 2);
        for (const QJsonValue rule : rules)
            QCOMPARE(rule["scenario"_L1].toString(), name);
    }
    const Sandbox::Answer unknown = m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, u"x"_s}});
    QCOMPARE(unknown.status, 400);
    QVERIFY(unknown.error().startsWith("name: must be one of service-down, maintenance, "_L1));
    QCOMPARE(m_sandbox->get(faultsPath).json().value("faults"_L1).toArray().size(), 2);
}

void tst_SandboxControl::stateIsShown()
{
    const QJsonObject started = m_sandbox->start();
    const QJsonObject state = m_sandbox->get(u"/sandbox/state"_s).json();
    QCOMPARE(state.keys().join(u' '), u"licenses orders payments plans products usage_events"_s);
    QCOMPARE(state.value("plans"_L1).toArray().size(), 3);
    QCOMPARE(state.value("products"_L1)[0]["product_code"_L1].toString(), u"DEMO"_s);
    QCOMPARE(state.value("licenses"_L1)[0]["license_key"_L1], started.value("license_key"_L1));
    QCOMPARE(state.value("orders"_L1)[0]["paypal_order_id"_L1],
             started.value("paypal_order_id"_L1));
    QVERIFY(state.value("orders"_L1)[0]["approved_at"_L1].isNull()
            || state.value("orders"_L1)[0]["approved_at"_L1] == QJsonValue(u""_s));
}

void tst_SandboxControl::resetUndoesEverything()
{
    const auto look = [this] { return m_sandbox->get(u"/sandbox/state"_s).body; };
    const QByteArray before = look();
    const QJsonObject started = m_sandbox->start();
    m_sandbox->approve(started);
    m_sandbox->post(u"/api/v1/purchase/capture"_s,
                    {{u"paypal_order_id"_s, started.value("paypal_order_id"_L1)}});
    m_sandbox->post(u"/api/v1/client/usage"_s,
                    {{u"product_code"_s, u"DEMO"_s},
                     {u"license_key"_s, u""_s},
                     {u"machine_fingerprint"_s, u"m"_s},
                     {u"event_type"_s, u"avvio"_s}});
    m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, u"maintenance"_s}});
    const QJsonObject journal = m_sandbox->get(u"/sandbox/journal"_s).json();
    QCOMPARE(journal.value("entries"_L1).toArray().size(), 4);
    QVERIFY(look() != before);

    QCOMPARE(m_sandbox->post(u"/sandbox/reset"_s, {}).body, QByteArray("{\"success\":true}"));
    QCOMPARE(look(), before);
    QCOMPARE(m_sandbox->get(faultsPath).body, QByteArray("{\"faults\":[]}"));
    const QJsonObject after = m_sandbox->get(u"/sandbox/journal"_s).json();
    QVERIFY(after.value("entries"_L1).toArray().isEmpty());
    // Who follows the journal sees that it has changed, and that all he knows is gone.
    QVERIFY(after.value("change"_L1).toInt() > journal.value("change"_L1).toInt());
    QCOMPARE(after.value("first"_L1).toInt(), 5);
    // The ids begin again.
    QCOMPARE(m_sandbox->start().value("license_id"_L1), started.value("license_id"_L1));
}

void tst_SandboxControl::resetBringsBackTheArguments()
{
    m_sandbox = std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH),
                                          QStringList{u"--scenario"_s, u"recovering"_s});
    const QByteArray before = m_sandbox->get(faultsPath).body;
    m_sandbox->get(u"/api/v1/purchase/plans"_s);
    QVERIFY(m_sandbox->get(faultsPath).body != before);
    m_sandbox->post(u"/sandbox/reset"_s, {});
    QCOMPARE(m_sandbox->get(faultsPath).body, before);
}

// Faults do not shut the engineer out, and the journal does not tell of his own requests.
void tst_SandboxControl::controlIsNoPartOfTheService()
{
    m_sandbox->post(u"/sandbox/scenario"_s, {{u"name"_s, u"service-down"_s}});
    const QJsonObject journal = m_sandbox->get(u"/sandbox/journal"_s).json();
    QVERIFY(journal.value("entries"_L1).toArray().isEmpty());
    QCOMPARE(m_sandbox->get(u"/sandboxes"_s).status, 503);
}

void tst_SandboxControl::repliesAreNotCached()
{
    QCOMPARE(m_sandbox->get(faultsPath).cacheControl, QByteArray("no-store"));
}

QTEST_GUILESS_MAIN(tst_SandboxControl)

#include "tst_sandbox_control.moc"
