#include "notice.h"

#include <QtGui/qaccessible.h>
#include <QtWidgets/qboxlayout.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qstyle.h>

#include <array>

Notice::Notice(QWidget *parent)
    : QWidget(parent)
    , m_symbol(new QLabel(this))
    , m_text(makeLabel(this))
{
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins({});
    layout->addWidget(m_symbol, 0, Qt::AlignTop);
    layout->addWidget(m_text, 1);
    hide();
}

void Notice::tell(const Message &message)
{
    const bool isNews = message.text != m_text->text();
    m_text->setText(message.text);
    setVisible(!message.text.isEmpty());
    if (message.text.isEmpty())
        return;
    // In the order of Message::Kind.
    static constexpr std::array symbols = {QStyle::SP_MessageBoxInformation,
                                           QStyle::SP_DialogApplyButton,
                                           QStyle::SP_MessageBoxWarning};
    const int size = style()->pixelMetric(QStyle::PM_SmallIconSize, nullptr, this);
    m_symbol->setPixmap(style()
                            ->standardIcon(symbols.at(message.kind), nullptr, this)
                            .pixmap(QSize(size, size), devicePixelRatioF()));
    if (!isNews)
        return;
    // Read out without the focus going anywhere.
    QAccessibleEvent alert(m_text, QAccessible::Alert);
    QAccessible::updateAccessibility(&alert);
}

QLabel *makeLabel(QWidget *parent, const QString &text)
{
    auto *label = new QLabel(text, parent);
    label->setTextFormat(Qt::PlainText);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setWordWrap(true);
    // However long a word the service sends, the window does not become as wide.
    label->setMinimumWidth(1);
    return label;
}
