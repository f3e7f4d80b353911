// The library writes the file into a temporary folder on the destination's file system; when the
// file has proved right, it is moved into place in one step. Missing folders are made only then.

#include "download.h"

#include "session.h"

#include <corvane.h>

#include <QtCore/qcryptographichash.h>
#include <QtCore/qdir.h>
#include <QtCore/qfileinfo.h>
#include <QtCore/qtemporarydir.h>

#include <filesystem>

using namespace Qt::StringLiterals;

namespace {

QString folderOf(const QString &path)
{
    return QFileInfo(path).path();
}

// The folder that the destination is in or, while that is missing, the first above it that is
// there.
QString existingFolderOf(const QString &destination)
{
    QString folder = folderOf(destination);
    while (!QFileInfo::exists(folder) && folder != folderOf(folder))
        folder = folderOf(folder);
    return folder;
}

// Why nothing can be saved under this name; empty when it can.
QString destinationError(const QString &destination)
{
    const QFileInfo info(destination);
    if (info.isDir() || info.fileName().isEmpty())
        return u"'%1' is a folder; name the file to write"_s.arg(destination);
    // A device, say: it would be replaced, not written to.
    if (info.exists() && !info.isFile())
        return u"'%1' is not a regular file"_s.arg(destination);
    return {};
}

std::filesystem::path nativePath(const QString &path)
{
    return QFile::encodeName(path).toStdString();
}

class Download : public QObject
{
public:
    Download(const QString &destination, const QString &sha256, Session &session);
    void start(const QUrl &url);

private:
    void keep();
    bool readBack();
    QString defect() const;
    bool hasRoom() const;
    bool moveIntoPlace();

    const QString m_destination;
    const QString m_sha256;
    Session &m_session;
    const QString m_existingFolder;
    QTemporaryDir m_temporary;
    // In the temporary folder.
    const QString m_path;
    // What was read back.
    qint64 m_size = 0;
    QString m_actualSha256;
};

Download::Download(const QString &destination, const QString &sha256, Session &session)
    : QObject(&session)
    , m_destination(destination)
    , m_sha256(sha256)
    , m_session(session)
    , m_existingFolder(existingFolderOf(destination))
    , m_temporary(m_existingFolder + "/.corvane-cli-XXXXXX"_L1)
    , m_path(m_temporary.filePath(u"download"_s))
{
}

void Download::start(const QUrl &url)
{
    if (!m_temporary.isValid()) {
        m_session.fail(BadInput,
                       u"cannot write to the folder '%1': %2"_s.arg(m_existingFolder,
                                                                    m_temporary.errorString()));
        return;
    }
    // Queued: the file is still open, and perhaps not whole, during the signal.
    connect(m_session.client(), &Corvane::updateDownloaded, this, &Download::keep,
            Qt::QueuedConnection);
    m_session.client()->downloadUpdate(url, m_path);
}

void Download::keep()
{
    const bool readable = readBack();
    // Reading takes its time: the user may have interrupted it.
    if (m_session.isOver())
        return;
    const QString error = readable ? defect() : u"cannot read the downloaded file back"_s;
    if (!error.isEmpty()) {
        m_session.fail(Unusable, error);
        return;
    }
    if (!moveIntoPlace())
        return;

    const QString path = QFileInfo(m_destination).absoluteFilePath();
    m_session.finish({
        labelled({
            {u"Saved"_s, path},
            {u"Size"_s, u"%1 bytes"_s.arg(m_size)},
            {u"SHA-256"_s, m_actualSha256},
        }),
        {{u"path"_s, path}, {u"size"_s, m_size}, {u"sha256"_s, m_actualSha256}},
    });
}

bool Download::readBack()
{
    QFile file(m_path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return false;
    m_size = file.size();
    m_actualSha256 = QString::fromLatin1(hash.result().toHex());
    return true;
}

// Why what was read back is of no use; empty when it is of use.
QString Download::defect() const
{
    if (m_sha256 == m_actualSha256)
        return {};
    if (!m_sha256.isEmpty())
        return u"the SHA-256 differs, nothing was saved: %1 was downloaded"_s.arg(m_actualSha256);
    if (!hasRoom()) {
        return u"no room is left on the disk or below the file size limit, the file may be cut "
               "short, nothing was saved; make room, or give --sha256"_s;
    }
    // A service that has no file may answer with success all the same.
    if (m_size == 0)
        return u"the download is empty, nothing was saved; give --sha256 if it should be"_s;
    return {};
}

// The library reports no failing write. A file that takes not one block more, be it for the disk or
// for a limit on its size, is the trace that one leaves; a file that just fits looks the same, and
// is refused as well.
bool Download::hasRoom() const
{
    QFile file(m_path);
    const QByteArray block(4096, '\0');
    return file.open(QIODevice::Append | QIODevice::Unbuffered) && file.write(block) == block.size()
        && file.resize(m_size);
}

bool Download::moveIntoPlace()
{
    const QString folder = folderOf(m_destination);
    std::error_code error;
    std::filesystem::create_directories(nativePath(folder), error);
    if (!error)
        std::filesystem::rename(nativePath(m_path), nativePath(m_destination), error);
    if (!error)
        return true;

    // The folders just made go again; one that something else has come into stays.
    for (QString made = folder; made != m_existingFolder; made = folderOf(made))
        QDir().rmdir(made);
    m_session.fail(Unusable,
                   u"cannot move the file to '%1': %2"_s.arg(
                       m_destination, QString::fromStdString(error.message())));
    return false;
}

} // namespace

void startDownload(const QUrl &url, const QString &destination, const QString &sha256,
                   Session &session)
{
    const QString error = destinationError(destination);
    if (!error.isEmpty()) {
        session.fail(BadInput, error);
        return;
    }
    auto *download = new Download(destination, sha256, session);
    download->start(url);
}
