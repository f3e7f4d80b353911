// GET <url>
// Cache-Control: no-cache
// Pragma: no-cache
//
// Reply: the file.

#include "corvane.h"
#include "wire_p.h"

#include <QtCore/qdir.h>
#include <QtCore/qfile.h>
#include <QtCore/qfileinfo.h>
#include <QtNetwork/qnetworkaccessmanager.h>

using namespace Qt::StringLiterals;

void Corvane::downloadUpdate(const QUrl &url, const QString &destinationPath)
{
    if (!url.isValid() || destinationPath.isEmpty()) {
        Q_EMIT networkError(u"URL o destinazione aggiornamento non validi."_s);
        return;
    }

    m_downloadPath = destinationPath;
    connectReply(m_network->get(Wire::uncachedRequest(url)), UpdateDownload);
}

void Corvane::saveDownload(const QByteArray &body)
{
    // A copy: a slot may start the next download during the signal.
    const QString path = m_downloadPath;
    QFile file(path);
    // A directory that cannot be made shows in open().
    QDir().mkpath(QFileInfo(file).absolutePath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        Q_EMIT networkError(u"Impossibile salvare aggiornamento."_s);
        return;
    }

    file.write(body);
    // The file closes after the signal.
    Q_EMIT updateDownloaded(path);
}
