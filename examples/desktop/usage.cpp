#include "usage.h"

#include <QtCore/qlocale.h>
#include <QtCore/qsysinfo.h>
#include <QtCore/quuid.h>

using namespace Qt::StringLiterals;

namespace {

const auto eventType = u"session-start"_s;

QString drawMachineId()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

} // namespace

Usage::Usage(const Service &service, KeptState *state, QObject *parent)
    : Caller(service, parent)
    , m_state(state)
    , m_machineId(isWanted() ? state->machineId() : drawMachineId())
{
}

bool Usage::isWanted() const
{
    return !m_state->machineId().isEmpty();
}

void Usage::setWanted(bool isWanted)
{
    if (isWanted == this->isWanted())
        return;
    if (!isWanted) {
        cancel();
        // The service may know the client by its cookies.
        giveUp();
        m_machineId = drawMachineId();
    }
    m_state->setMachineId(isWanted ? m_machineId : QString());
    if (m_state->isWritten())
        Q_EMIT changed();
    else
        tell(Message::Warning,
             u"La scelta vale fino alla chiusura: %1 non può essere scritto."_s.arg(
                 m_state->file()));
}

QJsonObject Usage::preview() const
{
    QJsonObject object = payload();
    object.insert("product_code"_L1, service().productCode);
    object.insert("license_key"_L1, licenseKey().trimmed());
    object.insert("machine_fingerprint"_L1, m_machineId);
    object.insert("event_type"_L1, eventType);
    return object;
}

void Usage::send()
{
    if (!isWanted() || isCalling())
        return;
    Corvane *client = begin(service().callTimeout);
    tell(Message::Information, {});
    client->sendUsage(licenseKey(), m_machineId, eventType, payload());
}

void Usage::connectResults(Corvane *client)
{
    connect(client, &Corvane::usageSent, this, &Usage::takeSent);
}

void Usage::handleFailure(const QString &message)
{
    // The service may have got them all the same.
    tell(Message::Warning, u"Invio non confermato. "_s + message);
}

QJsonObject Usage::payload() const
{
    return {{u"app_version"_s, service().installedVersion},
            {u"language"_s, QLocale::system().name()},
            {u"system"_s, QSysInfo::prettyProductName()}};
}

QString Usage::licenseKey() const
{
    return m_state->licenseKeys().value(m_state->licenseKeys().size() - 1);
}

// The service may have something to say in either case.
void Usage::takeSent(bool isAccepted, const QString &message)
{
    end();
    // A page of somebody else's instead of the service's answer has nothing to say.
    if (!isAccepted && message.isEmpty())
        tell(Message::Warning, u"Invio non confermato dal servizio."_s);
    else if (isAccepted)
        tell(Message::Success, u"Dati inviati. %1"_s.arg(message).trimmed());
    else
        tell(Message::Warning, u"Dati non accettati dal servizio. "_s + message);
}
