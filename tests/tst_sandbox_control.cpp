#include "files.h"
#include "rawclient.h"
#include "sandbox.h"

#include <QtCore/qdatetime.h>
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
    void usageIsCountedOverTime_data();
    void usageIsCountedOverTime();
    void usageOfTheLastSecondsIsCounted();
    void rareTypesAreCountedTogether();
    void resetUndoesEverything();
    void resetBringsBackTheArguments();
    void controlIsNoPartOfTheService();
    void repliesAreNotCached();
    void pageIsServed_data();
    void pageIsServed();
    void folderWithoutSlashLeadsToThePage();

private:
    void startWithUsage(const QJsonArray &events);
    QJsonObject usage(const QString &query = {}) const;

    QTemporaryDir m_folder;
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
        "there is nothing here: see state, usage, faults, scenarios and journal below /sandbox/";
    row("unknown", "GET", "/fault", "", 404, nothing);
    row("unknown-file", "GET", "/dashboard.cpp", "", 404, nothing);
    row("post-page", "POST", "/", "{}", 405, "this method is not for this path");
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
    row("most-text", "GET", "/journal?most=all", "", 400,
        "most: must be a whole number from 0 to 9223372036854775807");
    row("seconds-negative", "GET", "/usage?seconds=-1", "", 400,
        "seconds: must be a whole number from 0 to 1000000000");
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
    RawClient client(m_sandbox->port());
    client.send("HEAD /sandbox/ HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n");
    const QByteArray reply = client.untilClosed();
    QVERIFY2(reply.startsWith("HTTP/1.1 405 ") && reply.contains("\r\nAllow: GET\r\n"),
             reply.constData());
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
        for (const auto &rule : rules)
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

void tst_SandboxControl::usageIsCountedOverTime_data()
{
    QTest::addColumn<QStringList>("times");
    QTest::addColumn<int>("step");
    QTest::addColumn<QString>("counts");

    const QString day = u"2026-01-05T"_s;
    QTest::newRow("one") << QStringList{day + "10:00:07Z"_L1} << 1 << u"10:00:07 1"_s;
    QTest::newRow("seconds") << QStringList{day + "10:00:00.999Z"_L1, day + "10:00:01Z"_L1,
                                            day + "10:00:58Z"_L1, day + "10:00:00Z"_L1}
                             << 1 << u"10:00:00 2, 10:00:01 1, 10:00:58 1"_s;
    QTest::newRow("pairs-of-seconds")
        << QStringList{day + "10:00:03Z"_L1, day + "10:00:02Z"_L1, day + "10:01:02Z"_L1} << 2
        << u"10:00:02 2, 10:01:02 1"_s;
    QTest::newRow("minutes") << QStringList{day + "10:00:59Z"_L1, day + "10:58:00Z"_L1} << 60
                             << u"10:00:00 1, 10:58:00 1"_s;
    QTest::newRow("half-hours") << QStringList{day + "00:31:00Z"_L1, day + "23:59:59Z"_L1} << 1800
                                << u"00:30:00 1, 23:30:00 1"_s;
    QTest::newRow("long-ago") << QStringList{u"1996-01-05T00:00:00Z"_s, day + "00:00:00Z"_L1}
                              << 16'046'970 << QString();
}

void tst_SandboxControl::usageIsCountedOverTime()
{
    QFETCH(const QStringList, times);
    QFETCH(const int, step);
    QFETCH(const QString, counts);
    QJsonArray events;
    for (const QString &time : times)
        events.append(QJsonObject{{u"event_type"_s, u"avvio"_s}, {u"received_at"_s, time}});
    startWithUsage(events);

    const QJsonObject shown = usage();
    QCOMPARE(shown.value("step_s"_L1).toInt(), step);
    QStringList lines;
    const QJsonArray all = shown.value("counts"_L1).toArray();
    int total = 0;
    for (const QJsonValue &count : all) {
        QCOMPARE(count["event_type"_L1].toString(), u"avvio"_s);
        total += count["events"_L1].toInt();
        lines += u"%1 %2"_s.arg(count["from"_L1].toString().sliced(11, 8),
                                QString::number(count["events"_L1].toInt()));
    }
    QCOMPARE(total, times.size());
    QVERIFY(counts.isNull() || lines.join(u", "_s) == counts);
    // The first step begins with the span, and there are not too many of them.
    const auto time = [&shown](const QString &name) {
        return QDateTime::fromString(shown.value(name).toString(), Qt::ISODate);
    };
    QCOMPARE(shown.value("from"_L1), all.at(0)["from"_L1]);
    QVERIFY(time(u"from"_s).secsTo(time(u"to"_s)) / step < 60);
}

void tst_SandboxControl::usageOfTheLastSecondsIsCounted()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QJsonArray events;
    for (const int ago : {0, 30, 3000}) {
        events.append(QJsonObject{{u"event_type"_s, QString::number(ago)},
                                  {u"received_at"_s, now.addSecs(-ago).toString(Qt::ISODate)}});
    }
    startWithUsage(events);
    const auto types = [this](const QString &query) {
        QStringList list;
        const QJsonArray all = usage(query).value("counts"_L1).toArray();
        for (const QJsonValue &count : all)
            list += count["event_type"_L1].toString();
        list.sort();
        return list.join(u' ');
    };
    QCOMPARE(types(u"?seconds=1500"_s), u"0 30"_s);
    QCOMPARE(types(u"?seconds=6000"_s), u"0 30 3000"_s);
    QCOMPARE(types(u"?seconds=0"_s), u"0 30 3000"_s);
    const QJsonObject quiet = usage(u"?seconds=1500"_s);
    QCOMPARE(quiet.value("step_s"_L1).toInt(), 30);
}

