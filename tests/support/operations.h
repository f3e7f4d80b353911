#ifndef OPERATIONS_H
#define OPERATIONS_H

#include "corvane.h"

#include <QtCore/qlist.h>

#include <functional>

// One call of each of the seven operations, for tests that go through them all.
struct Operation
{
    const char *name;
    std::function<void(Corvane &)> call;
};

inline QList<Operation> operations(const QUrl &downloadUrl, const QString &destinationPath)
{
    const QString text = QStringLiteral("x");
    return {
        {"usage", [text](Corvane &client) { client.sendUsage(text, text, text, {}); }},
        {"update-check", [text](Corvane &client) { client.checkForUpdate(text, text); }},
        {"update-download",
         [downloadUrl, destinationPath](Corvane &client) {
             client.downloadUpdate(downloadUrl, destinationPath);
         }},
        {"purchase-plans", [](Corvane &client) { client.fetchPurchasePlans(); }},
        {"purchase-start",
         [text](Corvane &client) { client.startPayPalPurchase(text, text, text, text); }},
        {"purchase-resume", [text](Corvane &client) { client.resumePayPalPurchase(text); }},
        {"purchase-capture", [text](Corvane &client) { client.capturePayPalPurchase(text); }},
    };
}

#endif // OPERATIONS_H
