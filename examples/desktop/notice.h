#ifndef NOTICE_H
#define NOTICE_H

#include <QtWidgets/qwidget.h>

class QLabel;

// A line that tells the user how something went, with a symbol; nothing while there is nothing to
// tell. Texts that come from the service are shown as they stand, never as rich text.
class Notice : public QWidget
{
    Q_OBJECT

public:
    enum Kind { Information, Success, Warning };

    explicit Notice(QWidget *parent = nullptr);

    void tell(Kind kind, const QString &text);
    void clear();
    QString text() const;

private:
    QLabel *m_symbol;
    QLabel *m_text;
};

// A label that wraps its text and can be copied from.
QLabel *makeLabel(QWidget *parent, const QString &text = {});

#endif // NOTICE_H
