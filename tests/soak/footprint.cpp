#include "footprint.h"

#include <QtCore/qdir.h>
#include <QtCore/qfile.h>

#include <malloc.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

qsizetype entriesOf(const QString &dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

qint64 heapBytes()
{
    const struct mallinfo2 info = ::mallinfo2();
    return static_cast<qint64>(info.uordblks) + static_cast<qint64>(info.hblkhd);
}

qint64 residentBytes()
{
    QFile file(u"/proc/self/statm"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE);
}

} // namespace

Footprint Footprint::now()
{
    // What is free but not given back is no growth.
    ::malloc_trim(0);
    return {heapBytes(), residentBytes(), entriesOf(u"/proc/self/fd"_s),
            entriesOf(u"/proc/self/task"_s)};
}

bool Footprint::countsMemory()
{
    const qint64 before = heapBytes();
    const QByteArray block(10'000, 'x');
    return heapBytes() > before && !block.isNull();
}
