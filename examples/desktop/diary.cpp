#include "diary.h"

#include "caller.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qregularexpression.h>

using namespace Qt::StringLiterals;

namespace {

QString yesOrNo(bool value)
{
    return value ? u"sì"_s : u"no"_s;
}

// The address in an error may have a token in its query or a password before its host, and a
// message of the service may have somebody's e-mail address.
QString withoutSecrets(QString line)
{
    static const QRegularExpression secret(u"\\?\\S+|\\S+@\\S+"_s);
    return line.replace(secret, u"***"_s);
}

} // namespace

Diary::Diary(const QString &file)
    : m_file(file, this)
{
}

void Diary::follow(Caller *caller)
{
    connect(caller, &Caller::failed, this, &Diary::writeFailure);
    // Clients come and go, in the caller's thread.
    connect(caller, &Caller::clientMade, caller,
            [this](Corvane *client) { connectResults(client); });
}

// All of these are queued by themselves, as this object lives in another thread than the client.
void Diary::connectResults(Corvane *client)
{
    connect(client, &Corvane::updateChecked, this, &Diary::writeCheck);
    connect(client, &Corvane::updateDownloaded, this, &Diary::writeDownload);
    connect(client, &Corvane::purchasePlansReceived, this, &Diary::writePlans);
    connect(client, &Corvane::purchaseStarted, this, &Diary::writeStarted);
    connect(client, &Corvane::purchaseCaptured, this, &Diary::writeCaptured);
    connect(client, &Corvane::usageSent, this, &Diary::writeUsage);
}

void Diary::writeCheck(const UpdateInfo &update)
{
    write(u"aggiornamento: %1, versione offerta: %2"_s.arg(yesOrNo(update.updateAvailable),
                                                           update.latestVersion));
}

// The path is the temporary one, and tells nobody anything.
void Diary::writeDownload(const QString &)
{
    write(u"aggiornamento scaricato"_s);
}

void Diary::writePlans(const QJsonArray &plans)
{
    write(u"piani ricevuti: %1"_s.arg(plans.size()));
}

void Diary::writeStarted(const PurchaseStartInfo &purchase)
{
    write(u"pagamento avviato: %1, ordine: %2, messaggio: %3"_s.arg(
        yesOrNo(purchase.success), purchase.paypalOrderId, purchase.message));
}

void Diary::writeCaptured(const PurchaseCaptureInfo &capture)
{
    write(u"pagamento completato: %1, messaggio: %2"_s.arg(yesOrNo(capture.paid), capture.message));
}

void Diary::writeUsage(bool isAccepted, const QString &message)
{
    write(u"dati di utilizzo accettati: %1, messaggio: %2"_s.arg(yesOrNo(isAccepted), message));
}

void Diary::writeFailure(const QString &message)
{
    write(u"errore: %1"_s.arg(message));
}

// A diary that cannot be written is no reason to disturb the user.
void Diary::write(const QString &line)
{
    if (!m_file.isOpen() && !m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return;
    const QString time = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
    // A line of its own, whatever the service sends.
    m_file.write((time + u' ' + withoutSecrets(line.simplified()) + u'\n').toUtf8());
    m_file.flush();
}
