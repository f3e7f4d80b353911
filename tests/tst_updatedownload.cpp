#include "files.h"
#include "host.h"
#include "plainnetwork.h"

#include <QtCore/qdir.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qscopeguard.h>
#include <QtCore/qtemporarydir.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <fcntl.h>

using namespace Qt::StringLiterals;

class tst_UpdateDownload : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void refusesBadArguments_data();
    void refusesBadArguments();
    void refusalKeepsTheStoredDestination();
    void sendsRequest();
    void setsNothingElseOnTheRequest();
    void needsNoConfiguration();
    void relativeUrlIsNotResolved();
    void savesBytesExactly_data();
    void savesBytesExactly();
    void createsMissingDirectories();
    void savesRelativeToTheCurrentDirectory();
    void overwritesFromTheStart();
    void fileIsWrittenBeforeTheSignal();
    void fileIsWrittenLikeAPlainOne();
    void fileIsOpenDuringTheSignalAndClosedAfter();
    void createsNoOtherFile();
    void overlappingDownloadsShareTheDestinationGivenLast();
    void slotMayStartTheNextDownload();

private:
    // How this process has the file open, as for open(2); -1 if it has not.
    static int accessMode(const QString &path);
};

namespace {

const auto badArguments =
    SignalLog::networkError(u"URL o destinazione aggiornamento non validi."_s);

} // namespace

void tst_UpdateDownload::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

int tst_UpdateDownload::accessMode(const QString &path)
{
    const auto descriptors =
        QDir(u"/proc/self/fd"_s).entryInfoList(QDir::AllEntries | QDir::System);
    for (const QFileInfo &descriptor : descriptors) {
        if (descriptor.symLinkTarget() != path)
            continue;
        const QString info =
            QString::fromLatin1(Files::contentOf("/proc/self/fdinfo/"_L1 + descriptor.fileName()));
        static const QRegularExpression flags(u"flags:\\s*([0-7]+)"_s);
        return flags.match(info).captured(1).toInt(nullptr, 8) & O_ACCMODE;
    }
    return -1;
}

void tst_UpdateDownload::refusesBadArguments_data()
{
    QTest::addColumn<QUrl>("url");
    QTest::addColumn<QString>("destination");

    const QUrl url(u"http://127.0.0.1:1/file"_s);
    QTest::newRow("empty-url") << QUrl() << u"file"_s;
    QTest::newRow("invalid-url") << QUrl(u"http://[bad"_s) << u"file"_s;
    QTest::newRow("empty-destination") << url << u""_s;
    QTest::newRow("null-destination") << url << QString();
    QTest::newRow("both") << QUrl() << QString();
}

void tst_UpdateDownload::refusesBadArguments()
{
    QFETCH(QUrl, url);
    QFETCH(QString, destination);

    QTemporaryDir dir;
    Host host;
    host.client.downloadUpdate(url,
                               destination.isEmpty() ? destination : dir.filePath(destination));
    QCOMPARE(host.log.lines(), QStringList{badArguments}); // before the call returned
    QVERIFY(!host.client.findChild<QNetworkReply *>());
    QVERIFY(dir.isValid() && QDir(dir.path()).isEmpty());
}

void tst_UpdateDownload::refusalKeepsTheStoredDestination()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    const QString other = dir.filePath(u"other"_s);
    Host host;
    host.client.downloadUpdate(host.server.url(), path);
    host.client.downloadUpdate(QUrl(), other);
    host.client.downloadUpdate(host.server.url(), QString());
    QVERIFY(host.server.waitForRequests(1));
    host.server.reply(0, LoopbackServer::response(200, "body"));

    QCOMPARE(host.log.settled(),
             (QStringList{badArguments, badArguments, SignalLog::updateDownloaded(path)}));
    QCOMPARE(Files::contentOf(path), "body");
    QVERIFY(!QFile::exists(other));
}

void tst_UpdateDownload::sendsRequest()
{
    const QTemporaryDir dir;
    Host host;
    QUrl url = host.server.url();
    url.setPath(u"/releases/a b%2F/\u00E8.bin"_s, QUrl::TolerantMode);
    url.setQuery(u"token=a+b&x"_s);
    host.client.downloadUpdate(url, dir.filePath(u"file"_s));
    QVERIFY(host.server.waitForRequests(1));
    QCOMPARE(PlainNetwork::ownPart(host.server, host.server.requests().constFirst()),
             "GET /releases/a%20b%2F/%C3%A8.bin?token=a+b&x\n"
             "cache-control: no-cache\n"
             "pragma: no-cache\n"
             "\n");
}

