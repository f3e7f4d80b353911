#include "corvane.h"
#include "database.h"
#include "files.h"
#include "loopbackserver.h"
#include "serverprocess.h"
#include "signallog.h"

#include <QtCore/qdir.h>
#include <QtCore/qdiriterator.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qprocess.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qurlquery.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkproxy.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <functional>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

// Node reads hundreds of files before it does anything.
constexpr int patience = 60000;

// One reply that the contract shows.
struct Example
{
    QString operation;
    QString method; // in lower case
    QString mediaType;
    int status = 0;
    QString name;
    QJsonValue value;

    QString title() const { return u"%1 %2 %3"_s.arg(operation, QString::number(status), name); }
};

struct Request
{
    QByteArray method;
    QString path;
    QUrlQuery query;
    QMap<QByteArray, QByteArray> headers;
    QByteArray body;
};

// A right request or reply, changed until it is wrong.
struct WrongRequest
{
    QString name;
    Request request;
    QByteArray culprit; // must be named when it is rejected
};

struct WrongReply
{
    QString name;
    QByteArray response;
};

// A request and what came of it.
struct Exchange
{
    int status = 0;
    QByteArray contentType;
    QByteArray body;
    QByteArray violations; // as Prism names them
    QStringList lines; // that the library said; none if it was not the one who asked
};

struct WrongValue
{
    QString name;
    QJsonValue value;
};

using Call = std::function<void(Corvane &)>;

// The signal that each of the library's operations ends in when the service has its say.
const QMap<QString, QString> resultSignals{
    {u"checkForUpdate"_s, u"updateChecked"_s},
    {u"downloadRelease"_s, u"updateDownloaded"_s},
    {u"downloadLatestRelease"_s, u"updateDownloaded"_s},
    {u"fetchPurchasePlans"_s, u"purchasePlansReceived"_s},
    {u"startPayPalPurchase"_s, u"purchaseStarted"_s},
    {u"resumePayPalPurchase"_s, u"purchaseStarted"_s},
    {u"capturePayPalPurchase"_s, u"purchaseCaptured"_s},
    {u"sendUsage"_s, u"usageSent"_s},
};

// Of an object or an array.
QByteArray json(const QJsonValue &value)
{
    return value.isArray() ? QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact)
                           : QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
}

// The same with the type in the place of each text, number and boolean.
QJsonValue shape(const QJsonValue &value)
{
    if (value.isObject()) {
        QJsonObject object = value.toObject();
        for (auto &&member : object)
            member = shape(member);
        return object;
    }
    if (value.isArray()) {
        QJsonArray array = value.toArray();
        for (auto &&element : array)
            element = shape(element);
        return array;
    }
    return int(value.type());
}

// A value of another type that is easily taken for it.
QJsonValue otherType(const QJsonValue &value)
{
    if (value.isObject())
        return QJsonArray();
    if (value.isArray())
        return QJsonObject();
    if (value.isString())
        return 1;
    return value.toVariant().toString();
}

// Every value that differs from this one by a member that is missing, of another type or null.
QList<WrongValue> wrongValues(const QJsonValue &value)
{
    QList<WrongValue> all{{u" of another type"_s, otherType(value)}};
    if (value.isArray()) {
        for (qsizetype i = 0; i < value.toArray().size(); ++i) {
            for (const WrongValue &element : wrongValues(value.toArray().at(i))) {
                QJsonArray wrong = value.toArray();
                wrong.replace(i, element.value);
                all.append({u"[%1]%2"_s.arg(QString::number(i), element.name), wrong});
            }
        }
    }
    const QJsonObject object = value.toObject();
    for (auto member = object.begin(); member != object.end(); ++member) {
        QJsonObject wrong = object;
        wrong.remove(member.key());
        all.append({u".%1 missing"_s.arg(member.key()), wrong});
        wrong.insert(member.key(), QJsonValue::Null);
        all.append({u".%1 null"_s.arg(member.key()), wrong});
        for (const WrongValue &inner : wrongValues(*member)) {
            wrong.insert(member.key(), inner.value);
            all.append({u".%1%2"_s.arg(member.key(), inner.name), wrong});
        }
    }
    return all;
}

// The value of the first of the examples, if there are any.
QJsonValue firstValue(const QJsonValue &examples)
{
    const QJsonObject object = examples.toObject();
    return object.isEmpty() ? QJsonValue() : object.constBegin().value()["value"_L1];
}

// Of the violations, those of this side: "request" or "response".
QStringList violationsOf(const QString &side, const QByteArray &violations)
{
    const QJsonArray all = QJsonDocument::fromJson(violations).array();
    // Too many of them are cut off somewhere.
    if (all.isEmpty() && !violations.isEmpty())
        return {QString::fromUtf8(violations)};
    QStringList messages;
    for (const auto &violation : all) {
        if (violation["location"_L1][0].toString() == side)
            messages.append(violation["message"_L1].toString());
    }
    return messages;
}

} // namespace

