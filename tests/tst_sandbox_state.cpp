#include "database.h"
#include "files.h"
#include "sandbox.h"

#include <QtCore/qdir.h>
#include <QtCore/qelapsedtimer.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qmap.h>
#include <QtCore/qprocess.h>
#include <QtCore/qrandom.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qset.h>
#include <QtCore/qtemporarydir.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <memory>
#include <vector>

#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 20000;

const QString program = QStringLiteral(CORVANE_SANDBOX_PATH);
const QString sourceDir = QStringLiteral(SOURCE_DIR);
const QString exampleData = sourceDir + "/sandbox/data/example.json"_L1;

// What a sandbox that does not start leaves behind.
struct Refusal
{
    int exitCode = -1;
    QString output;
    QString error;
};

using Modifier = std::function<void()>;

Refusal refusalOf(const QStringList &arguments, const QString &folder, const Modifier &modifier)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setChildProcessModifier([modifier] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        modifier();
    });
    process.start(program, arguments);
    if (!process.waitForFinished(timeout) || process.exitStatus() != QProcess::NormalExit)
        return {-1, {}, u"(did not end)"_s};
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

// No file may grow beyond that: a full disk, for the process alone.
void limitFileSize(rlim_t bytes)
{
    const rlimit limit{bytes, bytes};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, SIG_IGN);
}

// Root may write anywhere.
void becomeNobody()
{
    if (::getuid() == 0
        && (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0))
        ::_exit(99);
}

QJsonObject usageRequest(const QString &machine)
{
    return {{u"product_code"_s, u"DEMO"_s},
            {u"license_key"_s, u""_s},
            {u"machine_fingerprint"_s, machine},
            {u"event_type"_s, u"avvio"_s}};
}

// What the service has said that it did.
struct Acknowledged
{
    // By order id; "pending", "approved" or "paid".
    QMap<QString, QString> orders;
    QMap<QString, int> licenseIds;
    QSet<QString> machines;
    int count = 0;
};

// Buys one licence after the other and reports usage, until the service is gone. Every event is of
// a machine of its own.
class Client : public QObject
{
    Q_OBJECT

public:
    Client(const QUrl &server, const QString &name, Acknowledged &acknowledged)
        : m_server(server)
        , m_name(name)
        , m_acknowledged(acknowledged)
    {
        report();
    }
    bool isDone() const { return m_isDone; }

Q_SIGNALS:
    void acknowledged();

private:
    using Step = void (Client::*)(const QJsonObject &reply);

    void post(const QString &path, const QJsonObject &body, Step step)
    {
        QNetworkRequest request(m_server.resolved(QUrl(path)));
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                             QNetworkRequest::ManualRedirectPolicy);
        request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
        QNetworkReply *reply =
            m_network.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
        connect(reply, &QNetworkReply::finished, this, [this, reply, step] {
            reply->deleteLater();
            m_isDone = reply->error() != QNetworkReply::NoError;
            if (m_isDone)
                return;
            (this->*step)(QJsonDocument::fromJson(reply->readAll()).object());
            ++m_acknowledged.count;
            Q_EMIT acknowledged();
        });
    }

    void report()
    {
        m_machine = m_name + u'-' + QString::number(++m_reports);
        post(u"/api/v1/client/usage"_s, usageRequest(m_machine), &Client::reported);
    }
    void reported(const QJsonObject &)
    {
        m_acknowledged.machines.insert(m_machine);
        post(u"/api/v1/purchase/start"_s,
             {{u"product_code"_s, u"DEMO"_s},
              {u"plan_code"_s, u"MENSILE"_s},
              {u"first_name"_s, u"Ada"_s},
              {u"last_name"_s, u"Rossi"_s},
              {u"email"_s, u"ada@example.org"_s}},
             &Client::started);
    }
    void started(const QJsonObject &reply)
    {
        m_order = reply.value("paypal_order_id"_L1).toString();
        m_acknowledged.orders.insert(m_order, u"pending"_s);
        m_acknowledged.licenseIds.insert(m_order, reply.value("license_id"_L1).toInt());
        post("/paypal/approve/"_L1 + m_order, {}, &Client::approved);
    }
    void approved(const QJsonObject &)
    {
        m_acknowledged.orders.insert(m_order, u"approved"_s);
        post(u"/api/v1/purchase/capture"_s, {{u"paypal_order_id"_s, m_order}}, &Client::captured);
    }
    void captured(const QJsonObject &)
    {
        m_acknowledged.orders.insert(m_order, u"paid"_s);
        report();
    }

    QNetworkAccessManager m_network;
    QUrl m_server;
    QString m_name;
    Acknowledged &m_acknowledged;
    QString m_machine;
    QString m_order;
    int m_reports = 0;
    bool m_isDone = false;
};

} // namespace

class tst_SandboxState : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void withoutDataThereIsTheDemoProduct();
    void dataFillsANewDatabase();
    void dataFillsTheMemoryToo();
    void ordersAreInTheStateThatTheDataGivesThem();
    void whatIsNotGivenIsMadeUp();
    void dataIsNotLoadedTwice();
    void wrongDataIsRefused_data();
    void wrongDataIsRefused();
    void wrongDataLeavesNoDatabase();
    void dataIsLoadedWholeOrNotAtAll();

    void foldersReleasesAreListed();
    void newReleaseIsListedWhenItIsOffered();
    void schemaRefusesWhatMakesNoSense_data();
    void schemaRefusesWhatMakesNoSense();

    void whatWasAcknowledgedSurvivesKills();
    void readersHoldNobodyUp();
    void unusableDatabaseIsRefused_data();
    void unusableDatabaseIsRefused();
    void unwritableDatabaseIsRefused_data();
    void unwritableDatabaseIsRefused();
    void lockedDatabaseIsRefused();
    void lockedDatabaseFailsOneRequest();
    void fullDiskLosesNothingAcknowledged();

    void documentNamesEveryColumn();

