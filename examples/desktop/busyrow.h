#ifndef BUSYROW_H
#define BUSYROW_H

#include <QtCore/qpointer.h>
#include <QtWidgets/qwidget.h>

class QPushButton;

// The sign that something is under way, of which nobody can tell how far it is, with a button to
// stop it.
class BusyRow : public QWidget
{
    Q_OBJECT

public:
    explicit BusyRow(const QString &name, QWidget *parent = nullptr);

    // Buttons that lose the focus meanwhile get it back: begin before they are disabled, and end
    // when they are enabled.
    void begin();
    void end();

Q_SIGNALS:
    void cancelled();

private:
    QPushButton *m_cancel;
    QPointer<QWidget> m_focused;
};

#endif // BUSYROW_H