// Both sides of the wire, judged by contract/openapi.yaml. Prism stands in between and compares all
// that passes with the contract:
//
//     Corvane -> Prism -> corvane-sandbox         nothing may be wrong with either
//     test -> Prism --errors -> scripted server   whatever is wrong must be found
//
// It names what it finds in a header, and with --errors answers in its own name instead.
class tst_Contract : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void everyReplyOfTheContractComesFromTheSandbox_data();
    void everyReplyOfTheContractComesFromTheSandbox();
    void everySituationIsInTheContract();
    void everyRouteOfTheSandboxIsInTheContract();
    void everyRefusalOfTheSandboxIsInTheContract();
    void everyStatusOfTheSandboxIsInTheContract();
    void wrongRequestsAreRejected_data();
    void wrongRequestsAreRejected();
    void wrongRepliesAreRejected_data();
    void wrongRepliesAreRejected();
    void wrongExamplesFailTheLint_data();
    void wrongExamplesFailTheLint();
    void mockAnswersEveryOperation();

private:
    void readContract();
    void startSandbox();
    QString startPrism(std::unique_ptr<ServerProcess> &process, const QStringList &arguments);

    QString path(const QString &name) const { return m_dir.filePath(name); }
    QList<Example> examples() const;
    QMap<QString, std::function<Exchange()>> situations();
    Request rightRequest(const QString &path, const QString &method,
                         const QJsonValue &body = {}) const;
    static QList<WrongRequest> wrongParameters(const Request &right, const QJsonValue &operation);
    static QList<WrongRequest> wrongBodies(const Request &right, const QJsonValue &schema,
                                           const QJsonObject &body);

    static Exchange exchange(QNetworkReply *reply);
    Exchange send(const QString &server, const Request &request);
    Exchange byHand(const QByteArray &method, const QString &target, const QByteArray &body = {});
    Exchange byLibrary(const QString &server, const QString &product, const Call &call);
    Exchange byLibrary(const Call &call) { return byLibrary(m_address, u"DEMO"_s, call); }
    Exchange whileBroken(const std::function<Exchange()> &call);
    void query(const QString &sql) const;
    QJsonObject started();
    QString approvedOrder();
    QString paidKey();
    QString cancelled(QLatin1StringView member);
    static QString sandboxSources();

    QTemporaryDir m_dir;
    QString m_contract = QStringLiteral(CORVANE_SOURCE_DIR "/contract/openapi.yaml");
    QJsonObject m_described; // the contract, with everything in the place where it is used
    QNetworkAccessManager m_network;
    std::unique_ptr<ServerProcess> m_sandbox;
    QString m_sandboxAddress;
    std::unique_ptr<ServerProcess> m_prism; // before the sandbox
    QString m_address;
    LoopbackServer m_scripted;
    std::unique_ptr<ServerProcess> m_strictPrism; // before the scripted server
    QString m_strictAddress;
};

namespace {

const QString tools = QStringLiteral(CORVANE_SOURCE_DIR "/contract/node_modules/.bin/");

// What the tool prints, and whether it succeeds.
QPair<bool, QByteArray> redocly(const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setWorkingDirectory(QStringLiteral(CORVANE_SOURCE_DIR "/contract"));
    process.start(tools + "redocly"_L1, arguments);
    const bool success = process.waitForFinished(patience)
        && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    return {success, process.readAll()};
}

} // namespace

void tst_Contract::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY2(QFile::exists(tools + "prism"_L1),
             "The contract's tools are missing: run ./check contract, or npm ci in contract/");
    QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
    // It would ask whether there is a newer version.
    qputenv("REDOCLY_SUPPRESS_UPDATE_NOTICE", "true");

    readContract();
    if (QTest::currentTestFailed())
        return;
    startSandbox();
    if (QTest::currentTestFailed())
        return;
    m_address = startPrism(m_prism, {u"proxy"_s, m_contract, m_sandboxAddress});
    m_strictAddress = startPrism(
        m_strictPrism, {u"proxy"_s, u"--errors"_s, m_contract, m_scripted.url().toString()});
}

void tst_Contract::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_Contract::everyReplyOfTheContractComesFromTheSandbox_data()
{
    QTest::addColumn<Example>("example");
    for (const Example &example : examples())
        QTest::newRow(qUtf8Printable(example.title())) << example;
}

// The library asks wherever it can; what it would never send is sent by hand.
void tst_Contract::everyReplyOfTheContractComesFromTheSandbox()
{
    QFETCH(const Example, example);
    const std::function<Exchange()> situation = situations().value(example.title());
    QVERIFY2(situation, "No request of this test is answered so");

    const Exchange seen = situation();
    QCOMPARE(seen.status, example.status);
    QCOMPARE(violationsOf(u"response"_s, seen.violations), QStringList());
    // Bad requests, and no others, are those that the contract forbids.
    QCOMPARE(violationsOf(u"request"_s, seen.violations).isEmpty(), example.status != 400);

    if (example.mediaType == "text/html"_L1) {
        QVERIFY2(seen.body.contains(example.value.toString().toUtf8()), seen.body.constData());
    } else if (example.mediaType == "application/octet-stream"_L1) {
        QCOMPARE(seen.body, example.value.toString().toUtf8());
    } else {
        const QJsonObject body = QJsonDocument::fromJson(seen.body).object();
        const bool isRefusal = !body.value("success"_L1).toBool(true);
        QCOMPARE(shape(body), shape(example.value));
        if (isRefusal)
            QCOMPARE(body, example.value.toObject());
    }

    if (example.status == 400 || !resultSignals.contains(example.operation)) {
        QCOMPARE(seen.lines, QStringList());
        return;
    }
    const bool isHidden = example.status >= 400 && example.method == "get"_L1;
    QCOMPARE(seen.lines.size(), 1);
    QCOMPARE(seen.lines.constFirst().section(u' ', 0, 0),
             isHidden ? u"networkError"_s : resultSignals.value(example.operation));
}

