#ifndef JSONINPUT_H
#define JSONINPUT_H

#include <QtCore/qbytearray.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qjsonvalue.h>
#include <QtCore/qlist.h>
#include <QtCore/qstringlist.h>

#include <stdexcept>

// What is wrong in a JSON that a person has written, and the path of its place, such as
// plans[1].price; the whole has an empty one. The text is both.
// Copied when it is thrown.
class JsonError : public std::runtime_error // clazy:exclude=copyable-polymorphic
{
public:
    JsonError(const QString &path, const QString &reason);

    const QString &path() const { return m_path; }
    const QString &reason() const { return m_reason; }

private:
    QString m_path;
    QString m_reason;
};

// A JSON value that a person has written, and its path. What it is asked for, it has, or it throws
// a JsonError.
class JsonInput
{
public:
    explicit JsonInput(const QJsonValue &value, const QString &path = {});
    // Parses the text.
    static JsonInput fromJson(const QByteArray &json, const QString &path = {});

    const QJsonValue &value() const { return m_value; }
    const QString &path() const { return m_path; }
    [[noreturn]] void refuse(const QString &reason) const;
    void check(bool isRight, const QString &rule) const;

    // An object without members but these: another one is misspelt.
    void isObjectOf(const QStringList &names) const;
    bool has(const QString &name) const;
    JsonInput member(const QString &name) const;
    QList<JsonInput> elements() const;

    QJsonObject object() const;
    QString text() const;
    QString oneOf(const QStringList &choices) const;
    qint64 wholeNumber(qint64 least, qint64 most) const;
    // From 0 to 1.
    double share() const;

    static QString memberPath(const QString &path, const QString &name);
    static QString elementPath(const QString &path, qsizetype index);

private:
    QJsonValue m_value;
    QString m_path;
};

#endif // JSONINPUT_H
