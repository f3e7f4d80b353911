#include "journal/mask.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qregularexpression.h>

using namespace Qt::StringLiterals;

namespace {

// Whatever they hold: a key need not look like one.
const QStringList secretMembers{u"license_key"_s, u"email"_s};

QJsonObject maskedObject(QJsonObject object)
{
    for (auto member = object.begin(); member != object.end(); ++member) {
        const bool isSecret = member->isString() && secretMembers.contains(member.key());
        *member = isSecret ? QJsonValue(maskText()) : masked(QJsonValue(*member));
    }
    return object;
}

QJsonArray maskedArray(QJsonArray array)
{
    for (auto &&element : array)
        element = masked(QJsonValue(element));
    return array;
}

} // namespace

QString maskText()
{
    return u"***"_s;
}

QString masked(const QString &text)
{
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8());
    if (document.isObject() || document.isArray()) {
        const QJsonDocument inside = document.isObject()
            ? QJsonDocument(maskedObject(document.object()))
            : QJsonDocument(maskedArray(document.array()));
        return QString::fromUtf8(inside.toJson(QJsonDocument::Compact));
    }

    // Members of what is no JSON after all, and of forms and queries.
    static const QRegularExpression member(
        uR"re(("(?:license_key|email)"\s*:\s*"|\b(?:license_key|email)=)(?:[^"\\&\s]|\\.)*)re"_s);
    static const QRegularExpression address(
        uR"re([^\s"'<>(),;:&=?/\\@]+(?:@|%40)[^\s"'<>(),;:&=?/\\@]+)re"_s);
    static const QRegularExpression key(u"\\b[2-9A-Z]{4}(?:-[2-9A-Z]{4}){3}\\b"_s);
    QString result = text;
    result.replace(member, R"(\1)"_L1 + maskText());
    result.replace(address, maskText());
    result.replace(key, maskText());
    return result;
}

QJsonValue masked(const QJsonValue &value)
{
    if (value.isString())
        return masked(value.toString());
    if (value.isObject())
        return maskedObject(value.toObject());
    if (value.isArray())
        return maskedArray(value.toArray());
    return value;
}
