#include "signallog.h"

#include "corvane.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>

using namespace Qt::StringLiterals;

namespace {

// The signal's name and its arguments as JSON, which quotes texts and keeps types apart.
QString line(QLatin1StringView name, const QJsonArray &arguments)
{
    return name + ' '_L1
        + QString::fromUtf8(QJsonDocument(arguments).toJson(QJsonDocument::Compact));
}

} // namespace

SignalLog::SignalLog(Corvane *client)
    : m_client(client)
{
    const auto record = [this, client](auto signal, auto describe) {
        connect(client, signal, this, [this, describe](const auto &...arguments) {
            m_lines.append(describe(arguments...));
            Q_EMIT lineAdded();
        });
    };
    record(&Corvane::usageSent, &SignalLog::usageSent);
    record(&Corvane::updateChecked, &SignalLog::updateChecked);
    record(&Corvane::updateDownloaded, &SignalLog::updateDownloaded);
    record(&Corvane::purchasePlansReceived, &SignalLog::purchasePlansReceived);
    record(&Corvane::purchaseStarted, &SignalLog::purchaseStarted);
    record(&Corvane::purchaseCaptured, &SignalLog::purchaseCaptured);
    record(&Corvane::networkError, &SignalLog::networkError);
}

bool SignalLog::waitForLines(qsizetype count, int milliseconds)
{
    QSignalSpy added(this, &SignalLog::lineAdded);
    while (m_lines.size() < count) {
        if (!added.wait(milliseconds))
            return false;
    }
    return true;
}

QStringList SignalLog::settled()
{
    while (auto *reply = m_client->findChild<QNetworkReply *>()) {
        QSignalSpy gone(reply, &QObject::destroyed);
        if (!gone.wait(10000))
            return m_lines + QStringList{u"(still waiting for a reply)"_s};
    }
    return m_lines;
}

QString SignalLog::usageSent(bool accepted, const QString &message)
{
    return line("usageSent"_L1, {accepted, message});
}

QString SignalLog::updateChecked(const UpdateInfo &update)
{
    return line("updateChecked"_L1,
                {update.updateAvailable, update.productCode, update.currentVersion,
                 update.latestVersion, update.downloadUrl, update.stableDownloadUrl, update.sha256,
                 update.notes, update.raw});
}

QString SignalLog::updateDownloaded(const QString &destinationPath)
{
    return line("updateDownloaded"_L1, {destinationPath});
}

QString SignalLog::purchasePlansReceived(const QJsonArray &plans)
{
    return line("purchasePlansReceived"_L1, {QJsonValue(plans)});
}

QString SignalLog::purchaseStarted(const PurchaseStartInfo &purchase)
{
    return line("purchaseStarted"_L1,
                {purchase.success, purchase.paymentId, purchase.licenseId, purchase.licenseKey,
                 purchase.paypalOrderId, purchase.approvalUrl, purchase.message, purchase.raw});
}

QString SignalLog::purchaseCaptured(const PurchaseCaptureInfo &capture)
{
    return line("purchaseCaptured"_L1,
                {capture.paid, capture.licenseId, capture.message, capture.raw});
}

QString SignalLog::networkError(const QString &message)
{
    return line("networkError"_L1, {message});
}
