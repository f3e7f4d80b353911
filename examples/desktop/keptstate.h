#ifndef KEPTSTATE_H
#define KEPTSTATE_H

#include <QtCore/qsettings.h>
#include <QtCore/qstring.h>

#include <optional>

// What a purchase that was started needs to be finished, also after the application was closed.
struct PendingPurchase
{
    QString plan;
    QString licenseKey;
    QString orderId;
    QString approvalUrl;
};

// What this application keeps on disk, as the library keeps nothing: one file, written at once. The
// setters return false if it cannot be written; then it is kept until the application is closed.
class KeptState
{
public:
    explicit KeptState(const QString &file);

    QString file() const;

    std::optional<PendingPurchase> pendingPurchase() const;
    bool setPendingPurchase(const PendingPurchase &purchase);
    bool forgetPendingPurchase();
    // Of the last purchase that was paid.
    QString licenseKey() const;
    // The purchase is not pending any more.
    bool setPaid(const QString &licenseKey);

    // The machine's id for usage events; none while the user does not want to send any.
    QString machineId() const;
    // Empty takes it out.
    bool setMachineId(const QString &id);

private:
    bool write();

    QSettings m_settings;
};

#endif // KEPTSTATE_H
