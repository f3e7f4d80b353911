#ifndef FILES_H
#define FILES_H

#include <QtCore/qfile.h>
#include <QtTest/qtest.h>

// Whole files, for tests.
namespace Files {

inline void write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(file.errorString()));
    QCOMPARE(file.write(content), content.size());
}

// What the file holds, or that it cannot be read.
inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(cannot be read)");
}

} // namespace Files

#endif // FILES_H
