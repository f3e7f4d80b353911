#include "busyrow.h"

#include <QtWidgets/qboxlayout.h>
#include <QtWidgets/qprogressbar.h>
#include <QtWidgets/qpushbutton.h>

using namespace Qt::StringLiterals;

BusyRow::BusyRow(const QString &name, QWidget *parent)
    : QWidget(parent)
    , m_cancel(new QPushButton(u"Annu&lla"_s, this))
{
    auto *bar = new QProgressBar(this);
    bar->setRange(0, 0);
    bar->setTextVisible(false);
    bar->setAccessibleName(name);
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins({});
    layout->addWidget(bar, 1);
    layout->addWidget(m_cancel);
    connect(m_cancel, &QPushButton::clicked, this, &BusyRow::cancelled);

    // What is below does not jump.
    QSizePolicy policy = sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    setSizePolicy(policy);
    hide();
}

void BusyRow::follow(bool isBusy, bool canCancel, const std::function<void()> &enable)
{
    QWidget *focused = window()->focusWidget();
    const bool hadFocus = focused == m_cancel;
    setVisible(isBusy);
    m_cancel->setEnabled(canCancel);
    enable();

    // The user may be elsewhere, and stays there.
    const bool isLost = focused && parentWidget()->isAncestorOf(focused) && !focused->isEnabled();
    if (isBusy && canCancel && isLost) {
        m_focused = focused;
        m_cancel->setFocus();
    } else if (hadFocus && !canCancel) {
        giveFocusBack();
    }
}

void BusyRow::giveFocusBack()
{
    QWidget *focused = m_focused;
    m_focused.clear();
    // It may be of no use any more; then the focus goes to what is next.
    if (focused && focused->isVisible() && focused->isEnabled())
        focused->setFocus();
}
