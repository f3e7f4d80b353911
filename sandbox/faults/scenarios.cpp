#include "faults/scenarios.h"

#include "json/jsoninput.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

struct Entry
{
    const char *name;
    const char *sentence;
    const char *rules;
};

constexpr Entry entries[] = {
    // The service
    {"service-down", "Nobody is behind the maker's web server: its error page comes instead.",
     R"([{"do": {"status": 503, "page": "<h1>503 Service Unavailable</h1>"}}])"},
    {"maintenance", "The service says that it is down for maintenance, and when to come back.",
     R"([{"do": {"status": 503, "error": "Servizio in manutenzione. Riprova più tardi.",
                 "headers": {"Retry-After": "3600"}}}])"},
    {"internal-error", "The service fails at whatever it is asked.",
     R"([{"do": {"status": 500, "error": "Errore interno del servizio."}}])"},
    {"rate-limited", "The service has had too many requests from this host.",
     R"([{"do": {"status": 429, "error": "Troppe richieste. Riprova tra poco.",
                 "headers": {"Retry-After": "30"}}}])"},
    {"recovering", "The service fails twice, and then works again.",
     R"([{"when": {"times": 2},
          "do": {"status": 503, "error": "Servizio non disponibile."}}])"},

    // The network
    {"flaky-network", "One connection in four breaks off, and one reply in four is late.",
     R"([{"when": {"probability": 0.25, "seed": 1}, "do": {"bytes": "reset"}},
         {"when": {"probability": 0.33, "seed": 2}, "do": {"delay": 1500}}])"},
    {"slow-network", "Every reply is late and comes at the pace of a modem.",
     R"([{"do": {"delay": 1000, "rate": 4096}}])"},
    {"silent-service", "Every reply stops before its body, and the connection stays open.",
     R"([{"do": {"bytes": "stall", "after": 0}}])"},
    {"captive-portal", "A hotel's network answers with its own page until the user signs in.",
     R"([{"do": {"page": "<title>Benvenuti</title><h1>Accedi alla rete dell'albergo</h1>"}}])"},
    {"garbled-replies", "Something on the way cuts every reply in half and lets it look whole.",
     R"([{"do": {"bytes": "wrong-length"}}])"},

    // Updates
    {"no-release", "No release is published on any channel.",
     R"([{"operation": "update-check", "do": {"body": {"success": false, "error":
          {"message": "Nessuna versione pubblicata su questo canale."}}}}])"},
    {"wrong-digest", "The update check tells a SHA-256 that is not the release's.",
     R"([{"operation": "update-check", "do": {"merge": {"release": {"sha256":
          "0000000000000000000000000000000000000000000000000000000000000000"}}}}])"},
    {"missing-release", "The release has been taken away since the update check.",
     R"([{"operation": "download", "do": {"status": 404, "error": "File sconosciuto."}}])"},
    {"slow-download", "The release comes with 64 KiB a second.",
     R"([{"operation": "download", "do": {"rate": 65536}}])"},
    {"stalled-download", "The release stops halfway, and the connection stays open.",
     R"([{"operation": "download", "do": {"bytes": "stall"}}])"},
    {"truncated-download", "The connection closes halfway through the release.",
     R"([{"operation": "download", "do": {"bytes": "close"}}])"},
    {"corrupt-download", "One byte of the release is another; its size is right.",
     R"([{"operation": "download", "do": {"bytes": "corrupt"}}])"},

    // Purchases and licences
    {"no-plans", "No plan is on offer.",
     R"([{"operation": "plans", "do": {"body": {"plans": []}}}])"},
    {"payment-declined", "The buyer has approved, but the payment is declined.",
     R"([{"operation": "capture", "do": {"status": 402, "body": {"success": false, "paid": false,
          "error": {"message": "Il pagamento è stato rifiutato."}}}}])"},
    {"duplicate-capture", "The order was paid before, and the service says so with an error.",
     R"([{"operation": "capture", "do": {"status": 409,
          "error": "Questo ordine è già stato pagato."}}])"},
    {"lost-payment-reply", "The payment is taken, but the connection breaks before the reply.",
     R"([{"operation": "capture", "do": {"bytes": "reset"}}])"},
    {"expired-licence", "The licence has expired: no resume, no usage events.",
     R"([{"operation": "resume", "do": {"status": 403, "error": "La licenza è scaduta."}},
         {"operation": "usage", "do": {"status": 403, "error": "La licenza è scaduta."}}])"},
};

Scenario scenarioFrom(const Entry &entry)
{
    const QString name = QString::fromUtf8(entry.name);
    QList<FaultRule> rules = faultRulesFrom(JsonInput::fromJson(entry.rules, name));
    for (FaultRule &rule : rules)
        rule.json.insert("scenario"_L1, name);
    return {name, QString::fromUtf8(entry.sentence), rules};
}

} // namespace

const QList<Scenario> &scenarios()
{
    static const QList<Scenario> all = [] {
        QList<Scenario> list;
        std::transform(std::begin(entries), std::end(entries), std::back_inserter(list),
                       scenarioFrom);
        return list;
    }();
    return all;
}

std::optional<Scenario> scenarioNamed(const QString &name)
{
    const QList<Scenario> &all = scenarios();
    const auto scenario = std::find_if(all.begin(), all.end(), [&name](const Scenario &candidate) {
        return candidate.name == name;
    });
    return scenario == all.end() ? std::nullopt : std::make_optional(*scenario);
}

QStringList scenarioNames()
{
    QStringList names;
    for (const Scenario &scenario : scenarios())
        names += scenario.name;
    return names;
}
