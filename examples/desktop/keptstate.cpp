#include "keptstate.h"

using namespace Qt::StringLiterals;

namespace {

const auto pendingGroup = u"pending_purchase"_s;
const auto planKey = u"pending_purchase/plan"_s;
const auto pendingLicenseKey = u"pending_purchase/license_key"_s;
const auto orderKey = u"pending_purchase/order_id"_s;
const auto approvalKey = u"pending_purchase/approval_url"_s;
const auto licenseKeyKey = u"license/key"_s;
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

std::optional<PendingPurchase> KeptState::pendingPurchase() const
{
    if (!m_settings.contains(orderKey))
        return {};
    return PendingPurchase{
        m_settings.value(planKey).toString(), m_settings.value(pendingLicenseKey).toString(),
        m_settings.value(orderKey).toString(), m_settings.value(approvalKey).toString()};
}

bool KeptState::setPendingPurchase(const PendingPurchase &purchase)
{
    m_settings.setValue(planKey, purchase.plan);
    m_settings.setValue(pendingLicenseKey, purchase.licenseKey);
    m_settings.setValue(orderKey, purchase.orderId);
    m_settings.setValue(approvalKey, purchase.approvalUrl);
    return write();
}

bool KeptState::forgetPendingPurchase()
{
    m_settings.remove(pendingGroup);
    return write();
}

QString KeptState::licenseKey() const
{
    return m_settings.value(licenseKeyKey).toString();
}

bool KeptState::setPaid(const QString &licenseKey)
{
    m_settings.setValue(licenseKeyKey, licenseKey);
    return forgetPendingPurchase();
}

QString KeptState::machineId() const
{
    return m_settings.value(machineIdKey).toString();
}

bool KeptState::setMachineId(const QString &id)
{
    if (id.isEmpty())
        m_settings.remove(machineIdKey);
    else
        m_settings.setValue(machineIdKey, id);
    return write();
}

bool KeptState::write()
{
    m_settings.sync();
    return m_settings.status() == QSettings::NoError;
}
