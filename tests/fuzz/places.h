#ifndef PLACES_H
#define PLACES_H

#include <QtCore/qbytearray.h>
#include <QtCore/qstring.h>
#include <QtCore/qtemporarydir.h>

// Where downloads are saved: paths of every kind, in a directory of their own.
class Places
{
public:
    enum Kind { NewFile, OldFile, NewDirectories, ADirectory, BelowAFile };
    static constexpr Kind kinds[] = {NewFile, OldFile, NewDirectories, ADirectory, BelowAFile};

    Places();

    QString path(Kind kind) const;
    static bool canBeWritten(Kind kind) { return kind != ADirectory && kind != BelowAFile; }
    // Makes all places what their names say.
    void reset();
    // What is at the place: a file's content, or that there is none to read.
    QByteArray content(Kind kind) const;
    // What reset() leaves there.
    static QByteArray initialContent(Kind kind);

private:
    QString inside(const QString &name) const { return m_dir.filePath(name); }

    QTemporaryDir m_dir;
};

#endif // PLACES_H
