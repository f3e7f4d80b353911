// What Corvane costs beside the same work written by hand on QNetworkAccessManager: the CPU time
// of an update check, and the peak memory of a download. Both are measured in one run, in turn, on
// the same server, which runs in a process of its own so that its work does not count.
//
// With a corvane-sandbox, how many update checks it answers to one host, and what memory it takes
// to serve a large release.

#include "corvane.h"

#include <QtCore/qcoreapplication.h>
#include <QtCore/qdatetime.h>
#include <QtCore/qdir.h>
#include <QtCore/qelapsedtimer.h>
#include <QtCore/qeventloop.h>
#include <QtCore/qfile.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qprocess.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qurlquery.h>
#include <QtNetwork/qhostaddress.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtNetwork/qtcpserver.h>
#include <QtNetwork/qtcpsocket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>

using namespace Qt::StringLiterals;

namespace {

constexpr int pairs = 15;
constexpr int checksPerSide = 1000;
constexpr qint64 mebibyte = 1024 * 1024;
constexpr int rounds = 9;
constexpr int checksPerRound = 3000;
constexpr int checksInFlight = 12;
constexpr qint64 largeRelease = 256 * mebibyte;

// One answer to every request: a release, or for /<number> a body of so many zero bytes.
QByteArray answerTo(const QByteArray &request)
{
    const qint64 size = request.split(' ').value(1).mid(1).toLongLong();
    const QByteArray body = size > 0
        ? QByteArray(size, '\0')
        : QByteArray(
            R"({"success":true,"release":{"product_code":"DEMO","version":"1.5.0",)"
            R"("download_url":"http://127.0.0.1/releases/demo-1.5.0.bin",)"
            R"("stable_download_url":"http://127.0.0.1/releases/demo.bin",)"
            R"("sha256":"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",)"
            R"("notes":"Corregge un errore all'avvio."}})");
    return "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n"
        + body;
}

int serve()
{
    QTcpServer server;
    QObject::connect(&server, &QTcpServer::newConnection, &server, [&server] {
        QTcpSocket *socket = server.nextPendingConnection();
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket] {
            // Requests without a body, each sent whole when the one before it is answered.
            const QByteArray request = socket->readAll();
            if (request.endsWith("\r\n\r\n"))
                socket->write(answerTo(request));
        });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    });
    if (!server.listen(QHostAddress::LocalHost))
        return 1;
    std::printf("%d\n", server.serverPort());
    std::fflush(stdout);
    return QCoreApplication::exec();
}

// Milliseconds of CPU that this process, all its threads together, has used.
double cpuTime()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

// A field of the status of this process, or of another, in bytes.
qint64 memory(const QByteArray &field, const QString &process = u"self"_s)
{
    QFile status(u"/proc/%1/status"_s.arg(process));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.simplified().split(' ').value(1).toLongLong() * 1024;
    }
    return 0;
}

// A figure of a failed request would mean nothing.
void stop(const QString &error)
{
    std::fprintf(stderr, "corvane-benchmark: %s\n", qUtf8Printable(error));
    std::exit(1);
}

class ByCorvane
{
public:
    explicit ByCorvane(const QUrl &server)
    {
        m_client.setServerUrl(server);
        m_client.setProductCode(u"DEMO"_s);
        QObject::connect(&m_client, &Corvane::updateChecked, &m_client, [this] { m_done(); });
        QObject::connect(&m_client, &Corvane::updateDownloaded, &m_client, [this] { m_done(); });
        QObject::connect(&m_client, &Corvane::networkError, &m_client, &stop);
    }
    void onDone(const std::function<void()> &done) { m_done = done; }
    void check() { m_client.checkForUpdate(u"1.4.0"_s, u"stable"_s); }
    void download(const QUrl &url, const QString &path) { m_client.downloadUpdate(url, path); }

private:
    Corvane m_client;
    std::function<void()> m_done;
};