private:
    QString path(const QString &name) const { return m_dir->filePath(name); }
    QStringList query(const QString &sql) const
    {
        return Database(path(u"state.sqlite"_s)).query(sql);
    }
    std::unique_ptr<Sandbox> started(const QStringList &arguments = {}) const;
    void checkAgainst(const Acknowledged &acknowledged) const;

    // A database of the example's data, to copy.
    QTemporaryDir m_example;
    std::unique_ptr<QTemporaryDir> m_dir;
};

void tst_SandboxState::initTestCase()
{
    const QString file = m_example.filePath(u"state.sqlite"_s);
    QVERIFY(Sandbox(program, {u"--data"_s, exampleData, u"--database"_s, file}).isRunning());
    // Brings what is in the log into the file.
    QCOMPARE(Database(file).query(u"PRAGMA journal_mode = DELETE"_s), QStringList{u"delete"_s});
}

void tst_SandboxState::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void tst_SandboxState::withoutDataThereIsTheDemoProduct()
{
    const auto sandbox = started();
    QCOMPARE(query(u"SELECT product_code, plan_code, price, currency FROM plans"_s),
             (QStringList{u"DEMO|MENSILE|9.90|EUR"_s, u"DEMO|ANNUALE|99.00|EUR"_s,
                          u"DEMO|PERPETUA|249.00|EUR"_s}));
    QCOMPARE(query(u"SELECT * FROM order_overview"_s), QStringList());
    QCOMPARE(query(u"SELECT * FROM usage_events"_s), QStringList());
}

void tst_SandboxState::dataFillsANewDatabase()
{
    const auto sandbox = started({u"--data"_s, exampleData});
    QCOMPARE(query(u"SELECT * FROM products"_s), QStringList{u"ATLANTE|Atlante"_s});
    QCOMPARE(
        query(u"SELECT product_code, plan_code, name, description, price, currency FROM plans"_s),
        (QStringList{u"ATLANTE|MENSILE|Abbonamento mensile|Rinnovo ogni mese.|4.90|EUR"_s,
                     u"ATLANTE|ANNUALE|Abbonamento annuale||49.00|EUR"_s}));
    QCOMPARE(
        query(u"SELECT l.*, o.* FROM licenses l JOIN orders o ON o.license_id = l.id LIMIT 2"_s),
        (QStringList{u"1001|ATLA-PAID-0001|ATLANTE|ANNUALE|Ada|Rossi|ada.rossi@example.org|active|"
                     "2026-01-05T09:00:00.000Z|1|ORDER-PAID|1001|Abbonamento annuale|49.00|EUR|"
                     "2026-01-05T09:00:00.000Z|2026-01-05T09:00:00.000Z|"_s,
                     u"1002|ATLA-APPR-0002|ATLANTE|MENSILE|Ugo|Verdi|ugo.verdi@example.org|pending|"
                     "2026-01-06T10:30:00.000Z|2|ORDER-APPROVED|1002|Abbonamento mensile|4.90|EUR|"
                     "2026-01-06T10:30:00.000Z|2026-01-06T10:30:00.000Z|"_s}));
    QCOMPARE(query(u"SELECT payment_id, state FROM order_overview"_s),
             (QStringList{u"1|paid"_s, u"2|approved"_s, u"3|pending"_s, u"4|cancelled"_s}));
    QCOMPARE(query(u"SELECT * FROM payments"_s),
             QStringList{u"1|49.00|EUR|2026-01-05T09:00:00.000Z"_s});
    QCOMPARE(query(u"SELECT * FROM usage_events"_s),
             (QStringList{u"1|ATLANTE|ATLA-PAID-0001|pc-ada|session-end|"
                          "{\"duration_s\":1800,\"maps\":3}|2026-01-05T10:00:00.000Z"_s,
                          u"2|ATLANTE|ATLA-PAID-0001|pc-ada|session-end|"
                          "{\"duration_s\":600,\"maps\":1}|2026-01-06T08:15:00.000Z"_s,
                          u"3|ATLANTE||pc-lea|trial-start|{}|2026-01-06T17:40:00.000Z"_s}));
    QCOMPARE(query(u"SELECT license_key IS NULL FROM usage_events"_s),
             (QStringList{u"0"_s, u"0"_s, u"1"_s}));
}

void tst_SandboxState::dataFillsTheMemoryToo()
{
    const Sandbox sandbox(program, {u"--data"_s, exampleData});
    QCOMPARE(sandbox.get(u"/api/v1/purchase/plans?product_code=DEMO"_s).status, 404);
    const QJsonArray plans = sandbox.get(u"/api/v1/purchase/plans?product_code=ATLANTE"_s)
                                 .json()
                                 .value("plans"_L1)
                                 .toArray();
    QCOMPARE(plans.size(), 2);
    QCOMPARE(plans.at(1).toObject().value("price"_L1).toString(), u"49.00"_s);
}

void tst_SandboxState::ordersAreInTheStateThatTheDataGivesThem()
{
    const auto sandbox = started({u"--data"_s, exampleData});
    const auto resume = [&](const QString &key) {
        return sandbox->post(u"/api/v1/purchase/resume"_s,
                             {{u"product_code"_s, u"ATLANTE"_s}, {u"license_key"_s, key}});
    };
    const auto capture = [&](const QString &order) {
        return sandbox->post(u"/api/v1/purchase/capture"_s, {{u"paypal_order_id"_s, order}});
    };

    QCOMPARE(resume(u"ATLA-PAID-0001"_s).error(), u"Questo acquisto è già stato pagato."_s);
    QCOMPARE(capture(u"ORDER-PAID"_s).json().value("license_id"_L1).toInt(), 1001);

    QCOMPARE(resume(u"ATLA-APPR-0002"_s).json().value("payment_id"_L1).toInt(), 2);
    QCOMPARE(capture(u"ORDER-APPROVED"_s).json().value("license_key"_L1).toString(),
             u"ATLA-APPR-0002"_s);

    QCOMPARE(resume(u"ATLA-PEND-0003"_s).json().value("paypal_order_id"_L1).toString(),
             u"ORDER-PENDING"_s);
    QCOMPARE(capture(u"ORDER-PENDING"_s).error(), u"Il pagamento non è ancora stato approvato."_s);

    const Sandbox::Answer resumed = resume(u"ATLA-CANC-0004"_s);
    QCOMPARE(resumed.status, 409);
    QCOMPARE(resumed.error(), u"Questo acquisto è stato annullato."_s);
    const Sandbox::Answer captured = capture(u"ORDER-CANCELLED"_s);
    QCOMPARE(captured.status, 409);
    QCOMPARE(captured.error(), u"Il pagamento è stato annullato."_s);
    QCOMPARE(captured.json().value("paid"_L1), QJsonValue(false));

    // What is cancelled stays so, whatever page is still open.
    const QString page = u"/paypal/approve/ORDER-CANCELLED"_s;
    const Sandbox::Answer shown = sandbox->get(page);
    QCOMPARE(shown.status, 200);
    QVERIFY(shown.body.contains("<h1>Pagamento annullato</h1>"));
    QVERIFY(!shown.body.contains("<form"));
    const Sandbox::Answer approved = sandbox->ask("POST", page);
    QCOMPARE(approved.status, 409);
    QCOMPARE(approved.body, shown.body);
    QCOMPARE(query(u"SELECT payment_id, state FROM order_overview"_s),
             (QStringList{u"1|paid"_s, u"2|paid"_s, u"3|pending"_s, u"4|cancelled"_s}));
}

