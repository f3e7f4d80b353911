// POST /api/v1/client/usage
// {"product_code": text, "license_key": text, "machine_fingerprint": text, "event_type": text, ...}
//
// The dots are the payload's own members.
//
// Reply: {"success": true}, or a refusal with {"error": {"message": text}}.

#include "corvane.h"

using namespace Qt::StringLiterals;

void Corvane::sendUsage(const QString &licenseKey, const QString &machineId,
                        const QString &eventType, const QJsonObject &payload)
{
    QJsonObject body = payload;
    body.insert("product_code"_L1, m_productCode);
    body.insert("license_key"_L1, licenseKey.trimmed());
    body.insert("machine_fingerprint"_L1, machineId);
    body.insert("event_type"_L1, eventType);
    postJson(u"/api/v1/client/usage"_s, body, Usage);
}
