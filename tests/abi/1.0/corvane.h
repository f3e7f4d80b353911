#ifndef CORVANE_H
#define CORVANE_H

// As hosts of 1.0 were compiled. Changes never.

#include "corvaneglobal.h"
#include "corvanetypes.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qobject.h>
#include <QtCore/qstring.h>
#include <QtCore/qurl.h>

QT_BEGIN_NAMESPACE
class QNetworkAccessManager;
class QNetworkReply;
QT_END_NAMESPACE

class CORVANE_EXPORT Corvane : public QObject
{
    Q_OBJECT

public:
    explicit Corvane(QObject *parent = nullptr);
    ~Corvane() override;

    void setServerUrl(const QUrl &url);
    QUrl serverUrl() const;
    void setProductCode(const QString &code);
    QString productCode() const;

    void checkForUpdate(const QString &currentVersion, const QString &channel);
    void downloadUpdate(const QUrl &url, const QString &destinationPath);
    void fetchPurchasePlans();
    void startPayPalPurchase(const QString &planCode, const QString &firstName,
                             const QString &lastName, const QString &email);
    void resumePayPalPurchase(const QString &licenseKey);
    void capturePayPalPurchase(const QString &paypalOrderId);
    void sendUsage(const QString &licenseKey, const QString &machineId, const QString &eventType,
                   const QJsonObject &payload);

Q_SIGNALS:
    void usageSent(bool accepted, const QString &message);
    void updateChecked(const UpdateInfo &update);
    void updateDownloaded(const QString &destinationPath);
    void purchasePlansReceived(const QJsonArray &plans);
    void purchaseStarted(const PurchaseStartInfo &purchase);
    void purchaseCaptured(const PurchaseCaptureInfo &capture);
    void networkError(const QString &message);

private:
    enum Operation {
        Usage,
        UpdateCheck,
        UpdateDownload,
        PurchasePlans,
        PurchaseStart,
        PurchaseResume,
        PurchaseCapture
    };

    bool checkConfiguration();
    QUrl endpoint(const QString &path) const;
    void postJson(const QString &path, const QJsonObject &body, Operation operation);
    void connectReply(QNetworkReply *reply, Operation operation);
    void handleReply(QNetworkReply *reply, Operation operation);
    UpdateInfo parseUpdate(const QJsonObject &reply, const QString &currentVersion) const;
    void saveDownload(const QByteArray &body);
    PurchaseStartInfo parsePurchaseStart(const QJsonObject &reply) const;
    PurchaseCaptureInfo parsePurchaseCapture(const QJsonObject &reply) const;

    QNetworkAccessManager *m_network;
    QUrl m_serverUrl;
    QString m_productCode;
    QString m_currentVersion;
    QString m_downloadPath;
};

#endif // CORVANE_H
