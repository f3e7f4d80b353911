#include "plans.h"

using namespace Qt::StringLiterals;

Plans::Plans(const Service &service, QObject *parent)
    : Caller(service, parent)
{
}

const QJsonArray &Plans::plans() const
{
    return m_plans;
}

void Plans::fetch()
{
    if (isCalling())
        return;
    Corvane *client = begin(service().callTimeout);
    tell(Message::Information, {});
    client->fetchPurchasePlans();
}

void Plans::connectResults(Corvane *client)
{
    connect(client, &Corvane::purchasePlansReceived, this, &Plans::takePlans);
}

// The plans that are there may still be on offer.
void Plans::handleFailure(const QString &message)
{
    tell(Message::Warning, u"Piani non ricevuti. "_s + message);
}

void Plans::takePlans(const QJsonArray &plans)
{
    end();
    m_plans = plans;
    // A page of somebody else's instead of the service's answer looks the same.
    if (plans.isEmpty())
        tell(Message::Warning, u"Il servizio non ha indicato alcun piano."_s);
    else
        tell(Message::Information, {});
}
