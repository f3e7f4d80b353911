#ifndef CORVANETYPES_H
#define CORVANETYPES_H

// As hosts of 1.0 were compiled. Changes never.

#include <QtCore/qjsonobject.h>
#include <QtCore/qmetatype.h>
#include <QtCore/qstring.h>

struct UpdateInfo
{
    bool updateAvailable = false;
    QString productCode;
    QString currentVersion;
    QString latestVersion;
    QString downloadUrl;
    QString stableDownloadUrl;
    QString sha256;
    QString notes;
    QJsonObject raw;
};

struct PurchaseStartInfo
{
    bool success = false;
    int paymentId = 0;
    int licenseId = 0;
    QString licenseKey;
    QString paypalOrderId;
    QString approvalUrl;
    QString message;
    QJsonObject raw;
};

struct PurchaseCaptureInfo
{
    bool paid = false;
    int licenseId = 0;
    QString message;
    QJsonObject raw;
};

Q_DECLARE_METATYPE(UpdateInfo)
Q_DECLARE_METATYPE(PurchaseStartInfo)
Q_DECLARE_METATYPE(PurchaseCaptureInfo)

#endif // CORVANETYPES_H
