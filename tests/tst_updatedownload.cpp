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

#include <algorithm>

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
    void destinationIsTakenAsGiven_data();
    void destinationIsTakenAsGiven();
    void savesBytesExactly_data();
    void savesBytesExactly();
    void createsMissingDirectories();
    void savesRelativeToTheCurrentDirectory();
    void savesUnderUnicodeNames();
    void overwritesFromTheStart();
    void savesSuccessWithoutContent();
    void destinationThatCannotBeOpened_data();
    void destinationThatCannotBeOpened();
    void keepsDirectoriesMadeForAFailedSave();
    void fullDeviceGoesUnreported();
    void failedTransferLeavesTheDestinationAlone_data();
    void failedTransferLeavesTheDestinationAlone();
    void brokenOffTransferIsWhatTheNetworkLayerCallsIt();
    void fileIsWrittenBeforeTheSignal();
    void fileIsOpenDuringTheSignalAndClosedAfter();
    void createsNoOtherFile();
    void overlappingDownloadsShareTheDestinationGivenLast();
    void slotMayStartTheNextDownload();

private:
    static bool isOpenInThisProcess(const QString &path);
};

namespace {

const auto badArguments =
    SignalLog::networkError(u"URL o destinazione aggiornamento non validi."_s);
const auto cannotSave = SignalLog::networkError(u"Impossibile salvare aggiornamento."_s);

} // namespace

void tst_UpdateDownload::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

bool tst_UpdateDownload::isOpenInThisProcess(const QString &path)
{
    const auto descriptors =
        QDir(u"/proc/self/fd"_s).entryInfoList(QDir::AllEntries | QDir::System);
    return std::any_of(descriptors.cbegin(), descriptors.cend(),
                       [&path](const QFileInfo &info) { return info.symLinkTarget() == path; });
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
    Host host;
    QUrl url = host.server.url();
    url.setPath(u"/releases/a b%2F/\u00E8.bin"_s, QUrl::TolerantMode);
    url.setQuery(u"token=a+b&x"_s);
    host.client.downloadUpdate(url, u"/dev/null"_s);
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
    Host host;
    const QUrl url = host.server.url(u"/file"_s);
    host.client.downloadUpdate(url, u"/dev/null"_s);
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

void tst_UpdateDownload::destinationIsTakenAsGiven_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("not-clean") << u"./b//file"_s;
    QTest::newRow("blanks") << u" file "_s;
}

void tst_UpdateDownload::destinationIsTakenAsGiven()
{
    QFETCH(QString, name);

    QTemporaryDir dir;
    const QString path = dir.path() + u'/' + name;
    Host host;
    host.server.script(LoopbackServer::response(200, "body"));
    host.client.downloadUpdate(host.server.url(), path);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QCOMPARE(Files::contentOf(path), "body");
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

void tst_UpdateDownload::savesUnderUnicodeNames()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"\u00C8 %41/\u65E5\U0001F600.bin"_s);
    Host host;
    host.server.script(LoopbackServer::response(200, "body"));
    host.client.downloadUpdate(host.server.url(), path);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QCOMPARE(Files::contentOf(path), "body");
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

void tst_UpdateDownload::savesSuccessWithoutContent()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Host host;
    host.server.script("HTTP/1.1 204 No Content\r\n\r\n");
    host.client.downloadUpdate(host.server.url(), path);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QCOMPARE(Files::contentOf(path), "");
}

void tst_UpdateDownload::destinationThatCannotBeOpened_data()
{
    QTest::addColumn<QString>("name"); // below a directory that holds "file" and "dir/"

    QTest::newRow("directory") << u"dir"_s;
    QTest::newRow("directory-with-slash") << u"dir/"_s;
    QTest::newRow("below-a-file") << u"file/below"_s;
    QTest::newRow("far-below-a-file") << u"file/a/b/c"_s;
    QTest::newRow("name-too-long") << QString(300, u'x');
}

