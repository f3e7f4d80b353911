#ifndef CORVANE_H
#define CORVANE_H

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

/// A client of the maker's back-end service: update check, release download, purchase plans,
/// PayPal checkout and usage events, over HTTP(S) with JSON.
///
/// Set the server URL and the product code, connect to the signals, then call operations. Every
/// operation returns at once, and every call ends in exactly one signal: the operation's result
/// signal or networkError(), never both. A call that cannot be sent is refused: it emits
/// networkError() before it returns, sends nothing and changes nothing. A call that is sent ends
/// later, from the event loop, when the network layer finishes its reply; if the object is
/// destroyed first, it emits nothing.
///
/// Any number of calls may be in flight; the network layer sends a few at a time to one server, and
/// the others wait. Signals come in the order in which the replies finish, and no signal names the
/// call that it answers. Two values are shared by overlapping calls: see checkForUpdate() and
/// downloadUpdate().
///
/// Thread: use the object in the thread that it lives in, which needs a running event loop. All
/// signals are emitted there; receivers in other threads get them through queued connections. A
/// slot may call any operation. To destroy the object from a slot, use deleteLater().
///
/// The library sets no time-out and repeats no call. A server that keeps silent, and a connection
/// that breaks at a bad moment, hold a call for good: the host needs a time-out of its own, and
/// destroys the object. The network layer does repeat a request, in some versions POSTs included,
/// when its connection closes before any answer: the service may get a start or a capture twice.
/// The library keeps nothing on disk but downloads and writes no log. Redirects, proxies and TLS
/// are what QNetworkAccessManager makes of them by default; docs/network.md tells what that can
/// be.
class CORVANE_EXPORT Corvane : public QObject
{
    Q_OBJECT

public:
    /// Sends nothing. The parent, if any, owns the object.
    explicit Corvane(QObject *parent = nullptr);
    /// Abandons whatever is in flight, without a signal.
    ~Corvane() override;

    /// The service's base URL; invalid until set. Stored as it is: nothing is checked before an
    /// operation needs it. Operations keep its scheme, user info, host and port, and replace its
    /// path: a service below a path cannot be reached. Its query goes along with POSTs and is
    /// replaced in GETs. Requests already sent keep the URL that they were sent to.
    void setServerUrl(const QUrl &url);
    /// The URL as it was set.
    QUrl serverUrl() const;

    /// The product that this host is; empty until set. Held trimmed and in upper case, and returned
    /// so. Requests already sent keep the code that they were sent with.
    void setProductCode(const QString &code);
    /// The product code, trimmed and in upper case.
    QString productCode() const;

    /// @name Operations
    /// All but downloadUpdate() need a valid server URL and a product code. Without them they are
    /// refused with "Server URL o product code non configurati.".
    /// @{

    /// Asks which release is offered on the channel. Sends the product code and the channel as it
    /// is; percent-encoded sequences in it count as what they encode. Ends in updateChecked() or
    /// networkError(). The version is not sent but compared with the release's when the reply
    /// arrives, and the object holds one: of overlapping checks, all are compared with the version
    /// given last.
    void checkForUpdate(const QString &currentVersion, const QString &channel);

    /// Downloads the URL, whole, to the path, which is relative to the current directory of the
    /// process at the time of saving, unless absolute. Ends in updateDownloaded() or
    /// networkError(). An invalid URL or an empty path is refused with "URL o destinazione
    /// aggiornamento non validi.". Missing directories are created, and an existing file is
    /// overwritten in place once the transfer has succeeded; a failed transfer leaves it alone. The
    /// body is held in memory until then. A failing write (a full disk) goes unreported, and the
    /// network layer now and then reports a transfer that broke off as a success: download beside
    /// the file that matters, compare the SHA-256, then move it. The object holds one path: of
    /// overlapping downloads, all are saved to the path given last.
    void downloadUpdate(const QUrl &url, const QString &destinationPath);

    /// Asks for the plans on offer for the product code. Ends in purchasePlansReceived() or
    /// networkError().
    void fetchPurchasePlans();

    /// Starts a purchase for the product code. The plan code is sent trimmed and in upper case, the
    /// address trimmed and in lower case, the names trimmed. Ends in purchaseStarted() or
    /// networkError().
    void startPayPalPurchase(const QString &planCode, const QString &firstName,
                             const QString &lastName, const QString &email);

    /// Takes up a purchase that was started and not finished, by the licence key of its
    /// PurchaseStartInfo, sent trimmed. Ends in purchaseStarted() or networkError().
    void resumePayPalPurchase(const QString &licenseKey);

    /// Takes the payment once the buyer has approved it, by the order id of the PurchaseStartInfo,
    /// sent trimmed and alone: the product code must be set, but is not sent. Ends in
    /// purchaseCaptured() or networkError().
    void capturePayPalPurchase(const QString &paypalOrderId);

    /// Reports one usage event: the payload's members, and the product code, the licence key
    /// (trimmed), the machine id and the event type (as they are), which replace payload members
    /// named product_code, license_key, machine_fingerprint and event_type. Ends in usageSent() or
    /// networkError().
    void sendUsage(const QString &licenseKey, const QString &machineId, const QString &eventType,
                   const QJsonObject &payload);

    /// @}

Q_SIGNALS:
    /// The service answered a usage event. It is accepted when the transfer succeeded and the reply
    /// says "success": true. The message, which may come with either, is the service's error text
    /// for the user: empty when it sent none, except that a failed transfer then carries the
    /// network layer's text.
    void usageSent(bool accepted, const QString &message);

    /// The service answered an update check. An answer without a usable release, a refusal in the
    /// body included, comes here too, with updateAvailable false; an HTTP error status does not. In
    /// raw, a refusal lacks "success": true.
    void updateChecked(const UpdateInfo &update);

    /// A download was written to the path, as it was given. The file is still open while directly
    /// connected slots run, its last bytes possibly unwritten: read or move it from a queued
    /// connection to a receiver in this thread. One in another thread may run too early.
    void updateDownloaded(const QString &destinationPath);

    /// The plans as the service sent them, which alone decides their members; empty when it sent
    /// no list.
    void purchasePlansReceived(const QJsonArray &plans);

    /// The service answered a start or a resume: it accepted, or it refused, also with an HTTP
    /// error status and a body.
    void purchaseStarted(const PurchaseStartInfo &purchase);

    /// The service answered a capture, in the same way. Only paid true is certain: a reply that
    /// broke off comes here too, and after anything else, networkError() included, the payment may
    /// have been taken all the same.
    void purchaseCaptured(const PurchaseCaptureInfo &capture);

    /// A call was refused (during the call, with one of the Italian texts above), its transfer
    /// failed (later, with the network layer's text), or the file of a download could not be opened
    /// (later, "Impossibile salvare aggiornamento."). An HTTP error status is a failed transfer. A
    /// usage event, a start, a resume or a capture whose failed transfer has a status and a body
    /// ends in its own signal instead.
    void networkError(const QString &message);

private:
    // What a request asked for, so that handleReply() knows what its reply means.
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

    // There is no d-pointer: the fields are part of the ABI. They stay last and in this order.

    // A child of this object; all requests go through it. Never null.
    QNetworkAccessManager *m_network;
    QUrl m_serverUrl;
    // Trimmed and in upper case.
    QString m_productCode;
    // The version of the most recent update check and the path of the most recent download,
    // refused calls excepted. Replies read them when they arrive; no request has a copy.
    QString m_currentVersion;
    QString m_downloadPath;
};

#endif // CORVANE_H