void tst_SandboxState::whatIsNotGivenIsMadeUp()
{
    Files::write(path(u"data.json"_s), R"({
        "products": [{"product_code": "P", "name": "P"}],
        "plans": [{"product_code": "P", "plan_code": "X", "name": "X", "price": "1.00", "currency": "EUR"}],
        "orders": [
            {"product_code": "P", "plan_code": "X", "state": "paid",
             "first_name": "A", "last_name": "B", "email": "a@example.org"},
            {"product_code": "P", "plan_code": "X", "state": "pending", "license_id": 1001, "payment_id": 1,
             "first_name": "C", "last_name": "D", "email": "c@example.org"}
        ],
        "usage_events": [{"product_code": "P", "machine_fingerprint": "", "event_type": "x"}]
    })");
    const auto sandbox = started({u"--data"_s, path(u"data.json"_s)});
    QVERIFY(sandbox->isRunning());

    // The given ids are not taken by those that have none.
    QCOMPARE(query(u"SELECT payment_id, license_id, first_name FROM order_overview"_s),
             (QStringList{u"1|1001|C"_s, u"2|1002|A"_s}));
    static const QRegularExpression made(u"\\A[2-9A-Z]{4}(-[2-9A-Z]{4}){3}\\|[2-9A-Z]{17}\\z"_s);
    const QStringList keys = query(u"SELECT license_key, paypal_order_id FROM order_overview"_s);
    for (const QString &key : keys)
        QVERIFY2(made.match(key).hasMatch(), qPrintable(key));

    const QStringList times =
        query(u"SELECT created_at FROM licenses UNION ALL SELECT created_at FROM orders"
              " UNION ALL SELECT paid_at FROM payments UNION ALL SELECT received_at"
              " FROM usage_events"_s);
    QCOMPARE(times.size(), 6);
    for (const QString &time : times) {
        const QDateTime then = QDateTime::fromString(time, Qt::ISODateWithMs);
        QVERIFY2(qAbs(then.msecsTo(QDateTime::currentDateTimeUtc())) < 60'000, qPrintable(time));
    }
}

void tst_SandboxState::dataIsNotLoadedTwice()
{
    started({u"--data"_s, exampleData});
    query(u"DELETE FROM plans WHERE plan_code = 'ANNUALE'"_s);
    query(u"UPDATE licenses SET first_name = 'Eva'"_s);
    const QStringList before = query(u"SELECT * FROM order_overview"_s);

    // Without a file of its own it has nothing to say.
    const auto silent = started();
    QCOMPARE(silent->get(u"/"_s).status, 404);
    QCOMPARE(silent->complaints(), QString());
    const auto sandbox = started({u"--data"_s, exampleData});
    QCOMPARE(sandbox->get(u"/"_s).status, 404);
    QCOMPARE(sandbox->complaints(),
             u"corvane-sandbox: \"%1\" was not loaded: \"%2\" holds data already.\n"_s.arg(
                 exampleData, path(u"state.sqlite"_s)));
    QCOMPARE(query(u"SELECT * FROM order_overview"_s), before);
}

