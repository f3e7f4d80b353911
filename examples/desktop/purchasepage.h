#ifndef PURCHASEPAGE_H
#define PURCHASEPAGE_H

#include "notice.h"

#include <QtWidgets/qwidget.h>

class BusyRow;
class Plans;
class PlansModel;
class Purchase;
struct PendingPurchase;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTableView;

// Shows the plans, takes an order, and leads through the payment.
class PurchasePage : public QWidget
{
    Q_OBJECT

public:
    // Borrows both.
    PurchasePage(Plans *plans, Purchase *purchase, QWidget *parent = nullptr);

private:
    void makeLicence();
    void makePlans();
    void makeForm();
    void makePending();
    void cancel();
    void showBusy();
    void showPlans();
    void showPurchase();
    QString describe(const PendingPurchase &purchase) const;
    void buy();
    bool checkPlan();
    bool checkField(QLineEdit *field, bool isValid, const QString &problem);
    void openPage(const QUrl &page);

    Plans *m_plans;
    Purchase *m_purchase;

    // In the order of the Tab key.
    Notice *m_unwritten;
    QWidget *m_licenceRow;
    QLineEdit *m_licence;

    PlansModel *m_model;
    QTableView *m_table;
    Notice *m_plansNotice;
    QPushButton *m_fetch;

    QGroupBox *m_form;
    QLineEdit *m_firstName;
    QLineEdit *m_lastName;
    QLineEdit *m_email;
    QPushButton *m_buy;

    QGroupBox *m_pending;
    QLabel *m_pendingText;
    QLineEdit *m_approvalUrl;
    QPushButton *m_open;
    QPushButton *m_capture;
    QPushButton *m_resume;
    QPushButton *m_abandon;

    BusyRow *m_busy;
    Notice *m_notice;
};

#endif // PURCHASEPAGE_H