void tst_Contract::everySituationIsInTheContract()
{
    QStringList described;
    for (const Example &example : examples())
        described.append(example.title());
    described.sort();
    QCOMPARE(situations().keys(), described);
}

void tst_Contract::everyRouteOfTheSandboxIsInTheContract()
{
    QStringList described;
    const QJsonObject paths = m_described.value("paths"_L1).toObject();
    for (auto item = paths.begin(); item != paths.end(); ++item) {
        static const QRegularExpression parameter(u"\\{\\w+\\}"_s);
        const QString pattern = item.key().replace(parameter, u"*"_s);
        for (const QString &method : {u"get"_s, u"post"_s}) {
            if (item->toObject().contains(method))
                described.append(method + ' '_L1 + pattern);
        }
    }

    QStringList routes;
    static const QRegularExpression route(u"\"(GET|POST)\", \"(/[^\"]*)\"_L1"_s);
    for (const QRegularExpressionMatch &match : route.globalMatch(sandboxSources()))
        routes.append(match.captured(1).toLower() + ' '_L1 + match.captured(2));
    described.sort();
    routes.sort();
    QCOMPARE(routes, described);
}

void tst_Contract::everyRefusalOfTheSandboxIsInTheContract()
{
    const QString contract = QString::fromUtf8(Files::contentOf(m_contract));
    static const QRegularExpression sentence(u"u\"([^\"\\\\]+\\.)\"_s"_s);
    qsizetype count = 0;
    for (const QRegularExpressionMatch &match : sentence.globalMatch(sandboxSources())) {
        // One member's name stands for any.
        const QStringList parts = match.captured(1).split(u"%1"_s);
        for (const QString &part : parts)
            QVERIFY2(contract.contains(part), qUtf8Printable(match.captured(1)));
        ++count;
    }
    QVERIFY2(count > 0, "The sandbox's refusals stand elsewhere or are written otherwise");
}

void tst_Contract::everyStatusOfTheSandboxIsInTheContract()
{
    QList<int> described;
    for (const Example &example : examples())
        described.append(example.status);

    QSet<int> unknown;
    static const QRegularExpression status(u"\\b[2-5]\\d\\d\\b"_s);
    for (const QRegularExpressionMatch &match : status.globalMatch(sandboxSources())) {
        const int number = match.captured().toInt();
        if (!described.contains(number))
            unknown.insert(number);
    }
    // It answers methods that the contract has no operation for, and what is too large for any.
    QCOMPARE(unknown, (QSet<int>{405, 413, 431}));
}

void tst_Contract::wrongRequestsAreRejected_data()
{
    QTest::addColumn<Request>("right");
    QTest::addColumn<QList<WrongRequest>>("wrong");

    const QJsonObject paths = m_described.value("paths"_L1).toObject();
    for (auto item = paths.begin(); item != paths.end(); ++item) {
        for (const QString &method : {u"get"_s, u"post"_s}) {
            const QJsonValue operation = item.value()[method];
            if (!resultSignals.contains(operation["operationId"_L1].toString()))
                continue;
            const QByteArray name = operation["operationId"_L1].toString().toUtf8();
            const QJsonValue content =
                operation["requestBody"_L1]["content"_L1]["application/json"_L1];
            const QJsonObject bodies = content["examples"_L1].toObject();
            for (auto body = bodies.begin(); body != bodies.end(); ++body) {
                const QJsonObject value = body.value()["value"_L1].toObject();
                const Request right = rightRequest(item.key(), method, value);
                QTest::addRow("%s %s", name.constData(), qUtf8Printable(body.key()))
                    << right << wrongBodies(right, content["schema"_L1], value);
            }
            if (bodies.isEmpty()) {
                const Request right = rightRequest(item.key(), method);
                QTest::addRow("%s", name.constData()) << right << wrongParameters(right, operation);
            }
        }
    }
}

void tst_Contract::wrongRequestsAreRejected()
{
    QFETCH(const Request, right);
    QFETCH(const QList<WrongRequest>, wrong);

    m_scripted.always(LoopbackServer::response(404, "{}"));
    const qsizetype before = m_scripted.requests().size();
    const Exchange passed = send(m_strictAddress, right);
    QCOMPARE(violationsOf(u"request"_s, passed.violations), QStringList());
    QCOMPARE(m_scripted.requests().size(), before + 1);

    QVERIFY(!wrong.isEmpty());
    for (const WrongRequest &candidate : wrong) {
        const Exchange seen = send(m_strictAddress, candidate.request);
        const QByteArray found = candidate.name.toUtf8() + ": " + seen.body;
        QVERIFY2(seen.status == 422, found.constData());
        QCOMPARE(seen.contentType, QByteArray("application/problem+json"));
        QVERIFY2(seen.body.contains(candidate.culprit), found.constData());
    }
    QCOMPARE(m_scripted.requests().size(), before + 1);
}

