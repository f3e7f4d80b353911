#include "faults/faultrule.h"

#include "endpoints/service.h"
#include "faults/jsonreader.h"

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
    Delivery::Flaw flaw;
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

void readWhen(FaultRule &rule, const QJsonValue &value, const QString &path)
{
    const JsonReader reader(value, path,
                            {u"skip"_s, u"times"_s, u"every"_s, u"probability"_s, u"seed"_s});
    rule.skip = reader.wholeNumber(u"skip"_s, 0, manyTimes).value_or(rule.skip);
    rule.times = reader.wholeNumber(u"times"_s, 1, manyTimes);
    rule.every = reader.wholeNumber(u"every"_s, 1, manyTimes).value_or(rule.every);
    rule.probability = reader.share(u"probability"_s).value_or(rule.probability);
    constexpr qint64 largestSeed = std::numeric_limits<quint32>::max();
    rule.seed =
        static_cast<quint32>(reader.wholeNumber(u"seed"_s, 0, largestSeed).value_or(rule.seed));
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

HttpReply bodyReply(const JsonReader &reader, int status)
{
    const QJsonValue body = reader.value(u"body"_s);
    if (body.isObject()) {
        return replyOf(status, "application/json",
                       QJsonDocument(body.toObject()).toJson(QJsonDocument::Compact));
    }
    if (!body.isString())
        JsonReader::fail(reader.pathOf(u"body"_s), u"must be a text or an object"_s);
    return replyOf(status, "text/plain; charset=utf-8", body.toString().toUtf8());
}

std::optional<HttpReply> replyFrom(const JsonReader &reader)
{
    QStringList given;
    std::copy_if(bodies.begin(), bodies.end(), std::back_inserter(given),
                 [&reader](const QString &name) { return reader.has(name); });
    if (given.size() > 1)
        JsonReader::fail(reader.pathOf(given.at(1)), u"cannot stand beside "_s + given.at(0));

    const std::optional<qint64> status = reader.wholeNumber(u"status"_s, 200, 599);
    const auto statusOr = [&status](int usual) { return static_cast<int>(status.value_or(usual)); };
    if (given.isEmpty())
        return status ? std::make_optional(HttpReply{statusOr(0), {}, {}}) : std::nullopt;
    if (const std::optional<QString> error = reader.text(u"error"_s))
        return Service::refusal(statusOr(500), *error);
    if (const std::optional<QString> page = reader.text(u"page"_s))
        return replyOf(statusOr(200), "text/html; charset=utf-8", page->toUtf8());
    if (const std::optional<QString> place = reader.text(u"redirect"_s)) {
        if (!isHeaderText(*place))
            JsonReader::fail(reader.pathOf(u"redirect"_s), u"must be a URL in ASCII"_s);
        return HttpReply{statusOr(302), {{"Location", place->toLatin1()}}, {}};
    }
    return bodyReply(reader, statusOr(200));
}

QJsonObject headersFrom(const JsonReader &reader)
{
    const QJsonObject headers = reader.objectAt(u"headers"_s).value_or(QJsonObject());
    for (auto header = headers.begin(); header != headers.end(); ++header) {
        const bool isValue =
            header->isNull() || (header->isString() && isHeaderText(header->toString()));
        const QString name = header.key();
        if (name.isEmpty() || name.contains(u':') || name.contains(u' ') || !isHeaderText(name)
            || !isValue)
            JsonReader::fail(reader.pathOf(u"headers."_s + name),
                             u"must be a header's name with a text in ASCII, or null"_s);
    }
    return headers;
}

Delivery deliveryFrom(const JsonReader &reader)
{
    Delivery delivery;
    delivery.delay =
        std::chrono::milliseconds(reader.wholeNumber(u"delay"_s, 0, longestDelay).value_or(0));
    delivery.rate = reader.wholeNumber(u"rate"_s, 1, manyBytes).value_or(0);

    QStringList names;
    for (const Flaw &flaw : flaws)
        names += flaw.name;
    if (const std::optional<QString> bytes = reader.oneOf(u"bytes"_s, names)) {
        delivery.flaw = flaws[names.indexOf(*bytes)].flaw;
        delivery.bytewise = delivery.flaw == Delivery::None;
    }
    delivery.after = reader.wholeNumber(u"after"_s, 0, manyBytes).value_or(-1);
    if (delivery.after >= 0 && delivery.flaw != Delivery::Close && delivery.flaw != Delivery::Stall)
        JsonReader::fail(reader.pathOf(u"after"_s), u"needs \"bytes\": \"close\" or \"stall\""_s);
    return delivery;
}

void readDo(FaultRule &rule, const QJsonValue &value, const QString &path)
{
    const JsonReader reader(
        value, path,
        QStringList{u"delay"_s, u"status"_s} + bodies
            + QStringList{u"headers"_s, u"merge"_s, u"bytes"_s, u"after"_s, u"rate"_s});
    if (reader.object().isEmpty())
        JsonReader::fail(path, u"must say what happens"_s);
    rule.reply = replyFrom(reader);
    rule.headers = headersFrom(reader);
    rule.merge = reader.objectAt(u"merge"_s).value_or(QJsonObject());
    rule.delivery = deliveryFrom(reader);
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

FaultRule faultRuleFrom(const QJsonValue &value, const QString &path)
{
    const JsonReader reader(value, path, {u"operation"_s, u"when"_s, u"do"_s});
    QStringList operations = operationNames();
    operations.replace(operations.indexOf(nameOf(Operation::Other)), u"any"_s);

    FaultRule rule;
    rule.json = reader.object();
    if (const std::optional<QString> name = reader.oneOf(u"operation"_s, operations))
        rule.operation = operationFrom(*name);
    if (reader.has(u"when"_s))
        readWhen(rule, reader.value(u"when"_s), reader.pathOf(u"when"_s));
    readDo(rule, reader.value(u"do"_s), reader.pathOf(u"do"_s));
    return rule;
}

QList<FaultRule> faultRulesFrom(const QJsonValue &value, const QString &path)
{
    if (!value.isArray())
        JsonReader::fail(path, u"must be an array"_s);
    QList<FaultRule> rules;
    const QJsonArray array = value.toArray();
    for (qsizetype i = 0; i < array.size(); ++i)
        rules += faultRuleFrom(array.at(i), u"%1[%2]"_s.arg(path, QString::number(i)));
    return rules;
}