void tst_SandboxState::wrongDataIsRefused_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("reason");

    const auto row = [](const char *tag, const QByteArray &json, const QString &reason) {
        QTest::newRow(tag) << json << reason;
    };
    const auto noJson = [](const QByteArray &json) {
        QJsonParseError error;
        QJsonDocument::fromJson(json, &error);
        return u"is not JSON (%1)"_s.arg(error.errorString());
    };
    row("empty", "", "1: "_L1 + noJson(""));
    row("syntax", "{\n\n\"products\": [}", "3: "_L1 + noJson("{\n\n\"products\": [}"));
    row("array", "\n[]", u"2: must be an object"_s);
    row("unknown-list", "{\n \"licences\": []}",
        u"2: licences: is not known; there are products, plans, orders, usage_events"_s);
    row("no-list", "{\"products\": {}}", u"1: products: must be an array"_s);
    row("no-object", "{\"products\": [\n1]}", u"2: products[0]: must be an object"_s);
    row("twice", "{\"products\": [],\n\"plans\": [],\n\"products\": []}",
        u"3: products: stands twice"_s);
    row("twice-by-another-spelling", "{\"plans\": [],\n\"pl\\u0061ns\": []}",
        u"2: plans: stands twice"_s);

    const QByteArray product = R"({"products": [{"product_code": "P", "name": "Uno\n\"},{"}],)"
                               "\n";
    row("product-without-a-name", R"({"products": [{"product_code": "P"}]})",
        u"1: products[0]: has no \"name\""_s);
    row("product-of-a-blank-name", R"({"products": [{"product_code": "P", "name": " "}]})",
        u"1: products[0].name: must not be empty"_s);
    row("product-name-no-text", R"({"products": [{"product_code": "P", "name": null}]})",
        u"1: products[0].name: must be a text"_s);
    row("product-of-an-empty-code", R"({"products": [{"product_code": "", "name": "P"}]})",
        u"1: products[0].product_code: must not be empty"_s);
    row("product-of-a-padded-code", R"({"products": [{"product_code": " P", "name": "P"}]})",
        u"1: products[0].product_code: must have no blanks around it"_s);
    row("product-of-a-lower-case-code", R"({"products": [{"product_code": "p", "name": "P"}]})",
        u"1: products[0].product_code: must be in upper case"_s);
    row("product-twice",
        R"({"products": [{"product_code": "P", "name": "1"},)"
        "\n"
        R"({"product_code": "P", "name": "2"}]})",
        u"2: products[1].product_code: is taken already"_s);
    row("product-of-more", R"({"products": [{"product_code": "P", "name": "1", "plan": 2}]})",
        u"1: products[0].plan: is not known; there are product_code, name"_s);

    const auto plan = [&](const QByteArray &code, const QByteArray &price,
                          const QByteArray &currency, const QByteArray &more = {}) {
        return R"({"product_code": "P", "plan_code": ")" + code + R"(", "name": "X", "price": )"
            + price + R"(, "currency": ")" + currency + '"' + more + '}';
    };
    const auto plans = [&](const QByteArray &list) {
        return product + "\"plans\": [\n" + list + "]}";
    };
    for (const char *price : {"9.9", "9,90", "9", "-1.00", "1.000", " 1.00", "1.00 ", ""}) {
        QTest::addRow("plan-price-%s", *price ? price : "empty")
            << plans(plan("X", '"' + QByteArray(price) + '"', "EUR"))
            << u"3: plans[0].price: must be an amount such as \"9.90\""_s;
    }
    row("plan-price-number", plans(plan("X", "9.90", "EUR")),
        u"3: plans[0].price: must be a text"_s);
    for (const char *currency : {"eur", "EU", "EURO", ""}) {
        QTest::addRow("plan-currency-%s", *currency ? currency : "empty")
            << plans(plan("X", "\"1.00\"", currency))
            << u"3: plans[0].currency: must be a currency such as \"EUR\""_s;
    }
    row("plan-twice",
        plans(plan("X", "\"1.00\"", "EUR") + ",\n" + plan("Y", "\"1.00\"", "EUR") + ",\n"
              + plan("X", "\"2.00\"", "EUR")),
        u"5: plans[2].plan_code: is taken already"_s);
    row("plan-of-lower-case", plans(plan("x", "\"1.00\"", "EUR")),
        u"3: plans[0].plan_code: must be in upper case"_s);
    row("plan-of-an-unknown-product",
        R"({"plans": [{"product_code": "Q", "plan_code": "X", "name": "X", "price": "1.00", "currency": "EUR"}]})",
        u"1: plans[0].product_code: is no product of this file"_s);
    row("plan-description-no-text", plans(plan("X", "\"1.00\"", "EUR", R"(, "description": 1)")),
        u"3: plans[0].description: must be a text"_s);

    const QByteArray withPlan = product + "\"plans\": [\n" + plan("X", "\"1.00\"", "EUR") + "],\n";
    const auto order = [&](const QByteArray &more, const QByteArray &state = "pending",
                           const QByteArray &planCode = "X") {
        return R"({"product_code": "P", "plan_code": ")" + planCode + R"(", "state": ")" + state
            + R"(", "first_name": "A", "last_name": "B", "email": "a@example.org")" + more + '}';
    };
    const auto orders = [&](const QByteArray &list) {
        return withPlan + "\"orders\": [" + list + "]}";
    };
    row("order-without-a-name",
        orders(R"({"product_code": "P", "plan_code": "X", "state": "paid"})"),
        u"4: orders[0]: has no \"first_name\""_s);
    row("order-of-an-unknown-plan", orders(order({}, "paid", "Z")),
        u"4: orders[0].plan_code: is no plan of this product"_s);
    row("order-of-an-unknown-state", orders(order({}, "captured")),
        u"4: orders[0].state: must be one of pending, approved, cancelled, paid"_s);
    row("order-key-twice",
        orders(order(R"(, "license_key": "K")") + ",\n" + order(R"(, "license_key": "K")")),
        u"5: orders[1].license_key: is taken already"_s);
    row("order-key-padded", orders(order(R"(, "license_key": "K ")")),
        u"4: orders[0].license_key: must have no blanks around it"_s);
    row("order-id-twice",
        orders(order(R"(, "paypal_order_id": "O")") + ",\n" + order(R"(, "paypal_order_id": "O")")),
        u"5: orders[1].paypal_order_id: is taken already"_s);
    row("order-id-empty", orders(order(R"(, "paypal_order_id": "")")),
        u"4: orders[0].paypal_order_id: must not be empty"_s);
    row("payment-id-alone", orders(order(R"(, "payment_id": 1)")),
        u"4: orders[0]: has no \"license_id\""_s);
    row("license-id-alone", orders(order(R"(, "license_id": 1)")),
        u"4: orders[0]: has no \"payment_id\""_s);
    row("license-id-twice",
        orders(order(R"(, "license_id": 1, "payment_id": 1)") + ",\n"
               + order(R"(, "license_id": 1, "payment_id": 2)")),
        u"5: orders[1].license_id: is taken already"_s);
    row("payment-id-twice",
        orders(order(R"(, "license_id": 1, "payment_id": 1)") + ",\n"
               + order(R"(, "license_id": 2, "payment_id": 1)")),
        u"5: orders[1].payment_id: is taken already"_s);
    for (const char *id : {"0", "-1", "1.5", "1000000000", "1e300", "\"1\"", "null"}) {
        QTest::addRow("license-id-%s", id)
            << orders(order(R"(, "payment_id": 1, "license_id": )" + QByteArray(id)))
            << u"4: orders[0].license_id: must be a whole number from 1 to 999999999"_s;
    }
    for (const char *time : {"", "yesterday", "2026-01-05", "2026-01-05T09:00:00",
                             "2026-01-05 09:00:00Z", "2026-02-30T09:00:00Z", "2026-01-05T25:00:00Z",
                             "2026-01-05T09:00:00+01:00", "2026-01-05T09:00Z"})
    {
        QTest::addRow("time-%s", *time ? time : "empty")
            << orders(order(R"(, "created_at": ")" + QByteArray(time) + '"'))
            << u"4: orders[0].created_at: must be a time in UTC such as \"2026-01-31T09:00:00Z\""_s;
    }

    const QByteArray withOrder =
        withPlan + "\"orders\": [" + order(R"(, "license_key": "K")") + ',' + order({}) + "],\n";
    const auto event = [&](const QByteArray &more) {
        return withOrder
            + R"("usage_events": [{"product_code": "P", "machine_fingerprint": "m", "event_type": "e")"
            + more + "}]}";
    };
    row("event-without-a-machine",
        withOrder + R"("usage_events": [{"product_code": "P", "event_type": "e"}]})",
        u"5: usage_events[0]: has no \"machine_fingerprint\""_s);
    row("event-of-an-unknown-key", event(R"(, "license_key": "L")"),
        u"5: usage_events[0].license_key: is no licence of this product"_s);
    row("event-of-an-empty-key", event(R"(, "license_key": "")"),
        u"5: usage_events[0].license_key: must not be empty"_s);
    row("event-payload-no-object", event(R"(, "payload": [])"),
        u"5: usage_events[0].payload: must be an object"_s);
    row("event-time", event(R"(, "received_at": 5)"),
        u"5: usage_events[0].received_at: must be a text"_s);
    row("event-of-more", event(R"(, "type": 5)"),
        u"5: usage_events[0].type: is not known; there are product_code, license_key, "
        "machine_fingerprint, event_type, payload, received_at"_s);
}