void tst_Contract::wrongRepliesAreRejected_data()
{
    QTest::addColumn<Example>("example");
    QTest::addColumn<Request>("request");
    QTest::addColumn<QByteArray>("right");
    QTest::addColumn<QList<WrongReply>>("wrong");

    const QJsonObject paths = m_described.value("paths"_L1).toObject();
    QMap<QString, Request> requests;
    for (auto item = paths.begin(); item != paths.end(); ++item) {
        for (const QString &method : {u"get"_s, u"post"_s}) {
            const QJsonValue operation = item.value()[method];
            const QJsonValue bodies =
                operation["requestBody"_L1]["content"_L1]["application/json"_L1]["examples"_L1];
            requests.insert(operation["operationId"_L1].toString(),
                            rightRequest(item.key(), method, firstValue(bodies)));
        }
    }
    for (const Example &example : examples()) {
        const QByteArray mediaType = example.mediaType.toUtf8();
        const bool isText = example.value.isString();
        const QByteArray body = isText ? example.value.toString().toUtf8() : json(example.value);
        QList<WrongReply> wrong{
            {u"as plain text"_s, LoopbackServer::response(example.status, body, "text/plain")},
            {u"with another status"_s, LoopbackServer::response(418, body, mediaType)}};
        if (!isText) {
            for (const WrongValue &candidate : wrongValues(example.value)) {
                wrong.append({candidate.name,
                              LoopbackServer::response(example.status, json(candidate.value))});
            }
        }
        QTest::newRow(qUtf8Printable(example.title()))
            << example << requests.value(example.operation)
            << LoopbackServer::response(example.status, body, mediaType) << wrong;
    }
}

void tst_Contract::wrongRepliesAreRejected()
{
    QFETCH(const Example, example);
    QFETCH(const Request, request);
    QFETCH(const QByteArray, right);
    QFETCH(const QList<WrongReply>, wrong);

    m_scripted.always(right);
    const Exchange passed = send(m_strictAddress, request);
    QCOMPARE(passed.violations, QByteArray());
    QCOMPARE(passed.status, example.status);

    QStringList missed;
    for (const WrongReply &candidate : wrong) {
        m_scripted.always(candidate.response);
        const Exchange seen = send(m_strictAddress, request);
        // An error status that the contract lacks is found, but let through.
        const int status = candidate.response.startsWith("HTTP/1.1 418") ? 418 : 500;
        if (seen.status != status || violationsOf(u"response"_s, seen.violations).isEmpty())
            missed.append(candidate.name);
    }
    QCOMPARE(missed, QStringList());
}

void tst_Contract::wrongExamplesFailTheLint_data()
{
    QTest::addColumn<QByteArray>("right");
    QTest::addColumn<QByteArray>("wrong");
    QTest::addColumn<QByteArray>("rule");

    const QByteArray ofMedia = "no-invalid-media-type-examples";
    QTest::newRow("request-of-another-type")
        << QByteArray("email: ada@example.org") << QByteArray("email: 5") << ofMedia;
    QTest::newRow("request-with-a-misspelt-member")
        << QByteArray("email: ada@example.org") << QByteArray("mail: ada@example.org") << ofMedia;
    QTest::newRow("reply-of-another-type")
        << QByteArray("license_id: 1001") << QByteArray("license_id: '1001'") << ofMedia;
    QTest::newRow("shared-refusal") << QByteArray("message: Prodotto sconosciuto.")
                                    << QByteArray("text: Prodotto sconosciuto.") << ofMedia;
    QTest::newRow("parameter") << QByteArray("value: '1767225600000'") << QByteArray("value: ora")
                               << QByteArray("no-invalid-parameter-examples");
}

void tst_Contract::wrongExamplesFailTheLint()
{
    QFETCH(const QByteArray, right);
    QFETCH(QByteArray, wrong);
    QFETCH(const QByteArray, rule);

    const QByteArray contract = Files::contentOf(m_contract);
    QVERIFY(contract.contains(right));
    Files::write(path(u"wrong.yaml"_s), QByteArray(contract).replace(right, wrong));
    const auto [passes, report] = redocly({u"lint"_s, u"--config"_s, u"redocly.yaml"_s,
                                           u"--format"_s, u"json"_s, path(u"wrong.yaml"_s)});
    QVERIFY2(!passes, report.constData());
    QVERIFY2(report.contains(rule), report.constData());
}

// What a front-end is developed against before there is a service.
void tst_Contract::mockAnswersEveryOperation()
{
    std::unique_ptr<ServerProcess> mock;
    const QString address = startPrism(mock, {u"mock"_s, u"--errors"_s, m_contract});
    const QString text = u"x"_s;
    const QString file = address + "/releases/DEMO/stable/latest"_L1;
    const QList<QPair<QString, Call>> calls{
        {u"checkForUpdate"_s, [&](Corvane &client) { client.checkForUpdate(text, text); }},
        {u"downloadRelease"_s,
         [&](Corvane &client) { client.downloadUpdate(QUrl(file), path(u"mocked"_s)); }},
        {u"fetchPurchasePlans"_s, [&](Corvane &client) { client.fetchPurchasePlans(); }},
        {u"startPayPalPurchase"_s,
         [&](Corvane &client) { client.startPayPalPurchase(text, text, text, text); }},
        {u"resumePayPalPurchase"_s, [&](Corvane &client) { client.resumePayPalPurchase(text); }},
        {u"capturePayPalPurchase"_s, [&](Corvane &client) { client.capturePayPalPurchase(text); }},
        {u"sendUsage"_s, [&](Corvane &client) { client.sendUsage(text, text, text, {}); }},
    };
    for (const auto &[operation, call] : calls) {
        const Exchange seen = byLibrary(address, u"DEMO"_s, call);
        QVERIFY2(seen.status == 200, qUtf8Printable(operation + ": "_L1 + seen.lines.join(u' ')));
        QCOMPARE(seen.violations, QByteArray());
        QCOMPARE(seen.lines.size(), 1);
        QCOMPARE(seen.lines.constFirst().section(u' ', 0, 0), resultSignals.value(operation));
    }
    QCOMPARE(Files::contentOf(path(u"mocked"_s)), QByteArray("foo"));
}

