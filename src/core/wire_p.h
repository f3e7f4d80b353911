#ifndef WIRE_P_H
#define WIRE_P_H

#include <QtCore/qjsonobject.h>
#include <QtCore/qstring.h>
#include <QtCore/qurl.h>
#include <QtNetwork/qnetworkrequest.h>

// What several operations share on the wire.
namespace Wire {

// A request that no cache may answer: the attribute keeps out the network layer's own, the headers
// those on the way. Today's Qt adds the headers for the attribute too; that is its choice.
inline QNetworkRequest uncachedRequest(const QUrl &url)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    request.setRawHeader("Cache-Control", "no-cache");
    request.setRawHeader("Pragma", "no-cache");
    return request;
}

// The service's text for the user: {"error": {"message": text}}. The fallback stands for a text
// that is missing or not a string, not for an empty one.
inline QString errorMessage(const QJsonObject &reply, const QString &fallback)
{
    using namespace Qt::StringLiterals;
    return reply.value("error"_L1).toObject().value("message"_L1).toString(fallback);
}

} // namespace Wire

#endif // WIRE_P_H
