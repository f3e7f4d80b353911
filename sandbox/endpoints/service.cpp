#include "endpoints/service.h"

#include "pages/approvalpage.h"
#include "state/releases.h"
#include "state/store.h"

#include <QtCore/qfileinfo.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qurlquery.h>
#include <QtNetwork/qtcpserver.h>

using namespace Qt::StringLiterals;

using Method = QHttpServerRequest::Method;

namespace {

const QString internalError = u"Errore interno del servizio."_s;

QStringList pathParts(const QUrl &url)
{
    // Split first, decode then: an encoded slash separates nothing.
    QStringList parts = url.path(QUrl::FullyEncoded).split(u'/');
    for (QString &part : parts)
        part = QUrl::fromPercentEncoding(part.toLatin1());
    return parts;
}

// What stands for the pattern's stars; nothing when the path is another one.
std::optional<QStringList> match(const QStringList &path, QLatin1StringView pattern)
{
    const QStringList wanted = QString(pattern).split(u'/');
    if (path.size() != wanted.size())
        return std::nullopt;

    QStringList stars;
    for (qsizetype i = 0; i < path.size(); ++i) {
        if (wanted.at(i) == "*"_L1)
            stars.append(path.at(i));
        else if (wanted.at(i) != path.at(i))
            return std::nullopt;
    }
    return stars;
}

QString joinedPath(const QStringList &parts)
{
    QString path;
    for (const QString &part : parts)
        path += u'/' + QString::fromLatin1(QUrl::toPercentEncoding(part));
    return path;
}

// Plausible is enough: something, an at sign, a host name with a dot.
bool isEmailAddress(const QString &text)
{
    static const QRegularExpression pattern(u"\\A[^@\\s]+@[^@\\s.]+(\\.[^@\\s.]+)+\\z"_s);
    return pattern.match(text).hasMatch();
}

bool isBlank(const QString &text)
{
    return text.trimmed().isEmpty();
}

QJsonObject planObject(const Plan &plan)
{
    return {{u"plan_code"_s, plan.code},
            {u"name"_s, plan.name},
            {u"description"_s, plan.description},
            {u"price"_s, plan.price},
            {u"currency"_s, plan.currency}};
}

QJsonObject refusalObject(const QString &message)
{
    return {{u"success"_s, false}, {u"error"_s, QJsonObject{{u"message"_s, message}}}};
}

} // namespace

const Service::Route Service::routes[] = {
    {Method::Get, "/api/v1/releases/latest/*"_L1, &Service::latestRelease},
    {Method::Get, "/releases/*/*/latest"_L1, &Service::latestReleaseFile},
    {Method::Get, "/releases/*/*/*/*"_L1, &Service::releaseFile},
    {Method::Get, "/api/v1/purchase/plans"_L1, &Service::plans},
    {Method::Post, "/api/v1/purchase/start"_L1, &Service::startPurchase},
    {Method::Post, "/api/v1/purchase/resume"_L1, &Service::resumePurchase},
    {Method::Post, "/api/v1/purchase/capture"_L1, &Service::capturePurchase},
    {Method::Get, "/paypal/approve/*"_L1, &Service::showApproval},
    {Method::Post, "/paypal/approve/*"_L1, &Service::approve},
    {Method::Post, "/api/v1/client/usage"_L1, &Service::addUsageEvent},
};

Service::Service(Store &store, Releases &releases, QTcpServer *server)
    : m_store(store)
    , m_releases(releases)
    , m_port(server->serverPort())
{
    bind(server);
}

Service::~Service() = default;

QString Service::address() const
{
    return "http://127.0.0.1:"_L1 + QString::number(m_port);
}

void Service::answer(const QHttpServerRequest &request, QHttpServerResponder &responder)
{
    Reply reply = replyTo(request);
    // An answer to HEAD has no body: one that came anyway would be read as the next answer.
    if (request.method() == Method::Head)
        reply.body.clear();

    if (!reply.file.isEmpty())
        writeFile(responder, reply.file, reply.mimeType);
    else if (!reply.allowed.isEmpty())
        writeNotAllowed(responder, reply.body, reply.mimeType, reply.allowed);
    else
        responder.write(reply.body, reply.mimeType, reply.status);
}

