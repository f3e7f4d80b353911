#include "purchase.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace {

// The page is opened by whatever program the system has for the address: nothing but a web page.
QUrl approvalPage(const PendingPurchase &purchase)
{
    const QUrl url(purchase.approvalUrl, QUrl::StrictMode);
    return url.scheme() == "https"_L1 || url.scheme() == "http"_L1 ? url : QUrl();
}

} // namespace

Purchase::Purchase(const Service &service, KeptState *state, QObject *parent)
    : Caller(service, parent)
    , m_state(state)
{
}

std::optional<PendingPurchase> Purchase::pending() const
{
    return m_state->pendingPurchase();
}

QString Purchase::licenseKey() const
{
    return m_state->licenseKey();
}

QString Purchase::stateFile() const
{
    return m_state->file();
}

bool Purchase::isApprovalExpected() const
{
    return m_isApprovalExpected;
}

void Purchase::start(const QString &planCode, const Buyer &buyer)
{
    if (isCalling() || pending())
        return;
    m_plan = planCode;
    beginStep(Step::Start)
        ->startPayPalPurchase(planCode, buyer.firstName, buyer.lastName, buyer.email);
}

void Purchase::openApprovalPage()
{
    if (!pending())
        return;
    const QUrl page = approvalPage(*pending());
    if (!page.isValid()) {
        Q_EMIT told(Notice::Warning,
                    u"Il servizio non ha indicato una pagina di pagamento: riprendi l'acquisto."_s);
        return;
    }
    m_isApprovalExpected = true;
    Q_EMIT approvalNeeded(page);
}

void Purchase::capture()
{
    if (isCalling() || !pending())
        return;
    m_isApprovalExpected = false;
    const QString orderId = pending()->orderId;
    beginStep(Step::Capture)->capturePayPalPurchase(orderId);
}

void Purchase::resume()
{
    if (isCalling() || !pending())
        return;
    const QString key = pending()->licenseKey;
    beginStep(Step::Resume)->resumePayPalPurchase(key);
}

void Purchase::abandon()
{
    if (isCalling() || !pending())
        return;
    m_isApprovalExpected = false;
    m_state->forgetPendingPurchase();
    Q_EMIT changed();
    Q_EMIT told(Notice::Information, u"Acquisto abbandonato: non viene addebitato nulla."_s);
}

void Purchase::cancel()
{
    if (!isCalling())
        return;
    giveUp();
    handleFailure(u"Richiesta interrotta."_s);
}

void Purchase::connectResults(Corvane *client)
{
    connect(client, &Corvane::purchaseStarted, this, &Purchase::takeStarted);
    connect(client, &Corvane::purchaseCaptured, this, &Purchase::takeCaptured);
}

void Purchase::handleFailure(const QString &message)
{
    const Step step = std::exchange(m_step, Step::None);
    Q_EMIT changed();
    // The service may have acted all the same. What is pending stays, so nothing is lost.
    Q_EMIT told(
        Notice::Warning,
        message + u' '
            + (step == Step::Capture
                   ? u"Il pagamento potrebbe essere avvenuto: completa di nuovo, non pagherai "
                     "due volte."_s
                   : u"Non viene addebitato nulla senza la tua approvazione: riprova."_s));
}

Corvane *Purchase::beginStep(Step step)
{
    Corvane *client = begin(service().callTimeout);
    m_step = step;
    Q_EMIT changed();
    return client;
}

void Purchase::takeStarted(const PurchaseStartInfo &purchase)
{
    end();
    const Step step = std::exchange(m_step, Step::None);
    if (!purchase.success) {
        Q_EMIT changed();
        tellRefusal(purchase.message, !purchase.raw.isEmpty());
        return;
    }
    PendingPurchase kept = step == Step::Resume ? *pending() : PendingPurchase{m_plan, {}, {}, {}};
    kept.orderId = purchase.paypalOrderId;
    kept.approvalUrl = purchase.approvalUrl;
    // The answer to a resume may do without.
    if (!purchase.licenseKey.isEmpty())
        kept.licenseKey = purchase.licenseKey;
    const bool isKept = m_state->setPendingPurchase(kept);
    Q_EMIT changed();
    if (isKept)
        Q_EMIT told(Notice::Information, purchase.message);
    else
        Q_EMIT told(
            Notice::Warning,
            purchase.message + u' '
                + u"Completa l'acquisto prima di chiudere: %1 non può essere scritto."_s.arg(
                    stateFile()));
    openApprovalPage();
}

void Purchase::takeCaptured(const PurchaseCaptureInfo &capture)
{
    end();
    m_step = Step::None;
    if (!capture.paid) {
        Q_EMIT changed();
        tellRefusal(capture.message, !capture.raw.isEmpty());
        return;
    }
    // The service may send the key anew.
    const QString key = capture.raw.value("license_key"_L1).toString(pending()->licenseKey);
    const bool isKept = m_state->setPaid(key);
    Q_EMIT changed();
    if (isKept)
        Q_EMIT told(Notice::Success, capture.message);
    else
        Q_EMIT told(
            Notice::Warning,
            capture.message + u' '
                + u"Annota la chiave di licenza: %1 non può essere scritto."_s.arg(stateFile()));
}

// A reply that could not be read, a page say or half of an answer, refuses nothing.
void Purchase::tellRefusal(const QString &message, bool isReadable)
{
    Q_EMIT told(Notice::Warning,
                isReadable
                    ? message
                    : message + u' ' + u"La risposta del servizio non era leggibile: riprova."_s);
}
