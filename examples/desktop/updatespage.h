#ifndef UPDATESPAGE_H
#define UPDATESPAGE_H

#include "updates.h"

#include <QtWidgets/qwidget.h>

class BusyRow;
class Notice;
class QLabel;
class QPlainTextEdit;
class QPushButton;

// Shows the updates, and what the user can do about them.
class UpdatesPage : public QWidget
{
    Q_OBJECT

public:
    // Borrows the updates.
    explicit UpdatesPage(Updates *updates, QWidget *parent = nullptr);

private:
    void showState();
    void openFolder();

    Updates *m_updates;
    // In the order of the Tab key.
    QPushButton *m_check;
    QPushButton *m_download;
    QPushButton *m_openFolder;
    BusyRow *m_busy;
    Notice *m_notice;
    QLabel *m_notesLabel;
    QPlainTextEdit *m_notes;
};

#endif // UPDATESPAGE_H
