#ifndef RELEASES_H
#define RELEASES_H

#include <QtCore/qbytearray.h>
#include <QtCore/qdatetime.h>
#include <QtCore/qhash.h>
#include <QtCore/qlist.h>
#include <QtCore/qstring.h>

#include <optional>

class Store;
struct ReleaseRow;

struct Release
{
    QString productCode;
    QString channel;
    QString version;
    // The release file; its folder may hold notes.txt too.
    QString path;
};

// The releases folder: FOLDER/<product>/<channel>/<version>/<one file>, with notes.txt beside the
// file if there are release notes. It is read anew for every question, so that a release is
// published by copying it in. Nothing outside the folder is ever found, not through links either.
//
// A release is its file: size and digest are the file's own, and nothing else could say them
// without being wrong one day. The store only lists what lies here, for people who look into the
// database.
class Releases
{
public:
    // No folder, no releases. Lists them all in the store, which it borrows.
    Releases(const QString &folder, Store &store);

    std::optional<Release> latest(const QString &product, const QString &channel) const;
    std::optional<Release> find(const QString &product, const QString &channel,
                                const QString &version) const;

    // At most the first MiB.
    QString notes(const Release &release) const;
    // Of a channel's latest, in hexadecimal; empty when the file cannot be read. Computed again
    // only when the file's size or times have changed, and listed then.
    QByteArray sha256(const Release &release);

private:
    struct Digest
    {
        qint64 size = 0;
        QDateTime modified;
        // Nobody can set this one back.
        QDateTime changed;
        QByteArray sha256;
    };

    bool containsFile(const QString &path) const;
    QList<ReleaseRow> rows() const;

    Store &m_store;
    // Canonical; empty when there is no folder.
    QString m_root;
    QHash<QString, Digest> m_digests;
};

#endif // RELEASES_H
