// POST /api/v1/purchase/start
// {"product_code": text, "plan_code": text, "first_name": text, "last_name": text, "email": text}
//
// POST /api/v1/purchase/resume
// {"product_code": text, "license_key": text}
//
// Reply to both: {
//     "success": true, "payment_id": number, "license_id": number, "license_key": text,
//     "paypal_order_id": text, "approval_url": text
// }
//
// POST /api/v1/purchase/capture
// {"paypal_order_id": text}
//
// Reply: {"paid": true, "license_id": number}
//
// Refusals carry {"error": {"message": text}} instead of a true flag.

#include "corvane.h"
#include "wire_p.h"

using namespace Qt::StringLiterals;

void Corvane::startPayPalPurchase(const QString &planCode, const QString &firstName,
                                  const QString &lastName, const QString &email)
{
    const QJsonObject body{
        {u"product_code"_s, m_productCode},      {u"plan_code"_s, planCode.trimmed().toUpper()},
        {u"first_name"_s, firstName.trimmed()},  {u"last_name"_s, lastName.trimmed()},
        {u"email"_s, email.trimmed().toLower()},
    };
    postJson(u"/api/v1/purchase/start"_s, body, PurchaseStart);
}

void Corvane::resumePayPalPurchase(const QString &licenseKey)
{
    const QJsonObject body{
        {u"product_code"_s, m_productCode},
        {u"license_key"_s, licenseKey.trimmed()},
    };
    postJson(u"/api/v1/purchase/resume"_s, body, PurchaseResume);
}

void Corvane::capturePayPalPurchase(const QString &paypalOrderId)
{
    const QJsonObject body{{u"paypal_order_id"_s, paypalOrderId.trimmed()}};
    postJson(u"/api/v1/purchase/capture"_s, body, PurchaseCapture);
}

PurchaseStartInfo Corvane::parsePurchaseStart(const QJsonObject &reply) const
{
    PurchaseStartInfo purchase;
    purchase.raw = reply;
    purchase.success = reply.value("success"_L1).toBool();
    purchase.paymentId = reply.value("payment_id"_L1).toInt();
    purchase.licenseId = reply.value("license_id"_L1).toInt();
    purchase.licenseKey = reply.value("license_key"_L1).toString();
    purchase.paypalOrderId = reply.value("paypal_order_id"_L1).toString();
    purchase.approvalUrl = reply.value("approval_url"_L1).toString();
    purchase.message = purchase.success ? u"Pagamento avviato."_s
                                        : Wire::errorMessage(reply, u"Pagamento non avviato."_s);
    return purchase;
}

PurchaseCaptureInfo Corvane::parsePurchaseCapture(const QJsonObject &reply) const
{
    PurchaseCaptureInfo capture;
    capture.raw = reply;
    capture.paid = reply.value("paid"_L1).toBool();
    capture.licenseId = reply.value("license_id"_L1).toInt();
    capture.message = capture.paid ? u"Pagamento completato."_s
                                   : Wire::errorMessage(reply, u"Pagamento non completato."_s);
    return capture;
}