Service::Reply Service::replyTo(const QHttpServerRequest &request)
{
    try {
        return route(request);
    } catch (const Refusal &refusal) {
        return refusalReply(refusal);
    } catch (const StoreError &error) {
        qWarning("%s: %s", qUtf8Printable(request.url().path()), error.what());
        return refusalReply({StatusCode::InternalServerError, internalError});
    }
}

Service::Reply Service::route(const QHttpServerRequest &request)
{
    const QStringList path = pathParts(request.url());
    QByteArrayList allowed;
    for (const Route &candidate : routes) {
        const std::optional<QStringList> parts = match(path, candidate.path);
        if (!parts)
            continue;
        if (candidate.method == request.method())
            return (this->*candidate.handler)(request, *parts);
        allowed.append(candidate.method == Method::Get ? "GET" : "POST");
    }
    if (allowed.isEmpty())
        throw Refusal{StatusCode::NotFound, u"Indirizzo sconosciuto."_s};

    Reply reply =
        refusalReply({StatusCode::MethodNotAllowed, u"Metodo non ammesso per questo indirizzo."_s});
    reply.allowed = allowed.join(", ");
    return reply;
}

// GET /api/v1/releases/latest/<product code>?channel=<channel>
//
// Reply: {
//     "success": true,
//     "release": {
//         "product_code": text, "version": text, "download_url": text,
//         "stable_download_url": text, "sha256": text, "notes": text, "channel": text
//     }
// }
Service::Reply Service::latestRelease(const QHttpServerRequest &request, const QStringList &parts)
{
    const QString &product = parts.at(0);
    requireProduct(product);

    const QString channel = request.query().queryItemValue(u"channel"_s, QUrl::FullyDecoded);
    const std::optional<Release> release = m_releases.latest(product, channel);
    if (!release)
        return jsonReply(refusalObject(u"Nessuna versione pubblicata su questo canale."_s));

    const QByteArray sha256 = m_releases.sha256(*release);
    if (sha256.isEmpty())
        throw Refusal{StatusCode::InternalServerError, internalError};

    const QString folder = address() + joinedPath({u"releases"_s, product, channel});
    const QString file = joinedPath({release->version, QFileInfo(release->path).fileName()});
    return jsonReply({{u"success"_s, true},
                      {u"release"_s,
                       QJsonObject{{u"product_code"_s, product},
                                   {u"version"_s, release->version},
                                   {u"download_url"_s, folder + file},
                                   {u"stable_download_url"_s, folder + "/latest"_L1},
                                   {u"sha256"_s, QString::fromLatin1(sha256)},
                                   {u"notes"_s, m_releases.notes(*release)},
                                   {u"channel"_s, channel}}}});
}

// GET /releases/<product code>/<channel>/<version>/<file>
Service::Reply Service::releaseFile(const QHttpServerRequest &, const QStringList &parts)
{
    requireProduct(parts.at(0));
    const std::optional<Release> release = m_releases.find(parts.at(0), parts.at(1), parts.at(2));
    if (!release || QFileInfo(release->path).fileName() != parts.at(3))
        throw Refusal{StatusCode::NotFound, u"File sconosciuto."_s};
    return fileReply(release->path);
}

// GET /releases/<product code>/<channel>/latest
Service::Reply Service::latestReleaseFile(const QHttpServerRequest &, const QStringList &parts)
{
    requireProduct(parts.at(0));
    const std::optional<Release> release = m_releases.latest(parts.at(0), parts.at(1));
    if (!release)
        throw Refusal{StatusCode::NotFound, u"File sconosciuto."_s};
    return fileReply(release->path);
}

