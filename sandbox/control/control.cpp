#include "control/control.h"

#include "endpoints/service.h"
#include "faults/faults.h"
#include "faults/scenarios.h"
#include "http/connection.h"
#include "journal/journal.h"
#include "journal/mask.h"
#include "state/store.h"
#include "json/jsoninput.h"

#include <QtCore/qfile.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qtimer.h>
#include <QtCore/qurl.h>
#include <QtNetwork/qhostaddress.h>

#include <algorithm>
#include <chrono>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 longestWait = 60;
constexpr qint64 longestUsage = 1'000'000'000;
constexpr qint64 anyNumber = std::numeric_limits<qint64>::max();
// The page and its files lie here, and so do the paths of all the rest.
constexpr QByteArrayView folder = "/sandbox/";

// A name, other than this one, can be made to lead here by whoever owns it.
bool isThisMachine(const QByteArray &host)
{
    const QString name = QUrl("http://"_L1 + QString::fromLatin1(host)).host();
    return name == "localhost"_L1 || !QHostAddress(name).isNull();
}

// The member of the body that is its only one.
JsonInput memberOfBody(const HttpRequest &request, const QString &name)
{
    const JsonInput body = JsonInput::fromJson(request.body);
    body.isObjectOf({name});
    return body.member(name);
}

qint64 numberIn(const HttpRequest &request, const QString &name, qint64 highest, qint64 usual = 0)
{
    const QString text = request.query().queryItemValue(name);
    bool isNumber = false;
    const qint64 number = text.toLongLong(&isNumber);
    if (text.isNull())
        return usual;
    if (isNumber && number >= 0 && number <= highest)
        return number;
    throw JsonError(name, u"must be a whole number from 0 to %1"_s.arg(highest));
}

QByteArray typeOf(const QString &file)
{
    if (file.endsWith(".css"_L1))
        return "text/css; charset=utf-8";
    if (file.endsWith(".js"_L1))
        return "text/javascript; charset=utf-8";
    return file.endsWith(".svg"_L1) ? "image/svg+xml" : "text/html; charset=utf-8";
}

} // namespace

const Control::Route Control::routes[] = {
    {"GET", "/sandbox", &Control::leadToPage},
    {"GET", "/sandbox/", &Control::showPage},
    {"GET", "/sandbox/dashboard.css", &Control::showPage},
    {"GET", "/sandbox/dashboard.js", &Control::showPage},
    {"GET", "/sandbox/icon.svg", &Control::showPage},
    {"GET", "/sandbox/state", &Control::showState},
    {"GET", "/sandbox/usage", &Control::showUsage},
    {"GET", "/sandbox/faults", &Control::showFaults},
    {"POST", "/sandbox/faults", &Control::addFaults},
    {"DELETE", "/sandbox/faults", &Control::clearFaults},
    {"GET", "/sandbox/scenarios", &Control::showScenarios},
    {"POST", "/sandbox/scenario", &Control::startScenario},
    {"GET", "/sandbox/journal", &Control::showJournal},
    {"POST", "/sandbox/reset", &Control::reset},
};

Control::Control(Faults &faults, Journal &journal, Store &store, bool isMasked)
    : m_faults(faults)
    , m_journal(journal)
    , m_store(store)
    , m_isMasked(isMasked)
{
}

bool Control::concerns(const HttpRequest &request)
{
    const QByteArray path = request.path();
    return request.refusal == 0 && (path == "/sandbox" || path.startsWith("/sandbox/"));
}

void Control::answer(HttpConnection *connection)
{
    try {
        checkOrigin(connection->request());
        (this->*routeOf(connection->request()).handler)(connection);
    } catch (const Refusal &refusal) {
        HttpReply reply = Service::refusal(refusal.status, refusal.message);
        reply.headers += refusal.headers;
        connection->send(reply);
    } catch (const JsonError &error) {
        connection->send(Service::refusal(400,
                                          error.path().isEmpty()
                                              ? "the body "_L1 + error.reason()
                                              : QString::fromUtf8(error.what())));
    } catch (const StoreError &error) {
        qWarning("%s: %s", connection->request().path().constData(), error.what());
        connection->send(Service::refusal(500, QString::fromUtf8(error.what())));
    }
}

void Control::checkOrigin(const HttpRequest &request)
{
    if (!isThisMachine(request.header("Host")))
        throw Refusal{403, u"use this machine's IP address, or localhost, in the URL"_s};
    if (request.isOfAnotherSite())
        throw Refusal{403, u"pages of other sites may not control the sandbox"_s};
    const QByteArray type = request.header("Content-Type").split(';').constFirst().trimmed();
    if (request.method == "POST" && type.toLower() != "application/json")
        throw Refusal{415, u"send the header \"Content-Type: application/json\""_s};
}

