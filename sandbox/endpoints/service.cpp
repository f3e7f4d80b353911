#include "endpoints/service.h"

#include "journal/mask.h"
#include "pages/approvalpage.h"
#include "state/releases.h"
#include "state/store.h"

#include <QtCore/qfile.h>
#include <QtCore/qfileinfo.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qstringtokenizer.h>
#include <QtCore/qurl.h>
#include <QtCore/qurlquery.h>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

const QString internalError = u"Errore interno del servizio."_s;

QStringList pathParts(const HttpRequest &request)
{
    // Split first, decode then: an encoded slash separates nothing.
    QStringList parts;
    for (const QByteArray &part : request.path().split('/'))
        parts += QUrl::fromPercentEncoding(part);
    return parts;
}

// What stands for the pattern's stars; nothing when the path is another one.
std::optional<QStringList> match(const QStringList &path, QLatin1StringView pattern)
{
    QStringList stars;
    qsizetype index = 0;
    for (const QLatin1StringView wanted : pattern.tokenize('/'_L1)) {
        if (index == path.size() || (wanted != "*"_L1 && wanted != path.at(index)))
            return std::nullopt;
        if (wanted == "*"_L1)
            stars.append(path.at(index));
        ++index;
    }
    return index == path.size() ? std::make_optional(stars) : std::nullopt;
}

QString joinedPath(const QStringList &parts)
{
    QString path;
    for (const QString &part : parts)
        path += u'/' + QString::fromLatin1(QUrl::toPercentEncoding(part));
    return path;
}

QString approvalPath(const QString &orderId)
{
    return joinedPath({u"paypal"_s, u"approve"_s, orderId});
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

// What the user is told of a request that could not be read.
QString unreadable(int status)
{
    if (status == 413)
        return u"La richiesta è troppo grande."_s;
    if (status == 431)
        return u"L'intestazione della richiesta è troppo grande."_s;
    return u"La richiesta non è HTTP valido."_s;
}

QJsonObject refusalObject(const QString &message)
{
    return {{u"success"_s, false}, {u"error"_s, QJsonObject{{u"message"_s, message}}}};
}

} // namespace

const Service::Route Service::routes[] = {
    {Operation::UpdateCheck, "GET", "/api/v1/releases/latest/*"_L1, &Service::latestRelease},
    {Operation::Download, "GET", "/releases/*/*/latest"_L1, &Service::latestReleaseFile},
    {Operation::Download, "GET", "/releases/*/*/*/*"_L1, &Service::releaseFile},
    {Operation::Plans, "GET", "/api/v1/purchase/plans"_L1, &Service::plans},
    {Operation::Start, "POST", "/api/v1/purchase/start"_L1, &Service::startPurchase},
    {Operation::Resume, "POST", "/api/v1/purchase/resume"_L1, &Service::resumePurchase},
    {Operation::Capture, "POST", "/api/v1/purchase/capture"_L1, &Service::capturePurchase},
    {Operation::Approval, "GET", "/paypal/approve/*"_L1, &Service::showApproval},
    {Operation::Approval, "POST", "/paypal/approve/*"_L1, &Service::approve},
    {Operation::Approval, "POST", "/paypal/cancel/*"_L1, &Service::cancel},
    {Operation::Usage, "POST", "/api/v1/client/usage"_L1, &Service::addUsageEvent},
};

Service::Service(Store &store, Releases &releases, const QString &address, bool isMasked)
    : m_store(store)
    , m_releases(releases)
    , m_address(address)
    , m_isMasked(isMasked)
{
}

Operation Service::operationOf(const HttpRequest &request)
{
    const QStringList path = pathParts(request);
    const auto *const route =
        std::find_if(std::begin(routes), std::end(routes), [&](const Route &candidate) {
            return candidate.method == request.method && match(path, candidate.path);
        });
    return route == std::end(routes) ? Operation::Other : route->operation;
}

HttpReply Service::answer(const HttpRequest &request)
{
    try {
        return route(request);
    } catch (const Refusal &refused) {
        return refusal(refused.status, refused.message);
    } catch (const StoreError &error) {
        qWarning("%s: %s", request.path().constData(), error.what());
        return refusal(500, internalError);
    }
}

HttpReply Service::refusal(int status, const QString &message)
{
    return jsonReply(refusalObject(message), status);
}

