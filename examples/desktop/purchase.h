#ifndef PURCHASE_H
#define PURCHASE_H

#include "caller.h"
#include "keptstate.h"

struct Buyer
{
    QString firstName;
    QString lastName;
    QString email;
};

// Buys a plan: start, approval by the buyer in a browser, capture. A purchase that is not finished
// is kept on disk and can be resumed.
class Purchase : public Caller
{
    Q_OBJECT

public:
    // Borrows the state.
    Purchase(const Service &service, KeptState *state, QObject *parent = nullptr);

    // A purchase that was started and neither paid nor abandoned.
    std::optional<PendingPurchase> pending() const;
    // Of all that was paid.
    QStringList licenseKeys() const;
    QString stateFile() const;
    // False if the file could not be written, and all of this ends with the application.
    bool isKept() const;
    // The buyer was asked to approve, and no capture has been tried since.
    bool isApprovalExpected() const;

    // Only while no purchase is pending.
    void start(const QString &planCode, const Buyer &buyer);
    // Only while one is, and no payment may have been taken.
    void openApprovalPage();
    void resume();
    // Only while one is. Nothing is charged for an order that is not captured; if the payment may
    // have been taken, the user has to insist.
    void capture();
    void abandon();

Q_SIGNALS:
    // To be opened in a browser.
    void approvalNeeded(const QUrl &page);

protected:
    void connectResults(Corvane *client) override;
    void handleFailure(const QString &message) override;

private:
    enum class Step { Start, Resume, Capture };

    Corvane *begin(Step step, const PendingPurchase &purchase);
    void takeStarted(const PurchaseStartInfo &answer);
    void takeCaptured(const PurchaseCaptureInfo &answer);

    KeptState *m_state;
    // Of the call under way. A start and a resume are answered by the same signal, and any failure
    // by one that names no call.
    Step m_step = Step::Start;
    // What it is about: of a start, the plan alone.
    PendingPurchase m_purchase;
    bool m_isApprovalExpected = false;
    bool m_isAbandonWarned = false;
};

#endif // PURCHASE_H
