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

void Usage::setWanted(bool wanted)
{
    if (wanted == isWanted())
        return;
    if (!wanted) {
        cancel();
        m_machineId = drawMachineId();
    }
    if (!m_state->setMachineId(wanted ? m_machineId : QString()))
        Q_EMIT told(Notice::Warning,
                    u"La scelta vale fino alla chiusura: %1 non può essere scritto."_s.arg(
                        m_state->file()));
    Q_EMIT changed();
}

// The library puts these four members over the payload's.
QJsonObject Usage::preview() const
{
    QJsonObject object = payload();
    object.insert("product_code"_L1, service().productCode);
    object.insert("license_key"_L1, m_state->licenseKey());
    object.insert("machine_fingerprint"_L1, m_machineId);
    object.insert("event_type"_L1, eventType);
    return object;
}

void Usage::send()
{
    if (!isWanted() || isCalling())
        return;
    Corvane *client = begin(service().callTimeout);
    Q_EMIT changed();
    client->sendUsage(m_state->licenseKey(), m_machineId, eventType, payload());
}

void Usage::cancel()
{
    if (!isCalling())
        return;
    giveUp();
    handleFailure(u"Invio interrotto."_s);
}

void Usage::connectResults(Corvane *client)
{
    connect(client, &Corvane::usageSent, this, [this](bool isAccepted, const QString &message) {
        end();
        Q_EMIT changed();
        // The service may have something to say in either case.
        if (isAccepted)
            Q_EMIT told(Notice::Success, u"Dati inviati. %1"_s.arg(message).trimmed());
        else
            Q_EMIT told(Notice::Warning,
                        u"Dati non accettati dal servizio. %1"_s.arg(message).trimmed());
    });
}

void Usage::handleFailure(const QString &message)
{
    Q_EMIT changed();
    Q_EMIT told(Notice::Warning, u"Dati non inviati. "_s + message);
}

QJsonObject Usage::payload() const
{
    return {{u"app_version"_s, service().installedVersion},
            {u"language"_s, QLocale::system().name()},
            {u"system"_s, QSysInfo::prettyProductName()}};
}
