#ifndef RECORDS_H
#define RECORDS_H

#include "sides.h"

#include <corvanetypes.h>

#include <QtCore/qjsonarray.h>
#include <QtCore/qpair.h>

// What the sides that are written by hand share: the requests, and the records out of the replies,
// as an application would write them.
struct Records
{
    UpdateInfo update;
    QJsonArray plans;
    PurchaseStartInfo start;
    PurchaseCaptureInfo capture;
    QPair<bool, QString> usage;

    void read(Call call, const QByteArray &body);
};

QString pathOf(Call call, const QString &product);
// Of a POST.
QByteArray bodyOf(Call call, const QString &product);
void save(const QByteArray &body, const QString &destination);

#endif // RECORDS_H
