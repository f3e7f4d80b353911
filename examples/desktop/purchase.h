#ifndef PURCHASE_H
#define PURCHASE_H

#include "caller.h"
#include "keptstate.h"
#include "notice.h"

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
    // Empty before anything was paid.
    QString licenseKey() const;
    QString stateFile() const;
    // The buyer was sent to the approval page, and no capture has been tried since.
    bool isApprovalExpected() const;

    // Only while no purchase is pending.
    void start(const QString &planCode, const Buyer &buyer);
    // These need a pending purchase.
    void openApprovalPage();
    void capture();
    void resume();
    // Nothing is charged for an order that is not captured.
    void abandon();
    void cancel();

Q_SIGNALS:
    // What is pending, the licence, or whether a call is under way.
    void changed();
    void told(Notice::Kind kind, const QString &text);
    // To be opened in a browser.
    void approvalNeeded(const QUrl &page);

protected:
    void connectResults(Corvane *client) override;
    void handleFailure(const QString &message) override;

private:
    enum class Step { None, Start, Resume, Capture };

    Corvane *beginStep(Step step);
    void takeStarted(const PurchaseStartInfo &purchase);
    void takeCaptured(const PurchaseCaptureInfo &capture);
    void tellRefusal(const QString &message, bool isReadable);

    KeptState *m_state;
    // Of the call under way. A start and a resume are answered by the same signal, and any failure
    // by one that names no call.
    Step m_step = Step::None;
    // Of a start under way.
    QString m_plan;
    bool m_isApprovalExpected = false;
};

#endif // PURCHASE_H
