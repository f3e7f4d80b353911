#ifndef BUSYROW_H
#define BUSYROW_H

#include <QtCore/qpointer.h>
#include <QtWidgets/qwidget.h>

#include <functional>

class QPushButton;

// The sign that something is under way, of which nobody can tell how far it is, with a button to
// stop it.
class BusyRow : public QWidget
{
    Q_OBJECT

public:
    explicit BusyRow(const QString &name, QWidget *parent = nullptr);

    // Shows whether something is under way and can be stopped. Calls enable() to have buttons
    // enabled and disabled: what loses the focus by that has it back in the end.
    void follow(bool isBusy, bool canCancel, const std::function<void()> &enable);

Q_SIGNALS:
    void cancelled();

private:
    void giveFocusBack();

    QPushButton *m_cancel;
    QPointer<QWidget> m_focused;
};

#endif // BUSYROW_H
