#include "faults/faultrule.h"

#include "endpoints/service.h"
#include "json/jsoninput.h"

#include <QtCore/qjsondocument.h>

#include <algorithm>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 manyTimes = 1'000'000'000;
constexpr qint64 longestDelay = 600'000;
constexpr qint64 manyBytes = 1LL << 40;

struct Flaw
{
    QLatin1StringView name;
    Delivery::Flaw flaw = Delivery::None;
};

constexpr Flaw flaws[] = {
    {"reset"_L1, Delivery::Reset},
    {"close"_L1, Delivery::Close},
    {"stall"_L1, Delivery::Stall},
    {"garbage"_L1, Delivery::Garbage},
    {"wrong-length"_L1, Delivery::WrongLength},
    {"corrupt"_L1, Delivery::Corrupt},
    {"one-at-a-time"_L1, Delivery::None},
};

// Members that say what is answered in the service's place.
const QStringList bodies{u"error"_s, u"page"_s, u"body"_s, u"redirect"_s};

void readWhen(FaultRule &rule, const JsonInput &when)
{
    when.isObjectOf({u"skip"_s, u"times"_s, u"every"_s, u"probability"_s, u"seed"_s});
    if (when.has(u"skip"_s))
        rule.skip = when.member(u"skip"_s).wholeNumber(0, manyTimes);
    if (when.has(u"times"_s))
        rule.times = when.member(u"times"_s).wholeNumber(1, manyTimes);
    if (when.has(u"every"_s))
        rule.every = when.member(u"every"_s).wholeNumber(1, manyTimes);
    if (when.has(u"probability"_s))
        rule.probability = when.member(u"probability"_s).share();
    if (when.has(u"seed"_s)) {
        constexpr qint64 largest = std::numeric_limits<quint32>::max();
        rule.seed = static_cast<quint32>(when.member(u"seed"_s).wholeNumber(0, largest));
    }
}

HttpReply replyOf(int status, const QByteArray &type, const QByteArray &body)
{
    return {status, {{"Content-Type", type}}, body};
}

// A line break would begin a header of its own.
bool isHeaderText(const QString &text)
{
    return std::all_of(text.begin(), text.end(),
                       [](QChar c) { return c == u'\t' || (c >= u' ' && c < u'\x7f'); });
}

HttpReply bodyReply(const JsonInput &body, int status)
{
    if (body.value().isObject()) {
        return replyOf(status, "application/json",
                       QJsonDocument(body.object()).toJson(QJsonDocument::Compact));
    }
    body.check(body.value().isString(), u"must be a text or an object"_s);
    return replyOf(status, "text/plain; charset=utf-8", body.text().toUtf8());
}

HttpReply redirectTo(const JsonInput &place, int status)
{
    place.check(isHeaderText(place.text()), u"must be a URL in ASCII"_s);
    return {status, {{"Location", place.text().toLatin1()}}, {}};
}

std::optional<HttpReply> replyFrom(const JsonInput &effect)
{
    QStringList given;
    std::copy_if(bodies.begin(), bodies.end(), std::back_inserter(given),
                 [&effect](const QString &name) { return effect.has(name); });
    if (given.size() > 1)
        effect.member(given.at(1)).refuse(u"cannot stand beside "_s + given.at(0));

    const auto statusOr = [&effect](int usual) {
        return effect.has(u"status"_s)
            ? static_cast<int>(effect.member(u"status"_s).wholeNumber(200, 599))
            : usual;
    };
    if (effect.has(u"error"_s))
        return Service::refusal(statusOr(500), effect.member(u"error"_s).text());
    if (effect.has(u"page"_s))
        return replyOf(statusOr(200), "text/html; charset=utf-8",
                       effect.member(u"page"_s).text().toUtf8());
    if (effect.has(u"redirect"_s))
        return redirectTo(effect.member(u"redirect"_s), statusOr(302));
    if (effect.has(u"body"_s))
        return bodyReply(effect.member(u"body"_s), statusOr(200));
    if (effect.has(u"status"_s))
        return HttpReply{statusOr(0), {}, {}};
    return std::nullopt;
}

