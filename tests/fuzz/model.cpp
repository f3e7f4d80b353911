#include "model.h"

#include "signallog.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>

#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

enum Column { Success, Explained, Unexplained };

Column columnOf(const Model::Answer &answer)
{
    if (answer.error == QNetworkReply::NoError)
        return Success;
    return answer.status >= 1 && answer.body.size() >= 1 ? Explained : Unexplained;
}

bool isTrue(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object[key];
    return value.type() == QJsonValue::Bool && value == QJsonValue(true);
}

QString textOf(const QJsonObject &object, const QString &key, const QString &otherwise = {})
{
    const QJsonValue value = object[key];
    return value.isString() ? value.toString() : otherwise;
}

int wholeNumberOf(const QJsonObject &object, const QString &key)
{
    using Range = std::numeric_limits<int>;
    const double number = object[key].isDouble() ? object[key].toDouble() : 0;
    const bool fits = number >= Range::min() && number <= Range::max();
    return fits && std::trunc(number) == number ? static_cast<int>(number) : 0;
}

QJsonObject objectOf(const QJsonObject &object, const QString &key)
{
    const QJsonValue value = object[key];
    return value.isObject() ? value.toObject() : QJsonObject();
}

QString serviceText(const QJsonObject &object, const QString &otherwise)
{
    return textOf(objectOf(object, u"error"_s), u"message"_s, otherwise);
}

QString updateChecked(const QJsonObject &object, const QString &currentVersion)
{
    UpdateInfo update;
    update.currentVersion = currentVersion;
    update.raw = object;
    if (isTrue(object, u"success"_s)) {
        const QJsonObject release = objectOf(object, u"release"_s);
        update.productCode = textOf(release, u"product_code"_s);
        update.latestVersion = textOf(release, u"version"_s);
        update.downloadUrl = textOf(release, u"download_url"_s);
        update.stableDownloadUrl = textOf(release, u"stable_download_url"_s);
        update.sha256 = textOf(release, u"sha256"_s);
        update.notes = textOf(release, u"notes"_s);
        update.updateAvailable =
            update.latestVersion.size() > 0 && update.latestVersion != currentVersion;
    }
    return SignalLog::updateChecked(update);
}

QString purchaseStarted(const QJsonObject &object)
{
    PurchaseStartInfo purchase;
    purchase.success = isTrue(object, u"success"_s);
    purchase.paymentId = wholeNumberOf(object, u"payment_id"_s);
    purchase.licenseId = wholeNumberOf(object, u"license_id"_s);
    purchase.licenseKey = textOf(object, u"license_key"_s);
    purchase.paypalOrderId = textOf(object, u"paypal_order_id"_s);
    purchase.approvalUrl = textOf(object, u"approval_url"_s);
    purchase.message = purchase.success ? u"Pagamento avviato."_s
                                        : serviceText(object, u"Pagamento non avviato."_s);
    purchase.raw = object;
    return SignalLog::purchaseStarted(purchase);
}

QString purchaseCaptured(const QJsonObject &object)
{
    PurchaseCaptureInfo capture;
    capture.paid = isTrue(object, u"paid"_s);
    capture.licenseId = wholeNumberOf(object, u"license_id"_s);
    capture.message = capture.paid ? u"Pagamento completato."_s
                                   : serviceText(object, u"Pagamento non completato."_s);
    capture.raw = object;
    return SignalLog::purchaseCaptured(capture);
}

QString updateDownloaded(Places::Kind place, const Places &places)
{
    return Places::canBeWritten(place)
        ? SignalLog::updateDownloaded(places.path(place))
        : SignalLog::networkError(u"Impossibile salvare aggiornamento."_s);
}

} // namespace

QString Model::line(Corvane::Operation operation, const Answer &answer, const State &state,
                    const Places &places)
{
    const Column column = columnOf(answer);
    const QString error = SignalLog::networkError(answer.errorString);
    const QJsonDocument document = QJsonDocument::fromJson(answer.body);
    const QJsonObject object = document.isObject() ? document.object() : QJsonObject();

    switch (operation) {
    case Corvane::Usage:
        if (column == Success)
            return SignalLog::usageSent(isTrue(object, u"success"_s), serviceText(object, {}));
        return column == Explained
            ? SignalLog::usageSent(false, serviceText(object, answer.errorString))
            : error;
    case Corvane::UpdateCheck:
        return column == Success ? updateChecked(object, state.currentVersion) : error;
    case Corvane::UpdateDownload:
        return column == Success ? updateDownloaded(state.place, places) : error;
    case Corvane::PurchasePlans:
        return column == Success ? SignalLog::purchasePlansReceived(object[u"plans"_s].toArray())
                                 : error;
    case Corvane::PurchaseStart:
    case Corvane::PurchaseResume:
        return column == Unexplained ? error : purchaseStarted(object);
    case Corvane::PurchaseCapture:
        return column == Unexplained ? error : purchaseCaptured(object);
    }
    Q_UNREACHABLE();
}

bool Model::isSaved(Corvane::Operation operation, const Answer &answer, const State &state)
{
    return operation == Corvane::UpdateDownload && columnOf(answer) == Success
        && Places::canBeWritten(state.place);
}