// GET /api/v1/purchase/plans?product_code=<product code>
//
// Reply: {"plans": [{
//     "plan_code": text, "name": text, "description": text, "price": text, "currency": text
// }, ...]}
Service::Reply Service::plans(const QHttpServerRequest &request, const QStringList &)
{
    const QString product = request.query().queryItemValue(u"product_code"_s, QUrl::FullyDecoded);
    requireProduct(product);

    QJsonArray plans;
    for (const Plan &plan : m_store.plans(product))
        plans.append(planObject(plan));
    return jsonReply({{u"plans"_s, plans}});
}

// POST /api/v1/purchase/start
// {"product_code": text, "plan_code": text, "first_name": text, "last_name": text, "email": text}
//
// Reply: see startAnswer().
Service::Reply Service::startPurchase(const QHttpServerRequest &request, const QStringList &)
{
    const QJsonObject object = objectFrom(request);
    const QString product = textFrom(object, "product_code"_L1);
    const QString planCode = textFrom(object, "plan_code"_L1);
    const Buyer buyer{textFrom(object, "first_name"_L1), textFrom(object, "last_name"_L1),
                      textFrom(object, "email"_L1)};

    requireProduct(product);
    const std::optional<Plan> plan = m_store.plan(product, planCode);
    if (!plan)
        throw Refusal{StatusCode::NotFound, u"Piano sconosciuto."_s};
    if (isBlank(buyer.firstName) || isBlank(buyer.lastName))
        throw Refusal{StatusCode::UnprocessableEntity, u"Nome e cognome sono obbligatori."_s};
    if (!isEmailAddress(buyer.email))
        throw Refusal{StatusCode::UnprocessableEntity, u"Indirizzo e-mail non valido."_s};

    return jsonReply(startAnswer(m_store.startPurchase(product, *plan, buyer)));
}

// POST /api/v1/purchase/resume
// {"product_code": text, "license_key": text}
//
// Reply: see startAnswer(). The order is the one that the start made.
Service::Reply Service::resumePurchase(const QHttpServerRequest &request, const QStringList &)
{
    const QJsonObject object = objectFrom(request);
    const QString product = textFrom(object, "product_code"_L1);
    const QString licenseKey = textFrom(object, "license_key"_L1);

    requireProduct(product);
    const std::optional<Purchase> purchase = m_store.purchaseByLicense(product, licenseKey);
    if (!purchase)
        throw Refusal{StatusCode::NotFound, u"Chiave di licenza sconosciuta."_s};
    if (purchase->state == Purchase::Paid)
        throw Refusal{StatusCode::Conflict, u"Questo acquisto è già stato pagato."_s};

    return jsonReply(startAnswer(*purchase));
}

// POST /api/v1/purchase/capture
// {"paypal_order_id": text}
//
// Reply: {"paid": true, "success": true, "license_id": number, "license_key": text}
Service::Reply Service::capturePurchase(const QHttpServerRequest &request, const QStringList &)
{
    const QString orderId = textFrom(objectFrom(request), "paypal_order_id"_L1);

    const std::optional<Purchase> purchase = m_store.purchaseByOrder(orderId);
    if (!purchase)
        throw Refusal{StatusCode::NotFound, u"Ordine sconosciuto."_s};
    if (purchase->state == Purchase::Pending) {
        QJsonObject refusal = refusalObject(u"Il pagamento non è ancora stato approvato."_s);
        refusal.insert("paid"_L1, false);
        return jsonReply(refusal, StatusCode::Conflict);
    }

    m_store.pay(*purchase);
    return jsonReply({{u"paid"_s, true},
                      {u"success"_s, true},
                      {u"license_id"_s, purchase->licenseId},
                      {u"license_key"_s, purchase->licenseKey}});
}

// GET /paypal/approve/<order id>
Service::Reply Service::showApproval(const QHttpServerRequest &, const QStringList &parts)
{
    const std::optional<Purchase> purchase = m_store.purchaseByOrder(parts.at(0));
    if (!purchase)
        return pageReply(unknownOrderPage(), StatusCode::NotFound);
    if (purchase->state != Purchase::Pending)
        return pageReply(approvedPage(*purchase));
    return pageReply(approvalPage(*purchase));
}

