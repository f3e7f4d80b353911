#include "places.h"

#include "target.h"

#include <QtCore/qdir.h>
#include <QtCore/qfile.h>

using namespace Qt::StringLiterals;

namespace {

// Longer than most bodies: what is left of it shows.
const QByteArray oldContent = QByteArray("An older release. ").repeated(20);
const QByteArray noFile = "(no file that can be read)";

void write(const QString &path)
{
    QFile file(path);
    Target::expect("a file for the target to overwrite",
                   file.open(QIODevice::WriteOnly) && file.write(oldContent) == oldContent.size());
}

} // namespace

Places::Places()
{
    Target::expect("a temporary directory", m_dir.isValid());
    Target::expect("a directory in it", QDir().mkdir(path(ADirectory)));
    write(inside(u"file"_s));
}

QString Places::path(Kind kind) const
{
    switch (kind) {
    case NewFile:
        return inside(u"new"_s);
    case OldFile:
        return inside(u"old"_s);
    case NewDirectories:
        return inside(u"missing/too/new"_s);
    case ADirectory:
        return inside(u"directory"_s);
    case BelowAFile:
        return inside(u"file/new"_s);
    }
    Q_UNREACHABLE();
}

void Places::reset()
{
    QFile::remove(path(NewFile));
    QDir(inside(u"missing"_s)).removeRecursively();
    write(path(OldFile));
}

QByteArray Places::content(Kind kind) const
{
    QFile file(path(kind));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : noFile;
}

QByteArray Places::initialContent(Kind kind)
{
    return kind == OldFile ? oldContent : noFile;
}
