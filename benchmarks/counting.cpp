// Counts allocations by standing before the C library's: a program's own malloc() is what every
// library in it calls.

#include "counting.h"

#include "sides.h"

#include <QtCore/qfile.h>

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <ctime>

using namespace Qt::StringLiterals;

// The C library's own names for its functions.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

namespace {

std::atomic<qint64> allocations = 0;
thread_local qint64 allocationsHere = 0;
std::atomic<qint64> allocated = 0;
std::atomic<qint64> freed = 0;

void *counted(void *block)
{
    if (block) {
        allocations.fetch_add(1, std::memory_order_relaxed);
        ++allocationsHere;
        allocated.fetch_add(qint64(malloc_usable_size(block)), std::memory_order_relaxed);
    }
    return block;
}

void forget(void *block)
{
    if (block)
        freed.fetch_add(qint64(malloc_usable_size(block)), std::memory_order_relaxed);
}

double microseconds(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return double(time.tv_sec) * 1e6 + double(time.tv_nsec) / 1e3;
}

} // namespace

extern "C" {

void *malloc(size_t size)
{
    return counted(__libc_malloc(size));
}

void *calloc(size_t nmemb, size_t size)
{
    return counted(__libc_calloc(nmemb, size));
}

void *realloc(void *ptr, size_t size)
{
    forget(ptr);
    return counted(__libc_realloc(ptr, size));
}

void *memalign(size_t alignment, size_t size)
{
    return counted(__libc_memalign(alignment, size));
}

void *aligned_alloc(size_t alignment, size_t size)
{
    return memalign(alignment, size);
}

int posix_memalign(void **memptr, size_t alignment, size_t size)
{
    *memptr = memalign(alignment, size);
    return *memptr ? 0 : ENOMEM;
}

void free(void *ptr)
{
    forget(ptr);
    __libc_free(ptr);
}
}

Spent spentSoFar()
{
    return {microseconds(CLOCK_PROCESS_CPUTIME_ID), microseconds(CLOCK_MONOTONIC), allocations,
            allocationsHere};
}

qint64 liveBytes()
{
    return allocated - freed;
}

qint64 memory(const char *field)
{
    QFile status(u"/proc/self/status"_s);
    if (!status.open(QIODevice::ReadOnly))
        stop(status.errorString());
    const QByteArrayList lines = status.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith(field))
            return line.simplified().split(' ').value(1).toLongLong() * 1024;
    }
    stop(QString::fromLatin1(field) + " is not in /proc/self/status"_L1);
}
