#ifndef SERVICE_H
#define SERVICE_H

#include "endpoints/operation.h"
#include "http/message.h"

#include <QtCore/qjsonobject.h>
#include <QtCore/qstring.h>
#include <QtCore/qstringlist.h>

#include <optional>

class Releases;
class Store;
struct Plan;
struct Purchase;

// The service's HTTP endpoints, on top of the store and the releases folder, which it borrows.
class Service
{
public:
    // The address, http://HOST:PORT, is what the service calls itself in its replies; without one,
    // it is the one that the client has used. Masked, its pages show no e-mail addresses.
    Service(Store &store, Releases &releases, const QString &address, bool isMasked);

    static Operation operationOf(const HttpRequest &request);
    HttpReply answer(const HttpRequest &request);

    // The service's error object.
    static HttpReply refusal(int status, const QString &message);

private:
    // What a handler throws to refuse.
    struct Refusal
    {
        int status;
        QString message;
    };

    // A handler gets the decoded parts of the path that stand for the route's stars.
    struct Route
    {
        Operation operation = Operation::Other;
        const char *method = nullptr;
        QLatin1StringView path;
        HttpReply (Service::*handler)(const HttpRequest &request,
                                      const QStringList &parts) = nullptr;
    };
    static const Route routes[];

    HttpReply route(const HttpRequest &request);

    HttpReply latestRelease(const HttpRequest &request, const QStringList &parts);
    HttpReply releaseFile(const HttpRequest &request, const QStringList &parts);
    HttpReply latestReleaseFile(const HttpRequest &request, const QStringList &parts);
    HttpReply plans(const HttpRequest &request, const QStringList &parts);
    HttpReply startPurchase(const HttpRequest &request, const QStringList &parts);
    HttpReply resumePurchase(const HttpRequest &request, const QStringList &parts);
    HttpReply capturePurchase(const HttpRequest &request, const QStringList &parts);
    HttpReply showApproval(const HttpRequest &request, const QStringList &parts);
    HttpReply approve(const HttpRequest &request, const QStringList &parts);
    HttpReply cancel(const HttpRequest &request, const QStringList &parts);
    HttpReply addUsageEvent(const HttpRequest &request, const QStringList &parts);

    static HttpReply jsonReply(const QJsonObject &object, int status = 200);
    static HttpReply pageReply(const QByteArray &page, int status = 200);
    HttpReply decide(const HttpRequest &request, const QString &orderId,
                     bool (Store::*decision)(const QString &orderId));
    std::optional<Purchase> shownPurchase(const QString &orderId) const;
    static HttpReply fileReply(const QString &path);
    static QJsonObject objectFrom(const HttpRequest &request);
    static QString textFrom(const QJsonObject &object, QLatin1StringView member);
    void requireProduct(const QString &productCode) const;
    QJsonObject startAnswer(const HttpRequest &request, const Purchase &purchase) const;
    QString addressFor(const HttpRequest &request) const;

    Store &m_store;
    Releases &m_releases;
    QString m_address;
    bool m_isMasked;
};

#endif // SERVICE_H
