#include "purchasepage.h"

#include "busyrow.h"
#include "plans.h"
#include "plansmodel.h"
#include "purchase.h"

#include <QtCore/qregularexpression.h>
#include <QtGui/qdesktopservices.h>
#include <QtWidgets/qboxlayout.h>
#include <QtWidgets/qformlayout.h>
#include <QtWidgets/qgroupbox.h>
#include <QtWidgets/qheaderview.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qlineedit.h>
#include <QtWidgets/qpushbutton.h>
#include <QtWidgets/qtableview.h>

using namespace Qt::StringLiterals;

namespace {

bool isEmailAddress(const QString &text)
{
    // Whether it can be reached is the service's to find out.
    static const QRegularExpression address(u"\\A[^\\s@]+@[^\\s@]+\\z"_s);
    return address.match(text.trimmed()).hasMatch();
}

} // namespace

PurchasePage::PurchasePage(Plans *plans, Purchase *purchase, QWidget *parent)
    : QWidget(parent)
    , m_plans(plans)
    , m_purchase(purchase)
    , m_unwritten(new Notice(this))
    , m_licenceRow(new QWidget(this))
    , m_licence(new QLineEdit(m_licenceRow))
    , m_model(new PlansModel(this))
    , m_table(new QTableView(this))
    , m_plansNotice(new Notice(this))
    , m_fetch(new QPushButton(u"Aggiorna l'elen&co"_s, this))
    , m_form(new QGroupBox(u"Acquirente"_s, this))
    , m_firstName(new QLineEdit(m_form))
    , m_lastName(new QLineEdit(m_form))
    , m_email(new QLineEdit(m_form))
    , m_buy(new QPushButton(u"Acquista con &PayPal"_s, m_form))
    , m_pending(new QGroupBox(u"Acquisto in sospeso"_s, this))
    , m_pendingText(makeLabel(m_pending))
    , m_approvalUrl(new QLineEdit(m_pending))
    , m_open(new QPushButton(u"Apri la pagina di pag&amento"_s, m_pending))
    , m_capture(new QPushButton(u"Comple&ta l'acquisto"_s, m_pending))
    , m_resume(new QPushButton(u"R&iprendi"_s, m_pending))
    , m_abandon(new QPushButton(u"A&bbandona"_s, m_pending))
    , m_busy(new BusyRow(u"Richiesta in corso"_s, this))
    , m_notice(new Notice(this))
{
    setObjectName(u"purchase"_s);
    makeLicence();
    makePlans();
    makeForm();
    makePending();
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_unwritten);
    layout->addWidget(m_licenceRow);
    layout->addWidget(m_table, 1);
    layout->addWidget(m_plansNotice);
    layout->addWidget(m_fetch, 0, Qt::AlignLeft);
    layout->addWidget(m_form);
    layout->addWidget(m_pending);
    layout->addWidget(m_busy);
    layout->addWidget(m_notice);

    connect(m_busy, &BusyRow::cancelled, this, &PurchasePage::cancel);
    connect(m_purchase, &Purchase::changed, this, &PurchasePage::showPurchase);
    connect(m_purchase, &Purchase::approvalNeeded, this, &PurchasePage::openPage);
    showPurchase();
}

void PurchasePage::makeLicence()
{
    m_unwritten->tell(
        {Message::Warning,
         u"%1 non può essere scritto: completa l'acquisto prima di chiudere, e annota "
         "la chiave di licenza."_s.arg(m_purchase->stateFile())});
    m_licence->setReadOnly(true);
    auto *layout = new QFormLayout(m_licenceRow);
    layout->setContentsMargins({});
    layout->addRow(u"Chia&ve di licenza"_s, m_licence);
}

void PurchasePage::makePlans()
{
    m_table->setModel(m_model);
    m_table->setAccessibleName(u"Piani in vendita"_s);
    m_table->setSelectionBehavior(QTableView::SelectRows);
    m_table->setSelectionMode(QTableView::SingleSelection);
    m_table->setTabKeyNavigation(false);
    m_table->setWordWrap(true);
    m_table->verticalHeader()->hide();
    m_table->verticalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    QHeaderView *columns = m_table->horizontalHeader();
    columns->setSectionResizeMode(QHeaderView::ResizeToContents);
    columns->setMaximumSectionSize(fontMetrics().averageCharWidth() * 50);
    columns->setStretchLastSection(true);

    connect(m_fetch, &QPushButton::clicked, m_plans, &Plans::fetch);
    connect(m_plans, &Plans::changed, this, &PurchasePage::showPlans);
}

void PurchasePage::makeForm()
{
    auto *layout = new QFormLayout(m_form);
    layout->addRow(u"&Nome"_s, m_firstName);
    layout->addRow(u"Co&gnome"_s, m_lastName);
    layout->addRow(u"&E-mail"_s, m_email);
    layout->addRow(m_buy);
    connect(m_buy, &QPushButton::clicked, this, &PurchasePage::buy);
    for (const QLineEdit *field : {m_firstName, m_lastName, m_email})
        connect(field, &QLineEdit::returnPressed, this, &PurchasePage::buy);
}