void tst_Contract::readContract()
{
    const QString bundle = path(u"contract.json"_s);
    const auto [success, report] = redocly({u"bundle"_s, m_contract, u"--dereferenced"_s,
                                            u"--ext"_s, u"json"_s, u"--output"_s, bundle});
    QVERIFY2(success, report.constData());
    m_described = QJsonDocument::fromJson(Files::contentOf(bundle)).object();
    QVERIFY(!examples().isEmpty());
}

void tst_Contract::startSandbox()
{
    const QString folder = path(u"releases/DEMO/stable/1.4.0"_s);
    QVERIFY(QDir().mkpath(folder));
    // Prism takes all bodies for text: it would not let other bytes through as they are.
    Files::write(folder + "/demo-1.4.0.txt"_L1, "foo");
    m_sandbox =
        std::make_unique<ServerProcess>(QStringLiteral(CORVANE_SANDBOX_PATH),
                                        QStringList{u"--database"_s, path(u"state.sqlite"_s),
                                                    u"--releases"_s, path(u"releases"_s)});
    const QRegularExpression address(u"^(http://127\\.0\\.0\\.1:\\d+)\\n"_s);
    m_sandboxAddress = m_sandbox->waitForOutput(address).captured(1);
    QVERIFY2(!m_sandboxAddress.isEmpty(), qUtf8Printable(m_sandbox->output()));
    query(u"INSERT INTO products VALUES ('VUOTO', 'Senza piani')"_s);
}

// Its address, on a free port that it chooses: it prints it when it listens.
QString tst_Contract::startPrism(std::unique_ptr<ServerProcess> &process,
                                 const QStringList &arguments)
{
    process = std::make_unique<ServerProcess>(tools + "prism"_L1,
                                              arguments + QStringList{u"--port"_s, u"0"_s});
    const QRegularExpression listening(u"Prism is listening on (http://127\\.0\\.0\\.1:\\d+)\\s"_s);
    QString address = process->waitForOutput(listening, 0, patience).captured(1);
    if (address.isEmpty())
        qFatal("Prism does not start: %s", qUtf8Printable(process->output()));
    return address;
}

QList<Example> tst_Contract::examples() const
{
    QList<Example> all;
    const QJsonObject paths = m_described.value("paths"_L1).toObject();
    for (const auto &item : paths) {
        for (const QString &method : {u"get"_s, u"post"_s}) {
            const QJsonObject replies = item[method]["responses"_L1].toObject();
            for (auto reply = replies.begin(); reply != replies.end(); ++reply) {
                const QJsonObject content = reply.value()["content"_L1].toObject();
                const QJsonObject shown = content.begin().value()["examples"_L1].toObject();
                for (auto example = shown.begin(); example != shown.end(); ++example) {
                    all.append({item[method]["operationId"_L1].toString(), method,
                                content.begin().key(), reply.key().toInt(), example.key(),
                                example.value()["value"_L1]});
                }
            }
        }
    }
    return all;
}

