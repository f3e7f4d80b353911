#include "call.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>

#include <array>

using namespace Qt::StringLiterals;

namespace {

// Splitmix64: one number after the other, from any seed.
class Decider
{
public:
    explicit Decider(quint64 seed)
        : m_state(seed)
    {
    }

    quint64 next()
    {
        m_state += 0x9E3779B97F4A7C15U;
        quint64 z = m_state;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31);
    }
    int below(int count) { return static_cast<int>(next() % static_cast<quint64>(count)); }
    bool oneIn(int count) { return below(count) == 0; }

private:
    quint64 m_state;
};

struct Kind
{
    const char *name;
    int weight; // in a hundred
};

constexpr std::array<Kind, Call::FaultCount> kinds = {{
    {"none", 34},
    {"slow", 4},
    {"chunked", 3},
    {"until-close", 3},
    {"refusal", 6},
    {"not-json", 3},
    {"no-content", 3},
    {"status-refusal", 5},
    {"status-not-json", 3},
    {"status-empty", 3},
    {"status-accepting", 2},
    {"closed", 2},
    {"reset", 2},
    {"garbage", 3},
    {"cut-short", 3},
    {"cut-by-reset", 2},
    {"no-listener", 4},
    {"redirect", 4},
    {"redirect-nowhere", 1},
    {"redirect-to-no-listener", 1},
    {"invalid-url", 5},
    {"no-product-code", 4},
}};

Call::Fault pickFault(Decider &decider)
{
    int left = decider.below(100);
    int fault = 0;
    while (left >= kinds.at(static_cast<std::size_t>(fault)).weight)
        left -= kinds.at(static_cast<std::size_t>(fault++)).weight;
    return static_cast<Call::Fault>(fault);
}

Call::Destruction pickDestruction(Decider &decider)
{
    const int choice = decider.below(400);
    return choice < Call::DeleteLaterAfter ? static_cast<Call::Destruction>(choice + 1)
                                           : Call::NoDestruction;
}

int pickErrorStatus(Decider &decider)
{
    constexpr std::array statuses = {400, 403, 404, 409, 410, 500, 503};
    return statuses.at(static_cast<std::size_t>(decider.below(statuses.size())));
}

// Every value is this call's own, so that an answer that went to another shows.
QJsonObject acceptance(qint64 number, int padding)
{
    const QString text = QString::number(number);
    return {
        {u"success"_s, true},
        {u"paid"_s, true},
        {u"payment_id"_s, number},
        {u"license_id"_s, number + 1},
        {u"license_key"_s, u"K-"_s + text},
        {u"paypal_order_id"_s, u"O-"_s + text},
        {u"approval_url"_s, u"https://example.com/"_s + text},
        {u"plans"_s, QJsonArray{text, number}},
        {u"release"_s,
         QJsonObject{
             {u"product_code"_s, u"P-"_s + text},
             {u"version"_s, u"V-"_s + text},
             {u"download_url"_s, u"D-"_s + text},
             {u"stable_download_url"_s, u"S-"_s + text},
             {u"sha256"_s, u"H-"_s + text},
             {u"notes"_s, u"N-"_s + text + QString(padding, u'n')},
         }},
    };
}

QJsonObject refusal(qint64 number)
{
    const QJsonObject error{{u"message"_s, u"Rifiuto "_s + QString::number(number)}};
    return {{u"success"_s, false}, {u"paid"_s, false}, {u"error"_s, error}};
}

