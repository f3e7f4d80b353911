#include "corvane.h"
#include "wire_p.h"

#include <QtCore/qjsondocument.h>
#include <QtNetwork/qnetworkreply.h>

using namespace Qt::StringLiterals;

namespace {

// Whatever is not a JSON object reads as an empty one; the operation decides what that means.
QJsonObject objectFrom(const QByteArray &body)
{
    return QJsonDocument::fromJson(body).object();
}

} // namespace

// Every request, GET or POST, is tied to the dispatcher here and nowhere else.
void Corvane::connectReply(QNetworkReply *reply, Operation operation)
{
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, operation] { handleReply(reply, operation); });
}

// Turns one finished reply into exactly one signal. The network layer's error code alone decides
// what a success is. A failure that the service explained in a body goes to the operation's own
// signal, except for update checks, downloads and plans, where every failure is a networkError().
void Corvane::handleReply(QNetworkReply *reply, Operation operation)
{
    const QByteArray body = reply->readAll();
    const bool success = reply->error() == QNetworkReply::NoError;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    reply->deleteLater();

    const bool explained = status > 0 && !body.isEmpty() && operation != UpdateCheck
        && operation != UpdateDownload && operation != PurchasePlans;
    if (!success && !explained) {
        Q_EMIT networkError(reply->errorString());
        return;
    }

    switch (operation) {
    case Usage: {
        const QJsonObject object = objectFrom(body);
        const bool accepted = success && object.value("success"_L1).toBool();
        Q_EMIT usageSent(accepted,
                         Wire::errorMessage(object, success ? QString() : reply->errorString()));
        break;
    }
    case UpdateCheck:
        Q_EMIT updateChecked(parseUpdate(objectFrom(body), m_currentVersion));
        break;
    case UpdateDownload:
        saveDownload(body);
        break;
    case PurchasePlans:
        Q_EMIT purchasePlansReceived(objectFrom(body).value("plans"_L1).toArray());
        break;
    case PurchaseStart:
    case PurchaseResume: // answered like a start, on purpose
        Q_EMIT purchaseStarted(parsePurchaseStart(objectFrom(body)));
        break;
    case PurchaseCapture:
        Q_EMIT purchaseCaptured(parsePurchaseCapture(objectFrom(body)));
        break;
    }
}
