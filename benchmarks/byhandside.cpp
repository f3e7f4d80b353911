#include "constants.h"
#include "records.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qurlquery.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

class ByHandSide : public Side
{
public:
    ByHandSide(const QUrl &server, QString product)
        : m_server(server)
        , m_product(std::move(product))
    {
    }

    void start(Call call) override
    {
        QNetworkReply *reply = send(call);
        QObject::connect(reply, &QNetworkReply::finished, &m_network,
                         [this, reply, call] { finish(reply, call); });
    }

private:
    QNetworkReply *send(Call call)
    {
        if (call == Call::Download)
            return m_network.get(uncached(file));
        QUrl url = m_server;
        url.setPath(pathOf(call, m_product), QUrl::DecodedMode);
        if (call == Call::Check) {
            QUrlQuery query;
            query.addQueryItem(u"channel"_s, Constants::channel);
            query.addQueryItem(u"_"_s, QString::number(QDateTime::currentMSecsSinceEpoch()));
            url.setQuery(query);
            return m_network.get(uncached(url));
        }
        if (call == Call::Plans) {
            url.setQuery(u"product_code="_s
                         + QString::fromLatin1(QUrl::toPercentEncoding(m_product)));
            return m_network.get(QNetworkRequest(url));
        }
        QNetworkRequest request(url);
        request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
        return m_network.post(request, bodyOf(call, m_product));
    }

    static QNetworkRequest uncached(const QUrl &url)
    {
        QNetworkRequest request(url);
        request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                             QNetworkRequest::AlwaysNetwork);
        request.setRawHeader("Cache-Control", "no-cache");
        request.setRawHeader("Pragma", "no-cache");
        return request;
    }

    void finish(QNetworkReply *reply, Call call)
    {
        if (reply->error() != QNetworkReply::NoError)
            stop(reply->errorString());
        const QByteArray body = reply->readAll();
        reply->deleteLater();
        if (call == Call::Download)
            save(body, destination);
        else
            m_records.read(call, body);
        onDone();
    }

    QNetworkAccessManager m_network;
    const QUrl m_server;
    const QString m_product;
    Records m_records;
};

} // namespace

std::unique_ptr<Side> makeByHand(const QUrl &server, const QString &product)
{
    return std::make_unique<ByHandSide>(server, product);
}
