#include "json/jsoninput.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>

#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

JsonError::JsonError(const QString &path, const QString &reason)
    : std::runtime_error((path.isEmpty() ? reason : path + ": "_L1 + reason).toStdString())
    , m_path(path)
    , m_reason(reason)
{
}

JsonInput::JsonInput(const QJsonValue &value, const QString &path)
    : m_value(value)
    , m_path(path)
{
}

JsonInput JsonInput::fromJson(const QByteArray &json, const QString &path)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError)
        throw JsonError(
            path,
            u"is not JSON: %1 at %2"_s.arg(error.errorString(), QString::number(error.offset)));
    return JsonInput(document.isObject() ? QJsonValue(document.object()) : document.array(), path);
}

void JsonInput::refuse(const QString &reason) const
{
    throw JsonError(m_path, reason);
}

void JsonInput::check(bool isRight, const QString &rule) const
{
    if (!isRight)
        refuse(rule);
}

void JsonInput::isObjectOf(const QStringList &names) const
{
    const QStringList given = object().keys();
    for (const QString &name : given) {
        if (!names.contains(name))
            throw JsonError(memberPath(m_path, name),
                            u"is not known; there are "_s + names.join(u", "_s));
    }
}

bool JsonInput::has(const QString &name) const
{
    return m_value.toObject().contains(name);
}

JsonInput JsonInput::member(const QString &name) const
{
    check(has(name), u"has no \"%1\""_s.arg(name));
    return JsonInput(m_value.toObject().value(name), memberPath(m_path, name));
}

QList<JsonInput> JsonInput::elements() const
{
    check(m_value.isArray(), u"must be an array"_s);
    QList<JsonInput> elements;
    const QJsonArray array = m_value.toArray();
    for (qsizetype i = 0; i < array.size(); ++i)
        elements.append(JsonInput(array.at(i), elementPath(m_path, i)));
    return elements;
}

QJsonObject JsonInput::object() const
{
    check(m_value.isObject(), u"must be an object"_s);
    return m_value.toObject();
}

QString JsonInput::text() const
{
    check(m_value.isString(), u"must be a text"_s);
    return m_value.toString();
}

QString JsonInput::oneOf(const QStringList &choices) const
{
    check(choices.contains(m_value.toString()), u"must be one of "_s + choices.join(u", "_s));
    return m_value.toString();
}

qint64 JsonInput::wholeNumber(qint64 least, qint64 most) const
{
    const double number = m_value.toDouble(std::numeric_limits<double>::quiet_NaN());
    // What is not a number is not within any bounds.
    check(number >= double(least) && number <= double(most) && std::trunc(number) == number,
          u"must be a whole number from %1 to %2"_s.arg(QString::number(least),
                                                        QString::number(most)));
    return static_cast<qint64>(number);
}

double JsonInput::share() const
{
    const double number = m_value.toDouble(-1);
    check(number >= 0 && number <= 1, u"must be a number from 0 to 1"_s);
    return number;
}

QString JsonInput::memberPath(const QString &path, const QString &name)
{
    return path.isEmpty() ? name : path + u'.' + name;
}

QString JsonInput::elementPath(const QString &path, qsizetype index)
{
    return u"%1[%2]"_s.arg(path, QString::number(index));
}
