#include "caller.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace {

// The product code as the library sends it.
Service normalised(Service service)
{
    service.productCode = service.productCode.trimmed().toUpper();
    return service;
}

} // namespace

const Service &Caller::service() const
{
    return m_service;
}

bool Caller::isCalling() const
{
    return m_timeout.isActive();
}

const Message &Caller::message() const
{
    return m_message;
}

void Caller::cancel()
{
    if (!isCalling())
        return;
    giveUp();
    fail(u"Richiesta interrotta."_s);
}

Caller::Caller(const Service &service, QObject *parent)
    : QObject(parent)
    , m_service(normalised(service))
{
    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, [this] {
        giveUp();
        fail(u"La richiesta non è finita nel tempo concesso (%1 s)."_s.arg(m_timeout.interval()
                                                                           / 1000.0));
    });
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
    m_client->blockSignals(true);
    std::exchange(m_client, nullptr)->deleteLater();
}

bool Caller::hasGivenUp() const
{
    return !m_client;
}

void Caller::tell(Message::Kind kind, const QString &text)
{
    m_message = {kind, text};
    Q_EMIT changed();
}

QUrl Caller::webUrl(const QString &text)
{
    const QUrl url(text, QUrl::StrictMode);
    const bool isWeb = url.scheme() == "https"_L1 || url.scheme() == "http"_L1;
    return isWeb && !url.host().isEmpty() ? url : QUrl();
}

QString Caller::remarkIn(const QJsonObject &answer)
{
    return answer.value("error"_L1).toObject().value("message"_L1).toString();
}

void Caller::fail(const QString &message)
{
    Q_EMIT failed(message);
    handleFailure(message);
}

void Caller::makeClient()
{
    m_client = new Corvane(this);
    m_client->setServerUrl(m_service.url);
    m_client->setProductCode(m_service.productCode);
    connectResults(m_client);
    connect(m_client, &Corvane::networkError, this, [this](const QString &message) {
        end();
        fail(message);
    });
    Q_EMIT clientMade(m_client);
}
