#include "purchase.h"

#include <utility>

using namespace Qt::StringLiterals;

Purchase::Purchase(const Service &service, KeptState *state, QObject *parent)
    : Caller(service, parent)
    , m_state(state)
{
}

std::optional<PendingPurchase> Purchase::pending() const
{
    return m_state->pendingPurchase();
}

QStringList Purchase::licenseKeys() const
{
    return m_state->licenseKeys();
}

QString Purchase::stateFile() const
{
    return m_state->file();
}

bool Purchase::isKept() const
{
    return m_state->isWritten();
}

bool Purchase::isApprovalExpected() const
{
    return m_isApprovalExpected;
}

void Purchase::start(const QString &planCode, const Buyer &buyer)
{
    if (isCalling() || pending())
        return;
    begin(Step::Start, {planCode, {}, {}, {}})
        ->startPayPalPurchase(planCode, buyer.firstName, buyer.lastName, buyer.email);
}

void Purchase::openApprovalPage()
{
    const std::optional<PendingPurchase> purchase = pending();
    if (!purchase || purchase->mayBePaid)
        return;
    const QUrl page = webUrl(purchase->approvalUrl);
    if (!page.isValid()) {
        tell(Message::Warning,
             u"Il servizio non ha indicato una pagina di pagamento valida: premi «Riprendi»."_s);
        return;
    }
    m_isApprovalExpected = true;
    Q_EMIT approvalNeeded(page);
}

void Purchase::resume()
{
    const std::optional<PendingPurchase> purchase = pending();
    if (isCalling() || !purchase || purchase->mayBePaid)
        return;
    begin(Step::Resume, *purchase)->resumePayPalPurchase(purchase->licenseKey);
}

void Purchase::capture()
{
    std::optional<PendingPurchase> purchase = pending();
    if (isCalling() || !purchase)
        return;
    m_isApprovalExpected = false;
    // Written down first, whatever becomes of the call or of this application.
    purchase->mayBePaid = true;
    m_state->setPendingPurchase(*purchase);
    begin(Step::Capture, *purchase)->capturePayPalPurchase(purchase->orderId);
}

void Purchase::abandon()
{
    const std::optional<PendingPurchase> purchase = pending();
    if (isCalling() || !purchase)
        return;
    if (purchase->mayBePaid && !std::exchange(m_isAbandonWarned, true)) {
        tell(
            Message::Warning,
            u"Il pagamento potrebbe essere avvenuto: premi «Completa l'acquisto». Per abbandonarlo "
            "lo stesso, premi di nuovo «Abbandona»."_s);
        return;
    }
    m_isApprovalExpected = false;
    m_isAbandonWarned = false;
    m_state->forgetPendingPurchase();
    // Nothing is lost to a user who has paid after all.
    tell(
        Message::Information,
        u"Acquisto abbandonato: un ordine non completato non viene addebitato. L'ordine era %1, la "
        "chiave di licenza %2."_s.arg(purchase->orderId, purchase->licenseKey));
}

void Purchase::connectResults(Corvane *client)
{
    connect(client, &Corvane::purchaseStarted, this, &Purchase::takeStarted);
    connect(client, &Corvane::purchaseCaptured, this, &Purchase::takeCaptured);
}

// The service may have acted all the same. What is pending stays, so nothing is lost.
void Purchase::handleFailure(const QString &message)
{
    QString hint = u"Riprova."_s;
    if (m_step == Step::Start)
        hint = u"Non viene addebitato nulla senza la tua approvazione: riprova."_s;
    else if (m_step == Step::Capture)
        hint = u"Il pagamento potrebbe essere avvenuto: premi di nuovo «Completa l'acquisto», non "
               "pagherai due volte."_s;
    // The network layer's words are no sentence.
    tell(Message::Warning, message + u'\n' + hint);
}

Corvane *Purchase::begin(Step step, const PendingPurchase &purchase)
{
    Corvane *client = Caller::begin(service().callTimeout);
    m_step = step;
    m_purchase = purchase;
    m_isAbandonWarned = false;
    tell(Message::Information, {});
    return client;
}

void Purchase::takeStarted(const PurchaseStartInfo &answer)
{
    end();
    if (!answer.success && !answer.raw.isEmpty()) {
        tell(Message::Warning, answer.message);
        return;
    }
    PendingPurchase purchase = m_purchase;
    // The answer to a resume may do without.
    if (!answer.paypalOrderId.isEmpty())
        purchase.orderId = answer.paypalOrderId;
    if (!answer.licenseKey.isEmpty())
        purchase.licenseKey = answer.licenseKey;
    if (!answer.approvalUrl.isEmpty() || purchase.orderId != m_purchase.orderId)
        purchase.approvalUrl = answer.approvalUrl;
    // A page say, or half of an answer.
    if (!answer.success || purchase.orderId.isEmpty()) {
        handleFailure(answer.message + u" La risposta del servizio non era leggibile."_s);
        return;
    }
    m_state->setPendingPurchase(purchase);
    tell(Message::Information, u"%1 %2"_s.arg(answer.message, remarkIn(answer.raw)).trimmed());
    openApprovalPage();
}

void Purchase::takeCaptured(const PurchaseCaptureInfo &answer)
{
    end();
    if (answer.paid) {
        // The service may send the key anew.
        const QString key = answer.raw.value("license_key"_L1).toString();
        m_state->setPaid(key.isEmpty() ? m_purchase.licenseKey : key);
        tell(Message::Success, u"%1 %2"_s.arg(answer.message, remarkIn(answer.raw)).trimmed());
        return;
    }
    // Only a service that says so has not taken the payment; an error, or half of an answer, does
    // not say so.
    if (!answer.raw.value("paid"_L1).isBool()) {
        handleFailure(answer.message);
        return;
    }
    m_purchase.mayBePaid = false;
    m_state->setPendingPurchase(m_purchase);
    tell(Message::Warning, answer.message);
}