// The same requests, and the least that an application would do with the replies.
class ByHand
{
public:
    explicit ByHand(const QUrl &server)
        : m_server(server)
    {
    }
    void onDone(const std::function<void()> &done) { m_done = done; }
    void check()
    {
        QUrl url = m_server;
        url.setPath(u"/api/v1/releases/latest/DEMO"_s);
        QUrlQuery query;
        query.addQueryItem(u"channel"_s, u"stable"_s);
        query.addQueryItem(u"_"_s, QString::number(QDateTime::currentMSecsSinceEpoch()));
        url.setQuery(query);
        QNetworkReply *reply = m_network.get(uncached(url));
        QObject::connect(reply, &QNetworkReply::finished, &m_network, [this, reply] {
            if (reply->error() != QNetworkReply::NoError)
                stop(reply->errorString());
            const QJsonObject object = QJsonDocument::fromJson(reply->readAll()).object();
            reply->deleteLater();
            const QJsonObject release = object.value("release"_L1).toObject();
            m_update.updateAvailable = release.value("version"_L1).toString() != "1.4.0"_L1;
            m_update.productCode = release.value("product_code"_L1).toString();
            m_update.latestVersion = release.value("version"_L1).toString();
            m_update.downloadUrl = release.value("download_url"_L1).toString();
            m_update.stableDownloadUrl = release.value("stable_download_url"_L1).toString();
            m_update.sha256 = release.value("sha256"_L1).toString();
            m_update.notes = release.value("notes"_L1).toString();
            m_done();
        });
    }
    void download(const QUrl &url, const QString &path)
    {
        QNetworkReply *reply = m_network.get(uncached(url));
        QObject::connect(reply, &QNetworkReply::finished, &m_network, [this, reply, path] {
            if (reply->error() != QNetworkReply::NoError)
                stop(reply->errorString());
            QFile file(path);
            if (file.open(QIODevice::WriteOnly))
                file.write(reply->readAll());
            reply->deleteLater();
            m_done();
        });
    }

private:
    static QNetworkRequest uncached(const QUrl &url)
    {
        QNetworkRequest request(url);
        request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                             QNetworkRequest::AlwaysNetwork);
        request.setRawHeader("Cache-Control", "no-cache");
        request.setRawHeader("Pragma", "no-cache");
        return request;
    }

    QNetworkAccessManager m_network;
    QUrl m_server;
    UpdateInfo m_update;
    std::function<void()> m_done;
};

// CPU milliseconds of so many checks, one after the other.
template <typename Side> double cpuOfChecks(Side &side)
{
    int left = checksPerSide;
    QEventLoop loop;
    side.onDone([&] {
        if (--left > 0)
            side.check();
        else
            loop.quit();
    });
    const double before = cpuTime();
    side.check();
    loop.exec();
    return cpuTime() - before;
}

// Runs in a process of its own: the peak counts from the process's start.
template <typename Side> int measureDownload(const QUrl &server, qint64 size)
{
    QTemporaryDir dir;
    Side side(server);
    side.onDone([] { QCoreApplication::quit(); });
    // A small download first, so that what every first request costs does not count.
    side.download(server.resolved(QUrl(u"1"_s)), dir.filePath(u"file"_s));
    QCoreApplication::exec();
    const qint64 before = memory("VmRSS");
    side.download(server.resolved(QUrl(QString::number(size))), dir.filePath(u"file"_s));
    QCoreApplication::exec();
    std::printf("%.3f\n",
                static_cast<double>(memory("VmHWM") - before) / static_cast<double>(size));
    return 0;
}

struct Spread
{
    double low;
    double median;
    double high;
};

// The median, and the quartiles around it.
Spread spreadOf(QList<double> values)
{
    std::sort(values.begin(), values.end());
    const qsizetype last = values.size() - 1;
    return {values.at(last / 4), values.at(last / 2), values.at(last - last / 4)};
}

void print(const char *what, const Spread &spread, const char *unit)
{
    std::printf("  %-34s %9.3f %s   (quartiles %.3f to %.3f)\n", what, spread.median, unit,
                spread.low, spread.high);
    std::fflush(stdout);
}

void compareChecks(const QUrl &server)
{
    std::printf("Update check: CPU time, %d pairs of %d checks in turn\n", pairs, checksPerSide);
    ByCorvane corvane(server);
    ByHand byHand(server);
    // The first round warms up and does not count.
    cpuOfChecks(corvane);
    cpuOfChecks(byHand);
    QList<double> corvaneTimes;
    QList<double> byHandTimes;
    QList<double> ratios;
    for (int pair = 0; pair < pairs; ++pair) {
        corvaneTimes += cpuOfChecks(corvane) * 1000 / checksPerSide;
        byHandTimes += cpuOfChecks(byHand) * 1000 / checksPerSide;
        ratios += corvaneTimes.constLast() / byHandTimes.constLast();
    }
    print("Corvane", spreadOf(corvaneTimes), "us");
    print("by hand", spreadOf(byHandTimes), "us");
    print("Corvane / by hand", spreadOf(ratios), "x ");
}

// Peak memory over body size, as measureDownload() in a new process prints it.
double peakOf(const QString &side, const QUrl &server, qint64 size)
{
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(),
                  {side, server.toString(), QString::number(size)});
    if (!process.waitForFinished(120000) || process.exitCode() != 0)
        stop(u"a download could not be measured"_s);
    return process.readAllStandardOutput().trimmed().toDouble();
}

