#ifndef SERVICE_H
#define SERVICE_H

#include "http/httpserver.h"

#include <QtCore/qjsonobject.h>
#include <QtCore/qstring.h>
#include <QtCore/qstringlist.h>

QT_BEGIN_NAMESPACE
class QTcpServer;
QT_END_NAMESPACE

class Releases;
class Store;
struct Plan;
struct Purchase;

// The service's HTTP endpoints, on top of the store and the releases folder, which it borrows.
class Service : public HttpServer
{
public:
    // The server is listening already; the service owns it from here on.
    Service(Store &store, Releases &releases, QTcpServer *server);
    ~Service() override;

    // http://127.0.0.1:PORT
    QString address() const;

protected:
    void answer(const QHttpServerRequest &request, QHttpServerResponder &responder) override;

private:
    using StatusCode = QHttpServerResponder::StatusCode;

    struct Reply
    {
        QByteArray body;
        QByteArray mimeType = "application/json";
        StatusCode status = StatusCode::Ok;
        // The path of what is sent instead of the body.
        QString file = {};
        // The methods that a 405 names.
        QByteArray allowed = {};
    };

    // What a handler throws to refuse.
    struct Refusal
    {
        StatusCode status;
        QString message;
    };

    // A handler gets the decoded parts of the path that stand for the route's stars.
    struct Route
    {
        QHttpServerRequest::Method method = QHttpServerRequest::Method::Unknown;
        QLatin1StringView path;
        Reply (Service::*handler)(const QHttpServerRequest &request,
                                  const QStringList &parts) = nullptr;
    };
    static const Route routes[];

    Reply replyTo(const QHttpServerRequest &request);
    Reply route(const QHttpServerRequest &request);

    Reply latestRelease(const QHttpServerRequest &request, const QStringList &parts);
    Reply releaseFile(const QHttpServerRequest &request, const QStringList &parts);
    Reply latestReleaseFile(const QHttpServerRequest &request, const QStringList &parts);
    Reply plans(const QHttpServerRequest &request, const QStringList &parts);
    Reply startPurchase(const QHttpServerRequest &request, const QStringList &parts);
    Reply resumePurchase(const QHttpServerRequest &request, const QStringList &parts);
    Reply capturePurchase(const QHttpServerRequest &request, const QStringList &parts);
    Reply showApproval(const QHttpServerRequest &request, const QStringList &parts);
    Reply approve(const QHttpServerRequest &request, const QStringList &parts);
    Reply addUsageEvent(const QHttpServerRequest &request, const QStringList &parts);

    static Reply jsonReply(const QJsonObject &object, StatusCode status = StatusCode::Ok);
    static Reply refusalReply(const Refusal &refusal);
    static Reply pageReply(const QByteArray &page, StatusCode status = StatusCode::Ok);
    static Reply fileReply(const QString &path);
    static QJsonObject objectFrom(const QHttpServerRequest &request);
    static QString textFrom(const QJsonObject &object, QLatin1StringView member);
    void requireProduct(const QString &productCode) const;
    QJsonObject startAnswer(const Purchase &purchase) const;

    Store &m_store;
    Releases &m_releases;
    quint16 m_port;
};

#endif // SERVICE_H
