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

bool Updates::isDowngrade() const
{
    return QVersionNumber::fromString(m_update.latestVersion)
        < QVersionNumber::fromString(service().installedVersion);
}

QString Updates::problem() const
{
    return m_problem;
}

QString Updates::file() const
{
    return destination();
}

void Updates::check()
{
    if (isBusy())
        return;
    m_update = {};
    Corvane *client = begin(service().callTimeout);
    setState(State::Checking);
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
        setState(State::DownloadFailed,
                 u"Impossibile scrivere nella cartella %1: %2."_s.arg(service().downloadFolder,
                                                                      m_temporary->errorString()));
        return;
    }
    Corvane *client = begin(service().downloadTimeout);
    setState(State::Downloading);
    client->downloadUpdate(downloadUrl(), m_temporary->filePath(u"file"_s));
}

void Updates::cancel()
{
    if (!isCalling())
        return;
    giveUp();
    m_temporary.reset();
    setState(m_update.updateAvailable ? State::Available : State::Unknown);
}

void Updates::connectResults(Corvane *client)
{
    connect(client, &Corvane::updateChecked, this, &Updates::takeCheck);
    // Queued: the file is still open, and perhaps not whole, during the signal.
    connect(client, &Corvane::updateDownloaded, this, &Updates::takeDownload, Qt::QueuedConnection);
}

void Updates::handleFailure(const QString &message)
{
    m_temporary.reset();
    setState(m_state == State::Checking ? State::CheckFailed : State::DownloadFailed, message);
}

void Updates::setState(State state, const QString &problem)
{
    m_state = state;
    m_problem = problem;
    Q_EMIT changed();
}

void Updates::takeCheck(const UpdateInfo &update)
{
    end();
    m_update = update;
    const QString reason = defect();
    if (!reason.isEmpty()) {
        m_update.updateAvailable = false;
        setState(State::CheckFailed, reason);
        return;
    }
    setState(update.updateAvailable ? State::Available : State::UpToDate);
}

void Updates::takeDownload(const QString &path)
{
    // A result that was queued before its call was given up is nobody's any more. No two downloads
    // have the same path.
    if (!m_temporary || path != m_temporary->filePath(u"file"_s))
        return;
    end();
    setState(State::Verifying);
    Q_EMIT verificationNeeded(path, m_update.sha256, destination());
}

void Updates::takeVerification(const QString &path, const QString &problem)
{
    Q_ASSERT(path == m_temporary->filePath(u"file"_s));
    m_temporary.reset();
    setState(problem.isEmpty() ? State::Downloaded : State::DownloadFailed, problem);
}

// Why the answer to a check is of no use; empty when it is of use. A refusal, and an answer that is
// none, have no release, and must not look as if there were nothing new.
QString Updates::defect() const
{
    const QString refusal =
        m_update.raw.value("error"_L1).toObject().value("message"_L1).toString();
    if (!m_update.raw.value("success"_L1).toBool() && !refusal.isEmpty())
        return refusal;
    if (m_update.latestVersion.isEmpty())
        return u"La risposta del servizio non indica alcuna versione."_s;
    if (m_update.productCode != service().productCode)
        return u"La risposta del servizio riguarda un altro prodotto."_s;
    if (!m_update.updateAvailable)
        return {};
    if (!downloadUrl().isValid())
        return u"La risposta del servizio non indica dove scaricare la versione %1."_s.arg(
            m_update.latestVersion);
    static const QRegularExpression sha256(u"\\A[0-9a-f]{64}\\z"_s,
                                           QRegularExpression::CaseInsensitiveOption);
    if (!sha256.match(m_update.sha256).hasMatch())
        return u"La versione %1 non può essere verificata: manca il suo SHA-256."_s.arg(
            m_update.latestVersion);
    return {};
}

// Of this release or, if the service tells none, of the channel's newest: the SHA-256 tells whether
// they are the same. Nothing but HTTP: the library would copy a local file as well.
QUrl Updates::downloadUrl() const
{
    const QUrl url(m_update.downloadUrl.isEmpty() ? m_update.stableDownloadUrl
                                                  : m_update.downloadUrl,
                   QUrl::StrictMode);
    return url.scheme() == "https"_L1 || url.scheme() == "http"_L1 ? url : QUrl();
}

QString Updates::destination() const
{
    const QString name = downloadUrl().fileName();
    return service().downloadFolder + u'/' + (name.isEmpty() ? u"aggiornamento"_s : name);
}
