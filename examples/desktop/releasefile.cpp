#include "releasefile.h"

#include <QtCore/qcryptographichash.h>
#include <QtCore/qfile.h>
#include <QtCore/qthread.h>

#include <filesystem>

using namespace Qt::StringLiterals;

namespace {

// Empty if the file cannot be read, or the thread is to end.
QByteArray sha256Of(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    while (!file.atEnd()) {
        const QByteArray block = file.read(1024 * 1024);
        if (block.isEmpty() || QThread::currentThread()->isInterruptionRequested())
            return {};
        hash.addData(block);
    }
    return hash.result().toHex();
}

QString problemOfMoving(const QString &path, const QString &sha256, const QString &destination)
{
    const QByteArray actual = sha256Of(path);
    if (actual.isEmpty())
        return u"Impossibile leggere il file scaricato."_s;
    if (actual != sha256.toLower().toLatin1())
        return u"Il file scaricato non è quello pubblicato, forse è arrivato incompleto o il disco "
               u"è pieno: "
               "è stato eliminato."_s;
    // QFile::rename() replaces no file that is there.
    std::error_code error;
    std::filesystem::rename(QFile(path).filesystemFileName(),
                            QFile(destination).filesystemFileName(), error);
    if (!error)
        return {};
    return u"Impossibile salvare %1: %2."_s.arg(destination,
                                                QString::fromStdString(error.message()));
}

} // namespace

void ReleaseFile::moveVerified(const QString &path, const QString &sha256,
                               const QString &destination)
{
    Q_EMIT done(path, problemOfMoving(path, sha256, destination));
}