// How each reply that the contract shows is brought about, by the example's title.
QMap<QString, std::function<Exchange()>> tst_Contract::situations()
{
    const QString nobody = u"NESSUNO"_s;
    const QString startPath = u"/api/v1/purchase/start"_s;
    const QString resumePath = u"/api/v1/purchase/resume"_s;
    const QString capturePath = u"/api/v1/purchase/capture"_s;
    const QString usagePath = u"/api/v1/client/usage"_s;
    const QString file = u"/releases/%1/stable/%2"_s;
    const QString approval = u"/paypal/approve/"_s;
    const QString cancellation = u"/paypal/cancel/"_s;

    const Call check = [](Corvane &client) { client.checkForUpdate(u"1.0"_s, u"stable"_s); };
    const Call plans = [](Corvane &client) { client.fetchPurchasePlans(); };
    const auto download = [this, file](const QString &product, const QString &name) -> Call {
        const QUrl url(m_address + file.arg(product, name));
        return [this, url](Corvane &client) { client.downloadUpdate(url, path(u"file"_s)); };
    };
    const auto start = [](const QString &plan, const QString &name, const QString &email) -> Call {
        return [=](Corvane &client) { client.startPayPalPurchase(plan, name, name, email); };
    };
    const Call startRightly = start(u"annuale"_s, u"Ada"_s, u"Ada@Example.org"_s);
    const auto resume = [](const QString &key) -> Call {
        return [key](Corvane &client) { client.resumePayPalPurchase(key); };
    };
    const auto capture = [](const QString &order) -> Call {
        return [order](Corvane &client) { client.capturePayPalPurchase(order); };
    };
    const auto usage = [](const QString &key, const QString &event) -> Call {
        return [=](Corvane &client) {
            client.sendUsage(key, u"macchina-1"_s, event, {{u"durata"_s, 12.5}});
        };
    };

    using Situation = std::function<Exchange()>;
    const auto library = [this](const Call &call) -> Situation {
        return [=] { return byLibrary(call); };
    };
    const auto libraryFor = [this](const QString &product, const Call &call) -> Situation {
        return [=] { return byLibrary(m_address, product, call); };
    };
    const auto libraryBroken = [this](const Call &call) -> Situation {
        return [=] { return whileBroken([=] { return byLibrary(call); }); };
    };
    const auto hand = [this](const QByteArray &method, const QString &target,
                             const QByteArray &body = {}) -> Situation {
        return [=] { return byHand(method, target, body); };
    };
    const auto handBroken = [this](const QByteArray &method, const QString &target) -> Situation {
        return [=] { return whileBroken([=] { return byHand(method, target); }); };
    };
    const auto order = [this] { return started().value("paypal_order_id"_L1).toString(); };
    const QByteArray form = "application/x-www-form-urlencoded";
    const auto fromElsewhere = [=](const QString &target) -> Situation {
        const Request request{
            "POST", target, {}, {{"Content-Type", form}, {"Origin", "http://a.example"}}, {}};
        return [=] { return send(m_address, request); };
    };
    // Without Prism, which goes where a redirect leads and shows that instead.
    const auto decision = [=](const QString &path) -> Situation {
        return [=] {
            return send(m_sandboxAddress,
                        {"POST", path + order(), {}, {{"Content-Type", form}}, {}});
        };
    };

    return {
        {u"checkForUpdate 200 release"_s, library(check)},
        {u"checkForUpdate 200 no-release"_s,
         library([](Corvane &client) { client.checkForUpdate(u"1.0"_s, u"beta"_s); })},
        {u"checkForUpdate 404 unknown-product"_s, libraryFor(nobody, check)},
        {u"checkForUpdate 500 internal-error"_s, libraryBroken(check)},

        {u"downloadRelease 200 file"_s, library(download(u"DEMO"_s, u"1.4.0/demo-1.4.0.txt"_s))},
        {u"downloadRelease 404 unknown-product"_s, library(download(nobody, u"1.4.0/x"_s))},
        {u"downloadRelease 404 unknown-file"_s, library(download(u"DEMO"_s, u"1.4.0/x"_s))},
        {u"downloadRelease 500 internal-error"_s, libraryBroken(download(u"DEMO"_s, u"1/x"_s))},
        {u"downloadLatestRelease 200 file"_s, library(download(u"DEMO"_s, u"latest"_s))},
        {u"downloadLatestRelease 404 unknown-product"_s, library(download(nobody, u"latest"_s))},
        {u"downloadLatestRelease 404 unknown-file"_s, library(download(u"VUOTO"_s, u"latest"_s))},
        {u"downloadLatestRelease 500 internal-error"_s,
         libraryBroken(download(u"DEMO"_s, u"latest"_s))},

        {u"fetchPurchasePlans 200 plans"_s, library(plans)},
        {u"fetchPurchasePlans 200 no-plans"_s, libraryFor(u"VUOTO"_s, plans)},
        {u"fetchPurchasePlans 404 unknown-product"_s, libraryFor(nobody, plans)},
        {u"fetchPurchasePlans 500 internal-error"_s, libraryBroken(plans)},

        {u"startPayPalPurchase 200 started"_s, library(startRightly)},
        {u"startPayPalPurchase 400 no-object"_s, hand("POST", startPath, "[]")},
        {u"startPayPalPurchase 400 no-email"_s,
         hand("POST", startPath,
              R"({"product_code": "", "plan_code": "", "first_name": "", "last_name": ""})")},
        {u"startPayPalPurchase 404 unknown-product"_s, libraryFor(nobody, startRightly)},
        {u"startPayPalPurchase 404 unknown-plan"_s,
         library(start(nobody, u"Ada"_s, u"ada@example.org"_s))},
        {u"startPayPalPurchase 422 blank-name"_s,
         library(start(u"ANNUALE"_s, u" "_s, u"ada@example.org"_s))},
        {u"startPayPalPurchase 422 invalid-email"_s,
         library(start(u"ANNUALE"_s, u"Ada"_s, u"ada"_s))},
        {u"startPayPalPurchase 500 internal-error"_s, libraryBroken(startRightly)},

        {u"resumePayPalPurchase 200 started"_s,
         [=] { return byLibrary(resume(started().value("license_key"_L1).toString())); }},
        {u"resumePayPalPurchase 400 no-object"_s, hand("POST", resumePath, "[]")},
        {u"resumePayPalPurchase 400 no-key"_s,
         hand("POST", resumePath, R"({"product_code": "DEMO", "license_key": 7})")},
        {u"resumePayPalPurchase 404 unknown-product"_s, libraryFor(nobody, resume(nobody))},
        {u"resumePayPalPurchase 404 unknown-key"_s, library(resume(nobody))},
        {u"resumePayPalPurchase 409 paid"_s, [=] { return byLibrary(resume(paidKey())); }},
        {u"resumePayPalPurchase 409 cancelled"_s,
         [=] { return byLibrary(resume(cancelled("license_key"_L1))); }},
        {u"resumePayPalPurchase 500 internal-error"_s, libraryBroken(resume(nobody))},

        {u"capturePayPalPurchase 200 paid"_s, [=] { return byLibrary(capture(approvedOrder())); }},
        {u"capturePayPalPurchase 400 no-object"_s, hand("POST", capturePath, "[]")},
        {u"capturePayPalPurchase 400 no-order"_s, hand("POST", capturePath, "{}")},
        {u"capturePayPalPurchase 404 unknown-order"_s, library(capture(nobody))},
        {u"capturePayPalPurchase 409 not-approved"_s, [=] { return byLibrary(capture(order())); }},
        {u"capturePayPalPurchase 409 cancelled"_s,
         [=] { return byLibrary(capture(cancelled("paypal_order_id"_L1))); }},
        {u"capturePayPalPurchase 500 internal-error"_s, libraryBroken(capture(nobody))},

        {u"sendUsage 200 accepted"_s, library(usage({}, u"avvio"_s))},
        {u"sendUsage 400 no-object"_s, hand("POST", usagePath, "[]")},
        {u"sendUsage 400 no-key"_s, hand("POST", usagePath, R"({"product_code": "DEMO"})")},
        {u"sendUsage 404 unknown-product"_s, libraryFor(nobody, usage({}, u"avvio"_s))},
        {u"sendUsage 404 unknown-key"_s, library(usage(nobody, u"avvio"_s))},
        {u"sendUsage 422 blank-event"_s, library(usage({}, u" "_s))},
        {u"sendUsage 500 internal-error"_s, libraryBroken(usage({}, u"avvio"_s))},

        {u"showApproval 200 pending"_s, [=] { return byHand("GET", approval + order()); }},
        {u"showApproval 200 approved"_s, [=] { return byHand("GET", approval + approvedOrder()); }},
        {u"showApproval 200 cancelled"_s,
         [=] { return byHand("GET", approval + cancelled("paypal_order_id"_L1)); }},
        {u"showApproval 404 unknown-order"_s, hand("GET", approval + nobody)},
        {u"showApproval 500 internal-error"_s, handBroken("GET", approval + nobody)},
        {u"approve 303 approved"_s, decision(approval)},
        {u"approve 403 other-site"_s, fromElsewhere(approval + nobody)},
        {u"approve 404 unknown-order"_s, hand("POST", approval + nobody)},
        {u"approve 409 cancelled"_s,
         [=] { return byHand("POST", approval + cancelled("paypal_order_id"_L1)); }},
        {u"approve 500 internal-error"_s, handBroken("POST", approval + nobody)},
        {u"cancel 303 cancelled"_s, decision(cancellation)},
        {u"cancel 403 other-site"_s, fromElsewhere(cancellation + nobody)},
        {u"cancel 404 unknown-order"_s, hand("POST", cancellation + nobody)},
        {u"cancel 409 approved"_s, [=] { return byHand("POST", cancellation + approvedOrder()); }},
        {u"cancel 500 internal-error"_s, handBroken("POST", cancellation + nobody)},
    };
}