void script(Call &call, Decider &decider)
{
    switch (call.fault) {
    case Call::AcceptingStatus:
        call.status = pickErrorStatus(decider);
        [[fallthrough]];
    case Call::Nothing:
    case Call::Slow:
    case Call::Chunked:
    case Call::UntilClose:
    case Call::CutShort:
    case Call::CutByReset:
    case Call::Redirect:
        call.object = acceptance(call.number, decider.oneIn(50) ? decider.below(60'000) : 0);
        break;
    case Call::RefusalStatus:
        call.status = pickErrorStatus(decider);
        [[fallthrough]];
    case Call::Refusal:
        call.object = refusal(call.number);
        break;
    case Call::NotJsonStatus:
        call.status = pickErrorStatus(decider);
        [[fallthrough]];
    case Call::NotJson:
        call.body = "<html>" + QByteArray::number(call.number) + "</html>";
        return;
    case Call::EmptyStatus:
        call.status = pickErrorStatus(decider);
        return;
    case Call::NoContent:
        call.status = 204;
        return;
    case Call::RedirectNowhere:
    case Call::RedirectToNoListener:
        call.status = 302;
        return;
    case Call::Closed:
    case Call::Reset:
    case Call::Garbage:
    case Call::NoListener:
    case Call::InvalidUrl:
    case Call::NoProductCode:
    case Call::FaultCount:
        return;
    }
    call.body = QJsonDocument(call.object).toJson(QJsonDocument::Compact);
}

QByteArray head(int status, const QByteArray &more)
{
    return "HTTP/1.1 " + QByteArray::number(status) + " Scripted\r\n" + more + "\r\n";
}

QByteArray withLength(const Call &call)
{
    const QByteArray length = "Content-Length: " + QByteArray::number(call.body.size()) + "\r\n";
    return head(call.status, call.status == 204 ? QByteArray() : length) + call.body;
}

QByteArray chunked(const QByteArray &body)
{
    QByteArray bytes = head(200, "Transfer-Encoding: chunked\r\n");
    const qsizetype half = body.size() / 2;
    for (const QByteArray &part : {body.left(half), body.mid(half)})
        bytes += QByteArray::number(part.size(), 16) + "\r\n" + part + "\r\n";
    return bytes + "0\r\n\r\n";
}

QList<QByteArray> inPieces(const QByteArray &bytes, qsizetype count)
{
    const qsizetype size = bytes.size() / count + 1;
    QList<QByteArray> pieces;
    for (qsizetype at = 0; at < bytes.size(); at += size)
        pieces.append(bytes.mid(at, size));
    return pieces;
}

// Head, length and the first half of the body.
QByteArray cut(const Call &call)
{
    const QByteArray whole = withLength(call);
    return whole.left(whole.size() - call.body.size() / 2);
}

QByteArray redirection(const QByteArray &location)
{
    return head(302, "Location: " + location + "\r\nContent-Length: 0\r\n");
}

} // namespace

Call Call::decide(quint64 seed, qint64 number)
{
    Decider decider(seed + static_cast<quint64>(number) * 0xD1342543DE82EF95U);
    Call call;
    call.number = number;
    call.operation = static_cast<Operation>(decider.below(OperationCount));
    call.fault = pickFault(decider);
    call.client = decider.below(clients);
    call.address = decider.below(addresses);
    call.destination = decider.below(destinations);
    call.fromSlot = decider.oneIn(6);
    call.destruction = pickDestruction(decider);
    call.breaksConfiguration = decider.oneIn(4);
    script(call, decider);
    return call;
}

std::optional<Call> Call::of(quint64 seed, const QByteArray &request)
{
    const qsizetype start = request.indexOf("SOAK-") + 5;
    const qsizetype end = request.indexOf('-', start);
    bool ok = false;
    const qint64 number = request.mid(start, end - start).toLongLong(&ok);
    if (!ok)
        return {};
    return decide(seed, number);
}

std::optional<bool> Call::succeeds() const
{
    switch (fault) {
    case Nothing:
    case Slow:
    case Chunked:
    case UntilClose:
    case Refusal:
    case NotJson:
    case NoContent:
    case Redirect:
        return true;
    case RefusalStatus:
    case NotJsonStatus:
    case EmptyStatus:
    case AcceptingStatus:
    case Closed:
    case Reset:
    case Garbage:
    case NoListener:
    case RedirectToNoListener:
        return false;
    case CutShort:
    case CutByReset:
    case RedirectNowhere:
    case InvalidUrl:
    case NoProductCode:
    case FaultCount:
        return {};
    }
    return {};
}

QByteArray Call::marker() const
{
    return "SOAK-" + QByteArray::number(number) + '-';
}

QByteArray Call::againPath() const
{
    return "/again/" + marker();
}

const char *nameOf(Call::Operation operation)
{
    constexpr std::array<const char *, Call::OperationCount> names = {
        "usage",          "update-check",    "update-download",  "purchase-plans",
        "purchase-start", "purchase-resume", "purchase-capture",
    };
    return names.at(static_cast<std::size_t>(operation));
}

const char *nameOf(Call::Fault fault)
{
    return kinds.at(static_cast<std::size_t>(fault)).name;
}

Answer Answer::to(const Call &call, bool isRedirected, const QByteArray &noListener)
{
    if (isRedirected)
        return {{withLength(call)}, KeepOpen};

    switch (call.fault) {
    case Call::Slow:
        return {inPieces(withLength(call), 2 + call.number % 6), KeepOpen};
    case Call::Chunked:
        return {{chunked(call.body)}, KeepOpen};
    case Call::UntilClose:
        return {{head(200, "Connection: close\r\n") + call.body}, Close};
    case Call::Closed:
        return {{}, Close};
    case Call::Reset:
        return {{}, Answer::Reset};
    case Call::Garbage:
        return {{"garbage " + call.marker() + "\r\n\r\n"}, Close};
    case Call::CutShort:
        return {inPieces(cut(call), 2), Close};
    case Call::CutByReset:
        return {inPieces(cut(call), 2), Answer::Reset};
    case Call::Redirect:
        return {{redirection(call.againPath())}, KeepOpen};
    case Call::RedirectNowhere:
        return {{head(302, "Content-Length: 0\r\n")}, KeepOpen};
    case Call::RedirectToNoListener:
        return {{redirection(noListener)}, KeepOpen};
    case Call::Nothing:
    case Call::Refusal:
    case Call::NotJson:
    case Call::NoContent:
    case Call::RefusalStatus:
    case Call::NotJsonStatus:
    case Call::EmptyStatus:
    case Call::AcceptingStatus:
    case Call::NoListener:
    case Call::InvalidUrl:
    case Call::NoProductCode:
    case Call::FaultCount:
        break;
    }
    return {{withLength(call)}, KeepOpen};
}
