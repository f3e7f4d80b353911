#ifndef KEPTSTATE_H
#define KEPTSTATE_H

#include <QtCore/qsettings.h>
#include <QtCore/qstringlist.h>

#include <optional>

// What a purchase that was started needs to be finished, also after the application was closed.
struct PendingPurchase
{
    QString plan;
    QString licenseKey;
    QString orderId;
    QString approvalUrl;
    // A capture was tried, and the service has not said that the payment was not taken.
    bool mayBePaid = false;
};

// What this application keeps on disk, as the library keeps nothing: one file, written at once.
class KeptState
{
public:
    explicit KeptState(const QString &file);

    QString file() const;
    // False if the file could not be written the last time; then all of this ends with the
    // application.
    bool isWritten() const;

    std::optional<PendingPurchase> pendingPurchase() const;
    void setPendingPurchase(const PendingPurchase &purchase);
    void forgetPendingPurchase();
    // Of all purchases that were paid, the last one last.
    QStringList licenseKeys() const;
    // The purchase is not pending any more. An empty key adds none.
    void setPaid(const QString &licenseKey);

    // The machine's id for usage events; none while the user does not want to send any.
    QString machineId() const;
    // Empty takes it out.
    void setMachineId(const QString &id);

private:
    void write();

    QSettings m_settings;
    bool m_isWritten = true;
};

#endif // KEPTSTATE_H
