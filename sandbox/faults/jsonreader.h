#ifndef JSONREADER_H
#define JSONREADER_H

#include <QtCore/qjsonobject.h>
#include <QtCore/qjsonvalue.h>
#include <QtCore/qstringlist.h>

#include <optional>

// Reads the members of an object whose place is the path. Throws a FaultError at the first that is
// not what it has to be.
class JsonReader
{
public:
    // Members that are not among the known ones are refused: they are misspelt.
    JsonReader(const QJsonValue &value, const QString &path, const QStringList &known);

    bool has(const QString &name) const { return m_object.contains(name); }
    QJsonValue value(const QString &name) const { return m_object.value(name); }
    QString pathOf(const QString &name) const;
    const QJsonObject &object() const { return m_object; }

    // Whole numbers from least to most, which is left out of the message if it is beyond reason.
    std::optional<qint64> wholeNumber(const QString &name, qint64 least, qint64 most) const;
    std::optional<double> share(const QString &name) const;
    std::optional<QString> text(const QString &name) const;
    std::optional<QString> oneOf(const QString &name, const QStringList &choices) const;
    std::optional<QJsonObject> objectAt(const QString &name) const;

    [[noreturn]] static void fail(const QString &path, const QString &message);

private:
    QJsonObject m_object;
    QString m_path;
};

#endif // JSONREADER_H