void tst_SandboxState::wrongDataIsRefused()
{
    QFETCH(const QByteArray, json);
    QFETCH(const QString, reason);

    Files::write(path(u"data.json"_s), json);
    const Refusal refusal = refusalOf({u"--data"_s, u"data.json"_s}, m_dir->path(), [] {});
    QCOMPARE(refusal.error, "corvane-sandbox: data.json:"_L1 + reason + u'\n');
    QCOMPARE(refusal.output, QString());
    QCOMPARE(refusal.exitCode, 1);
}

void tst_SandboxState::wrongDataLeavesNoDatabase()
{
    Files::write(path(u"data.json"_s), R"({"products": [{"product_code": "P", "name": "P"}, 1]})");
    QCOMPARE(refusalOf({u"--data"_s, u"data.json"_s, u"--database"_s, u"state.sqlite"_s},
                       m_dir->path(), [] {})
                 .error,
             u"corvane-sandbox: data.json:1: products[1]: must be an object\n"_s);
    QVERIFY(!QFile::exists(path(u"state.sqlite"_s)));

    const Refusal missing = refusalOf({u"--data"_s, u"missing.json"_s}, m_dir->path(), [] {});
    QCOMPARE(missing.exitCode, 1);
    QCOMPARE(missing.error,
             u"corvane-sandbox: cannot read the data \"missing.json\" (No such file or directory): "
             "name a file with --data.\n"_s);
}