// The network layer adds the two headers by itself for the attribute, so the wire cannot tell
// whether the client set them: the request object can.
void tst_UpdateDownload::setsNothingElseOnTheRequest()
{
    const QTemporaryDir dir;
    Host host;
    const QUrl url = host.server.url(u"/file"_s);
    host.client.downloadUpdate(url, dir.filePath(u"file"_s));
    const QNetworkReply *reply = host.client.findChild<QNetworkReply *>();
    QVERIFY(reply);

    QCOMPARE(reply->request().url(), url);
    QVERIFY(PlainNetwork::isUncachedGet(reply->request()));
    QCOMPARE(reply->operation(), QNetworkAccessManager::GetOperation);
}

void tst_UpdateDownload::needsNoConfiguration()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    LoopbackServer server;
    server.script(LoopbackServer::response(200, "body"));
    Corvane client;
    SignalLog log(&client);
    client.downloadUpdate(server.url(u"/file"_s), path);
    QCOMPARE(log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QCOMPARE(Files::contentOf(path), "body");
}

void tst_UpdateDownload::relativeUrlIsNotResolved()
{
    QTemporaryDir dir;
    const QUrl relative(u"file.bin"_s);
    Host host;
    host.client.downloadUpdate(relative, dir.filePath(u"file"_s));
    QCOMPARE(host.client.findChild<QNetworkReply *>()->url(), relative);
    QCOMPARE(host.log.settled(),
             QStringList{SignalLog::networkError(PlainNetwork::errorString(relative))});
    QVERIFY(host.server.requests().isEmpty());
}

void tst_UpdateDownload::savesBytesExactly_data()
{
    QTest::addColumn<QByteArray>("body");

    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all += static_cast<char>(i);
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("every-byte") << all;
    QTest::newRow("line-ends") << QByteArray("a\r\nb\nc\r\0", 8);
    QTest::newRow("json-refusal") << QByteArray(R"({"success":false,"error":{"message":"No"}})");
    QTest::newRow("three-mebibytes") << all.repeated(3 * 4096);
}

void tst_UpdateDownload::savesBytesExactly()
{
    QFETCH(QByteArray, body);

    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Host host;
    host.server.script(LoopbackServer::response(200, body));
    host.client.downloadUpdate(host.server.url(), path);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QVERIFY(Files::contentOf(path) == body);
}

void tst_UpdateDownload::createsMissingDirectories()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"a/b/c d/file"_s);
    Host host;
    host.server.script(LoopbackServer::response(200, "body"));
    host.client.downloadUpdate(host.server.url(), path);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QCOMPARE(Files::contentOf(dir.filePath(u"a/b/c d/file"_s)), "body");
}

void tst_UpdateDownload::savesRelativeToTheCurrentDirectory()
{
    QTemporaryDir dir;
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(dir.path()));
    const auto restore = qScopeGuard([&before] { QDir::setCurrent(before); });
    Host host;
    host.server.script(LoopbackServer::response(200, "one"));
    host.server.script(LoopbackServer::response(200, "two"));
    host.client.downloadUpdate(host.server.url(), u"file"_s);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(u"file"_s)});
    host.client.downloadUpdate(host.server.url(), u"sub/dir/file"_s);
    QCOMPARE(host.log.settled().constLast(), SignalLog::updateDownloaded(u"sub/dir/file"_s));
    QCOMPARE(Files::contentOf(dir.filePath(u"file"_s)), "one");
    QCOMPARE(Files::contentOf(dir.filePath(u"sub/dir/file"_s)), "two");
}

void tst_UpdateDownload::overwritesFromTheStart()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Files::write(path, "a much longer file than the download");
    Host host;
    host.server.script(LoopbackServer::response(200, "short"));
    host.server.script(LoopbackServer::response(200, ""));
    host.client.downloadUpdate(host.server.url(), path);
    host.log.settled();
    QCOMPARE(Files::contentOf(path), "short");
    host.client.downloadUpdate(host.server.url(), path);
    const QString saved = SignalLog::updateDownloaded(path);
    QCOMPARE(host.log.settled(), (QStringList{saved, saved}));
    QCOMPARE(Files::contentOf(path), "");
}

