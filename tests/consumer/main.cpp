#include <corvane.h>

#include <QtCore/qcoreapplication.h>

Corvane *makeClient(QObject *parent);

// Passes when an unconfigured call is refused within the call.
int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    Corvane *client = makeClient(&application);
    QString refusal;
    QObject::connect(client, &Corvane::networkError, client,
                     [&refusal](const QString &message) { refusal = message; });
    client->fetchPurchasePlans();
    return refusal.isEmpty() ? 1 : 0;
}
