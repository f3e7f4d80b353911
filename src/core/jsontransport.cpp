// POST <path>
// Content-Type: application/json
//
// One JSON object, compact, in UTF-8.

#include "corvane.h"

#include <QtCore/qjsondocument.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkrequest.h>

using namespace Qt::StringLiterals;

void Corvane::postJson(const QString &path, const QJsonObject &body, Operation operation)
{
    if (!checkConfiguration())
        return;

    QNetworkRequest request(endpoint(path));
    request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    connectReply(m_network->post(request, QJsonDocument(body).toJson(QJsonDocument::Compact)),
                 operation);
}
