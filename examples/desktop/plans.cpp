#include "plans.h"

Plans::Plans(const Service &service, QObject *parent)
    : Caller(service, parent)
{
}

void Plans::fetch()
{
    if (isCalling())
        return;
    Corvane *client = begin(service().callTimeout);
    Q_EMIT begun();
    client->fetchPurchasePlans();
}

void Plans::cancel()
{
    if (!isCalling())
        return;
    giveUp();
    Q_EMIT cancelled();
}

void Plans::connectResults(Corvane *client)
{
    connect(client, &Corvane::purchasePlansReceived, this, [this](const QJsonArray &plans) {
        end();
        Q_EMIT received(plans);
    });
}

void Plans::handleFailure(const QString &message)
{
    Q_EMIT failed(message);
}
