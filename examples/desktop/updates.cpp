#include "updates.h"

#include "releasefile.h"

#include <QtCore/qdir.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qversionnumber.h>

using namespace Qt::StringLiterals;

Updates::Updates(const Service &service, ReleaseFile *file, QObject *parent)
    : Caller(service, parent)
{
    connect(this, &Updates::verificationNeeded, file, &ReleaseFile::moveVerified);
    connect(file, &ReleaseFile::done, this, &Updates::takeVerification);
}

Updates::~Updates() = default;

Updates::State Updates::state() const
{
    return m_state;
}

bool Updates::isBusy() const
{
    return isCalling() || m_state == State::Verifying;
}

const UpdateInfo &Updates::update() const
{
    return m_update;
}

// Named by the service, but never outside the folder.
QString Updates::destination() const
{
    static const QRegularExpression plainName(u"\\A\\w[\\w .+-]*\\z"_s,
                                              QRegularExpression::UseUnicodePropertiesOption);
    const QString name = webUrl(m_update.downloadUrl).fileName();
    return service().downloadFolder + u'/'
        + (plainName.match(name).hasMatch() ? name : u"aggiornamento"_s);
}

void Updates::check()
{
    if (isBusy())
        return;
    m_update = {};
    Corvane *client = begin(service().callTimeout);
    setState(State::Checking, Message::Information, u"Ricerca di aggiornamenti in corso…"_s);
    client->checkForUpdate(service().installedVersion, service().channel);
}

void Updates::download()
{
    if (isBusy() || !m_update.updateAvailable)
        return;
    QDir().mkpath(service().downloadFolder);
    m_temporary =
        std::make_unique<QTemporaryDir>(service().downloadFolder + "/.aggiornamento-XXXXXX"_L1);
    if (!m_temporary->isValid()) {
        setDownloadFailed(u"Impossibile scrivere nella cartella %1: %2."_s.arg(
            service().downloadFolder, m_temporary->errorString()));
        return;
    }
    Corvane *client = begin(service().downloadTimeout);
    setState(State::Downloading, Message::Information,
             u"Scaricamento della versione %1…"_s.arg(m_update.latestVersion));
    client->downloadUpdate(webUrl(m_update.downloadUrl), temporaryFile());
}

void Updates::cancel()
{
    if (!isCalling())
        return;
    giveUp();
    dropTemporary();
    if (m_update.updateAvailable)
        setAvailable();
    else
        setState(State::Unknown, Message::Information, {});
}

void Updates::connectResults(Corvane *client)
{
    connect(client, &Corvane::updateChecked, this, &Updates::takeCheck);
    // Queued: the file is still open, and perhaps not whole, during the signal.
    connect(client, &Corvane::updateDownloaded, this, &Updates::takeDownload, Qt::QueuedConnection);
    connect(client, &QObject::destroyed, this, [this] { m_abandoned.reset(); });
}

void Updates::handleFailure(const QString &message)
{
    if (m_state == State::Checking)
        setCheckFailed(message);
    else
        setDownloadFailed(message);
}

void Updates::setState(State state, Message::Kind kind, const QString &text)
{
    m_state = state;
    tell(kind, text);
}

void Updates::setCheckFailed(const QString &problem)
{
    setState(State::CheckFailed, Message::Warning,
             u"Ricerca non riuscita: non si sa se ci sono aggiornamenti. "_s + problem);
}

void Updates::setDownloadFailed(const QString &problem)
{
    dropTemporary();
    setState(State::DownloadFailed, Message::Warning, u"Scaricamento non riuscito. "_s + problem);
}

// To the library, any other version is an update; the user wants to know which way it leads.
void Updates::setAvailable()
{
    const auto offered = QVersionNumber::fromString(m_update.latestVersion);
    const auto installed = QVersionNumber::fromString(m_update.currentVersion);
    const bool isOlder = !offered.isNull() && !installed.isNull() && offered < installed;
    const QString text = isOlder
        ? u"Il servizio offre la versione %1, precedente a quella installata. %2"_s
        : u"È disponibile la versione %1. %2"_s;
    setState(State::Available, Message::Information,
             text.arg(m_update.latestVersion, remarkIn(m_update.raw)).trimmed());
}

void Updates::takeCheck(const UpdateInfo &update)
{
    end();
    m_update = update;
    if (!defect().isEmpty()) {
        m_update.updateAvailable = false;
        setCheckFailed(defect());
    } else if (!update.updateAvailable) {
        setState(State::UpToDate, Message::Success,
                 u"Nessun aggiornamento: la versione installata è quella offerta. %1"_s
                     .arg(remarkIn(update.raw))
                     .trimmed());
    } else if (!obstacle().isEmpty()) {
        m_update.updateAvailable = false;
        setState(State::CheckFailed, Message::Warning,
                 u"È offerta la versione %1, ma non può essere scaricata: %2"_s.arg(
                     update.latestVersion, obstacle()));
    } else {
        setAvailable();
    }
}

void Updates::takeDownload(const QString &path)
{
    // A result that was queued before its call was given up is nobody's any more. No two downloads
    // have the same path.
    if (!m_temporary || path != temporaryFile())
        return;
    end();
    setState(State::Verifying, Message::Information,
             u"Verifica della versione %1…"_s.arg(m_update.latestVersion));
    Q_EMIT verificationNeeded(path, m_update.sha256, destination());
}

void Updates::takeVerification(const QString &path, const QString &problem)
{
    Q_ASSERT(path == temporaryFile());
    if (!problem.isEmpty()) {
        setDownloadFailed(problem);
        return;
    }
    m_temporary.reset();
    setState(
        State::Downloaded, Message::Success,
        u"Versione %1 scaricata e verificata: %2"_s.arg(m_update.latestVersion, destination()));
}

// Why the answer to a check tells nothing of updates; empty if it does. A refusal, and an answer
// that is none, have no release, and must not look as if there were nothing new.
QString Updates::defect() const
{
    if (!m_update.raw.value("success"_L1).toBool() && !remarkIn(m_update.raw).isEmpty())
        return remarkIn(m_update.raw);
    if (m_update.latestVersion.isEmpty())
        return u"La risposta del servizio non indica alcuna versione."_s;
    if (m_update.productCode != service().productCode)
        return u"La risposta del servizio non riguarda questo prodotto."_s;
    return {};
}

// Why the release cannot be downloaded; empty if it can.
QString Updates::obstacle() const
{
    static const QRegularExpression sha256(u"\\A[0-9a-f]{64}\\z"_s,
                                           QRegularExpression::CaseInsensitiveOption);
    if (!webUrl(m_update.downloadUrl).isValid())
        return u"il servizio non indica dove."_s;
    if (!sha256.match(m_update.sha256).hasMatch())
        return u"il servizio non ne indica lo SHA-256, e non potrebbe essere verificata."_s;
    return {};
}

QString Updates::temporaryFile() const
{
    return m_temporary->filePath(u"file"_s);
}

void Updates::dropTemporary()
{
    if (hasGivenUp())
        m_abandoned = std::move(m_temporary);
    m_temporary.reset();
}
