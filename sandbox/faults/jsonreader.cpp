#include "faults/jsonreader.h"

#include "faults/faultrule.h"

#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

JsonReader::JsonReader(const QJsonValue &value, const QString &path, const QStringList &known)
    : m_object(value.toObject())
    , m_path(path)
{
    if (!value.isObject())
        fail(path, u"must be an object"_s);
    const QStringList names = m_object.keys();
    for (const QString &name : names) {
        if (!known.contains(name))
            fail(pathOf(name), u"is not known; there are "_s + known.join(u", "_s));
    }
}

QString JsonReader::pathOf(const QString &name) const
{
    return m_path.isEmpty() ? name : m_path + u'.' + name;
}

std::optional<qint64> JsonReader::wholeNumber(const QString &name, qint64 least, qint64 most) const
{
    if (!has(name))
        return std::nullopt;
    const double number = value(name).toDouble(std::numeric_limits<double>::quiet_NaN());
    const bool isWhole = std::trunc(number) == number; // not a number is not itself
    if (isWhole && number >= double(least) && number <= double(most))
        return static_cast<qint64>(number);
    if (isWhole && number >= double(least))
        fail(pathOf(name), u"must be at most %1"_s.arg(most));
    fail(pathOf(name), u"must be a whole number of at least %1"_s.arg(least));
}

std::optional<double> JsonReader::share(const QString &name) const
{
    if (!has(name))
        return std::nullopt;
    const double number = value(name).toDouble(-1);
    if (number < 0 || number > 1)
        fail(pathOf(name), u"must be a number from 0 to 1"_s);
    return number;
}

std::optional<QString> JsonReader::text(const QString &name) const
{
    if (!has(name))
        return std::nullopt;
    if (!value(name).isString())
        fail(pathOf(name), u"must be a text"_s);
    return value(name).toString();
}

std::optional<QString> JsonReader::oneOf(const QString &name, const QStringList &choices) const
{
    if (!has(name))
        return std::nullopt;
    if (!choices.contains(value(name).toString()))
        fail(pathOf(name), u"must be one of "_s + choices.join(u", "_s));
    return value(name).toString();
}

std::optional<QJsonObject> JsonReader::objectAt(const QString &name) const
{
    if (!has(name))
        return std::nullopt;
    if (!value(name).isObject())
        fail(pathOf(name), u"must be an object"_s);
    return value(name).toObject();
}

void JsonReader::fail(const QString &path, const QString &message)
{
    throw FaultError((path + ": "_L1 + message).toStdString());
}