// The request that the contract's own examples make up.
Request tst_Contract::rightRequest(const QString &path, const QString &method,
                                   const QJsonValue &body) const
{
    const QJsonValue item = m_described.value("paths"_L1)[path];
    Request request;
    request.method = method.toUpper().toLatin1();
    request.path = path;
    QJsonArray parameters = item["parameters"_L1].toArray();
    const QJsonArray own = item[method]["parameters"_L1].toArray();
    for (const auto &parameter : own)
        parameters.append(parameter);
    for (const auto &parameter : std::as_const(parameters)) {
        const QString name = parameter["name"_L1].toString();
        const QString place = parameter["in"_L1].toString();
        const QString value = firstValue(parameter["examples"_L1]).toString();
        if (place == "header"_L1)
            request.headers.insert(name.toLatin1(),
                                   parameter["schema"_L1]["const"_L1].toString().toLatin1());
        else if (place == "query"_L1)
            request.query.addQueryItem(name, value);
        else
            request.path.replace(u"{%1}"_s.arg(name), value);
    }
    if (body.isObject()) {
        request.headers.insert("Content-Type", "application/json");
        request.body = json(body);
    }
    return request;
}

QList<WrongRequest> tst_Contract::wrongParameters(const Request &right, const QJsonValue &operation)
{
    const QJsonArray parameters = operation["parameters"_L1].toArray();
    QList<WrongRequest> all;
    for (const auto &parameter : parameters) {
        const QString name = parameter["name"_L1].toString();
        const QByteArray culprit = name.toLower().toLatin1();
        const QString place = parameter["in"_L1].toString();
        Request wrong = right;
        wrong.headers.remove(name.toLatin1());
        wrong.query.removeQueryItem(name);
        // A browser may fetch a file, too.
        if (place == "query"_L1 || (place == "header"_L1 && right.path.startsWith("/api/"_L1)))
            all.append({name + " missing"_L1, wrong, culprit});
        if (place == "header"_L1) {
            wrong.headers.insert(name.toLatin1(), "max-age=0");
            all.append({name + " wrong"_L1, wrong, culprit});
        }
        if (parameter["schema"_L1].toObject().contains("pattern"_L1)) {
            wrong.query.addQueryItem(name, u"ora"_s);
            all.append({name + " wrong"_L1, wrong, culprit});
        }
    }
    return all;
}

