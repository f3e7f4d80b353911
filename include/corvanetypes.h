#ifndef CORVANETYPES_H
#define CORVANETYPES_H

#include <QtCore/qjsonobject.h>
#include <QtCore/qmetatype.h>
#include <QtCore/qstring.h>

// The records that Corvane's signals carry. They are plain values: copy them, keep them,
// send them to other threads. Texts are exactly what the service sent, neither trimmed nor
// checked; a text that the service left out, or sent as another JSON type, is empty.
// Constructing a Corvane registers all three with the meta-type system under their own names.

/// The result of an update check.
struct UpdateInfo
{
    /// True exactly when latestVersion is not empty and differs from currentVersion, letter for
    /// letter. Versions are not ordered: an older release offered by the service counts too.
    bool updateAvailable = false;
    /// The product the release is for. Not compared with the configured product code.
    QString productCode;
    /// The version given to the most recent Corvane::checkForUpdate() that was sent.
    QString currentVersion;
    /// The version the service offers; empty when it offers none or refused.
    QString latestVersion;
    /// Where this release can be downloaded, and where the channel's newest release always can.
    /// Either may be empty; neither stands in for the other.
    QString downloadUrl;
    QString stableDownloadUrl; ///< See downloadUrl.
    /// The SHA-256 of the release file as the service writes it. Nothing in the library compares
    /// it with a download; the host does.
    QString sha256;
    /// Release notes.
    QString notes;
    /// The whole reply, with the members that have no field above; empty when the reply was not
    /// a JSON object.
    QJsonObject raw;
};

/// The result of starting or resuming a purchase. The ids are set whenever the service sent them,
/// also in a refusal.
struct PurchaseStartInfo
{
    /// True when the service accepted: the buyer can approve the payment at approvalUrl.
    bool success = false;
    /// The service's numbers for the payment and the licence; 0 when it sent none, or anything but
    /// a whole number in the range of int.
    int paymentId = 0;
    int licenseId = 0; ///< See paymentId.
    /// Keep this to resume the purchase later with Corvane::resumePayPalPurchase().
    QString licenseKey;
    /// Keep this to take the payment with Corvane::capturePayPalPurchase().
    QString paypalOrderId;
    /// The page where the buyer approves the payment; the host opens it in a browser.
    QString approvalUrl;
    /// A text for the user, in Italian: "Pagamento avviato." on success; otherwise the service's
    /// own error message, or "Pagamento non avviato." when it sent none.
    QString message;
    /// The whole reply; empty when it was not a JSON object.
    QJsonObject raw;
};

/// The result of capturing a payment.
struct PurchaseCaptureInfo
{
    /// True when the payment was taken. False also when the reply was unreadable, cut short for
    /// one.
    bool paid = false;
    /// The service's number for the licence; 0 as in PurchaseStartInfo.
    int licenseId = 0;
    /// A text for the user, in Italian: "Pagamento completato." when paid; otherwise the service's
    /// own error message, or "Pagamento non completato." when it sent none.
    QString message;
    /// The whole reply, where the service may also send the licence's key; empty when it was not a
    /// JSON object.
    QJsonObject raw;
};

// The meta-object compiler registers a signal's argument type for queued connections only if it
// sees this.
Q_DECLARE_METATYPE(UpdateInfo)
Q_DECLARE_METATYPE(PurchaseStartInfo)
Q_DECLARE_METATYPE(PurchaseCaptureInfo)

#endif // CORVANETYPES_H