void tst_SandboxControl::rareTypesAreCountedTogether()
{
    const QString time = u"2026-01-05T10:00:00Z"_s;
    const QString types = u"aaabbcccddeefgg"_s;
    QJsonArray events;
    for (const QChar type : types)
        events.append(QJsonObject{{u"event_type"_s, QString(type)}, {u"received_at"_s, time}});
    startWithUsage(events);
    QStringList lines;
    const QJsonArray all = usage().value("counts"_L1).toArray();
    for (const QJsonValue &count : all) {
        lines += count["event_type"_L1].toString(u"null"_s)
            + QString::number(count["events"_L1].toInt());
    }
    lines.sort();
    QCOMPARE(lines.join(u' '), u"a3 b2 c3 d2 e2 null3"_s);
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
    QCOMPARE(m_sandbox->get(u"/sandbox/"_s).status, 200);
    QCOMPARE(m_sandbox->get(u"/sandboxes"_s).status, 503);
    QCOMPARE(m_sandbox->get(u"/"_s).status, 503);
}

void tst_SandboxControl::repliesAreNotCached()
{
    QCOMPARE(m_sandbox->get(faultsPath).cacheControl, QByteArray("no-store"));
}

void tst_SandboxControl::pageIsServed_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QByteArray>("part");
    QTest::newRow("html") << QByteArray("/sandbox/") << QByteArray("text/html; charset=utf-8")
                          << QByteArray("<title>corvane-sandbox</title>");
    QTest::newRow("query") << QByteArray("/sandbox/?a=b") << QByteArray("text/html; charset=utf-8")
                           << QByteArray("src=\"dashboard.js\"");
    QTest::newRow("css") << QByteArray("/sandbox/dashboard.css")
                         << QByteArray("text/css; charset=utf-8") << QByteArray("color-scheme");
    QTest::newRow("js") << QByteArray("/sandbox/dashboard.js")
                        << QByteArray("text/javascript; charset=utf-8")
                        << QByteArray("addEventListener");
    QTest::newRow("icon") << QByteArray("/sandbox/icon.svg") << QByteArray("image/svg+xml")
                          << QByteArray("<svg ");
}

void tst_SandboxControl::pageIsServed()
{
    QFETCH(const QByteArray, path);
    QFETCH(const QByteArray, type);
    QFETCH(const QByteArray, part);
    RawClient client(m_sandbox->port());
    client.send("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    const QByteArray reply = client.reply();
    const qsizetype end = reply.indexOf("\r\n\r\n");
    const QByteArray body = reply.sliced(end + 4);
    QVERIFY2(body.contains(part), body.constData());
    QCOMPARE(reply.first(end),
             "HTTP/1.1 200 OK\r\nContent-Type: " + type
                 + "\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n"
                   "Content-Security-Policy: default-src 'none'; connect-src 'self'; "
                   "img-src 'self'; script-src 'self'; style-src 'self'; base-uri 'none'; "
                   "form-action 'none'; frame-ancestors 'none'\r\nContent-Length: "
                 + QByteArray::number(body.size()));
}

void tst_SandboxControl::folderWithoutSlashLeadsToThePage()
{
    RawClient client(m_sandbox->port());
    client.send("GET /sandbox HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    QCOMPARE(client.reply(),
             QByteArray("HTTP/1.1 308 Permanent Redirect\r\nLocation: /sandbox/\r\n"
                        "Content-Length: 0\r\n\r\n"));
}

// Events of DEMO, each by one machine.
void tst_SandboxControl::startWithUsage(const QJsonArray &events)
{
    QJsonArray all;
    for (const QJsonValue &event : events) {
        QJsonObject object = event.toObject();
        object.insert("product_code"_L1, u"DEMO"_s);
        object.insert("machine_fingerprint"_L1, u"m"_s);
        all.append(object);
    }
    const QJsonObject product{{u"product_code"_s, u"DEMO"_s}, {u"name"_s, u"Demo"_s}};
    const QString file = m_folder.filePath(u"data.json"_s);
    Files::write(
        file,
        QJsonDocument(QJsonObject{{u"products"_s, QJsonArray{product}}, {u"usage_events"_s, all}})
            .toJson());
    m_sandbox = std::make_unique<Sandbox>(QStringLiteral(CORVANE_SANDBOX_PATH),
                                          QStringList{u"--data"_s, file});
    QVERIFY(m_sandbox->isRunning());
}

QJsonObject tst_SandboxControl::usage(const QString &query) const
{
    return m_sandbox->get("/sandbox/usage"_L1 + query).json();
}

QTEST_GUILESS_MAIN(tst_SandboxControl)

#include "tst_sandbox_control.moc"
