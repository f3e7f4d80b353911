#ifndef COUNTING_H
#define COUNTING_H

#include <QtCore/qglobal.h>

// What this process, all its threads together, has taken so far.
struct Spent
{
    double cpuMicroseconds = 0;
    double wallMicroseconds = 0;
    qint64 allocations = 0;
    qint64 allocationsHere = 0; // in this thread alone
};
// benchmarks/measure has callgrind count from one call of this to the next: a measure makes two.
Spent spentSoFar();

// Bytes that are allocated now.
qint64 liveBytes();

// A field of /proc/self/status, in bytes.
qint64 memory(const char *field);

#endif // COUNTING_H