QJsonObject headersFrom(const JsonInput &headers)
{
    QJsonObject object = headers.object();
    for (auto header = object.constBegin(); header != object.constEnd(); ++header) {
        const QString name = header.key();
        const bool isName =
            !name.isEmpty() && !name.contains(u':') && !name.contains(u' ') && isHeaderText(name);
        const bool isValue =
            header->isNull() || (header->isString() && isHeaderText(header->toString()));
        headers.member(name).check(isName && isValue,
                                   u"must be a header's name with a text in ASCII, or null"_s);
    }
    return object;
}

Delivery deliveryFrom(const JsonInput &effect)
{
    Delivery delivery;
    if (effect.has(u"delay"_s)) {
        delivery.delay =
            std::chrono::milliseconds(effect.member(u"delay"_s).wholeNumber(0, longestDelay));
    }
    if (effect.has(u"rate"_s))
        delivery.rate = effect.member(u"rate"_s).wholeNumber(1, manyBytes);

    if (effect.has(u"bytes"_s)) {
        QStringList names;
        for (const Flaw &flaw : flaws)
            names += flaw.name;
        const QString name = effect.member(u"bytes"_s).oneOf(names);
        delivery.flaw = flaws[names.indexOf(name)].flaw;
        delivery.bytewise = delivery.flaw == Delivery::None;
    }
    if (effect.has(u"after"_s)) {
        const JsonInput after = effect.member(u"after"_s);
        delivery.after = after.wholeNumber(0, manyBytes);
        after.check(delivery.flaw == Delivery::Close || delivery.flaw == Delivery::Stall,
                    u"needs \"bytes\": \"close\" or \"stall\""_s);
    }
    return delivery;
}

void readDo(FaultRule &rule, const JsonInput &effect)
{
    effect.isObjectOf(QStringList{u"delay"_s, u"status"_s} + bodies
                      + QStringList{u"headers"_s, u"merge"_s, u"bytes"_s, u"after"_s, u"rate"_s});
    effect.check(!effect.object().isEmpty(), u"must say what happens"_s);
    rule.reply = replyFrom(effect);
    if (effect.has(u"headers"_s))
        rule.headers = headersFrom(effect.member(u"headers"_s));
    if (effect.has(u"merge"_s))
        rule.merge = effect.member(u"merge"_s).object();
    rule.delivery = deliveryFrom(effect);
}

// Members of the patch replace those of the object, objects within objects included, and null takes
// one out.
QJsonObject merged(QJsonObject object, const QJsonObject &patch)
{
    for (auto member = patch.begin(); member != patch.end(); ++member) {
        if (member->isNull())
            object.remove(member.key());
        else if (member->isObject())
            object.insert(member.key(),
                          merged(object.value(member.key()).toObject(), member->toObject()));
        else
            object.insert(member.key(), *member);
    }
    return object;
}

} // namespace

HttpReply FaultRule::changed(HttpReply original) const
{
    for (auto header = headers.begin(); header != headers.end(); ++header) {
        const QByteArray name = header.key().toLatin1();
        original.headers.removeIf([&name](const auto &candidate) {
            return candidate.first.compare(name, Qt::CaseInsensitive) == 0;
        });
        if (header->isString())
            original.headers.emplaceBack(name, header->toString().toLatin1());
    }
    const QJsonDocument document = QJsonDocument::fromJson(original.body);
    if (!merge.isEmpty() && document.isObject())
        original.body =
            QJsonDocument(merged(document.object(), merge)).toJson(QJsonDocument::Compact);
    return original;
}

FaultRule faultRuleFrom(const JsonInput &input)
{
    input.isObjectOf({u"operation"_s, u"when"_s, u"do"_s});
    FaultRule rule;
    rule.json = input.object();
    if (input.has(u"operation"_s)) {
        QStringList operations = operationNames();
        operations.replace(operations.indexOf(nameOf(Operation::Other)), u"any"_s);
        rule.operation = operationFrom(input.member(u"operation"_s).oneOf(operations));
    }
    if (input.has(u"when"_s))
        readWhen(rule, input.member(u"when"_s));
    readDo(rule, input.member(u"do"_s));
    return rule;
}

QList<FaultRule> faultRulesFrom(const JsonInput &input)
{
    QList<FaultRule> rules;
    const QList<JsonInput> elements = input.elements();
    for (const JsonInput &element : elements)
        rules += faultRuleFrom(element);
    return rules;
}