void PurchasePage::makePending()
{
    m_pendingText->setTextInteractionFlags(Qt::TextSelectableByMouse
                                           | Qt::TextSelectableByKeyboard);
    m_approvalUrl->setReadOnly(true);
    m_approvalUrl->setAccessibleName(u"Indirizzo della pagina di pagamento"_s);
    auto *buttons = new QHBoxLayout;
    for (QPushButton *button : {m_open, m_capture, m_resume, m_abandon})
        buttons->addWidget(button);
    auto *layout = new QVBoxLayout(m_pending);
    layout->addWidget(m_pendingText);
    layout->addWidget(m_approvalUrl);
    layout->addLayout(buttons);

    connect(m_open, &QPushButton::clicked, m_purchase, &Purchase::openApprovalPage);
    connect(m_capture, &QPushButton::clicked, m_purchase, &Purchase::capture);
    connect(m_resume, &QPushButton::clicked, m_purchase, &Purchase::resume);
    connect(m_abandon, &QPushButton::clicked, m_purchase, &Purchase::abandon);
}

// One at a time: whoever stops the payment does not mean the plans.
void PurchasePage::cancel()
{
    if (m_purchase->isCalling())
        m_purchase->cancel();
    else
        m_plans->cancel();
}

void PurchasePage::showBusy()
{
    const bool isPurchasing = m_purchase->isCalling();
    const bool isBusy = isPurchasing || m_plans->isCalling();
    const std::optional<PendingPurchase> pending = m_purchase->pending();
    m_busy->follow(isBusy, isBusy, [&] {
        m_fetch->setEnabled(!isBusy);
        m_form->setEnabled(!isPurchasing);
        m_pending->setEnabled(!isPurchasing);
        // Whoever may have paid is not asked to pay again.
        m_open->setEnabled(pending && !pending->mayBePaid);
        m_resume->setEnabled(pending && !pending->mayBePaid);
    });
}

void PurchasePage::showPlans()
{
    showBusy();
    m_plansNotice->tell(m_plans->message());
    // Otherwise the choice stays.
    if (m_plans->plans() == m_model->plans())
        return;
    m_model->setPlans(m_plans->plans());
    m_table->setColumnHidden(PlansModel::Others, !m_model->hasOthers());
}

void PurchasePage::showPurchase()
{
    const std::optional<PendingPurchase> pending = m_purchase->pending();
    m_form->setVisible(!pending);
    m_pending->setVisible(pending.has_value());
    if (pending) {
        m_pendingText->setText(describe(*pending));
        m_approvalUrl->setText(pending->approvalUrl);
        m_approvalUrl->setCursorPosition(0);
    }
    m_licence->setText(m_purchase->licenseKeys().join(u", "_s));
    m_licenceRow->setVisible(!m_purchase->licenseKeys().isEmpty());
    m_unwritten->setVisible(!m_purchase->isKept());
    showBusy();
    m_notice->tell(m_purchase->message());
}

QString PurchasePage::describe(const PendingPurchase &purchase) const
{
    const QString what = u"Piano %1, ordine %2, chiave di licenza %3."_s.arg(
        purchase.plan, purchase.orderId, purchase.licenseKey);
    const QString next = purchase.mayBePaid
        ? u"Il pagamento potrebbe essere avvenuto: premi «Completa l'acquisto»."_s
        : u"Approva il pagamento nel browser e torna qui; se l'acquisto non si completa da sé, "
          u"premi "
          "«Completa l'acquisto»."_s;
    const QString where = m_purchase->isKept()
        ? u"Questi dati restano in %1, anche dopo la chiusura."_s.arg(m_purchase->stateFile())
        : QString();
    return u"%1 %2 %3"_s.arg(what, next, where).trimmed();
}

void PurchasePage::buy()
{
    const bool isComplete = checkPlan()
        && checkField(m_firstName, !m_firstName->text().trimmed().isEmpty(), u"Indica il nome."_s)
        && checkField(m_lastName, !m_lastName->text().trimmed().isEmpty(), u"Indica il cognome."_s)
        && checkField(m_email, isEmailAddress(m_email->text()),
                      u"Indica un indirizzo e-mail, per esempio ada@example.org."_s);
    if (!isComplete)
        return;
    m_purchase->start(m_model->planCode(m_table->selectionModel()->selectedRows().constFirst()),
                      {m_firstName->text(), m_lastName->text(), m_email->text()});
}

bool PurchasePage::checkPlan()
{
    if (m_table->selectionModel()->hasSelection())
        return true;
    m_notice->tell({Message::Warning, u"Scegli un piano nell'elenco."_s});
    m_table->setFocus();
    return false;
}

bool PurchasePage::checkField(QLineEdit *field, bool isValid, const QString &problem)
{
    if (isValid)
        return true;
    m_notice->tell({Message::Warning, problem});
    field->setFocus();
    return false;
}

void PurchasePage::openPage(const QUrl &page)
{
    if (!QDesktopServices::openUrl(page))
        m_notice->tell({Message::Warning,
                        u"Impossibile aprire il browser: copia l'indirizzo della pagina."_s});
}
