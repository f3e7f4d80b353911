#include "journal/keptbody.h"

#include <QtCore/qcryptographichash.h>
#include <QtCore/qstringconverter.h>

using namespace Qt::StringLiterals;

void KeptBody::add(const QByteArray &bytes)
{
    m_size += bytes.size();
    if (m_hash) {
        m_hash->addData(bytes);
        return;
    }
    m_bytes += bytes;
    if (m_size <= longest)
        return;
    m_hash = std::make_shared<QCryptographicHash>(QCryptographicHash::Sha256);
    m_hash->addData(m_bytes);
    m_bytes = {};
}

QJsonObject KeptBody::toJson(bool isMasked) const
{
    QStringDecoder decode(QStringDecoder::Utf8);
    const QString text = decode(m_bytes);
    const bool isText = !decode.hasError() && !text.contains(QChar::Null);
    if (!m_hash && isText)
        return {{u"body"_s, text}};
    if (!m_hash && !isMasked)
        return {{u"body_base64"_s, QString::fromLatin1(m_bytes.toBase64())}};

    const QByteArray digest =
        m_hash ? m_hash->result() : QCryptographicHash::hash(m_bytes, QCryptographicHash::Sha256);
    return {{u"body_size"_s, m_size}, {u"body_sha256"_s, QString::fromLatin1(digest.toHex())}};
}