HttpReply Service::route(const HttpRequest &request)
{
    if (request.refusal != 0)
        throw Refusal{request.refusal, unreadable(request.refusal)};

    const QStringList path = pathParts(request);
    QByteArrayList allowed;
    for (const Route &candidate : routes) {
        const std::optional<QStringList> parts = match(path, candidate.path);
        if (!parts)
            continue;
        if (candidate.method == request.method)
            return (this->*candidate.handler)(request, *parts);
        allowed.append(candidate.method);
    }
    if (allowed.isEmpty())
        throw Refusal{404, u"Indirizzo sconosciuto."_s};

    HttpReply reply = refusal(405, u"Metodo non ammesso per questo indirizzo."_s);
    reply.headers.emplaceBack("Allow", allowed.join(", "));
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
HttpReply Service::latestRelease(const HttpRequest &request, const QStringList &parts)
{
    const QString &product = parts.at(0);
    requireProduct(product);

    const QString channel = request.query().queryItemValue(u"channel"_s, QUrl::FullyDecoded);
    const std::optional<Release> release = m_releases.latest(product, channel);
    if (!release)
        return jsonReply(refusalObject(u"Nessuna versione pubblicata su questo canale."_s));

    const QByteArray sha256 = m_releases.sha256(*release);
    if (sha256.isEmpty())
        throw Refusal{500, internalError};

    const QString folder = addressFor(request) + joinedPath({u"releases"_s, product, channel});
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
HttpReply Service::releaseFile(const HttpRequest &, const QStringList &parts)
{
    requireProduct(parts.at(0));
    const std::optional<Release> release = m_releases.find(parts.at(0), parts.at(1), parts.at(2));
    if (!release || QFileInfo(release->path).fileName() != parts.at(3))
        throw Refusal{404, u"File sconosciuto."_s};
    return fileReply(release->path);
}

// GET /releases/<product code>/<channel>/latest
HttpReply Service::latestReleaseFile(const HttpRequest &, const QStringList &parts)
{
    requireProduct(parts.at(0));
    const std::optional<Release> release = m_releases.latest(parts.at(0), parts.at(1));
    if (!release)
        throw Refusal{404, u"File sconosciuto."_s};
    return fileReply(release->path);
}

// GET /api/v1/purchase/plans?product_code=<product code>
//
// Reply: {"plans": [{
//     "plan_code": text, "name": text, "description": text, "price": text, "currency": text
// }, ...]}
HttpReply Service::plans(const HttpRequest &request, const QStringList &)
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
HttpReply Service::startPurchase(const HttpRequest &request, const QStringList &)
{
    const QJsonObject object = objectFrom(request);
    const QString product = textFrom(object, "product_code"_L1);
    const QString planCode = textFrom(object, "plan_code"_L1);
    const Buyer buyer{textFrom(object, "first_name"_L1), textFrom(object, "last_name"_L1),
                      textFrom(object, "email"_L1)};

    requireProduct(product);
    const std::optional<Plan> plan = m_store.plan(product, planCode);
    if (!plan)
        throw Refusal{404, u"Piano sconosciuto."_s};
    if (isBlank(buyer.firstName) || isBlank(buyer.lastName))
        throw Refusal{422, u"Nome e cognome sono obbligatori."_s};
    if (!isEmailAddress(buyer.email))
        throw Refusal{422, u"Indirizzo e-mail non valido."_s};

    return jsonReply(startAnswer(request, m_store.startPurchase(*plan, buyer)));
}

// POST /api/v1/purchase/resume
// {"product_code": text, "license_key": text}
//
// Reply: see startAnswer(). The order is the one that the start made.
HttpReply Service::resumePurchase(const HttpRequest &request, const QStringList &)
{
    const QJsonObject object = objectFrom(request);
    const QString product = textFrom(object, "product_code"_L1);
    const QString licenseKey = textFrom(object, "license_key"_L1);

    requireProduct(product);
    const std::optional<Purchase> purchase = m_store.purchaseByLicense(product, licenseKey);
    if (!purchase)
        throw Refusal{404, u"Chiave di licenza sconosciuta."_s};
    if (purchase->state == Purchase::Paid)
        throw Refusal{409, u"Questo acquisto è già stato pagato."_s};
    if (purchase->state == Purchase::Cancelled)
        throw Refusal{409, u"Questo acquisto è stato annullato."_s};

    return jsonReply(startAnswer(request, *purchase));
}

// POST /api/v1/purchase/capture
// {"paypal_order_id": text}
//
// Reply: {"paid": true, "success": true, "license_id": number, "license_key": text}
HttpReply Service::capturePurchase(const HttpRequest &request, const QStringList &)
{
    const QString orderId = textFrom(objectFrom(request), "paypal_order_id"_L1);

    const std::optional<Purchase> purchase = m_store.purchaseByOrder(orderId);
    if (!purchase)
        throw Refusal{404, u"Ordine sconosciuto."_s};
    if (purchase->state == Purchase::Pending || purchase->state == Purchase::Cancelled) {
        QJsonObject refusal = refusalObject(purchase->state == Purchase::Pending
                                                ? u"Il pagamento non è ancora stato approvato."_s
                                                : u"Il pagamento è stato annullato."_s);
        refusal.insert("paid"_L1, false);
        return jsonReply(refusal, 409);
    }

    m_store.pay(*purchase);
    return jsonReply({{u"paid"_s, true},
                      {u"success"_s, true},
                      {u"license_id"_s, purchase->licenseId},
                      {u"license_key"_s, purchase->licenseKey}});
}

// GET /paypal/approve/<order id>
HttpReply Service::showApproval(const HttpRequest &, const QStringList &parts)
{
    const std::optional<Purchase> purchase = shownPurchase(parts.at(0));
    return purchase ? pageReply(approvalPage(*purchase)) : pageReply(unknownOrderPage(), 404);
}

// POST /paypal/approve/<order id>
//
// Reply: see decide().
HttpReply Service::approve(const HttpRequest &request, const QStringList &parts)
{
    return decide(request, parts.at(0), &Store::approve);
}

// POST /paypal/cancel/<order id>
//
// Reply: see decide().
HttpReply Service::cancel(const HttpRequest &request, const QStringList &parts)
{
    return decide(request, parts.at(0), &Store::cancel);
}

// POST /api/v1/client/usage
// {"product_code": text, "license_key": text, "machine_fingerprint": text, "event_type": text, ...}
//
// The dots are the payload's own members.
//
// Reply: {"success": true}
HttpReply Service::addUsageEvent(const HttpRequest &request, const QStringList &)
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
        throw Refusal{404, u"Chiave di licenza sconosciuta."_s};
    if (isBlank(event.eventType))
        throw Refusal{422, u"Il tipo di evento è obbligatorio."_s};

    m_store.addUsageEvent(event);
    return jsonReply({{u"success"_s, true}});
}

HttpReply Service::jsonReply(const QJsonObject &object, int status)
{
    return {status,
            {{"Content-Type", "application/json"}},
            QJsonDocument(object).toJson(QJsonDocument::Compact)};
}

// Nothing but itself, not even within another page, where a click may be led astray. Not kept: the
// order goes on.
HttpReply Service::pageReply(const QByteArray &page, int status)
{
    return {status,
            {{"Content-Type", "text/html; charset=utf-8"},
             {"Content-Security-Policy",
              "default-src 'none'; style-src 'unsafe-inline'; form-action 'self'; base-uri 'none'; "
              "frame-ancestors 'none'"},
             {"X-Content-Type-Options", "nosniff"},
             {"Cache-Control", "no-store"}},
            page};
}

// Does what the buyer wants, unless he has decided otherwise before, which is a conflict. Leads
// back to the order's page, so that to load it again posts nothing again.
HttpReply Service::decide(const HttpRequest &request, const QString &orderId,
                          bool (Store::*decision)(const QString &orderId))
{
    if (request.isOfAnotherSite())
        return pageReply(otherSitePage(), 403);
    const bool isDone = (m_store.*decision)(orderId);
    const std::optional<Purchase> purchase = shownPurchase(orderId);
    if (!purchase)
        return pageReply(unknownOrderPage(), 404);

    HttpReply reply = pageReply(approvalPage(*purchase), isDone ? 303 : 409);
    if (isDone)
        reply.headers.emplaceBack("Location", approvalPath(orderId).toLatin1());
    return reply;
}

// For a page.
std::optional<Purchase> Service::shownPurchase(const QString &orderId) const
{
    std::optional<Purchase> purchase = m_store.purchaseByOrder(orderId);
    if (purchase && m_isMasked)
        purchase->buyer.email = maskText();
    return purchase;
}

HttpReply Service::fileReply(const QString &path)
{
    auto file = std::make_shared<QFile>(path);
    if (!file->open(QIODevice::ReadOnly)) {
        qWarning("%s: %s", qUtf8Printable(path), qUtf8Printable(file->errorString()));
        throw Refusal{500, internalError};
    }
    return {200, {{"Content-Type", "application/octet-stream"}}, {}, file};
}

QJsonObject Service::objectFrom(const HttpRequest &request)
{
    const QJsonDocument document = QJsonDocument::fromJson(request.body);
    if (!document.isObject())
        throw Refusal{400, u"La richiesta non è un oggetto JSON."_s};
    return document.object();
}

QString Service::textFrom(const QJsonObject &object, QLatin1StringView member)
{
    const QJsonValue value = object.value(member);
    if (!value.isString()) {
        throw Refusal{400, u"Il campo «%1» manca o non è un testo."_s.arg(member)};
    }
    return value.toString();
}

void Service::requireProduct(const QString &productCode) const
{
    if (!m_store.hasProduct(productCode))
        throw Refusal{404, u"Prodotto sconosciuto."_s};
}

// {
//     "success": true, "payment_id": number, "license_id": number, "license_key": text,
//     "paypal_order_id": text, "approval_url": text
// }
QJsonObject Service::startAnswer(const HttpRequest &request, const Purchase &purchase) const
{
    return {{u"success"_s, true},
            {u"payment_id"_s, purchase.paymentId},
            {u"license_id"_s, purchase.licenseId},
            {u"license_key"_s, purchase.licenseKey},
            {u"paypal_order_id"_s, purchase.orderId},
            {u"approval_url"_s, addressFor(request) + approvalPath(purchase.orderId)}};
}

QString Service::addressFor(const HttpRequest &request) const
{
    return m_address.isEmpty() ? "http://"_L1 + QString::fromLatin1(request.header("Host"))
                               : m_address;
}
