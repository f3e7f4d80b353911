#include "host.h"

Host::Host(const QUrl &service)
{
    m_client.setServerUrl(service);
    m_client.setProductCode(QStringLiteral("DEMO"));
    connect(&m_client, &Corvane::updateChecked, this, [this](const UpdateInfo &update) {
        Q_EMIT shown(update.updateAvailable
                         ? QStringLiteral("È disponibile la versione %1.").arg(update.latestVersion)
                         : QStringLiteral("Nessun aggiornamento."));
    });
    connect(&m_client, &Corvane::purchaseStarted, this, [this](const PurchaseStartInfo &purchase) {
        m_orderId = purchase.paypalOrderId;
        Q_EMIT shown(purchase.success ? purchase.approvalUrl : purchase.message);
    });
    connect(&m_client, &Corvane::purchaseCaptured, this,
            [this](const PurchaseCaptureInfo &capture) { Q_EMIT shown(capture.message); });
    connect(&m_client, &Corvane::networkError, this, [this](const QString &) {
        Q_EMIT shown(QStringLiteral("Il servizio non è raggiungibile."));
    });
}

void Host::checkForUpdate()
{
    m_client.checkForUpdate(QStringLiteral("1.4.0"), QStringLiteral("stable"));
}

void Host::buy()
{
    m_client.startPayPalPurchase(QStringLiteral("ANNUALE"), QStringLiteral("Ada"),
                                 QStringLiteral("Rossi"), QStringLiteral("ada@example.org"));
}

void Host::finishPurchase()
{
    m_client.capturePayPalPurchase(m_orderId);
}