// POST /paypal/approve/<order id>
Service::Reply Service::approve(const QHttpServerRequest &, const QStringList &parts)
{
    const std::optional<Purchase> purchase = m_store.purchaseByOrder(parts.at(0));
    if (!purchase)
        return pageReply(unknownOrderPage(), StatusCode::NotFound);

    m_store.approve(*purchase);
    return pageReply(approvedPage(*purchase));
}

// POST /api/v1/client/usage
// {"product_code": text, "license_key": text, "machine_fingerprint": text, "event_type": text, ...}
//
// The dots are the payload's own members.
//
// Reply: {"success": true}
Service::Reply Service::addUsageEvent(const QHttpServerRequest &request, const QStringList &)
{
    QJsonObject object = objectFrom(request);
    UsageEvent event{textFrom(object, "product_code"_L1),
                     textFrom(object, "license_key"_L1),
                     textFrom(object, "machine_fingerprint"_L1),
                     textFrom(object, "event_type"_L1),
                     {}};
    for (const auto member :
         {"product_code"_L1, "license_key"_L1, "machine_fingerprint"_L1, "event_type"_L1})
        object.remove(member);
    event.payload = object;

    requireProduct(event.productCode);
    if (!event.licenseKey.isEmpty()
        && !m_store.purchaseByLicense(event.productCode, event.licenseKey))
        throw Refusal{StatusCode::NotFound, u"Chiave di licenza sconosciuta."_s};
    if (isBlank(event.eventType))
        throw Refusal{StatusCode::UnprocessableEntity, u"Il tipo di evento è obbligatorio."_s};

    m_store.addUsageEvent(event);
    return jsonReply({{u"success"_s, true}});
}

Service::Reply Service::jsonReply(const QJsonObject &object, StatusCode status)
{
    return {QJsonDocument(object).toJson(QJsonDocument::Compact), "application/json", status};
}

Service::Reply Service::refusalReply(const Refusal &refusal)
{
    return jsonReply(refusalObject(refusal.message), refusal.status);
}

Service::Reply Service::pageReply(const QByteArray &page, StatusCode status)
{
    return {page, "text/html; charset=utf-8", status};
}

Service::Reply Service::fileReply(const QString &path)
{
    Reply reply{{}, "application/octet-stream"};
    reply.file = path;
    return reply;
}

QJsonObject Service::objectFrom(const QHttpServerRequest &request)
{
    const QJsonDocument document = QJsonDocument::fromJson(request.body());
    if (!document.isObject())
        throw Refusal{StatusCode::BadRequest, u"La richiesta non è un oggetto JSON."_s};
    return document.object();
}

QString Service::textFrom(const QJsonObject &object, QLatin1StringView member)
{
    const QJsonValue value = object.value(member);
    if (!value.isString()) {
        throw Refusal{StatusCode::BadRequest,
                      u"Il campo «%1» manca o non è un testo."_s.arg(member)};
    }
    return value.toString();
}

void Service::requireProduct(const QString &productCode) const
{
    if (!m_store.hasProduct(productCode))
        throw Refusal{StatusCode::NotFound, u"Prodotto sconosciuto."_s};
}

// {
//     "success": true, "payment_id": number, "license_id": number, "license_key": text,
//     "paypal_order_id": text, "approval_url": text
// }
QJsonObject Service::startAnswer(const Purchase &purchase) const
{
    return {
        {u"success"_s, true},
        {u"payment_id"_s, purchase.paymentId},
        {u"license_id"_s, purchase.licenseId},
        {u"license_key"_s, purchase.licenseKey},
        {u"paypal_order_id"_s, purchase.orderId},
        {u"approval_url"_s, address() + joinedPath({u"paypal"_s, u"approve"_s, purchase.orderId})}};
}
