#include "soak.h"

#include <QtCore/qcommandlineparser.h>
#include <QtCore/qcoreapplication.h>
#include <QtCore/qelapsedtimer.h>
#include <QtCore/qrandom.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Ends the program when nothing goes on any more, also if its event loop stands still.
class Watchdog
{
public:
    Watchdog(quint64 seed, const std::atomic<qint64> &progress)
        : m_thread([this, seed, &progress] { watch(seed, progress); })
    {
    }
    ~Watchdog()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_isOver = true;
        }
        m_over.notify_one();
        m_thread.join();
    }
    Q_DISABLE_COPY_MOVE(Watchdog)

private:
    void watch(quint64 seed, const std::atomic<qint64> &progress)
    {
        std::unique_lock lock(m_mutex);
        qint64 before = -1;
        while (!m_over.wait_for(lock, std::chrono::seconds(60), [this] { return m_isOver; })) {
            if (progress == before) {
                std::fprintf(stderr,
                             "\nFAILED: seed %llu, after call %lld: no call has ended for"
                             " a minute\n",
                             seed, before);
                std::_Exit(3);
            }
            before = progress;
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_over;
    bool m_isOver = false;
    std::thread m_thread; // last: it uses the others
};

// The growth since the end of the first phase, with every client gone. Calls leave nothing: one
// byte for each is far below the least block that can leak, of 32 bytes. What else stays in use is
// allowed for: the C library keeps a quarter of a megabyte for each thread, the next call is
// scripted with up to 0.2 MB, and Qt Network leaks some blocks of requests that are redirected or
// cut off when their manager goes, as one of Qt's alone does too: 20 bytes for each client, counted
// over 6,000 of them.
void judgeMemory(Soak &soak, const Footprint &before, const Footprint &after, qint64 calls)
{
    const qint64 heapBound = 1'000'000 + calls + 100 * soak.counts().value(u"clients"_s);
    const qint64 residentBound = 7'000'000 + heapBound;
    if (after.heap - before.heap > heapBound)
        soak.fail(
            u"the heap grew by %1 bytes in %2 calls"_s.arg(after.heap - before.heap).arg(calls));
    if (after.resident - before.resident > residentBound)
        soak.fail(
            u"the process grew by %1 bytes in %2 calls"_s.arg(after.resident - before.resident)
                .arg(calls));
}

void printFootprint(const char *when, const Footprint &footprint)
{
    std::printf("%-16s heap %lld, resident %lld bytes, %lld descriptors, %lld threads\n", when,
                footprint.heap, footprint.resident, footprint.descriptors, footprint.threads);
}

// Nothing, or a message for the user.
QString readNumber(const QCommandLineParser &parser, const QString &name, quint64 *number)
{
    bool ok = true;
    if (parser.isSet(name))
        *number = parser.value(name).toULongLong(&ok);
    return ok && *number > 0 ? QString() : u"--%1 takes a number above 0"_s.arg(name);
}

void run(quint64 seed, qint64 calls)
{
    const bool countsMemory = Footprint::countsMemory();
    const bool isOnTerminal = ::isatty(STDERR_FILENO) == 1;
    QElapsedTimer timer;
    timer.start();
    Soak soak(seed);
    const Watchdog watchdog(seed, soak.progress());

    const qint64 phase = std::clamp<qint64>(calls / 10, 500, 10'000);
    std::optional<Footprint> first;
    Footprint last;
    while (soak.callsMade() < calls) {
        soak.runPhase(std::min(phase, calls - soak.callsMade()));
        last = Footprint::now();
        if (!first)
            first = last;
        if (countsMemory)
            judgeMemory(soak, *first, last, soak.callsMade());
        if (isOnTerminal)
            std::fprintf(stderr, "\r%lld of %lld calls", soak.callsMade(), calls);
    }
    if (isOnTerminal)
        std::fputc('\n', stderr);

    for (auto it = soak.counts().cbegin(); it != soak.counts().cend(); ++it)
        std::printf("%-32s %10lld\n", qPrintable(it.key()), it.value());
    printFootprint("after warm-up:", *first);
    printFootprint("at the end:", last);
    if (!countsMemory)
        std::puts("Memory was not judged: another allocator than the C library's is at work.");
    const qint64 milliseconds = std::max<qint64>(timer.elapsed(), 1);
    std::printf("%lld calls in %.1f s, %lld a second. Each ended in its one signal, but those that"
                " went with their client.\n",
                calls, static_cast<double>(milliseconds) / 1000, calls * 1000 / milliseconds);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"Makes random calls under random faults, and checks that each ends in its one signal and\n"
        "that nothing is left of it. Ends with 0, 1 if something is wrong, 2 for wrong options,\n"
        "3 if nothing goes on."_s);
    parser.addHelpOption();
    parser.addOption({u"seed"_s, u"What decides the calls; by default random."_s, u"number"_s});
    parser.addOption({u"calls"_s, u"How many to make; by default 100000."_s, u"number"_s});
    parser.process(app);

    quint64 seed = QRandomGenerator::system()->generate() | 1U;
    quint64 calls = 100'000;
    QString error = readNumber(parser, u"seed"_s, &seed);
    if (error.isEmpty())
        error = readNumber(parser, u"calls"_s, &calls);
    if (error.isEmpty() && !parser.positionalArguments().isEmpty())
        error = u"no arguments are expected beside the options"_s;
    if (!error.isEmpty()) {
        std::fprintf(stderr, "corvane-soak: %s\n", qPrintable(error));
        return 2;
    }

    std::printf("seed %llu\n", seed);
    std::fflush(stdout);
    run(seed, static_cast<qint64>(calls));
    return 0;
}
