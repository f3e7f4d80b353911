#ifndef NOTICE_H
#define NOTICE_H

#include "caller.h"

#include <QtWidgets/qwidget.h>

class QLabel;

// A line that tells the user how something went, with a symbol; nothing while there is nothing to
// tell.
class Notice : public QWidget
{
    Q_OBJECT

public:
    explicit Notice(QWidget *parent = nullptr);

    void tell(const Message &message);

private:
    QLabel *m_symbol;
    QLabel *m_text;
};

// A label that wraps its text and can be copied from. It shows texts as they stand: they may come
// from the service, and must not be taken for rich text.
QLabel *makeLabel(QWidget *parent, const QString &text = {});

#endif // NOTICE_H
