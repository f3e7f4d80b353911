// One measurement in a process of its own, printed as a line of JSON. benchmarks/measure says
// which.

#include "counting.h"
#include "sides.h"

#include <QtCore/qcoreapplication.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qtimer.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Of settling, in milliseconds.
constexpr int tick = 100;
constexpr int mostTicks = 100;

struct Options
{
    QString measure;
    QString side;
    QUrl server;
    int count = 0;
    QString call;
    int concurrency = 1;
    QString product;
    qint64 size = 0;
};

// In the order of Call.
const QStringList calls = {u"check"_s,  u"download"_s, u"plans"_s, u"start"_s,
                           u"resume"_s, u"capture"_s,  u"usage"_s};

Call callOf(const QString &name)
{
    const qsizetype found = calls.indexOf(name);
    if (found < 0)
        stop("there is no call "_L1 + name);
    return Call(found);
}

std::unique_ptr<Side> make(const Options &options)
{
    if (options.side == "corvane"_L1)
        return makeCorvane(options.server, options.product);
    if (options.side == "by-hand"_L1)
        return makeByHand(options.server, options.product);
    if (options.side == "libcurl"_L1)
        return makeLibcurl(options.server, options.product);
    stop("there is no side "_L1 + options.side);
}

// So many calls, so many of them in flight at a time.
void run(Side &side, Call call, int count, int concurrency)
{
    int toStart = count;
    int toEnd = count;
    side.onDone = [&] {
        if (toStart > 0) {
            --toStart;
            side.start(call);
        }
        if (--toEnd == 0)
            QCoreApplication::quit();
    };
    for (int i = std::min(count, concurrency); i > 0; --i) {
        --toStart;
        side.start(call);
    }
    QCoreApplication::exec();
}

// Until nothing more is allocated: requests are on their way to a thread of the network layer's.
void settle()
{
    qint64 before = -1;
    for (int i = 0; i < mostTicks && before != liveBytes(); ++i) {
        before = liveBytes();
        QTimer::singleShot(tick, qApp, &QCoreApplication::quit);
        QCoreApplication::exec();
    }
}

QJsonObject each(const Spent &before, int count)
{
    const Spent now = spentSoFar();
    return {
        {u"wall"_s, (now.wallMicroseconds - before.wallMicroseconds) / count},
        {u"cpu"_s, (now.cpuMicroseconds - before.cpuMicroseconds) / count},
        {u"allocations"_s, double(now.allocations - before.allocations) / count},
        {u"host"_s, double(now.allocationsHere - before.allocationsHere) / count},
    };
}

// What one object costs to make and to destroy, that makes no call. Corvane's has a host's
// connections.
QJsonObject measureConstruction(const Options &options)
{
    // The first one costs what every program pays once.
    make(options);
    const Spent before = spentSoFar();
    for (int i = 0; i < options.count; ++i)
        make(options);
    return each(before, options.count);
}

// What one call costs.
QJsonObject measureCalls(const Options &options)
{
    const QTemporaryDir dir;
    const Call call = callOf(options.call);
    const auto side = make(options);
    side->file = options.server.resolved(QUrl(QString::number(options.size)));
    side->destination = dir.filePath(u"file"_s);
    // Connections, and what the first calls of a program set up.
    run(*side, call, options.concurrency, options.concurrency);
    const qint64 live = liveBytes();
    const Spent before = spentSoFar();
    run(*side, call, options.count, options.concurrency);
    QJsonObject result = each(before, options.count);
    result.insert("kept"_L1, double(liveBytes() - live) / options.count);
    return result;
}

// The same, with the highest memory meanwhile.
QJsonObject measureDownload(const Options &options)
{
    const QTemporaryDir dir;
    const auto side = make(options);
    side->destination = dir.filePath(u"file"_s);
    side->file = options.server.resolved(QUrl(u"1"_s));
    run(*side, Call::Download, 1, 1);
    side->file = options.server.resolved(QUrl(QString::number(options.size)));
    const qint64 resident = memory("VmRSS");
    const Spent before = spentSoFar();
    run(*side, Call::Download, 1, 1);
    QJsonObject result = each(before, 1);
    result.insert("peak"_L1, double(memory("VmHWM") - resident));
    return result;
}

// What one object holds that waits, before its first call or after one.
QJsonObject measureIdle(const Options &options, bool isUsed)
{
    run(*make(options), Call::Check, 1, 1);
    std::vector<std::unique_ptr<Side>> sides(size_t(options.count));
    const qint64 live = liveBytes();
    const qint64 resident = memory("VmRSS");
    for (auto &side : sides) {
        side = make(options);
        if (isUsed)
            run(*side, Call::Check, 1, 1);
    }
    settle();
    return {
        {u"live"_s, double(liveBytes() - live) / options.count},
        {u"resident"_s, double(memory("VmRSS") - resident) / options.count},
    };
}

// What one call holds that waits for its answer.
QJsonObject measureHeld(const Options &options)
{
    const auto side = make(options);
    const qint64 live = liveBytes();
    const qint64 resident = memory("VmRSS");
    for (int i = 0; i < options.count; ++i)
        side->start(Call::Check);
    settle();
    const QJsonObject result = {
        {u"live"_s, double(liveBytes() - live) / options.count},
        {u"resident"_s, double(memory("VmRSS") - resident) / options.count},
    };
    std::printf("%s\n", QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
    // No answer comes, and what waits for one is not what is measured.
    std::_Exit(0);
}

QJsonObject versions()
{
    return {
        {u"qt"_s, QString::fromLatin1(qVersion())},
        {u"compiler"_s, QString::fromLatin1(COMPILER)},
        {u"libcurl"_s, libcurlVersion()},
    };
}

QJsonObject measure(const Options &options)
{
    if (options.measure == "versions"_L1)
        return versions();
    if (options.measure == "construction"_L1)
        return measureConstruction(options);
    if (options.measure == "calls"_L1)
        return measureCalls(options);
    if (options.measure == "download"_L1)
        return measureDownload(options);
    if (options.measure == "new"_L1)
        return measureIdle(options, false);
    if (options.measure == "used"_L1)
        return measureIdle(options, true);
    if (options.measure == "held"_L1)
        return measureHeld(options);
    stop("there is no measure "_L1 + options.measure);
}

} // namespace

void stop(const QString &problem)
{
    std::fprintf(stderr, "corvane-benchmark: %s\n", qUtf8Printable(problem));
    std::exit(1);
}

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 9) {
        std::fputs(
            "usage: corvane-benchmark MEASURE SIDE SERVER COUNT CALL IN-FLIGHT PRODUCT SIZE\n",
            stderr);
        return 2;
    }
    const Options options = {
        arguments.at(1),       arguments.at(2),
        QUrl(arguments.at(3)), arguments.at(4).toInt(),
        arguments.at(5),       arguments.at(6).toInt(),
        arguments.at(7),       arguments.at(8).toLongLong(),
    };
    std::printf("%s\n", QJsonDocument(measure(options)).toJson(QJsonDocument::Compact).constData());
    return 0;
}