void tst_UpdateDownload::destinationThatCannotBeOpened()
{
    QFETCH(QString, name);

    QTemporaryDir dir;
    Files::write(dir.filePath(u"file"_s), "old");
    QVERIFY(QDir(dir.path()).mkdir(u"dir"_s));
    Host host;
    host.server.script(LoopbackServer::response(200, "body"));
    host.client.downloadUpdate(host.server.url(), dir.filePath(name));
    QCOMPARE(host.log.settled(), QStringList{cannotSave});
    QCOMPARE(Files::contentOf(dir.filePath(u"file"_s)), "old");
    QCOMPARE(QDir(dir.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             (QStringList{u"dir"_s, u"file"_s}));
}

void tst_UpdateDownload::keepsDirectoriesMadeForAFailedSave()
{
    QTemporaryDir dir;
    Host host;
    host.server.script(LoopbackServer::response(200, "body"));
    host.client.downloadUpdate(host.server.url(), dir.filePath(u"a/b/"_s) + QString(300, u'x'));
    QCOMPARE(host.log.settled(), QStringList{cannotSave});
    QVERIFY(QDir(dir.filePath(u"a/b"_s)).exists());
}

void tst_UpdateDownload::fullDeviceGoesUnreported()
{
    // A device that takes no byte, as a full disk does, behind a link, so that a client which
    // cleans up after itself removes no more than that.
    QTemporaryDir dir;
    const QString path = dir.filePath(u"full"_s);
    QVERIFY(QFile::link(u"/dev/full"_s, path));
    Host host;
    host.server.script(LoopbackServer::response(200, QByteArray(1 << 20, 'x')));
    host.client.downloadUpdate(host.server.url(), path);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateDownloaded(path)});
    QVERIFY(QFileInfo(path).isSymLink());
}

void tst_UpdateDownload::failedTransferLeavesTheDestinationAlone_data()
{
    QTest::addColumn<QByteArray>("response");
    QTest::addColumn<bool>("exists");

    const auto rows = [](const char *name, const QByteArray &response) {
        QTest::addRow("%s-old-file", name) << response << true;
        QTest::addRow("%s-no-file", name) << response << false;
    };
    rows("status-404", LoopbackServer::response(404, "not this", "text/html"));
    rows("status-403-json-error", LoopbackServer::response(403, R"({"error":{"message":"No"}})"));
    rows("status-500-empty", LoopbackServer::response(500, ""));
    rows("closed-at-once", "");
}

void tst_UpdateDownload::failedTransferLeavesTheDestinationAlone()
{
    QFETCH(QByteArray, response);
    QFETCH(bool, exists);

    QTemporaryDir dir;
    const QString path = dir.filePath(u"a/file"_s);
    if (exists) {
        QVERIFY(QDir(dir.path()).mkdir(u"a"_s));
        Files::write(path, "old");
    }
    Host host;
    // The network layer tries again when a connection closes without an answer.
    for (int i = 0; i < 8; ++i)
        host.server.script(response, LoopbackServer::Close);
    host.client.downloadUpdate(host.server.url(u"/file"_s), path);
    const QStringList lines = host.log.settled();
    QCOMPARE(lines,
             QStringList{
                 SignalLog::networkError(PlainNetwork::errorString(host.server.url(u"/file"_s)))});
    QCOMPARE(Files::contentOf(path), exists ? "old" : "(cannot be read)");
    QCOMPARE(QFile::exists(dir.filePath(u"a"_s)), exists);
}

// Now and then, in all versions of Qt, the network layer reports a part as a success: hosts compare
// the SHA-256.
void tst_UpdateDownload::brokenOffTransferIsWhatTheNetworkLayerCallsIt()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Files::write(path, "old");
    Host host;
    host.server.script("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf", LoopbackServer::Close);
    host.client.downloadUpdate(host.server.url(), path);
    const auto *reply = host.client.findChild<QNetworkReply *>();
    QString error;
    connect(reply, &QNetworkReply::finished, this, [&error, reply] {
        error = reply->error() == QNetworkReply::NoError ? QString() : reply->errorString();
    });
    const QStringList lines = host.log.settled();
    QCOMPARE(lines,
             QStringList{error.isNull() ? SignalLog::updateDownloaded(path)
                                        : SignalLog::networkError(error)});
    QCOMPARE(Files::contentOf(path), error.isNull() ? "half" : "old");
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

void tst_UpdateDownload::fileIsOpenDuringTheSignalAndClosedAfter()
{
    QTemporaryDir dir;
    const QString path = QDir(dir.path()).canonicalPath() + "/file"_L1;
    Host host;
    bool openDuring = false;
    connect(&host.client, &Corvane::updateDownloaded, this,
            [&] { openDuring = isOpenInThisProcess(path); });
    host.server.script(LoopbackServer::response(200, "body"));
    host.client.downloadUpdate(host.server.url(), path);
    host.log.settled();
    QVERIFY(openDuring);
    QVERIFY(!isOpenInThisProcess(path));
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
