// With --json, every command prints one object. Members never change their name or type; a text
// that the service left out is "", a number that it left out 0.
//
// check:         {"update_available": bool, "product_code": text, "current_version": text,
//                 "latest_version": text, "download_url": text, "stable_download_url": text,
//                 "sha256": text, "notes": text, "raw": the whole reply}
// download:      {"path": text, "size": number of bytes, "sha256": text}
// plans:         {"plans": [whatever the service sent]}
// start, resume: {"success": bool, "payment_id": number, "license_id": number,
//                 "license_key": text, "paypal_order_id": text, "approval_url": text,
//                 "message": text, "raw": the whole reply}
// capture:       {"paid": bool, "license_id": number, "message": text, "raw": the whole reply}
// usage:         {"accepted": bool, "message": text}

#include "commands.h"

#include "arguments.h"
#include "download.h"
#include "session.h"

#include <corvane.h>

#include <QtCore/qjsondocument.h>

using namespace Qt::StringLiterals;

namespace {

QString yesNo(bool value)
{
    return value ? u"yes"_s : u"no"_s;
}

// The service's numbers start at 1; 0 stands for none.
QString idText(int id)
{
    return id == 0 ? QString() : QString::number(id);
}

// A text as it stands, anything else as JSON.
QString valueText(const QJsonValue &value)
{
    if (value.isString())
        return value.toString();
    // Only arrays and objects can be written; the brackets are no part of the value.
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.sliced(1).chopped(1));
}

QString planText(const QJsonValue &plan)
{
    if (!plan.isObject())
        return printable(valueText(plan), 2) + u'\n';

    const QJsonObject object = plan.toObject();
    QList<std::pair<QString, QString>> rows;
    for (auto it = object.constBegin(); it != object.constEnd(); ++it)
        rows.append({it.key(), valueText(it.value())});
    return labelled(rows);
}

void reportCheck(Session &session, const UpdateInfo &update)
{
    const Report report{
        labelled({
            {u"Update available"_s, yesNo(update.updateAvailable)},
            {u"Product"_s, update.productCode},
            {u"Current version"_s, update.currentVersion},
            {u"Latest version"_s, update.latestVersion},
            {u"Download URL"_s, update.downloadUrl},
            {u"Stable download URL"_s, update.stableDownloadUrl},
            {u"SHA-256"_s, update.sha256},
            {u"Notes"_s, update.notes},
        }),
        {
            {u"update_available"_s, update.updateAvailable},
            {u"product_code"_s, update.productCode},
            {u"current_version"_s, update.currentVersion},
            {u"latest_version"_s, update.latestVersion},
            {u"download_url"_s, update.downloadUrl},
            {u"stable_download_url"_s, update.stableDownloadUrl},
            {u"sha256"_s, update.sha256},
            {u"notes"_s, update.notes},
            {u"raw"_s, update.raw},
        },
    };
    // The library reports "no success" as "no update"; only the reply tells them apart.
    if (update.raw.value("success"_L1).toBool()) {
        session.finish(report);
        return;
    }
    const QJsonObject error = update.raw.value("error"_L1).toObject();
    session.refuse({QString(), report.json}, error.value("message"_L1).toString());
}

void reportPlans(Session &session, const QJsonArray &plans)
{
    QStringList texts;
    for (const auto plan : plans)
        texts.append(planText(plan));
    session.finish({plans.isEmpty() ? u"No plans.\n"_s : texts.join(u'\n'), {{u"plans"_s, plans}}});
}

void reportPurchase(Session &session, const PurchaseStartInfo &purchase)
{
    const Report report{
        labelled({
            {u"Message"_s, purchase.success ? purchase.message : QString()},
            {u"Approval URL"_s, purchase.approvalUrl},
            {u"Order id"_s, purchase.paypalOrderId},
            {u"License key"_s, purchase.licenseKey},
            {u"License id"_s, idText(purchase.licenseId)},
            {u"Payment id"_s, idText(purchase.paymentId)},
        }),
        {
            {u"success"_s, purchase.success},
            {u"payment_id"_s, purchase.paymentId},
            {u"license_id"_s, purchase.licenseId},
            {u"license_key"_s, purchase.licenseKey},
            {u"paypal_order_id"_s, purchase.paypalOrderId},
            {u"approval_url"_s, purchase.approvalUrl},
            {u"message"_s, purchase.message},
            {u"raw"_s, purchase.raw},
        },
    };
    if (purchase.success)
        session.finish(report);
    else
        session.refuse(report, purchase.message);
}

void reportCapture(Session &session, const PurchaseCaptureInfo &capture)
{
    const Report report{
        labelled({
            {u"Message"_s, capture.paid ? capture.message : QString()},
            {u"License id"_s, idText(capture.licenseId)},
        }),
        {
            {u"paid"_s, capture.paid},
            {u"license_id"_s, capture.licenseId},
            {u"message"_s, capture.message},
            {u"raw"_s, capture.raw},
        },
    };
    if (capture.paid)
        session.finish(report);
    else
        session.refuse(report, capture.message);
}

void reportUsage(Session &session, bool accepted, const QString &message)
{
    const QJsonObject json{{u"accepted"_s, accepted}, {u"message"_s, message}};
    if (accepted)
        session.finish({labelled({{u"Accepted"_s, yesNo(true)}, {u"Message"_s, message}}), json});
    else
        session.refuse({QString(), json}, message);
}

void connectReports(Session &session)
{
    const Corvane *client = session.client();
    QObject::connect(client, &Corvane::updateChecked, &session,
                     [&session](const UpdateInfo &update) { reportCheck(session, update); });
    QObject::connect(client, &Corvane::purchasePlansReceived, &session,
                     [&session](const QJsonArray &plans) { reportPlans(session, plans); });
    QObject::connect(
        client, &Corvane::purchaseStarted, &session,
        [&session](const PurchaseStartInfo &purchase) { reportPurchase(session, purchase); });
    QObject::connect(
        client, &Corvane::purchaseCaptured, &session,
        [&session](const PurchaseCaptureInfo &capture) { reportCapture(session, capture); });
    QObject::connect(client, &Corvane::usageSent, &session,
                     [&session](bool accepted, const QString &message) {
                         reportUsage(session, accepted, message);
                     });
}

} // namespace

void startCommand(const Arguments &arguments, Session &session)
{
    connectReports(session);
    Corvane *client = session.client();
    const QStringList &operands = arguments.operands;
    switch (arguments.command) {
    case Command::Check:
        client->checkForUpdate(operands[0], operands[1]);
        break;
    case Command::Download:
        startDownload(arguments.url, operands[1], arguments.sha256, session);
        break;
    case Command::Plans:
        client->fetchPurchasePlans();
        break;
    case Command::Start:
        client->startPayPalPurchase(operands[0], operands[1], operands[2], operands[3]);
        break;
    case Command::Resume:
        client->resumePayPalPurchase(operands[0]);
        break;
    case Command::Capture:
        client->capturePayPalPurchase(operands[0]);
        break;
    case Command::Usage:
        client->sendUsage(operands[0], operands[1], operands[2], arguments.payload);
        break;
    }
}