// The disk is full before all is written.
void tst_SandboxState::dataIsLoadedWholeOrNotAtAll()
{
    const QStringList arguments{u"--data"_s, exampleData, u"--database"_s, path(u"state.sqlite"_s)};
    const Refusal refusal = refusalOf(arguments, m_dir->path(), [] { limitFileSize(40'000); });
    QCOMPARE(refusal.exitCode, 1);
    QVERIFY2(refusal.error.contains("disk"_L1), qPrintable(refusal.error));
    QCOMPARE(query(u"SELECT count(*) FROM sqlite_master"_s), QStringList{u"0"_s});

    QCOMPARE(started({u"--data"_s, exampleData})->complaints(), QString());
    QCOMPARE(query(u"SELECT count(*) FROM usage_events"_s), QStringList{u"3"_s});
}

void tst_SandboxState::foldersReleasesAreListed()
{
    const QString folder = path(u"offered"_s);
    const auto add = [&](const QString &name, const QByteArray &content) {
        QVERIFY(QDir().mkpath(QFileInfo(folder + u'/' + name).path()));
        Files::write(folder + u'/' + name, content);
    };
    add(u"DEMO/stable/1.9/demo.zip"_s, "older");
    add(u"DEMO/stable/1.10/demo.zip"_s, "newest");
    add(u"DEMO/stable/1.10/notes.txt"_s, "notes");
    add(u"DEMO/beta/2.0/demo-beta.zip"_s, "b");
    add(u"OTHER/stable/1.0/other.zip"_s, "of no product");

    started({u"--releases"_s, folder});
    QCOMPARE(
        query(u"SELECT product_code, channel, version, file, size, sha256 IS NULL, is_latest"
              " FROM releases ORDER BY channel, version"_s),
        (QStringList{u"DEMO|beta|2.0|demo-beta.zip|1|1|1"_s, u"DEMO|stable|1.10|demo.zip|6|1|1"_s,
                     u"DEMO|stable|1.9|demo.zip|5|1|0"_s}));
    QCOMPARE(query(u"SELECT * FROM channels ORDER BY channel"_s),
             (QStringList{u"DEMO|beta"_s, u"DEMO|stable"_s}));

    // What is gone from the folder is gone from the list.
    QVERIFY(QDir(folder + "/DEMO/beta"_L1).removeRecursively());
    QVERIFY(QDir(folder + "/DEMO/stable/1.10"_L1).removeRecursively());
    started({u"--releases"_s, folder});
    QCOMPARE(query(u"SELECT channel, version, is_latest FROM releases"_s),
             QStringList{u"stable|1.9|1"_s});
    QCOMPARE(query(u"SELECT channel FROM channels"_s), QStringList{u"stable"_s});
}

void tst_SandboxState::newReleaseIsListedWhenItIsOffered()
{
    const QString folder = path(u"offered/DEMO/stable"_s);
    const auto add = [&](const QString &version) {
        QVERIFY(QDir().mkpath(folder + u'/' + version));
        Files::write(folder + u'/' + version + "/demo.zip"_L1, version.toUtf8());
    };
    add(u"1.0"_s);
    const auto sandbox = started({u"--releases"_s, path(u"offered"_s)});
    const auto offered = [&] {
        return sandbox->get(u"/api/v1/releases/latest/DEMO?channel=stable"_s)
            .json()
            .value("release"_L1)
            .toObject()
            .value("sha256"_L1)
            .toString();
    };
    const QString listed = u"SELECT version, sha256, is_latest FROM releases ORDER BY version"_s;
    const QString first = offered();
    QCOMPARE(first.size(), 64);
    QCOMPARE(query(listed), QStringList{"1.0|"_L1 + first + "|1"_L1});

    add(u"1.1"_s);
    const QString second = offered();
    QCOMPARE(query(listed),
             (QStringList{"1.0|"_L1 + first + "|0"_L1, "1.1|"_L1 + second + "|1"_L1}));
}

void tst_SandboxState::schemaRefusesWhatMakesNoSense_data()
{
    QTest::addColumn<QString>("sql");

    QTest::newRow("plan-of-no-product")
        << u"INSERT INTO plans VALUES (9, 'NONE', 'X', 'X', '', '1.00', 'EUR')"_s;
    QTest::newRow("plan-twice")
        << u"INSERT INTO plans VALUES (9, 'ATLANTE', 'ANNUALE', 'X', '', '1.00', 'EUR')"_s;
    for (const char *price : {"1", "1.0", "1,00", ".00", "-1.00", "1.2.00", "1e1.00", "9.900"})
        QTest::addRow("price-%s", price)
            << u"UPDATE plans SET price = '%1'"_s.arg(QString::fromLatin1(price));
    QTest::newRow("currency") << u"UPDATE plans SET currency = 'euro'"_s;
    QTest::newRow("product-without-a-code") << u"INSERT INTO products VALUES (NULL, 'X')"_s;
    QTest::newRow("product-of-an-empty-code") << u"INSERT INTO products VALUES ('', 'X')"_s;
    QTest::newRow("product-in-use") << u"DELETE FROM products"_s;
    QTest::newRow("license-status") << u"UPDATE licenses SET status = 'paid'"_s;
    QTest::newRow("license-key-twice") << u"UPDATE licenses SET license_key = 'X'"_s;
    QTest::newRow("license-of-no-plan") << u"UPDATE licenses SET plan_code = 'X'"_s;
    QTest::newRow("license-in-use") << u"DELETE FROM licenses"_s;
    QTest::newRow("order-of-no-license") << u"UPDATE orders SET license_id = 7"_s;
    QTest::newRow("order-id-twice") << u"UPDATE orders SET paypal_order_id = 'X'"_s;
    QTest::newRow("approved-and-cancelled")
        << u"UPDATE orders SET approved_at = created_at, cancelled_at = created_at"_s;
    QTest::newRow("payment-twice")
        << u"INSERT INTO payments (id, amount, currency) VALUES (1, '1.00', 'EUR')"_s;
    QTest::newRow("payment-of-no-order")
        << u"INSERT INTO payments (id, amount, currency) VALUES (9, '1.00', 'EUR')"_s;
    QTest::newRow("event-of-no-license") << u"UPDATE usage_events SET license_key = 'X'"_s;
    QTest::newRow("text-as-a-size")
        << u"INSERT INTO releases VALUES ('ATLANTE', 'stable', '1', 'f', 'big', NULL, 0)"_s;
    for (const char *column :
         {"licenses SET created_at", "orders SET created_at", "orders SET approved_at",
          "orders SET cancelled_at", "payments SET paid_at", "usage_events SET received_at"})
    {
        for (const char *time :
             {"2026-01-05", "2026-01-05 09:00:00.000", "2026-13-05T09:00:00.000Z",
              "2026-01-05T09:00:00Z", "2026-01-05T09:00:00.000+01:00"})
            QTest::addRow("%s-%s", column, time) << u"UPDATE %1 = '%2'"_s.arg(
                QString::fromLatin1(column), QString::fromLatin1(time));
    }
}

void tst_SandboxState::schemaRefusesWhatMakesNoSense()
{
    QFETCH(const QString, sql);
    const Database database(m_example.filePath(u"state.sqlite"_s));
    database.query(u"PRAGMA foreign_keys = ON"_s);
    const QStringList refused = database.query(sql);
    QCOMPARE(refused.size(), 1);
    static const QRegularExpression reason(
        u"(constraint failed|cannot store TEXT value in INTEGER column)"_s);
    QVERIFY2(reason.match(refused.constFirst()).hasMatch(), qPrintable(refused.constFirst()));
}

// Four clients write all the time. The kill comes at a moment of the seed's choosing: some
// acknowledgements after the start, and up to 3 ms after the last of these.
void tst_SandboxState::whatWasAcknowledgedSurvivesKills()
{
    constexpr int kills = 30;
    constexpr int clientCount = 4;
    QRandomGenerator random(20260105);
    Acknowledged acknowledged;

    for (int kill = 0; kill < kills; ++kill) {
        auto sandbox = started();
        QVERIFY(sandbox->isRunning());
        QCOMPARE(sandbox->complaints(), QString());
        checkAgainst(acknowledged);
        if (QTest::currentTestFailed())
            return;

        const int due = acknowledged.count + random.bounded(1, 60);
        const qint64 pause = random.bounded(3'000'000);
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < clientCount; ++i) {
            const QString name = u"%1-%2"_s.arg(kill).arg(i);
            clients.push_back(std::make_unique<Client>(sandbox->url(), name, acknowledged));
            connect(clients.back().get(), &Client::acknowledged, this, [&] {
                if (acknowledged.count != due)
                    return;
                QElapsedTimer timer;
                for (timer.start(); timer.nsecsElapsed() < pause;) {
                }
                sandbox.reset();
            });
        }
        // What has arrived before the end is an acknowledgement, too.
        QVERIFY(QTest::qWaitFor(
            [&] {
                return std::all_of(clients.begin(), clients.end(),
                                   [](const auto &client) { return client->isDone(); });
            },
            timeout));
        QVERIFY(!sandbox);
    }

    const auto sandbox = started();
    checkAgainst(acknowledged);
    // And the service itself goes on from there.
    const QString order = acknowledged.orders.key(u"paid"_s);
    const QJsonObject captured =
        sandbox->post(u"/api/v1/purchase/capture"_s, {{u"paypal_order_id"_s, order}}).json();
    QCOMPARE(captured.value("license_id"_L1).toInt(), acknowledged.licenseIds.value(order));
    QVERIFY(acknowledged.count > kills);
}

void tst_SandboxState::readersHoldNobodyUp()
{
    const auto sandbox = started();
    const Database database(path(u"state.sqlite"_s));
    database.query(u"BEGIN"_s);
    QCOMPARE(database.query(u"SELECT count(*) FROM usage_events"_s), QStringList{u"0"_s});
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(sandbox->post(u"/api/v1/client/usage"_s, usageRequest(u"a"_s)).status, 200);
    // The reader still sees what it saw.
    QCOMPARE(database.query(u"SELECT count(*) FROM usage_events"_s), QStringList{u"0"_s});
    database.query(u"COMMIT"_s);
    QCOMPARE(database.query(u"SELECT count(*) FROM usage_events"_s), QStringList{u"1"_s});
}

void tst_SandboxState::unusableDatabaseIsRefused_data()
{
    using Spoil = void (*)(const QString &file);
    QTest::addColumn<Spoil>("spoil");
    QTest::addColumn<QString>("reason");

    const auto row = [](const char *tag, Spoil spoil, const QString &reason) {
        QTest::newRow(tag) << spoil << reason;
    };
    row(
        "text", [](const QString &file) { Files::write(file, QByteArray(4096, 'x')); },
        u"file is not a database"_s);
    row(
        "cut-off", [](const QString &file) { QFile::resize(file, QFileInfo(file).size() / 2); },
        u"database disk image is malformed"_s);
    row(
        "page-overwritten",
        [](const QString &file) {
            QByteArray content = Files::contentOf(file);
            content.replace(5 * 4096, 4096, QByteArray(4096, '\x55'));
            Files::write(file, content);
        },
        u"the database is damaged: "_s);
    row(
        "another-programs",
        [](const QString &file) { Database(file).query(u"PRAGMA application_id = 7"_s); },
        u"the database belongs to another program"_s);
    row(
        "older", [](const QString &file) { Database(file).query(u"PRAGMA user_version = 1"_s); },
        u"the database was made by another version of corvane-sandbox: its schema has number 1, "
        "not 2"_s);
    row(
        "newer", [](const QString &file) { Database(file).query(u"PRAGMA user_version = 3"_s); },
        u"the database was made by another version of corvane-sandbox: its schema has number 3, "
        "not 2"_s);
    row(
        "folder",
        [](const QString &file) {
            QFile::remove(file);
            QDir().mkpath(file);
        },
        u"unable to open database file"_s);
    row(
        "in-a-missing-folder",
        [](const QString &file) { QDir(QFileInfo(file).path()).removeRecursively(); },
        u"unable to open database file"_s);
}

// And left as it is.
void tst_SandboxState::unusableDatabaseIsRefused()
{
    using Spoil = void (*)(const QString &file);
    QFETCH(const Spoil, spoil);
    QFETCH(const QString, reason);

    QVERIFY(QDir().mkpath(path(u"folder"_s)));
    const QString file = path(u"folder/state.sqlite"_s);
    QVERIFY(QFile::copy(m_example.filePath(u"state.sqlite"_s), file));
    spoil(file);
    const QByteArray before = Files::contentOf(file);

    const Refusal refusal = refusalOf({u"--database"_s, file}, m_dir->path(), [] {});
    const QString start =
        u"corvane-sandbox: cannot use the database \"%1\" (%2"_s.arg(file, reason);
    QVERIFY2(refusal.error.startsWith(start), qPrintable(refusal.error));
    QVERIFY2(refusal.error.endsWith("or a new one, with --database.\n"_L1),
             qPrintable(refusal.error));
    QCOMPARE(refusal.error.count(u'\n'), 1);
    QCOMPARE(refusal.output, QString());
    QCOMPARE(refusal.exitCode, 1);
    QVERIFY(Files::contentOf(file) == before);
}

void tst_SandboxState::unwritableDatabaseIsRefused_data()
{
    QTest::addColumn<bool>("isNew");
    QTest::addColumn<QString>("reason");
    QTest::newRow("read-only") << false << u"attempt to write a readonly database"_s;
    QTest::newRow("new-in-a-read-only-folder") << true << u"unable to open database file"_s;
}

void tst_SandboxState::unwritableDatabaseIsRefused()
{
    QFETCH(const bool, isNew);
    QFETCH(const QString, reason);

    const QString file = path(u"state.sqlite"_s);
    if (!isNew)
        started();
    const auto reading = QFileDevice::ReadOwner | QFileDevice::ReadOther;
    if (!isNew)
        QVERIFY(QFile::setPermissions(file, reading));
    QVERIFY(QFile::setPermissions(m_dir->path(),
                                  reading | QFileDevice::ExeOwner | QFileDevice::ExeOther));
    const Refusal refusal = refusalOf({u"--database"_s, file}, u"/"_s, becomeNobody);
    QVERIFY(QFile::setPermissions(m_dir->path(),
                                  reading | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
    QVERIFY2(refusal.error.contains(reason), qPrintable(refusal.error));
    QCOMPARE(refusal.exitCode, 1);
}

void tst_SandboxState::lockedDatabaseIsRefused()
{
    started();
    const Database database(path(u"state.sqlite"_s));
    database.query(u"BEGIN IMMEDIATE"_s);
    const Refusal refusal = refusalOf({u"--database"_s, u"state.sqlite"_s}, m_dir->path(), [] {});
    QVERIFY2(refusal.error.startsWith("corvane-sandbox: cannot use the database \"state.sqlite\" "
                                      "(database is locked"_L1),
             qPrintable(refusal.error));
    QCOMPARE(refusal.exitCode, 1);
}

void tst_SandboxState::lockedDatabaseFailsOneRequest()
{
    const auto sandbox = started();
    const Database database(path(u"state.sqlite"_s));
    database.query(u"BEGIN IMMEDIATE"_s);
    const Sandbox::Answer refused = sandbox->post(u"/api/v1/client/usage"_s, usageRequest(u"a"_s));
    QCOMPARE(refused.status, 500);
    QCOMPARE(refused.error(), u"Errore interno del servizio."_s);
    QCOMPARE(sandbox->get(u"/api/v1/purchase/plans?product_code=DEMO"_s).status, 200);
    QCOMPARE(sandbox->complaints(), u"/api/v1/client/usage: database is locked\n"_s);

    database.query(u"ROLLBACK"_s);
    QCOMPARE(sandbox->post(u"/api/v1/client/usage"_s, usageRequest(u"b"_s)).status, 200);
    QCOMPARE(database.query(u"SELECT machine_fingerprint FROM usage_events"_s),
             QStringList{u"b"_s});
}

void tst_SandboxState::fullDiskLosesNothingAcknowledged()
{
    const QString file = path(u"state.sqlite"_s);
    QStringList machines;
    {
        QProcess process;
        process.setChildProcessModifier([] {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            limitFileSize(300'000);
        });
        process.start(program, {u"--database"_s, file});
        QVERIFY(process.waitForReadyRead(timeout));
        const QUrl server(QString::fromUtf8(process.readLine()).trimmed());
        QNetworkAccessManager network;
        const auto report = [&](const QString &machine) {
            QJsonObject request = usageRequest(machine);
            request.insert("text"_L1, QString(10'000, u'x'));
            QNetworkRequest target(server.resolved(QUrl(u"/api/v1/client/usage"_s)));
            target.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
            const std::unique_ptr<QNetworkReply> reply(
                network.post(target, QJsonDocument(request).toJson(QJsonDocument::Compact)));
            if (!QTest::qWaitFor([&] { return reply->isFinished(); }, timeout))
                return 0;
            return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        };
        int status = 200;
        for (int i = 0; status == 200 && i < 100; ++i) {
            status = report(QString::number(i));
            if (status == 200)
                machines.append(QString::number(i));
        }
        QCOMPARE(status, 500);
        QVERIFY(machines.size() > 5);
        const std::unique_ptr<QNetworkReply> plans(network.get(
            QNetworkRequest(server.resolved(QUrl(u"/api/v1/purchase/plans?product_code=DEMO"_s)))));
        QVERIFY(QTest::qWaitFor([&] { return plans->isFinished(); }, timeout));
        QCOMPARE(plans->error(), QNetworkReply::NoError);
        process.kill();
        QVERIFY(process.waitForFinished(timeout));
    }

    const auto sandbox = started();
    QCOMPARE(sandbox->post(u"/api/v1/client/usage"_s, usageRequest(u"last"_s)).status, 200);
    QCOMPARE(query(u"SELECT machine_fingerprint FROM usage_events ORDER BY id"_s),
             machines + QStringList{u"last"_s});
    QCOMPARE(query(u"PRAGMA integrity_check"_s), QStringList{u"ok"_s});
}

void tst_SandboxState::documentNamesEveryColumn()
{
    started();
    const QString document =
        QString::fromUtf8(Files::contentOf(sourceDir + "/docs/sandbox-data.md"_L1));
    const QStringList tables =
        query(u"SELECT name FROM sqlite_master WHERE type IN ('table', 'view')"
              " AND name NOT LIKE 'sqlite_%'"_s);
    QVERIFY(tables.size() >= 11);
    for (const QString &table : tables) {
        const QStringList columns =
            query(u"SELECT group_concat(name, ', ') FROM pragma_table_info('%1')"_s.arg(table));
        const QString line = u"| `%1` | %2 |"_s.arg(table, columns.constFirst());
        QVERIFY2(document.contains(line), qPrintable(line));
    }
}

std::unique_ptr<Sandbox> tst_SandboxState::started(const QStringList &arguments) const
{
    return std::make_unique<Sandbox>(
        program, QStringList{u"--database"_s, path(u"state.sqlite"_s)} + arguments);
}

void tst_SandboxState::checkAgainst(const Acknowledged &acknowledged) const
{
    const Database database(path(u"state.sqlite"_s));
    QCOMPARE(database.query(u"PRAGMA integrity_check"_s), QStringList{u"ok"_s});
    QCOMPARE(database.query(u"PRAGMA foreign_key_check"_s), QStringList());

    // What was not acknowledged may have been done, once and wholly.
    QCOMPARE(database.query(u"SELECT machine_fingerprint FROM usage_events"
                            " GROUP BY machine_fingerprint HAVING count(*) > 1"_s),
             QStringList());
    QCOMPARE(database.query(u"SELECT license_key FROM licenses"
                            " WHERE id NOT IN (SELECT license_id FROM orders)"_s),
             QStringList());
    QCOMPARE(database.query(u"SELECT o.paypal_order_id FROM order_overview o"
                            " JOIN licenses l ON l.id = o.license_id"
                            " WHERE (o.state = 'paid') <> (l.status = 'active')"
                            " OR (o.state = 'paid' AND o.approved_at IS NULL)"_s),
             QStringList());

    const QStringList machines = database.query(u"SELECT machine_fingerprint FROM usage_events"_s);
    QSet<QString> missing = acknowledged.machines;
    missing.subtract(QSet<QString>(machines.begin(), machines.end()));
    QCOMPARE(missing, QSet<QString>());

    const QStringList order{u"pending"_s, u"approved"_s, u"paid"_s};
    QMap<QString, QString> kept;
    for (const QString &row :
         database.query(u"SELECT paypal_order_id, state, license_id FROM order_overview"_s))
        kept.insert(row.section(u'|', 0, 0), row.section(u'|', 1));
    for (auto told = acknowledged.orders.begin(); told != acknowledged.orders.end(); ++told) {
        const QString row = kept.value(told.key());
        QVERIFY2(order.indexOf(row.section(u'|', 0, 0)) >= order.indexOf(told.value()),
                 qPrintable(told.key() + u' ' + told.value() + u' ' + row));
        QCOMPARE(row.section(u'|', 1).toInt(), acknowledged.licenseIds.value(told.key()));
    }
}

QTEST_GUILESS_MAIN(tst_SandboxState)

#include "tst_sandbox_state.moc"
