#include "keptstate.h"

using namespace Qt::StringLiterals;

namespace {

const auto pendingGroup = u"pending_purchase"_s;
const auto planKey = u"pending_purchase/plan"_s;
const auto pendingLicenseKey = u"pending_purchase/license_key"_s;
const auto orderKey = u"pending_purchase/order_id"_s;
const auto approvalKey = u"pending_purchase/approval_url"_s;
const auto mayBePaidKey = u"pending_purchase/may_be_paid"_s;
const auto licenseKeysKey = u"license/keys"_s;
const auto machineIdKey = u"usage/machine_id"_s;

} // namespace

KeptState::KeptState(const QString &file)
    : m_settings(file, QSettings::IniFormat)
{
}

QString KeptState::file() const
{
    return m_settings.fileName();
}

bool KeptState::isWritten() const
{
    return m_isWritten;
}

std::optional<PendingPurchase> KeptState::pendingPurchase() const
{
    if (!m_settings.contains(orderKey))
        return {};
    return PendingPurchase{
        m_settings.value(planKey).toString(), m_settings.value(pendingLicenseKey).toString(),
        m_settings.value(orderKey).toString(), m_settings.value(approvalKey).toString(),
        m_settings.value(mayBePaidKey).toBool()};
}

void KeptState::setPendingPurchase(const PendingPurchase &purchase)
{
    m_settings.setValue(planKey, purchase.plan);
    m_settings.setValue(pendingLicenseKey, purchase.licenseKey);
    m_settings.setValue(orderKey, purchase.orderId);
    m_settings.setValue(approvalKey, purchase.approvalUrl);
    m_settings.setValue(mayBePaidKey, purchase.mayBePaid);
    write();
}

void KeptState::forgetPendingPurchase()
{
    m_settings.remove(pendingGroup);
    write();
}

QStringList KeptState::licenseKeys() const
{
    return m_settings.value(licenseKeysKey).toStringList();
}

void KeptState::setPaid(const QString &licenseKey)
{
    if (!licenseKey.isEmpty())
        m_settings.setValue(licenseKeysKey, licenseKeys() << licenseKey);
    forgetPendingPurchase();
}

QString KeptState::machineId() const
{
    return m_settings.value(machineIdKey).toString();
}

void KeptState::setMachineId(const QString &id)
{
    if (id.isEmpty())
        m_settings.remove(machineIdKey);
    else
        m_settings.setValue(machineIdKey, id);
    write();
}

void KeptState::write()
{
    // A new one, for the same file and the same content: the status is that of the first error
    // ever.
    QSettings settings(m_settings.fileName(), QSettings::IniFormat);
    settings.sync();
    m_isWritten = settings.status() == QSettings::NoError;
}
