#include "state/releases.h"

#include "state/store.h"

#include <QtCore/qcryptographichash.h>
#include <QtCore/qdir.h>
#include <QtCore/qfile.h>
#include <QtCore/qfileinfo.h>
#include <QtCore/qversionnumber.h>

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr auto notesName = "notes.txt"_L1;
constexpr qint64 longestNotes = 1 << 20;

bool isName(const QString &text)
{
    return !text.isEmpty() && text != "."_L1 && text != ".."_L1 && !text.contains(u'/')
        && !text.contains(QChar::Null);
}

// By number; of one number, a version without a suffix is newer than those with one, and these
// are ordered as texts: 1.10 > 1.9 > 1.9-rc2 > 1.9-rc1.
bool isNewer(const QString &left, const QString &right)
{
    qsizetype leftEnd = 0;
    qsizetype rightEnd = 0;
    const QVersionNumber leftNumber = QVersionNumber::fromString(left, &leftEnd);
    const QVersionNumber rightNumber = QVersionNumber::fromString(right, &rightEnd);
    if (leftNumber != rightNumber)
        return leftNumber > rightNumber;

    const QString leftSuffix = left.sliced(leftEnd);
    const QString rightSuffix = right.sliced(rightEnd);
    if (leftSuffix.isEmpty() || rightSuffix.isEmpty())
        return leftSuffix.isEmpty() && !rightSuffix.isEmpty();
    return leftSuffix > rightSuffix;
}

QStringList foldersIn(const QString &path)
{
    return QDir(path).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
}

QStringList newestFirst(QStringList versions)
{
    std::sort(versions.begin(), versions.end(), isNewer);
    return versions;
}

ReleaseRow rowOf(const Release &release)
{
    const QFileInfo file(release.path);
    ReleaseRow row;
    row.productCode = release.productCode;
    row.channel = release.channel;
    row.version = release.version;
    row.file = file.fileName();
    row.size = file.size();
    return row;
}

} // namespace

Releases::Releases(const QString &folder, Store &store)
    : m_store(store)
    , m_root(folder.isEmpty() ? QString() : QFileInfo(folder).canonicalFilePath())
{
    m_store.listReleases(rows());
}

std::optional<Release> Releases::latest(const QString &product, const QString &channel) const
{
    if (!isName(product) || !isName(channel))
        return std::nullopt;

    const QString folder = m_root + u'/' + product + u'/' + channel;
    for (const QString &version : newestFirst(foldersIn(folder))) {
        if (std::optional<Release> release = find(product, channel, version))
            return release;
    }
    return std::nullopt;
}

std::optional<Release> Releases::find(const QString &product, const QString &channel,
                                      const QString &version) const
{
    if (!isName(product) || !isName(channel) || !isName(version))
        return std::nullopt;

    const QDir folder(m_root + u'/' + product + u'/' + channel + u'/' + version);
    QStringList files = folder.entryList(QDir::Files | QDir::Readable);
    files.removeOne(notesName);
    if (files.size() > 1) {
        qWarning("%s is no release: it must hold one file, and notes.txt if you like",
                 qUtf8Printable(folder.path()));
    }
    if (files.size() != 1 || !containsFile(folder.filePath(files.constFirst())))
        return std::nullopt;
    return Release{product, channel, version, folder.filePath(files.constFirst())};
}

QString Releases::notes(const Release &release) const
{
    QFile file(QFileInfo(release.path).dir().filePath(notesName));
    if (!containsFile(file.fileName()) || !file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.read(longestNotes));
}

QByteArray Releases::sha256(const Release &release)
{
    QFileInfo info(release.path);
    info.stat(); // before the file is read: what changes meanwhile must show the next time
    Digest &digest = m_digests[release.path];
    if (!digest.sha256.isEmpty() && digest.size == info.size()
        && digest.modified == info.lastModified() && digest.changed == info.metadataChangeTime())
        return digest.sha256;

    QFile file(release.path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file)) {
        qWarning("%s: %s", qUtf8Printable(release.path), qUtf8Printable(file.errorString()));
        return {};
    }
    digest = {info.size(), info.lastModified(), info.metadataChangeTime(), hash.result().toHex()};

    ReleaseRow row = rowOf(release);
    row.sha256 = QString::fromLatin1(digest.sha256);
    row.isLatest = true;
    m_store.listRelease(row);
    return digest.sha256;
}

bool Releases::containsFile(const QString &path) const
{
    // Opening a pipe would wait for its writer.
    const QFileInfo info(path);
    return !m_root.isEmpty() && info.isFile() && info.canonicalFilePath().startsWith(m_root + u'/');
}

QList<ReleaseRow> Releases::rows() const
{
    QList<ReleaseRow> rows;
    if (m_root.isEmpty())
        return rows;

    for (const QString &product : foldersIn(m_root)) {
        for (const QString &channel : foldersIn(m_root + u'/' + product)) {
            bool isLatest = true;
            const QString folder = m_root + u'/' + product + u'/' + channel;
            for (const QString &version : newestFirst(foldersIn(folder))) {
                const std::optional<Release> release = find(product, channel, version);
                if (!release)
                    continue;
                rows.append(rowOf(*release));
                rows.last().isLatest = std::exchange(isLatest, false);
            }
        }
    }
    return rows;
}
