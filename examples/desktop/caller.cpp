#include "caller.h"

#include <utility>

using namespace Qt::StringLiterals;

Caller::Caller(const Service &service, QObject *parent)
    : QObject(parent)
    , m_service(service)
{
    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, [this] {
        giveUp();
        handleFailure(
            u"Il servizio non ha risposto entro %1 secondi."_s.arg(m_timeout.interval() / 1000.0));
    });
}

const Service &Caller::service() const
{
    return m_service;
}

bool Caller::isCalling() const
{
    return m_timeout.isActive();
}

Corvane *Caller::begin(std::chrono::milliseconds timeout)
{
    Q_ASSERT(!isCalling());
    if (!m_client)
        makeClient();
    m_timeout.start(timeout);
    return m_client;
}

void Caller::end()
{
    m_timeout.stop();
}

void Caller::giveUp()
{
    end();
    if (!m_client)
        return;
    m_client->disconnect();
    std::exchange(m_client, nullptr)->deleteLater();
}

void Caller::makeClient()
{
    m_client = new Corvane(this);
    m_client->setServerUrl(m_service.url);
    m_client->setProductCode(m_service.productCode);
    connectResults(m_client);
    connect(m_client, &Corvane::networkError, this, [this](const QString &message) {
        end();
        handleFailure(message);
    });
    Q_EMIT clientMade(m_client);
}
