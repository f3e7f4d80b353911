#ifndef RELEASEFILE_H
#define RELEASEFILE_H

#include <QtCore/qobject.h>

// Verifies downloads. A large file takes its time: this lives in a thread of its own.
class ReleaseFile : public QObject
{
    Q_OBJECT

public:
    // Moves the file to the destination, in one step, if it has the SHA-256, in hexadecimal digits.
    // Otherwise the destination stays what it was.
    void moveVerified(const QString &path, const QString &sha256, const QString &destination);

Q_SIGNALS:
    // The problem is empty if the file has been moved.
    void done(const QString &path, const QString &problem);
};

#endif // RELEASEFILE_H