void compareDownloads(const QUrl &server)
{
    std::printf("Download: peak memory over body size, 5 pairs in turn\n");
    for (const int size : {1, 4, 16, 64, 256}) {
        QList<double> corvane;
        QList<double> byHand;
        for (int pair = 0; pair < 5; ++pair) {
            corvane += peakOf(u"--corvane"_s, server, size * mebibyte);
            byHand += peakOf(u"--by-hand"_s, server, size * mebibyte);
        }
        std::printf(" body of %d MiB\n", size);
        print("Corvane", spreadOf(corvane), "x ");
        print("by hand", spreadOf(byHand), "x ");
    }
}

// Update checks a second, so many in flight at a time.
double rateOf(ByCorvane &host)
{
    int toStart = checksPerRound;
    int toEnd = checksPerRound;
    QEventLoop loop;
    host.onDone([&] {
        if (--toEnd == 0)
            loop.quit();
        else if (toStart-- > 0)
            host.check();
    });
    QElapsedTimer timer;
    timer.start();
    toStart -= checksInFlight;
    for (int i = 0; i < checksInFlight; ++i)
        host.check();
    loop.exec();
    return checksPerRound * 1e9 / double(timer.nsecsElapsed());
}

// What the reply is long, none of which is kept.
qint64 sizeOf(const QUrl &url)
{
    QNetworkAccessManager network;
    QNetworkReply *reply = network.get(QNetworkRequest(url));
    qint64 size = 0;
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::readyRead, &loop,
                     [total = &size, reply] { *total += reply->readAll().size(); });
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    if (reply->error() != QNetworkReply::NoError)
        stop(reply->errorString());
    return size;
}

// Zero bytes, which take no room on the disk.
void makeRelease(const QTemporaryDir &releases, const QString &channel, qint64 size)
{
    const QString folder = releases.filePath(u"DEMO/%1/1.5.0"_s.arg(channel));
    QFile file(folder + "/demo.bin"_L1);
    if (!QDir().mkpath(folder) || !file.open(QIODevice::WriteOnly) || !file.resize(size))
        stop(u"no release could be written"_s);
}

int measureSandbox(const QString &program)
{
    QTemporaryDir releases;
    makeRelease(releases, u"stable"_s, 4);
    makeRelease(releases, u"large"_s, largeRelease);
    QProcess sandbox;
    sandbox.start(program, {u"--releases"_s, releases.path()});
    if (!sandbox.waitForStarted() || !sandbox.waitForReadyRead())
        stop(u"the sandbox did not start"_s);

    const QUrl url(QString::fromUtf8(sandbox.readLine().trimmed()));
    ByCorvane host(url);
    // The first round warms up and does not count.
    rateOf(host);
    QList<double> rates;
    for (int round = 0; round < rounds; ++round)
        rates += rateOf(host);
    std::printf("Sandbox: update checks of one host, %d rounds of %d\n", rounds, checksPerRound);
    print("answered", spreadOf(rates), "/s");

    const QString process = QString::number(sandbox.processId());
    const qint64 before = memory("VmRSS", process);
    // The check has the sandbox compute the digest.
    sizeOf(url.resolved(QUrl(u"/api/v1/releases/latest/DEMO?channel=large"_s)));
    if (sizeOf(url.resolved(QUrl(u"/releases/DEMO/large/1.5.0/demo.bin"_s))) != largeRelease)
        stop(u"the large release did not come whole"_s);
    const qint64 grown = memory("VmHWM", process) - before;
    std::printf("Sandbox: memory for the check and the download of %lld MiB\n",
                static_cast<long long>(largeRelease / mebibyte));
    std::printf("  %-34s %9.3f MiB\n", "grown by", double(grown) / double(mebibyte));
    sandbox.terminate();
    sandbox.waitForFinished();
    return 0;
}

int compare()
{
    QProcess server;
    server.start(QCoreApplication::applicationFilePath(), {u"--serve"_s});
    if (!server.waitForStarted() || !server.waitForReadyRead()) {
        std::fputs("corvane-benchmark: its server did not start\n", stderr);
        return 1;
    }
    QUrl url(u"http://127.0.0.1/"_s);
    url.setPort(server.readLine().trimmed().toInt());
    std::printf("Qt %s\n", qVersion());
    compareChecks(url);
    compareDownloads(url);
    server.kill();
    server.waitForFinished();
    return 0;
}

} // namespace

// Without arguments, measures the library. Other arguments play parts in that, or measure a
// sandbox.
int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    const QString part = arguments.value(1);
    const QUrl server(arguments.value(2));
    const qint64 size = arguments.value(3).toLongLong();
    if (part == "--serve"_L1)
        return serve();
    if (part == "--corvane"_L1)
        return measureDownload<ByCorvane>(server, size);
    if (part == "--by-hand"_L1)
        return measureDownload<ByHand>(server, size);
    if (part == "--sandbox"_L1 && arguments.size() == 3)
        return measureSandbox(arguments.at(2));
    if (arguments.size() == 1)
        return compare();
    std::fputs("usage: corvane-benchmark [--sandbox PROGRAM]\n", stderr);
    return 2;
}