QList<WrongRequest> tst_Contract::wrongBodies(const Request &right, const QJsonValue &schema,
                                              const QJsonObject &body)
{
    QList<WrongRequest> all;
    const auto append = [&](const QString &name, const QByteArray &wrong,
                            const QByteArray &culprit) {
        Request request = right;
        request.body = wrong;
        all.append({name, request, culprit});
    };
    append(u"no body"_s, {}, "Body parameter is required");
    append(u"no object"_s, "[]", "body must be object");
    if (!schema["additionalProperties"_L1].toBool()) {
        QJsonObject wrong = body;
        wrong.insert("altro"_L1, u"x"_s);
        append(u"a member more"_s, json(wrong), "altro");
    }
    for (const QString &name : schema["properties"_L1].toObject().keys()) {
        QJsonObject wrong = body;
        wrong.remove(name);
        append(name + " missing"_L1, json(wrong), name.toLatin1());
        for (const QJsonValue &value : {QJsonValue(1), QJsonValue(), QJsonValue(QJsonObject())}) {
            wrong.insert(name, value);
            append(name + " of another type"_L1, json(wrong), name.toLatin1());
        }
    }
    Request asText = right;
    asText.headers.insert("Content-Type", "text/plain");
    all.append({u"as plain text"_s, asText, "Supported content types"});
    return all;
}

// The body is looked at as it comes: in the end, the library has read it.
Exchange tst_Contract::exchange(QNetworkReply *reply)
{
    Exchange seen;
    const QObject context;
    connect(reply, &QNetworkReply::readyRead, &context, [&seen, reply] {
        if (reply->bytesAvailable() > 0)
            seen.body = reply->peek(reply->bytesAvailable());
    });
    connect(reply, &QNetworkReply::finished, &context, [&seen, reply] {
        seen.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        seen.contentType = reply->rawHeader("Content-Type");
        seen.violations = reply->rawHeader("sl-violations");
    });
    QSignalSpy finished(reply, &QNetworkReply::finished);
    finished.wait(patience);
    return seen;
}

Exchange tst_Contract::send(const QString &server, const Request &request)
{
    QUrl url(server + request.path);
    url.setQuery(request.query);
    QNetworkRequest message(url);
    message.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    for (auto header = request.headers.begin(); header != request.headers.end(); ++header)
        message.setRawHeader(header.key(), header.value());
    const std::unique_ptr<QNetworkReply> reply(
        m_network.sendCustomRequest(message, request.method, request.body));
    return exchange(reply.get());
}

// Through Prism to the sandbox.
Exchange tst_Contract::byHand(const QByteArray &method, const QString &target,
                              const QByteArray &body)
{
    Request request{method, target, {}, {}, body};
    if (method == "POST") {
        request.headers.insert("Content-Type",
                               body.isEmpty() ? "application/x-www-form-urlencoded"
                                              : "application/json");
    }
    return send(m_address, request);
}

Exchange tst_Contract::byLibrary(const QString &server, const QString &product, const Call &call)
{
    Corvane client;
    client.setServerUrl(QUrl(server));
    client.setProductCode(product);
    SignalLog log(&client);
    call(client);
    auto *reply = client.findChild<QNetworkReply *>();
    if (!reply)
        return {};
    Exchange seen = exchange(reply);
    seen.lines = log.settled();
    return seen;
}

// The sandbox does not find two of its tables.
Exchange tst_Contract::whileBroken(const std::function<Exchange()> &call)
{
    query(u"ALTER TABLE products RENAME TO hidden_products"_s);
    query(u"ALTER TABLE orders RENAME TO hidden_orders"_s);
    Exchange seen = call();
    query(u"ALTER TABLE hidden_products RENAME TO products"_s);
    query(u"ALTER TABLE hidden_orders RENAME TO orders"_s);
    return seen;
}

// In the sandbox's database.
void tst_Contract::query(const QString &sql) const
{
    const Database database(path(u"state.sqlite"_s));
    // A table that is renamed is missed by the views.
    QCOMPARE(database.query(u"PRAGMA legacy_alter_table = ON"_s), QStringList());
    QCOMPARE(database.query(sql), QStringList());
}

QJsonObject tst_Contract::started()
{
    const Exchange seen = byLibrary([](Corvane &client) {
        client.startPayPalPurchase(u"MENSILE"_s, u"Ada"_s, u"Rossi"_s, u"ada@example.org"_s);
    });
    return QJsonDocument::fromJson(seen.body).object();
}

QString tst_Contract::approvedOrder()
{
    QString order = started().value("paypal_order_id"_L1).toString();
    byHand("POST", "/paypal/approve/"_L1 + order);
    return order;
}

QString tst_Contract::paidKey()
{
    const QString order = approvedOrder();
    const Exchange seen =
        byLibrary([order](Corvane &client) { client.capturePayPalPurchase(order); });
    return QJsonDocument::fromJson(seen.body).object().value("license_key"_L1).toString();
}

// What the start of a purchase that was then cancelled had in that member.
QString tst_Contract::cancelled(QLatin1StringView member)
{
    const QJsonObject purchase = started();
    byHand("POST", "/paypal/cancel/"_L1 + purchase.value("paypal_order_id"_L1).toString());
    return purchase.value(member).toString();
}

// Those of the sandbox's sources that answer requests, one after the other.
QString tst_Contract::sandboxSources()
{
    QString sources;
    QDirIterator files(QStringLiteral(CORVANE_SOURCE_DIR "/sandbox/endpoints"), {u"*.cpp"_s},
                       QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString source = QString::fromUtf8(Files::contentOf(files.next()));
        if (source.contains("Refusal"_L1))
            sources += source;
    }
    return sources;
}

QTEST_GUILESS_MAIN(tst_Contract)

#include "tst_contract.moc"
