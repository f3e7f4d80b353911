#ifndef MAINWINDOW_H
#define MAINWINDOW_H

#include <QtWidgets/qmainwindow.h>

class DesktopHost;
class PurchasePage;
class QTabWidget;

class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    // Borrows the host, and looks for updates at once. With faults, shows the panel to choose them.
    explicit MainWindow(DesktopHost *host, bool withFaults = false);

protected:
    void changeEvent(QEvent *event) override;

private:
    void fetchPlans();

    DesktopHost *m_host;
    QTabWidget *m_tabs;
    PurchasePage *m_purchasePage;
};

#endif // MAINWINDOW_H
