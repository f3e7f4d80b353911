#ifndef WIRE_P_H
#define WIRE_P_H

#include <QtCore/qurl.h>
#include <QtNetwork/qnetworkrequest.h>

// What several operations share on the wire.
namespace Wire {

// A request that no cache may answer, neither the network layer's own nor one on the way.
inline QNetworkRequest uncachedRequest(const QUrl &url)
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    request.setRawHeader("Cache-Control", "no-cache");
    request.setRawHeader("Pragma", "no-cache");
    return request;
}

} // namespace Wire

#endif // WIRE_P_H
