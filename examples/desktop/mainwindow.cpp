#include "mainwindow.h"

#include "desktophost.h"
#include "faultpanel.h"
#include "purchasepage.h"
#include "updatespage.h"
#include "usagepage.h"

#include <QtCore/qcoreevent.h>
#include <QtGui/qscreen.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qscrollarea.h>
#include <QtWidgets/qstatusbar.h>
#include <QtWidgets/qtabwidget.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int purchaseTab = 1;

} // namespace

MainWindow::MainWindow(DesktopHost *host, bool withFaults)
    : m_host(host)
    , m_tabs(new QTabWidget(this))
{
    const Service &service = host->updates.service();
    setWindowTitle(u"Applicazione d'esempio"_s);
    addPage(new UpdatesPage(&host->updates, this), u"Aggio&rnamenti"_s);
    addPage(new PurchasePage(&host->plans, &host->purchase, this), u"Ac&quisto"_s);
    addPage(new UsagePage(&host->usage, this), u"&Utilizzo"_s);
    setCentralWidget(m_tabs);
    // In letters, whatever the font and the screen.
    const QSize size(fontMetrics().averageCharWidth() * (withFaults ? 150 : 110),
                     fontMetrics().lineSpacing() * 38);
    resize(size.boundedTo(screen()->availableSize()));
    statusBar()->addWidget(makeLabel(this,
                                     u"Servizio: %1. Prodotto: %2."_s.arg(
                                         service.url.toDisplayString(), service.productCode)),
                           1);
    if (withFaults)
        addDockWidget(Qt::RightDockWidgetArea, new FaultPanel(service, this));

    connect(m_tabs, &QTabWidget::currentChanged, this, &MainWindow::fetchPlans);

    host->updates.check();
    host->usage.send();
    if (host->purchase.pending())
        m_tabs->setCurrentIndex(purchaseTab);
}

// The buyer comes back from the browser.
void MainWindow::changeEvent(QEvent *event)
{
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::ActivationChange && isActiveWindow()
        && m_host->purchase.isApprovalExpected())
        m_host->purchase.capture();
}

// On a small screen, or in large letters, a page is scrolled.
void MainWindow::addPage(QWidget *page, const QString &title)
{
    auto *area = new QScrollArea(this);
    area->setFrameShape(QFrame::NoFrame);
    area->setWidgetResizable(true);
    area->setFocusPolicy(Qt::NoFocus);
    area->setWidget(page);
    m_tabs->addTab(area, title);
}

// When they are first looked at.
void MainWindow::fetchPlans()
{
    if (m_tabs->currentIndex() == purchaseTab && m_host->plans.plans().isEmpty())
        m_host->plans.fetch();
}
