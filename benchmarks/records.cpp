#include "records.h"

#include "constants.h"

#include <QtCore/qdir.h>
#include <QtCore/qfile.h>
#include <QtCore/qfileinfo.h>
#include <QtCore/qjsondocument.h>

using namespace Qt::StringLiterals;

namespace {

QString errorIn(const QJsonObject &reply, const QString &fallback)
{
    return reply.value("error"_L1).toObject().value("message"_L1).toString(fallback);
}

UpdateInfo updateFrom(const QJsonObject &reply)
{
    UpdateInfo update;
    update.currentVersion = Constants::version;
    update.raw = reply;
    if (!reply.value("success"_L1).toBool())
        return update;
    const QJsonObject release = reply.value("release"_L1).toObject();
    update.productCode = release.value("product_code"_L1).toString();
    update.latestVersion = release.value("version"_L1).toString();
    update.downloadUrl = release.value("download_url"_L1).toString();
    update.stableDownloadUrl = release.value("stable_download_url"_L1).toString();
    update.sha256 = release.value("sha256"_L1).toString();
    update.notes = release.value("notes"_L1).toString();
    update.updateAvailable =
        !update.latestVersion.isEmpty() && update.latestVersion != update.currentVersion;
    return update;
}

PurchaseStartInfo startFrom(const QJsonObject &reply)
{
    PurchaseStartInfo start;
    start.raw = reply;
    start.success = reply.value("success"_L1).toBool();
    start.paymentId = reply.value("payment_id"_L1).toInt();
    start.licenseId = reply.value("license_id"_L1).toInt();
    start.licenseKey = reply.value("license_key"_L1).toString();
    start.paypalOrderId = reply.value("paypal_order_id"_L1).toString();
    start.approvalUrl = reply.value("approval_url"_L1).toString();
    start.message = start.success ? u"Avviato."_s : errorIn(reply, u"Non avviato."_s);
    return start;
}

PurchaseCaptureInfo captureFrom(const QJsonObject &reply)
{
    PurchaseCaptureInfo capture;
    capture.raw = reply;
    capture.paid = reply.value("paid"_L1).toBool();
    capture.licenseId = reply.value("license_id"_L1).toInt();
    capture.message = capture.paid ? u"Pagato."_s : errorIn(reply, u"Non pagato."_s);
    return capture;
}

} // namespace

void Records::read(Call call, const QByteArray &body)
{
    const QJsonObject reply = QJsonDocument::fromJson(body).object();
    switch (call) {
    case Call::Check:
        update = updateFrom(reply);
        break;
    case Call::Download:
        break;
    case Call::Plans:
        plans = reply.value("plans"_L1).toArray();
        break;
    case Call::Start:
    case Call::Resume:
        start = startFrom(reply);
        break;
    case Call::Capture:
        capture = captureFrom(reply);
        break;
    case Call::Usage:
        usage = {reply.value("success"_L1).toBool(), errorIn(reply, {})};
        break;
    }
}

QString pathOf(Call call, const QString &product)
{
    switch (call) {
    case Call::Check:
        return "/api/v1/releases/latest/"_L1 + product;
    case Call::Plans:
        return u"/api/v1/purchase/plans"_s;
    case Call::Start:
        return u"/api/v1/purchase/start"_s;
    case Call::Resume:
        return u"/api/v1/purchase/resume"_s;
    case Call::Capture:
        return u"/api/v1/purchase/capture"_s;
    case Call::Usage:
        return u"/api/v1/client/usage"_s;
    case Call::Download:
        break;
    }
    return {};
}

QByteArray bodyOf(Call call, const QString &product)
{
    using namespace Constants;
    QJsonObject body;
    switch (call) {
    case Call::Check:
    case Call::Plans:
    case Call::Download:
        return {};
    case Call::Start:
        body = {{u"product_code"_s, product},
                {u"plan_code"_s, plan.trimmed().toUpper()},
                {u"first_name"_s, firstName.trimmed()},
                {u"last_name"_s, lastName.trimmed()},
                {u"email"_s, email.trimmed().toLower()}};
        break;
    case Call::Resume:
        body = {{u"product_code"_s, product}, {u"license_key"_s, licenseKey.trimmed()}};
        break;
    case Call::Capture:
        body = {{u"paypal_order_id"_s, order.trimmed()}};
        break;
    case Call::Usage:
        body = payload;
        body.insert("product_code"_L1, product);
        body.insert("license_key"_L1, licenseKey.trimmed());
        body.insert("machine_fingerprint"_L1, machine);
        body.insert("event_type"_L1, event);
        break;
    }
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

void save(const QByteArray &body, const QString &destination)
{
    QFile file(destination);
    QDir().mkpath(QFileInfo(file).absolutePath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        stop(file.errorString());
    file.write(body);
}
