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

void BusyRow::begin()
{
    if (!isHidden())
        return;
    QWidget *focused = window()->focusWidget();
    show();
    // The user may be elsewhere, on another page say.
    if (!focused || !parentWidget()->isAncestorOf(focused))
        return;
    m_focused = focused;
    m_cancel->setFocus();
}

void BusyRow::end()
{
    const bool hasFocus = window()->focusWidget() == m_cancel;
    QWidget *focused = m_focused;
    // It may be of no use any more; then the focus goes to what is next.
    if (hasFocus && focused && focused->isVisible() && focused->isEnabled())
        focused->setFocus();
    m_focused.clear();
    hide();
}