void tst_UpdateDownload::fileIsWrittenBeforeTheSignal()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    const QByteArray body(1 << 20, 'x'); // more than a file buffers
    qint64 sizeDuring = -1;
    Host host;
    connect(&host.client, &Corvane::updateDownloaded, this,
            [&] { sizeDuring = QFileInfo(path).size(); });
    host.server.script(LoopbackServer::response(200, body));
    host.client.downloadUpdate(host.server.url(), path);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QCOMPARE(sizeDuring, body.size());
}

// One write, with the buffering and the permissions that any file gets.
void tst_UpdateDownload::fileIsWrittenLikeAPlainOne()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    const QByteArray body("less than a file buffers");
    QFile plain(dir.filePath(u"plain"_s));
    QVERIFY(plain.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(plain.write(body), body.size());

    qint64 sizeDuring = -1;
    Host host;
    connect(&host.client, &Corvane::updateDownloaded, this,
            [&] { sizeDuring = QFileInfo(path).size(); });
    host.server.script(LoopbackServer::response(200, body));
    host.client.downloadUpdate(host.server.url(), path);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QCOMPARE(sizeDuring, QFileInfo(plain.fileName()).size());
    QCOMPARE(QFile::permissions(path), QFile::permissions(plain.fileName()));
}

void tst_UpdateDownload::fileIsOpenDuringTheSignalAndClosedAfter()
{
    QTemporaryDir dir;
    const QString path = QDir(dir.path()).canonicalPath() + "/file"_L1;
    Host host;
    int modeDuring = -1;
    connect(&host.client, &Corvane::updateDownloaded, this, [&] { modeDuring = accessMode(path); });
    host.server.script(LoopbackServer::response(200, "body"));
    host.client.downloadUpdate(host.server.url(), path);
    host.log.settled();
    QCOMPARE(modeDuring, O_WRONLY);
    QCOMPARE(accessMode(path), -1);
}

void tst_UpdateDownload::createsNoOtherFile()
{
    QTemporaryDir dir;
    Host host;
    QStringList during;
    connect(&host.client, &Corvane::updateDownloaded, this, [&] {
        during = QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    });
    host.server.script(LoopbackServer::response(200, "body"));
    host.client.downloadUpdate(host.server.url(), dir.filePath(u"file"_s));
    host.log.settled();
    QCOMPARE(during, QStringList{u"file"_s});
    QCOMPARE(QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList{u"file"_s});
}

void tst_UpdateDownload::overlappingDownloadsShareTheDestinationGivenLast()
{
    QTemporaryDir dir;
    const QString first = dir.filePath(u"first"_s);
    const QString second = dir.filePath(u"second"_s);
    Host host;
    host.client.downloadUpdate(host.server.url(u"/1"_s), first);
    QVERIFY(host.server.waitForRequests(1));
    host.client.downloadUpdate(host.server.url(u"/2"_s), second);
    QVERIFY(host.server.waitForRequests(2));

    QSignalSpy downloaded(&host.client, &Corvane::updateDownloaded);
    host.server.reply(1, LoopbackServer::response(200, "of the second call"));
    QVERIFY(downloaded.wait());
    QCOMPARE(Files::contentOf(second), "of the second call");
    host.server.reply(0, LoopbackServer::response(200, "of the first"));
    const QString line = SignalLog::updateDownloaded(second);
    QCOMPARE(host.log.settled(), (QStringList{line, line}));
    QCOMPARE(Files::contentOf(second), "of the first");
    QVERIFY(!QFile::exists(first));
}

// Every slot gets the path that was written, also after one that starts the next download.
void tst_UpdateDownload::slotMayStartTheNextDownload()
{
    QTemporaryDir dir;
    const QString first = dir.filePath(u"first"_s);
    const QString second = dir.filePath(u"second"_s);
    LoopbackServer server;
    server.script(LoopbackServer::response(200, "1"));
    server.script(LoopbackServer::response(200, "2"));
    Corvane client;
    connect(&client, &Corvane::updateDownloaded, this, [&](const QString &path) {
        if (path == first)
            client.downloadUpdate(server.url(), second);
    });
    SignalLog log(&client); // connected after the slot that calls again
    client.downloadUpdate(server.url(), first);
    QCOMPARE(
        log.settled(),
        (QStringList{SignalLog::updateDownloaded(first), SignalLog::updateDownloaded(second)}));
    QCOMPARE(Files::contentOf(first), "1");
    QCOMPARE(Files::contentOf(second), "2");
}

QTEST_GUILESS_MAIN(tst_UpdateDownload)
#include "tst_updatedownload.moc"
