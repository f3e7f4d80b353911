#include "mainwindow.h"

#include "desktophost.h"
#include "faultpanel.h"
#include "purchasepage.h"
#include "updatespage.h"
#include "usagepage.h"

#include <QtCore/qcoreevent.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qstatusbar.h>
#include <QtWidgets/qtabwidget.h>

using namespace Qt::StringLiterals;

MainWindow::MainWindow(DesktopHost *host, bool withFaults)
    : m_host(host)
    , m_tabs(new QTabWidget(this))
    , m_purchasePage(new PurchasePage(&host->plans, &host->purchase, this))
{
    const Service &service = host->updates.service();
    setWindowTitle(u"Applicazione d'esempio"_s);
    auto *usagePage = new UsagePage(&host->usage, this);
    m_tabs->addTab(new UpdatesPage(&host->updates, this), u"Aggio&rnamenti"_s);
    m_tabs->addTab(m_purchasePage, u"Ac&quisto"_s);
    m_tabs->addTab(usagePage, u"&Utilizzo"_s);
    setCentralWidget(m_tabs);
    // In letters, whatever the font and the screen.
    resize(fontMetrics().averageCharWidth() * (withFaults ? 150 : 110),
           fontMetrics().lineSpacing() * 38);
    statusBar()->addWidget(makeLabel(this,
                                     u"Servizio: %1. Prodotto: %2."_s.arg(
                                         service.url.toDisplayString(), service.productCode)),
                           1);
    if (withFaults)
        addDockWidget(Qt::RightDockWidgetArea, new FaultPanel(service.url, this));

    connect(m_tabs, &QTabWidget::currentChanged, this, &MainWindow::fetchPlans);
    // The licence is a part of what is sent.
    connect(&host->purchase, &Purchase::changed, usagePage, &UsagePage::showState);

    host->updates.check();
    host->usage.send();
    if (host->purchase.pending())
        m_tabs->setCurrentWidget(m_purchasePage);
}

// The buyer comes back from the browser.
void MainWindow::changeEvent(QEvent *event)
{
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::ActivationChange && isActiveWindow()
        && m_host->purchase.isApprovalExpected())
        m_host->purchase.capture();
}

// Once they are to be seen.
void MainWindow::fetchPlans()
{
    if (m_tabs->currentWidget() == m_purchasePage)
        m_host->plans.fetch();
}
