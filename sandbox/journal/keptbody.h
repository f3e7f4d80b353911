#ifndef KEPTBODY_H
#define KEPTBODY_H

#include <QtCore/qbytearray.h>
#include <QtCore/qjsonobject.h>

#include <memory>

QT_BEGIN_NAMESPACE
class QCryptographicHash;
QT_END_NAMESPACE

// A body that may be of any size: kept whole up to a limit, and as its size and SHA-256 beyond.
class KeptBody
{
public:
    static constexpr qsizetype longest = 64 * 1024;

    void add(const QByteArray &bytes);

    // What it takes of memory.
    qsizetype cost() const { return m_bytes.size(); }
    // {"body": text}, {"body_base64": text} for what is no text, or what is kept of a long one:
    // {"body_size": number, "body_sha256": text}. What cannot be read by a mask is not shown.
    QJsonObject toJson(bool isMasked) const;

private:
    QByteArray m_bytes;
    qint64 m_size = 0;
    std::shared_ptr<QCryptographicHash> m_hash; // once it is long
};

#endif // KEPTBODY_H
