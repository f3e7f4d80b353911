#ifndef MASK_H
#define MASK_H

#include <QtCore/qjsonvalue.h>
#include <QtCore/qstring.h>

// What stands for a licence key or an e-mail address.
QString maskText();

// Without licence keys and e-mail addresses. Texts that are JSON are looked into.
QString masked(const QString &text);
QJsonValue masked(const QJsonValue &value);

#endif // MASK_H
