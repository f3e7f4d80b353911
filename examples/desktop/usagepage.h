#ifndef USAGEPAGE_H
#define USAGEPAGE_H

#include <QtWidgets/qwidget.h>

class BusyRow;
class Notice;
class QCheckBox;
class QPlainTextEdit;
class QPushButton;
class Usage;

// Shows what would be sent, and asks whether it may be.
class UsagePage : public QWidget
{
    Q_OBJECT

public:
    // Borrows the usage.
    explicit UsagePage(Usage *usage, QWidget *parent = nullptr);

private:
    void showState();

    Usage *m_usage;
    // In the order of the Tab key.
    QPlainTextEdit *m_preview;
    QCheckBox *m_wanted;
    QPushButton *m_send;
    BusyRow *m_busy;
    Notice *m_notice;
};

#endif // USAGEPAGE_H
