#ifndef MAINWINDOW_H
#define MAINWINDOW_H

#include <QtWidgets/qmainwindow.h>

class DesktopHost;
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
    void addPage(QWidget *page, const QString &title);
    void fetchPlans();

    DesktopHost *m_host;
    QTabWidget *m_tabs;
};

#endif // MAINWINDOW_H
