#ifndef FOOTPRINT_H
#define FOOTPRINT_H

#include <QtCore/qglobal.h>

// What the process holds at the moment.
struct Footprint
{
    static Footprint now();
    // Whether the C library's own allocator is at work. Sanitizers bring another, which keeps
    // freed memory for a while on purpose: heap and resident then say nothing.
    static bool countsMemory();

    qint64 heap = 0; // bytes in use
    qint64 resident = 0; // bytes
    qsizetype descriptors = 0;
    qsizetype threads = 0;
};

#endif // FOOTPRINT_H