const Control::Route &Control::routeOf(const HttpRequest &request)
{
    QByteArrayList allowed;
    for (const Route &route : routes) {
        if (route.path != request.path())
            continue;
        if (route.method == request.method)
            return route;
        allowed += route.method;
    }
    if (allowed.isEmpty()) {
        throw Refusal{404,
                      u"there is nothing here: see state, usage, faults, scenarios and journal "
                      "below /sandbox/"_s};
    }
    throw Refusal{405, u"this method is not for this path"_s, {{"Allow", allowed.join(", ")}}};
}

// The page may load its own files and ask this server, and nobody may frame it: what a buyer or a
// host has made up stays text even if the page forgot to treat it so.
void Control::showPage(HttpConnection *connection)
{
    const QString name = QString::fromLatin1(connection->request().path().sliced(folder.size()));
    QFile file(":/pages/"_L1 + (name.isEmpty() ? u"dashboard.html"_s : name));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("The page was not built in.");
    connection->send(
        {200,
         {{"Content-Type", typeOf(file.fileName())},
          {"Cache-Control", "no-store"},
          {"X-Content-Type-Options", "nosniff"},
          {"Content-Security-Policy",
           "default-src 'none'; connect-src 'self'; img-src 'self'; script-src 'self'; "
           "style-src 'self'; base-uri 'none'; form-action 'none'; "
           "frame-ancestors 'none'"}},
         file.readAll()});
}

void Control::leadToPage(HttpConnection *connection)
{
    connection->send({308, {{"Location", folder.toByteArray()}}, {}});
}

void Control::showState(HttpConnection *connection)
{
    send(connection, shown(m_store.contents()));
}

void Control::showUsage(HttpConnection *connection)
{
    const qint64 seconds = numberIn(connection->request(), u"seconds"_s, longestUsage);
    send(connection, shown(m_store.usageOverTime(seconds)));
}

void Control::showFaults(HttpConnection *connection)
{
    send(connection, shown({{u"faults"_s, m_faults.toJson()}}));
}

void Control::addFaults(HttpConnection *connection)
{
    m_faults.add(faultRulesFrom(memberOfBody(connection->request(), u"faults"_s)));
    showFaults(connection);
}

void Control::clearFaults(HttpConnection *connection)
{
    m_faults.clear();
    showFaults(connection);
}

void Control::showScenarios(HttpConnection *connection)
{
    QJsonArray array;
    for (const Scenario &scenario : scenarios()) {
        QJsonArray rules;
        for (const FaultRule &rule : scenario.rules)
            rules.append(rule.json);
        array.append(QJsonObject{
            {u"name"_s, scenario.name}, {u"sentence"_s, scenario.sentence}, {u"rules"_s, rules}});
    }
    send(connection, {{u"scenarios"_s, array}});
}

void Control::startScenario(HttpConnection *connection)
{
    const QString name = memberOfBody(connection->request(), u"name"_s).oneOf(scenarioNames());
    m_faults.clear();
    m_faults.add(scenarioNamed(name)->rules);
    showFaults(connection);
}

void Control::showJournal(HttpConnection *connection)
{
    const HttpRequest &request = connection->request();
    const auto since = static_cast<quint64>(numberIn(request, u"since"_s, anyNumber));
    const std::chrono::seconds wait(numberIn(request, u"wait"_s, longestWait));
    const auto most =
        static_cast<qsizetype>(numberIn(request, u"most"_s, anyNumber, Journal::mostEntries));
    const auto show = [this, connection, since, most] {
        send(connection, m_journal.since(since, most));
    };
    if (wait.count() == 0 || m_journal.change() > since)
        return show();

    // Goes with the connection if the client does not wait so long.
    auto *timer = new QTimer(connection);
    const auto showOnce = [timer, show] {
        timer->disconnect();
        timer->deleteLater();
        show();
    };
    connect(timer, &QTimer::timeout, timer, showOnce);
    connect(&m_journal, &Journal::changed, timer, showOnce);
    timer->start(wait);
}

void Control::reset(HttpConnection *connection)
{
    m_store.reset();
    m_faults.reset();
    m_journal.clear();
    send(connection, {{u"success"_s, true}});
}

QJsonObject Control::shown(const QJsonObject &object) const
{
    return m_isMasked ? masked(QJsonValue(object)).toObject() : object;
}

void Control::send(HttpConnection *connection, const QJsonObject &object)
{
    connection->send({200,
                      {{"Content-Type", "application/json"}, {"Cache-Control", "no-store"}},
                      QJsonDocument(object).toJson(QJsonDocument::Compact)});
}
