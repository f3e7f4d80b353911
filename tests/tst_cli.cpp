#include "files.h"
#include "loopbackserver.h"
#include "plainnetwork.h"

#include <QtCore/qcryptographichash.h>
#include <QtCore/qdir.h>
#include <QtCore/qdiriterator.h>
#include <QtCore/qelapsedtimer.h>
#include <QtCore/qfile.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qprocess.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qscopeguard.h>
#include <QtCore/qtemporarydir.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <csignal>
#include <utility>

#include <fcntl.h>
#include <linux/capability.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class tst_Cli : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void helpFitsAScreen();
    void versionIsTheProjects();
    void refusesBadArguments_data();
    void refusesBadArguments();
    void refusesAnArgumentThatIsNotUtf8();
    void refusesBadPayload_data();
    void refusesBadPayload();
    void sendsRequest_data();
    void sendsRequest();
    void readsPayloadFromStandardInput();
    void printsResult_data();
    void printsResult();
    void printsNoControlCharacters_data();
    void printsNoControlCharacters();
    void printsJson_data();
    void printsJson();
    void readsTheEnvironment();
    void optionsWinOverTheEnvironment();
    void emptyVariablesCountAsUnset();
    void worksInAnyLocale_data();
    void worksInAnyLocale();
    void transferFailureIsANetworkFailure_data();
    void transferFailureIsANetworkFailure();
    void refusedConnectionIsANetworkFailure();
    void givesUpAfterTheTimeout_data();
    void givesUpAfterTheTimeout();
    void timeoutOfZeroWaits();
    void tellsWhenTheResultCannotBeWritten();
    void downloads_data();
    void downloads();
    void downloadNeedsNeitherServerNorProduct();
    void downloadVerifiesTheSha256_data();
    void downloadVerifiesTheSha256();
    void downloadFollowsTheUmask();
    void downloadReplacesALinkNotItsTarget();
    void downloadRefusesDestination_data();
    void downloadRefusesDestination();
    void failedDownloadChangesNothing_data();
    void failedDownloadChangesNothing();
    void failedMoveChangesNothing_data();
    void failedMoveChangesNothing();
    void failedMoveLeavesTheOldFile();
    void failedMoveLeavesWhatCameInBetween();
    void failedSaveChangesNothing();
    void fullDiskChangesNothing_data();
    void fullDiskChangesNothing();
    void fileSizeLimitChangesNothing_data();
    void fileSizeLimitChangesNothing();
    void lostReaderLeavesNothingBehind();
    void signalEndsTheWaiting_data();
    void signalEndsTheWaiting();
    void signalWhileVerifyingChangesNothing();
    void signalEndsThePrinting_data();
    void signalEndsThePrinting();
    void ignoredSignalStaysIgnored();
    void showsWaitingOnATerminal();
    void showsNoWaitingWithJson();
};

namespace {

const QByteArray oldBytes("the old file");
const QByteArray newBytes("the new\0file\r\n", 14);

QString sha256Of(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QString outcome(int status, const QString &out, const QString &err)
{
    return u"exit %1\n[out]\n%2[err]\n%3"_s.arg(QString::number(status), out, err);
}

QString failure(int status, const QString &error)
{
    return outcome(status, {}, u"corvane-cli: "_s + error + u'\n');
}

const QString noRoom =
    u"no room is left on the disk or below the file size limit, the file may be cut short, "
    "nothing was saved; make room, or give --sha256"_s;

QString saved(const QString &path, const QByteArray &bytes)
{
    return outcome(0,
                   u"Saved:   %1\nSize:    %2 bytes\nSHA-256: %3\n"_s.arg(
                       path, QString::number(bytes.size()), sha256Of(bytes)),
                   {});
}

// The program, in an environment without settings of its own.
class Program : public QProcess
{
public:
    Program()
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(u"CORVANE_SERVER"_s);
        environment.remove(u"CORVANE_PRODUCT"_s);
        setProcessEnvironment(environment);
        setProgram(QStringLiteral(CORVANE_CLI_PATH));
    }

    ~Program() override
    {
        kill();
        waitForFinished();
    }

    void set(const QString &variable, const QString &value)
    {
        QProcessEnvironment environment = processEnvironment();
        environment.insert(variable, value);
        setProcessEnvironment(environment);
    }

    void run(const QStringList &arguments)
    {
        setArguments(arguments);
        start();
    }

    // As a customer of that server.
    void run(const LoopbackServer &server, const QStringList &arguments)
    {
        run(QStringList{u"--server"_s, server.url().toString(), u"--product"_s, u"demo"_s}
            + arguments);
    }

    // Waits for the end, and tells all there is to tell of it.
    QString outcome()
    {
        QSignalSpy ended(this, &QProcess::finished);
        if (state() != NotRunning && !ended.wait(20000))
            return u"still running"_s;
        if (exitStatus() != NormalExit)
            return u"killed by signal %1"_s.arg(exitCode());
        return ::outcome(exitCode(), QString::fromUtf8(readAllStandardOutput()),
                         QString::fromUtf8(readAllStandardError()));
    }
};

QString outcomeOf(const LoopbackServer &server, const QStringList &arguments)
{
    Program program;
    program.run(server, arguments);
    return program.outcome();
}

QString outcomeOf(const QStringList &arguments)
{
    Program program;
    program.run(arguments);
    return program.outcome();
}

// All that is in the folder, at any depth, hidden or not, files with their bytes.
QStringList contentsOf(const QString &folder)
{
    QStringList contents;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString name = path.mid(folder.size() + 1);
        const QFileInfo info(path);
        contents.append(info.isFile() ? name + u": "_s + QString::fromLatin1(Files::contentOf(path))
                                      : name + u'/');
    }
    contents.sort();
    return contents;
}

// The temporary folder of a running download into this folder.
QString temporaryIn(const QString &folder)
{
    const QStringList names =
        QDir(folder).entryList({u".corvane-cli-*"_s}, QDir::Dirs | QDir::Hidden);
    return names.size() == 1 ? folder + u'/' + names.first() : QString();
}

// How many bytes the pipe holds.
int unreadIn(int pipe)
{
    int count = -1;
    return ::ioctl(pipe, FIONREAD, &count) == 0 ? count : -1;
}

QString canonical(const LoopbackServer::Request &request)
{
    QString target = QString::fromLatin1(request.target);
    static const QRegularExpression time(u"_=\\d+$"_s);
    target.replace(time, u"_=TIME"_s);
    return QString::fromLatin1(request.method) + u' ' + target + u'\n'
        + QString::fromUtf8(request.body);
}

// A folder with a file in it that a download is to replace.
struct Downloads
{
    Downloads()
    {
        Files::write(file, oldBytes);
        before = contentsOf(folder.path());
    }

    QTemporaryDir folder;
    const QString file = folder.filePath(u"file"_s);
    QStringList before;
    LoopbackServer server;
    const QString url = server.url(u"/release"_s).toString();
};

const QByteArray release(R"({"success": true, "more": 1, "release": {
    "product_code": "DEMO", "version": "1.5.0", "download_url": "https://example.com/1.5.0",
    "stable_download_url": "https://example.com/stable", "sha256": "AB12",
    "notes": "Più veloce.\nMeno errori."}})");
const QByteArray refusal(R"({"success": true, "error": {"message": "Chiave già usata."}})");
const QByteArray purchase(R"({"success": true, "payment_id": 7, "license_id": 8,
    "license_key": "KEY-1", "paypal_order_id": "ORDER-1",
    "approval_url": "https://example.com/approve", "more": 1})");
const QByteArray refusedPurchase(R"({"success": false, "license_key": "KEY-1",
    "error": {"message": "Piano inesistente."}})");
const QByteArray plans(R"({"plans": [
    {"code": "PRO", "name": "Più", "price": 9.5, "features": ["a", "b"]}, "odd"]})");

// One call of each command.
const QStringList check{u"check"_s, u"1.4.0"_s, u"stable"_s};
const QStringList start{u"start"_s, u"pro"_s, u"Zoë"_s, u"D'Orò"_s, u"Zoe@Example.com"_s};
const QStringList resume{u"resume"_s, u"KEY-1"_s};
const QStringList capture{u"capture"_s, u"ORDER-1"_s};
const QStringList usage{u"usage"_s, u"KEY-1"_s, u"machine"_s, u"started"_s};

} // namespace

void tst_Cli::initTestCase()
{
    QVERIFY(QFileInfo(QStringLiteral(CORVANE_CLI_PATH)).isExecutable());
}

void tst_Cli::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_Cli::helpFitsAScreen()
{
    Program program;
    program.run({u"--help"_s});
    QSignalSpy ended(&program, &QProcess::finished);
    QVERIFY(ended.wait());
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(program.readAllStandardError(), QByteArray());

    const QString help = QString::fromUtf8(program.readAllStandardOutput());
    QVERIFY(help.endsWith(u'\n'));
    const QStringList lines = help.chopped(1).split(u'\n');
    QVERIFY2(lines.size() <= 24, qPrintable(QString::number(lines.size())));
    for (const QString &line : lines)
        QVERIFY2(line.size() <= 80, qPrintable(line));
    for (const QString &word : {u"  check CURRENT_VERSION CHANNEL\n"_s,
                                u"  download URL FILE\n"_s,
                                u"  plans\n"_s,
                                u"  start PLAN FIRST_NAME LAST_NAME EMAIL\n"_s,
                                u"  resume LICENSE_KEY\n"_s,
                                u"  capture ORDER_ID\n"_s,
                                u"  usage LICENSE_KEY MACHINE_ID EVENT_TYPE [PAYLOAD_FILE]\n"_s,
                                u"--server URL"_s,
                                u"CORVANE_SERVER"_s,
                                u"--product CODE"_s,
                                u"CORVANE_PRODUCT"_s,
                                u"--sha256 HEX"_s,
                                u"--json"_s,
                                u"--timeout SECONDS"_s,
                                u"0 done"_s,
                                u"1 the service said no"_s,
                                u"2 bad arguments or input"_s,
                                u"3 network failure"_s,
                                u"4 time-out"_s,
                                u"5 downloaded but not usable"_s,
                                u"6 done, but the result could not be written"_s,
                                u"128+N ended by signal N"_s})
    {
        QVERIFY2(help.contains(word), qPrintable(word));
    }
}

void tst_Cli::versionIsTheProjects()
{
    QCOMPARE(outcomeOf({u"--version"_s}), outcome(0, u"corvane-cli " CORVANE_VERSION "\n"_s, {}));
}

void tst_Cli::refusesBadArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");

    const auto wrongNumber = [](const char *synopsis) {
        return u"wrong number of arguments; usage: corvane-cli [options] "_s
            + QString::fromLatin1(synopsis);
    };
    const auto badUrl = [](const char *url) {
        return u"bad URL '%1'; it must be http:// or https:// and name a host"_s.arg(
            QString::fromLatin1(url));
    };
    const auto badTimeout = [](const char *text) {
        return u"bad time-out '%1'; it must be seconds from 0 to 2147483"_s.arg(
            QString::fromLatin1(text));
    };
    const auto badSha256 = [](const QString &text) {
        return u"bad --sha256 '%1'; it must be 64 hexadecimal digits"_s.arg(text);
    };
    const QString server = u"--server=http://127.0.0.1"_s;
    const QString product = u"--product=demo"_s;
    const QStringList configured{server, product};
    const QStringList download{u"download"_s, u"http://127.0.0.1/"_s, u"file"_s};

    QTest::addRow("no-command") << configured
                                << u"no command given; corvane-cli --help lists them"_s;
    QTest::addRow("unknown-command")
        << QStringList{u"%1buy"_s} << u"unknown command '%1buy'; corvane-cli --help lists them"_s;
    QTest::addRow("unknown-option")
        << configured + check + QStringList{u"--colour"_s} << u"Unknown option 'colour'."_s;
    QTest::addRow("option-without-value")
        << check + QStringList{u"--server"_s} << u"Missing value after '--server'."_s;

    QTest::addRow("check-missing")
        << configured + check.sliced(0, 2) << wrongNumber("check CURRENT_VERSION CHANNEL");
    QTest::addRow("check-extra") << configured + check + QStringList{u"x"_s}
                                 << wrongNumber("check CURRENT_VERSION CHANNEL");
    QTest::addRow("download-missing") << download.sliced(0, 2) << wrongNumber("download URL FILE");
    QTest::addRow("download-extra")
        << download + QStringList{u"x"_s} << wrongNumber("download URL FILE");
    QTest::addRow("plans-extra") << configured + QStringList{u"plans"_s, u"x"_s}
                                 << wrongNumber("plans");
    QTest::addRow("start-missing")
        << configured + start.sliced(0, 4) << wrongNumber("start PLAN FIRST_NAME LAST_NAME EMAIL");
    QTest::addRow("start-extra") << configured + start + QStringList{u"x"_s}
                                 << wrongNumber("start PLAN FIRST_NAME LAST_NAME EMAIL");
    QTest::addRow("resume-missing")
        << configured + resume.sliced(0, 1) << wrongNumber("resume LICENSE_KEY");
    QTest::addRow("resume-extra") << configured + resume + QStringList{u"x"_s}
                                  << wrongNumber("resume LICENSE_KEY");
    QTest::addRow("capture-missing")
        << configured + capture.sliced(0, 1) << wrongNumber("capture ORDER_ID");
    QTest::addRow("capture-extra")
        << configured + capture + QStringList{u"x"_s} << wrongNumber("capture ORDER_ID");
    QTest::addRow("usage-missing")
        << configured + usage.sliced(0, 3)
        << wrongNumber("usage LICENSE_KEY MACHINE_ID EVENT_TYPE [PAYLOAD_FILE]");
    QTest::addRow("usage-extra") << configured + usage + QStringList{u"x"_s, u"y"_s}
                                 << wrongNumber(
                                        "usage LICENSE_KEY MACHINE_ID EVENT_TYPE [PAYLOAD_FILE]");

    QTest::addRow("server-missing")
        << QStringList{product} + check << u"no server; give --server URL or set CORVANE_SERVER"_s;
    QTest::addRow("server-empty") << QStringList{u"--server="_s, product} + check << badUrl("");
    QTest::addRow("server-of-another-scheme")
        << QStringList{u"--server=ftp://127.0.0.1"_s, product} + check << badUrl("ftp://127.0.0.1");
    QTest::addRow("server-without-scheme")
        << QStringList{u"--server=127.0.0.1"_s, product} + check << badUrl("127.0.0.1");
    QTest::addRow("server-without-host")
        << QStringList{u"--server=http:///path"_s, product} + check << badUrl("http:///path");
    QTest::addRow("server-with-impossible-port")
        << QStringList{u"--server=http://127.0.0.1:99999"_s, product} + check
        << badUrl("http://127.0.0.1:99999");
    const QString noProduct = u"no product code; give --product CODE or set CORVANE_PRODUCT"_s;
    QTest::addRow("product-missing") << QStringList{server} + capture << noProduct;
    QTest::addRow("product-blank") << QStringList{server, u"--product= "_s} + capture << noProduct;

    for (const char *text : {"", "soon", "1s", "-1", "nan", "inf", "2147484"}) {
        QTest::addRow("time-out-%s", *text ? text : "empty")
            << configured + check + QStringList{u"--timeout="_s + QString::fromLatin1(text)}
            << badTimeout(text);
    }

    QTest::addRow("payload-file-name-empty")
        << configured + usage + QStringList{QString()}
        << u"the payload's file name is empty; leave it out for no payload"_s;

    QTest::addRow("sha256-empty") << download + QStringList{u"--sha256="_s} << badSha256({});
    QTest::addRow("sha256-short") << download + QStringList{u"--sha256"_s, QString(63, u'a')}
                                  << badSha256(QString(63, u'a'));
    QTest::addRow("sha256-long") << download + QStringList{u"--sha256"_s, QString(65, u'a')}
                                 << badSha256(QString(65, u'a'));
    QTest::addRow("sha256-not-hexadecimal")
        << download + QStringList{u"--sha256"_s, QString(63, u'a') + u'g'}
        << badSha256(QString(63, u'a') + u'g');
    QTest::addRow("sha256-of-no-download")
        << configured + check + QStringList{u"--sha256"_s, QString(64, u'a')}
        << u"--sha256 goes with download only"_s;

    QTest::addRow("download-of-another-scheme")
        << QStringList{u"download"_s, u"file:///etc/hostname"_s, u"file"_s}
        << badUrl("file:///etc/hostname");
    QTest::addRow("download-of-no-url")
        << QStringList{u"download"_s, u"release.zip"_s, u"file"_s} << badUrl("release.zip");
}

void tst_Cli::refusesBadArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, error);

    QTemporaryDir folder;
    Program program;
    program.setWorkingDirectory(folder.path());
    program.run(arguments);
    QCOMPARE(program.outcome(), failure(2, error));
    QCOMPARE(contentsOf(folder.path()), QStringList());
}

// The file used to be saved under another name. Only a shell can give such an argument here.
void tst_Cli::refusesAnArgumentThatIsNotUtf8()
{
    Downloads downloads;
    downloads.server.script(LoopbackServer::response(200, newBytes));
    Program program;
    program.setWorkingDirectory(downloads.folder.path());
    program.setProgram(u"/bin/sh"_s);
    program.run({u"-c"_s, uR"sh("$0" download "$1" "$(printf 'x\377')")sh"_s,
                 QStringLiteral(CORVANE_CLI_PATH), downloads.url});
    QCOMPARE(program.outcome(), failure(2, u"argument 3, 'x\uFFFD', is not UTF-8"_s));
    QCOMPARE(downloads.server.connectionCount(), 0);
    QCOMPARE(contentsOf(downloads.folder.path()), downloads.before);
}

void tst_Cli::refusesBadPayload_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("error");

    const auto notJson = [](const QByteArray &payload) {
        QJsonParseError error;
        QJsonDocument::fromJson(payload, &error);
        return u"the payload 'payload' is not JSON: offset %1: %2"_s.arg(
            QString::number(error.offset), error.errorString());
    };
    const QString noObject =
        u"the payload 'payload' is JSON, but no object: offset 0: { expected"_s;

    for (const auto &[tag, payload] :
         {std::pair("empty", ""), std::pair("text", "hello"),
          std::pair("cut-short", R"({"a": [1, 2)"), std::pair("not-utf8", "{\"a\": \"\xff\"}")})
    {
        QTest::addRow("%s", tag) << QByteArray(payload) << notJson(payload);
    }
    QTest::addRow("array") << QByteArray("[{}]") << noObject;
    QTest::addRow("folder") << QByteArray("(folder)")
                            << u"cannot read the payload 'payload': file to open is a directory"_s;
    QTest::addRow("missing-file")
        << QByteArray() << u"cannot read the payload 'payload': No such file or directory"_s;
}

void tst_Cli::refusesBadPayload()
{
    QFETCH(QByteArray, payload);
    QFETCH(QString, error);

    QTemporaryDir folder;
    if (payload == "(folder)")
        QVERIFY(QDir(folder.path()).mkdir(u"payload"_s));
    else if (!payload.isNull())
        Files::write(folder.filePath(u"payload"_s), payload);
    LoopbackServer server;
    Program program;
    program.setWorkingDirectory(folder.path());
    program.run(server, usage + QStringList{u"payload"_s});
    QCOMPARE(program.outcome(), failure(2, error));
    QCOMPARE(server.connectionCount(), 0);
}

void tst_Cli::sendsRequest_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("request");

    QTest::addRow("check") << check
                           << u"GET /api/v1/releases/latest/DEMO?channel=stable&_=TIME\n"_s;
    QTest::addRow("plans") << QStringList{u"plans"_s}
                           << u"GET /api/v1/purchase/plans?product_code=DEMO\n"_s;
    QTest::addRow("start") << start << uR"(POST /api/v1/purchase/start
{"email":"zoe@example.com","first_name":"Zoë","last_name":"D'Orò","plan_code":"PRO","product_code":"DEMO"})"_s;
    QTest::addRow("resume") << resume << uR"(POST /api/v1/purchase/resume
{"license_key":"KEY-1","product_code":"DEMO"})"_s;
    QTest::addRow("capture") << capture << uR"(POST /api/v1/purchase/capture
{"paypal_order_id":"ORDER-1"})"_s;
    QTest::addRow("usage") << usage << uR"(POST /api/v1/client/usage
{"event_type":"started","license_key":"KEY-1","machine_fingerprint":"machine","product_code":"DEMO"})"_s;
    QTest::addRow("usage-with-payload")
        << usage + QStringList{u"pàyload"_s} << uR"(POST /api/v1/client/usage
{"event_type":"started","giorno":"lunedì","license_key":"KEY-1","machine_fingerprint":"machine","n":[1],"product_code":"DEMO"})"_s;
    QTest::addRow("operand-with-dashes")
        << QStringList{u"resume"_s, u"--"_s, u"--KEY"_s} << uR"(POST /api/v1/purchase/resume
{"license_key":"--KEY","product_code":"DEMO"})"_s;
}

void tst_Cli::sendsRequest()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, request);

    QTemporaryDir folder;
    Files::write(folder.filePath(u"pàyload"_s),
                 R"({"n": [1], "giorno": "lunedì", "event_type": "x"})");
    LoopbackServer server;
    Program program;
    program.setWorkingDirectory(folder.path());
    program.run(server, arguments);
    QVERIFY(server.waitForRequests(1));
    QCOMPARE(canonical(server.requests().first()), request);
}

void tst_Cli::readsPayloadFromStandardInput()
{
    LoopbackServer server;
    Program program;
    program.run(server, usage + QStringList{u"-"_s});
    program.write(R"({"n": )");
    program.write("1}");
    program.closeWriteChannel();
    QVERIFY(server.waitForRequests(1));
    QCOMPARE(server.requests().first().body,
             QByteArray(R"({"event_type":"started","license_key":"KEY-1",)"
                        R"("machine_fingerprint":"machine","n":1,"product_code":"DEMO"})"));
}

void tst_Cli::printsResult_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("response");
    QTest::addColumn<QString>("result");

    const auto response = [](const QByteArray &body) {
        return LoopbackServer::response(200, body);
    };

    QTest::addRow("check-update") << check << response(release)
                                  << outcome(0, uR"(Update available:    yes
Product:             DEMO
Current version:     1.4.0
Latest version:      1.5.0
Download URL:        https://example.com/1.5.0
Stable download URL: https://example.com/stable
SHA-256:             AB12
Notes:               Più veloce.
                     Meno errori.
)"_s,
                                             {});
    QTest::addRow("check-same-version")
        << check << response(R"({"success": true, "release": {"version": "1.4.0"}})")
        << outcome(0, uR"(Update available: no
Current version:  1.4.0
Latest version:   1.4.0
)"_s,
                   {});
    QTest::addRow("check-nothing-offered") << check << response(R"({"success": true})")
                                           << outcome(0, uR"(Update available: no
Current version:  1.4.0
)"_s,
                                                      {});
    QTest::addRow("check-no-success")
        << check << response("{}") << failure(1, u"the service said no and gave no reason"_s);
    QTest::addRow("check-no-success-with-reason")
        << check << response(refusedPurchase) << failure(1, u"Piano inesistente."_s);

    QTest::addRow("plans") << QStringList{u"plans"_s} << response(plans)
                           << outcome(0, uR"(code:     PRO
features: ["a","b"]
name:     Più
price:    9.5

odd
)"_s,
                                      {});
    QTest::addRow("plans-none") << QStringList{u"plans"_s} << response("{}")
                                << outcome(0, u"No plans.\n"_s, {});

    const QString started = outcome(0, uR"(Message:      Pagamento avviato.
Approval URL: https://example.com/approve
Order id:     ORDER-1
License key:  KEY-1
License id:   8
Payment id:   7
)"_s,
                                    {});
    QTest::addRow("start") << start << response(purchase) << started;
    QTest::addRow("resume") << resume << response(purchase) << started;
    QTest::addRow("start-refused")
        << start << response(refusedPurchase)
        << outcome(1, u"License key: KEY-1\n"_s, u"corvane-cli: Piano inesistente.\n"_s);
    QTest::addRow("resume-refused-with-status-403")
        << resume << LoopbackServer::response(403, refusedPurchase)
        << outcome(1, u"License key: KEY-1\n"_s, u"corvane-cli: Piano inesistente.\n"_s);
    QTest::addRow("start-refused-without-reason")
        << start << response("{}") << failure(1, u"Pagamento non avviato."_s);
    QTest::addRow("start-refused-with-empty-reason")
        << start << response(R"({"error": {"message": ""}})")
        << failure(1, u"the service said no and gave no reason"_s);

    QTest::addRow("capture") << capture << response(R"({"paid": true, "license_id": 8})")
                             << outcome(0, uR"(Message:    Pagamento completato.
License id: 8
)"_s,
                                        {});
    QTest::addRow("capture-unpaid")
        << capture << response(R"({"success": true, "license_id": 8})")
        << outcome(1, u"License id: 8\n"_s, u"corvane-cli: Pagamento non completato.\n"_s);

    QTest::addRow("usage") << usage << response(R"({"success": true})")
                           << outcome(0, u"Accepted: yes\n"_s, {});
    QTest::addRow("usage-with-message")
        << usage << response(refusal)
        << outcome(0, u"Accepted: yes\nMessage:  Chiave già usata.\n"_s, {});
    QTest::addRow("usage-refused-with-status-403")
        << usage << LoopbackServer::response(403, refusal) << failure(1, u"Chiave già usata."_s);
    QTest::addRow("usage-refused-without-reason")
        << usage << response("{}") << failure(1, u"the service said no and gave no reason"_s);
}

void tst_Cli::printsResult()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, response);
    QFETCH(QString, result);

    LoopbackServer server;
    server.script(response);
    QCOMPARE(outcomeOf(server, arguments), result);
    QCOMPARE(server.requests().size(), 1);
}

void tst_Cli::printsNoControlCharacters_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QString>("result");

    struct Text
    {
        const char *tag;
        QByteArray sent;
        QString inLabel;
        // The lines after the first are to be indented.
        QStringList inValue;
    };
    const Text texts[] = {
        {"carriage-return", "a\\rb", u"a\uFFFDb"_s, {u"a\uFFFDb"_s}},
        {"carriage-return-line-feed", "a\\r\\nb", u"a b"_s, {u"a"_s, u"b"_s}},
        {"line-feed", "a\\nb: c", u"a b: c"_s, {u"a"_s, u"b: c"_s}},
        {"tabulator", "a\\tb", u"a\tb"_s, {u"a\tb"_s}},
        {"escape", "a\\u001b[2Jb", u"a\uFFFD[2Jb"_s, {u"a\uFFFD[2Jb"_s}},
        {"null", "a\\u0000b", u"a\uFFFDb"_s, {u"a\uFFFDb"_s}},
        {"delete", "a\\u007fb", u"a\uFFFDb"_s, {u"a\uFFFDb"_s}},
        {"control-sequence-introducer", "a\\u009b2Jb", u"a\uFFFD2Jb"_s, {u"a\uFFFD2Jb"_s}},
        {"line-separator", "a\\u2028b", u"a\uFFFDb"_s, {u"a\uFFFDb"_s}},
        {"paragraph-separator", "a\\u2029b", u"a\uFFFDb"_s, {u"a\uFFFDb"_s}},
        {"emoji", "a\\ud83d\\ude00b", u"a\U0001F600b"_s, {u"a\U0001F600b"_s}},
    };
    const QStringList plansCommand{u"plans"_s};
    const auto indented = [](const QStringList &lines, int width) {
        return lines.join(u'\n' + QString(width, u' '));
    };
    for (const auto &[tag, sent, inLabel, inValue] : texts) {
        QTest::addRow("%s-in-notes", tag)
            << check << R"({"success": true, "release": {"notes": ")" + sent + R"("}})"
            << outcome(0,
                       u"Update available: no\nCurrent version:  1.4.0\nNotes:            "_s
                           + indented(inValue, 18) + u'\n',
                       {});
        QTest::addRow("%s-in-plan-value", tag)
            << plansCommand << R"({"plans": [{"name": ")" + sent + R"("}]})"
            << outcome(0, u"name: "_s + indented(inValue, 6) + u'\n', {});
        QTest::addRow("%s-in-plan-member-name", tag)
            << plansCommand << R"({"plans": [{")" + sent + R"(": 1}]})"
            << outcome(0, inLabel + u": 1\n"_s, {});
        QTest::addRow("%s-in-plain-plan", tag)
            << plansCommand << R"({"plans": [")" + sent + R"("]})"
            << outcome(0, indented(inValue, 2) + u'\n', {});
        QTest::addRow("%s-in-error", tag)
            << resume << R"({"error": {"message": ")" + sent + R"("}})"
            << failure(1, indented(inValue, 13));
    }
}

// The service's texts used to reach the terminal as they came, able to clear it or to pass for rows
// of the program's own.
void tst_Cli::printsNoControlCharacters()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, reply);
    QFETCH(QString, result);

    LoopbackServer server;
    server.script(LoopbackServer::response(200, reply));
    QCOMPARE(outcomeOf(server, arguments), result);
}

void tst_Cli::printsJson_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("document"); // RAW stands for the reply
    QTest::addColumn<QByteArray>("error");

    QTest::addRow("check-update") << check << release << 0 << QByteArray(R"({
        "update_available": true, "product_code": "DEMO", "current_version": "1.4.0",
        "latest_version": "1.5.0", "download_url": "https://example.com/1.5.0",
        "stable_download_url": "https://example.com/stable", "sha256": "AB12",
        "notes": "Più veloce.\nMeno errori.", "raw": RAW})")
                                  << QByteArray();
    QTest::addRow("check-no-success") << check << refusedPurchase << 1 << QByteArray(R"({
        "update_available": false, "product_code": "", "current_version": "1.4.0",
        "latest_version": "", "download_url": "", "stable_download_url": "", "sha256": "",
        "notes": "", "raw": RAW})") << QByteArray("corvane-cli: Piano inesistente.\n");
    QTest::addRow("plans") << QStringList{u"plans"_s} << plans << 0 << QByteArray("RAW")
                           << QByteArray();
    QTest::addRow("plans-none") << QStringList{u"plans"_s} << QByteArray("{}") << 0
                                << QByteArray(R"({"plans": []})") << QByteArray();
    const QByteArray started(R"({
        "success": true, "payment_id": 7, "license_id": 8, "license_key": "KEY-1",
        "paypal_order_id": "ORDER-1", "approval_url": "https://example.com/approve",
        "message": "Pagamento avviato.", "raw": RAW})");
    QTest::addRow("start") << start << purchase << 0 << started << QByteArray();
    QTest::addRow("resume") << resume << purchase << 0 << started << QByteArray();
    QTest::addRow("start-refused") << start << refusedPurchase << 1 << QByteArray(R"({
        "success": false, "payment_id": 0, "license_id": 0, "license_key": "KEY-1",
        "paypal_order_id": "", "approval_url": "", "message": "Piano inesistente.", "raw": RAW})")
                                   << QByteArray("corvane-cli: Piano inesistente.\n");
    QTest::addRow("capture") << capture << QByteArray(R"({"paid": true, "license_id": 8})") << 0
                             << QByteArray(R"({"paid": true, "license_id": 8,
        "message": "Pagamento completato.", "raw": RAW})")
                             << QByteArray();
    QTest::addRow("capture-unpaid")
        << capture << QByteArray("{}") << 1 << QByteArray(R"({"paid": false, "license_id": 0,
        "message": "Pagamento non completato.", "raw": RAW})")
        << QByteArray("corvane-cli: Pagamento non completato.\n");
    QTest::addRow("usage") << usage << refusal << 0
                           << QByteArray(R"({"accepted": true, "message": "Chiave già usata."})")
                           << QByteArray();
    QTest::addRow("usage-refused")
        << usage << QByteArray("{}") << 1 << QByteArray(R"({"accepted": false, "message": ""})")
        << QByteArray("corvane-cli: the service said no and gave no "
                      "reason\n");
}

void tst_Cli::printsJson()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, reply);
    QFETCH(int, status);
    QFETCH(QByteArray, document);
    QFETCH(QByteArray, error);

    LoopbackServer server;
    server.script(LoopbackServer::response(200, reply));
    Program program;
    program.run(server, arguments + QStringList{u"--json"_s});
    QSignalSpy ended(&program, &QProcess::finished);
    QVERIFY(ended.wait());
    QCOMPARE(program.exitCode(), status);
    QCOMPARE(program.readAllStandardError(), error);

    const QByteArray out = program.readAllStandardOutput();
    QCOMPARE(out.indexOf('\n'), out.size() - 1);
    const QJsonDocument expected = QJsonDocument::fromJson(document.replace("RAW", reply));
    QVERIFY(expected.isObject());
    QCOMPARE(QJsonDocument::fromJson(out), expected);
}

void tst_Cli::readsTheEnvironment()
{
    LoopbackServer server;
    server.script(LoopbackServer::response(200, "{}"));
    Program program;
    program.set(u"CORVANE_SERVER"_s, server.url().toString());
    program.set(u"CORVANE_PRODUCT"_s, u"più"_s);
    program.run({u"plans"_s});
    QCOMPARE(program.outcome(), outcome(0, u"No plans.\n"_s, {}));
    QCOMPARE(canonical(server.requests().first()),
             u"GET /api/v1/purchase/plans?product_code=PI%C3%99\n"_s);
}

void tst_Cli::optionsWinOverTheEnvironment()
{
    LoopbackServer server;
    server.script(LoopbackServer::response(200, "{}"));
    LoopbackServer unused;
    Program program;
    program.set(u"CORVANE_SERVER"_s, unused.url().toString());
    program.set(u"CORVANE_PRODUCT"_s, u"unused"_s);
    program.run(server, {u"plans"_s});
    QCOMPARE(program.outcome(), outcome(0, u"No plans.\n"_s, {}));
    QCOMPARE(canonical(server.requests().first()),
             u"GET /api/v1/purchase/plans?product_code=DEMO\n"_s);
    QCOMPARE(unused.connectionCount(), 0);
}

void tst_Cli::emptyVariablesCountAsUnset()
{
    Program program;
    program.set(u"CORVANE_SERVER"_s, QString());
    program.set(u"CORVANE_PRODUCT"_s, QString());
    program.run({u"plans"_s});
    QCOMPARE(program.outcome(),
             failure(2, u"no server; give --server URL or set CORVANE_SERVER"_s));
}

void tst_Cli::worksInAnyLocale_data()
{
    QTest::addColumn<QString>("locale");

    QTest::addRow("C") << u"C"_s; // cron's
    QTest::addRow("latin1") << u"it_IT.ISO-8859-1"_s;
    QTest::addRow("unknown") << u"xx"_s;
}

void tst_Cli::worksInAnyLocale()
{
    QFETCH(QString, locale);

    LoopbackServer server;
    server.script(LoopbackServer::response(200, R"({"success": true})"));
    Program program;
    program.set(u"LC_ALL"_s, locale);
    program.run(server, {u"check"_s, u"versiòne"_s, u"stàbile"_s});
    QCOMPARE(program.outcome(),
             outcome(0, u"Update available: no\nCurrent version:  versiòne\n"_s, {}));
    QCOMPARE(canonical(server.requests().first()),
             u"GET /api/v1/releases/latest/DEMO?channel=st%C3%A0bile&_=TIME\n"_s);
}

void tst_Cli::transferFailureIsANetworkFailure_data()
{
    QTest::addColumn<QStringList>("arguments");

    QTest::addRow("check") << check;
    QTest::addRow("plans") << QStringList{u"plans"_s};
    QTest::addRow("start") << start;
    QTest::addRow("resume") << resume;
    QTest::addRow("capture") << capture;
    QTest::addRow("usage") << usage;
    QTest::addRow("json") << check + QStringList{u"--json"_s};
}

void tst_Cli::transferFailureIsANetworkFailure()
{
    QFETCH(QStringList, arguments);

    LoopbackServer server;
    const QByteArray response = LoopbackServer::response(500, "");
    server.script(response);
    const QString result = outcomeOf(server, arguments);
    QCOMPARE(server.requests().size(), 1);
    const PlainNetwork::Answer plain =
        PlainNetwork::ask(server, server.requests().first(), response);
    QCOMPARE(result, failure(3, plain.errorString));
}

void tst_Cli::refusedConnectionIsANetworkFailure()
{
    QStringList arguments;
    {
        const LoopbackServer closed;
        arguments = {u"--server"_s, closed.url().toString(), u"--product"_s, u"demo"_s, u"plans"_s};
    }
    QCOMPARE(outcomeOf(arguments), failure(3, u"Connection refused"_s));
}

void tst_Cli::givesUpAfterTheTimeout_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("seconds");

    // Long enough for a sign of waiting, if there were one where no terminal is.
    QTest::addRow("check") << check << u"0.3"_s;
    QTest::addRow("plans") << QStringList{u"plans"_s} << u"0.3"_s;
    QTest::addRow("start") << start << u"0.3"_s;
    QTest::addRow("capture") << capture << u"0.3"_s;
    QTest::addRow("usage") << usage << u"0.3"_s;
    QTest::addRow("json") << check + QStringList{u"--json"_s} << u"0.3"_s;
    QTest::addRow("whole-seconds") << check << u"1"_s;
    QTest::addRow("many-seconds") << check << u"3"_s;
}

void tst_Cli::givesUpAfterTheTimeout()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, seconds);

    LoopbackServer server;
    QElapsedTimer time;
    time.start();
    QCOMPARE(
        outcomeOf(server, arguments + QStringList{u"--timeout"_s, seconds}),
        failure(4,
                u"no answer within %1 s; the service may have acted all the same"_s.arg(seconds)));
    QVERIFY(time.elapsed() >= qint64(seconds.toDouble() * 1000));
    // On a busy machine the shorter times may be over before the request arrives.
    if (seconds == "3"_L1)
        QCOMPARE(server.requests().size(), 1);
}

void tst_Cli::timeoutOfZeroWaits()
{
    LoopbackServer server;
    Program program;
    program.run(server, {u"plans"_s, u"--timeout"_s, u"0"_s});
    QVERIFY(server.waitForRequests(1));
    server.reply(0, LoopbackServer::response(200, "{}"));
    QCOMPARE(program.outcome(), outcome(0, u"No plans.\n"_s, {}));
}

void tst_Cli::tellsWhenTheResultCannotBeWritten()
{
    LoopbackServer server;
    server.script(LoopbackServer::response(200, "{}"));
    Program program;
    program.setStandardOutputFile(u"/dev/full"_s);
    program.run(server, {u"plans"_s});
    QCOMPARE(program.outcome(), failure(6, u"cannot write the result: No space left on device"_s));
}

void tst_Cli::downloads_data()
{
    QTest::addColumn<QString>("destination"); // relative to the working directory
    QTest::addColumn<QByteArray>("bytes");

    QTest::addRow("new-file") << u"new"_s << newBytes;
    QTest::addRow("existing-file") << u"file"_s << newBytes;
    QTest::addRow("large") << u"file"_s << QByteArray(3'000'000, 'x');
    QTest::addRow("dot") << u"./file"_s << newBytes;
    QTest::addRow("missing-folders") << u"a/b/c/file"_s << newBytes;
    QTest::addRow("non-ascii") << u"città/più %1.zip"_s << newBytes;
}

void tst_Cli::downloads()
{
    QFETCH(QString, destination);
    QFETCH(QByteArray, bytes);

    for (const bool absolute : {false, true}) {
        Downloads downloads;
        const QString path = downloads.folder.filePath(destination);
        downloads.server.script(LoopbackServer::response(200, bytes));
        Program program;
        program.setWorkingDirectory(downloads.folder.path());
        program.run({u"download"_s, downloads.url, absolute ? path : destination});
        QCOMPARE(program.outcome(), saved(QDir::cleanPath(path), bytes));
        QCOMPARE(canonical(downloads.server.requests().first()), u"GET /release\n"_s);
        QCOMPARE(Files::contentOf(path), bytes);
        QVERIFY(temporaryIn(downloads.folder.path()).isEmpty());
    }
}

void tst_Cli::downloadNeedsNeitherServerNorProduct()
{
    Downloads downloads;
    downloads.server.script(LoopbackServer::response(200, newBytes));
    Program program;
    program.run({u"--json"_s, u"download"_s, downloads.url, downloads.file});
    QSignalSpy ended(&program, &QProcess::finished);
    QVERIFY(ended.wait());
    QCOMPARE(program.exitCode(), 0);
    QCOMPARE(program.readAllStandardError(), QByteArray());
    QCOMPARE(QJsonDocument::fromJson(program.readAllStandardOutput()).object(),
             (QJsonObject{{u"path"_s, downloads.file},
                          {u"size"_s, newBytes.size()},
                          {u"sha256"_s, sha256Of(newBytes)}}));
}

void tst_Cli::downloadVerifiesTheSha256_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("sha256");

    QTest::addRow("lower-case") << newBytes << sha256Of(newBytes);
    QTest::addRow("upper-case") << newBytes << sha256Of(newBytes).toUpper();
    QTest::addRow("empty") << QByteArray("") << sha256Of({});
}

void tst_Cli::downloadVerifiesTheSha256()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, sha256);

    Downloads downloads;
    downloads.server.script(LoopbackServer::response(200, bytes));
    QCOMPARE(outcomeOf({u"download"_s, downloads.url, downloads.file, u"--sha256"_s, sha256}),
             saved(downloads.file, bytes));
    QCOMPARE(contentsOf(downloads.folder.path()),
             QStringList{u"file: "_s + QString::fromLatin1(bytes)});
}

void tst_Cli::downloadFollowsTheUmask()
{
    Downloads downloads;
    QVERIFY(QFile::setPermissions(downloads.file, QFile::ReadOwner | QFile::ExeOwner));
    downloads.server.script(LoopbackServer::response(200, newBytes));
    Program program;
    program.setChildProcessModifier([] { ::umask(0027); });
    program.run({u"download"_s, downloads.url, downloads.file});
    QCOMPARE(program.outcome(), saved(downloads.file, newBytes));
    struct stat status = {};
    QCOMPARE(::stat(QFile::encodeName(downloads.file).constData(), &status), 0);
    QCOMPARE(status.st_mode & 07777U, 0640U);
}

void tst_Cli::downloadReplacesALinkNotItsTarget()
{
    Downloads downloads;
    const QString link = downloads.folder.filePath(u"link"_s);
    QVERIFY(QFile::link(downloads.file, link));
    downloads.server.script(LoopbackServer::response(200, newBytes));
    QCOMPARE(outcomeOf({u"download"_s, downloads.url, link}), saved(link, newBytes));
    QVERIFY(!QFileInfo(link).isSymLink());
    QCOMPARE(Files::contentOf(link), newBytes);
    QCOMPARE(Files::contentOf(downloads.file), oldBytes);
}

void tst_Cli::downloadRefusesDestination_data()
{
    QTest::addColumn<QString>("destination");
    QTest::addColumn<QString>("error");

    const QString folder = u"'%1' is a folder; name the file to write"_s;
    for (const char *name : {"", ".", "..", "folder", "link-to-folder", "missing/"})
        QTest::addRow("<%s>", name)
            << QString::fromLatin1(name) << folder.arg(QString::fromLatin1(name));
    QTest::addRow("fifo") << u"fifo"_s << u"'fifo' is not a regular file"_s;
    QTest::addRow("device") << u"/dev/null"_s << u"'/dev/null' is not a regular file"_s;
    QTest::addRow("below-a-file") << u"file/new"_s
                                  << u"cannot write to the folder 'file': Not a directory"_s;
}

void tst_Cli::downloadRefusesDestination()
{
    QFETCH(QString, destination);
    QFETCH(QString, error);

    Downloads downloads;
    QVERIFY(QDir(downloads.folder.path()).mkdir(u"folder"_s));
    QVERIFY(QFile::link(u"folder"_s, downloads.folder.filePath(u"link-to-folder"_s)));
    QCOMPARE(::mkfifo(QFile::encodeName(downloads.folder.filePath(u"fifo"_s)).constData(), 0600),
             0);
    const QStringList before = contentsOf(downloads.folder.path());
    Program program;
    program.setWorkingDirectory(downloads.folder.path());
    program.run({u"download"_s, downloads.url, destination});
    QCOMPARE(program.outcome(), failure(2, error));
    QCOMPARE(downloads.server.connectionCount(), 0);
    QCOMPARE(contentsOf(downloads.folder.path()), before);
}

void tst_Cli::failedDownloadChangesNothing_data()
{
    QTest::addColumn<QString>("destination");
    QTest::addColumn<QByteArray>("response");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("error"); // null: what the network layer says

    const QByteArray whole = LoopbackServer::response(200, newBytes);
    for (const auto &[tag, destination] :
         {std::pair("old-file", u"file"_s), std::pair("new-folder", u"new/folder/file"_s)})
    {
        QTest::addRow("other-sha256-%s", tag)
            << destination << whole << QStringList{u"--sha256"_s, sha256Of(oldBytes)} << 5
            << u"the SHA-256 differs, nothing was saved: %1 was downloaded"_s.arg(
                   sha256Of(newBytes));
        QTest::addRow("status-404-%s", tag)
            << destination << LoopbackServer::response(404, newBytes) << QStringList() << 3
            << QString();
        for (const int status : {200, 204, 304}) {
            QTest::addRow("empty-with-status-%d-%s", status, tag)
                << destination << LoopbackServer::response(status, "") << QStringList() << 5
                << u"the download is empty, nothing was saved; give --sha256 if it should be"_s;
        }
        QTest::addRow("cut-short-%s", tag)
            << destination << whole.chopped(1) << QStringList() << 3 << QString();
        QTest::addRow("held-%s", tag)
            << destination << QByteArray() << QStringList{u"--timeout"_s, u"0.3"_s} << 4
            << u"no answer within 0.3 s; the service may have acted all the same"_s;
        QTest::addRow("held-for-the-shortest-time-out-%s", tag)
            << destination << QByteArray() << QStringList{u"--timeout"_s, u"0.0001"_s} << 4
            << u"no answer within 0.001 s; the service may have acted all the same"_s;
    }
}

void tst_Cli::failedDownloadChangesNothing()
{
    QFETCH(QString, destination);
    QFETCH(QByteArray, response);
    QFETCH(QStringList, options);
    QFETCH(int, status);
    QFETCH(QString, error);

    Downloads downloads;
    const auto after = response.isEmpty() ? LoopbackServer::KeepOpen : LoopbackServer::Close;
    downloads.server.script(response, after);
    const QString result =
        outcomeOf(QStringList{u"download"_s, downloads.url, downloads.folder.filePath(destination)}
                  + options);
    QCOMPARE(contentsOf(downloads.folder.path()), downloads.before);
    if (error.isNull()) {
        const auto &request = downloads.server.requests().first();
        error = PlainNetwork::ask(downloads.server, request, response, after).errorString;
    }
    QCOMPARE(result, failure(status, error));
}

void tst_Cli::failedMoveChangesNothing_data()
{
    QTest::addColumn<QString>("destination");

    const QString tooLong(300, u'x');
    QTest::addRow("file-name-too-long") << tooLong;
    QTest::addRow("file-name-too-long-in-new-folders") << u"new/folder/"_s + tooLong;
    QTest::addRow("folder-name-too-long") << u"new/"_s + tooLong + u"/file"_s;
}

void tst_Cli::failedMoveChangesNothing()
{
    QFETCH(QString, destination);

    Downloads downloads;
    downloads.server.script(LoopbackServer::response(200, newBytes));
    Program program;
    program.setWorkingDirectory(downloads.folder.path());
    program.run({u"download"_s, downloads.url, destination});
    QCOMPARE(program.outcome(),
             failure(5, u"cannot move the file to '%1': File name too long"_s.arg(destination)));
    QCOMPARE(contentsOf(downloads.folder.path()), downloads.before);
}

void tst_Cli::failedMoveLeavesTheOldFile()
{
    if (::geteuid() != 0)
        QSKIP("Only root can make a file that it may not replace");

    // In a sticky folder anybody makes files, but nobody replaces another user's: not even root
    // without the capability for it.
    Downloads downloads;
    const QByteArray folder = QFile::encodeName(downloads.folder.path());
    QCOMPARE(::chmod(folder.constData(), 01777), 0);
    constexpr uid_t otherUser = 65534;
    QCOMPARE(::chown(folder.constData(), otherUser, otherUser), 0);
    QCOMPARE(::chown(QFile::encodeName(downloads.file).constData(), otherUser, otherUser), 0);
    downloads.server.script(LoopbackServer::response(200, newBytes));
    Program program;
    program.setChildProcessModifier([] {
        if (::prctl(PR_CAPBSET_DROP, CAP_FOWNER, 0, 0, 0) != 0)
            ::_exit(99);
    });
    program.run({u"download"_s, downloads.url, downloads.file});
    QCOMPARE(
        program.outcome(),
        failure(5, u"cannot move the file to '%1': Operation not permitted"_s.arg(downloads.file)));
    QCOMPARE(contentsOf(downloads.folder.path()), downloads.before);
}

void tst_Cli::failedMoveLeavesWhatCameInBetween()
{
    Downloads downloads;
    const QString path = downloads.folder.filePath(u"new"_s);
    Program program;
    program.run({u"download"_s, downloads.url, path});
    QVERIFY(downloads.server.waitForRequests(1));
    QVERIFY(QDir().mkdir(path));
    Files::write(path + u"/kept"_s, oldBytes);
    downloads.server.reply(0, LoopbackServer::response(200, newBytes));
    QCOMPARE(program.outcome(),
             failure(5, u"cannot move the file to '%1': Is a directory"_s.arg(path)));
    QCOMPARE(contentsOf(downloads.folder.path()),
             (QStringList{u"file: the old file"_s, u"new/"_s, u"new/kept: the old file"_s}));
}

void tst_Cli::failedSaveChangesNothing()
{
    Downloads downloads;
    Program program;
    program.run({u"download"_s, downloads.url, downloads.file});
    QVERIFY(downloads.server.waitForRequests(1));
    // Where the library is to write.
    QVERIFY(QDir(temporaryIn(downloads.folder.path())).mkdir(u"download"_s));
    downloads.server.reply(0, LoopbackServer::response(200, newBytes));
    QCOMPARE(program.outcome(), failure(5, u"Impossibile salvare aggiornamento."_s));
    QCOMPARE(contentsOf(downloads.folder.path()), downloads.before);
}

void tst_Cli::fullDiskChangesNothing_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("error");

    const QByteArray body(1'000'000, 'x');
    QTest::addRow("sha256-given") << QStringList{u"--sha256"_s, sha256Of(body)}
                                  << u"the SHA-256 differs, nothing was saved: .* was downloaded"_s;
    QTest::addRow("no-sha256") << QStringList() << noRoom;
}

void tst_Cli::fullDiskChangesNothing()
{
    QFETCH(QStringList, options);
    QFETCH(QString, error);

    const QStringList ownMounts = ::geteuid() == 0 ? QStringList{u"-m"_s} : QStringList{u"-rm"_s};
    const QString mount = u"mount -t tmpfs -o size=256k none \"$0\""_s;
    Downloads downloads;
    const QString path = downloads.folder.path();
    if (QProcess::execute(u"unshare"_s, ownMounts + QStringList{u"sh"_s, u"-c"_s, mount, path})
        != 0)
        QSKIP("No small file system can be mounted here");

    // What is on the small disk is seen from within alone, and told on standard output.
    downloads.server.script(LoopbackServer::response(200, QByteArray(1'000'000, 'x')));
    Program program;
    program.setProgram(u"unshare"_s);
    program.run(ownMounts
                + QStringList{u"sh"_s, u"-c"_s,
                              mount
                                  + u" && printf old >\"$0/file\" && \"$@\"; status=$?; "
                                    "find \"$0\" -mindepth 1 -printf '%P\\n'; cat \"$0/file\"; "
                                    "exit $status"_s,
                              path, QStringLiteral(CORVANE_CLI_PATH), u"download"_s, downloads.url,
                              downloads.file}
                + options);
    const QRegularExpression expected(QRegularExpression::anchoredPattern(
        outcome(5, u"file\nold"_s, {}).replace(u'[', u"\\["_s).replace(u']', u"\\]"_s)
        + u"corvane-cli: "_s + error + u"\n"_s));
    const QString result = program.outcome();
    QVERIFY2(expected.match(result).hasMatch(), qPrintable(result));
}

void tst_Cli::fileSizeLimitChangesNothing_data()
{
    QTest::addColumn<bool>("ignored");

    QTest::addRow("signal-ignored") << true;
    QTest::addRow("signal-not-ignored") << false;
}

// A file cut short by the limit used to replace the good one, or the limit's signal to leave the
// temporary folder behind.
void tst_Cli::fileSizeLimitChangesNothing()
{
    QFETCH(bool, ignored);

    Downloads downloads;
    downloads.server.script(LoopbackServer::response(200, QByteArray(1'000'000, 'x')));
    Program program;
    program.setChildProcessModifier([ignored] {
        constexpr rlimit limit{100'000, 100'000};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            ::_exit(99);
        ::signal(SIGXFSZ, ignored ? SIG_IGN : SIG_DFL);
    });
    program.run({u"download"_s, downloads.url, downloads.file});
    QCOMPARE(program.outcome(), failure(5, noRoom));
    QCOMPARE(contentsOf(downloads.folder.path()), downloads.before);
}

void tst_Cli::lostReaderLeavesNothingBehind()
{
    Downloads downloads;
    QTemporaryDir elsewhere;
    const QString output = elsewhere.filePath(u"output"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(output).constData(), 0600), 0);
    const int reader =
        ::open(QFile::encodeName(output).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    QVERIFY(reader >= 0);

    Program program;
    program.setStandardOutputFile(output);
    program.run({u"download"_s, downloads.url, downloads.file});
    const bool requested = downloads.server.waitForRequests(1);
    ::close(reader);
    QVERIFY(requested);
    downloads.server.reply(0, LoopbackServer::response(200, newBytes));
    QCOMPARE(program.outcome(), failure(6, u"cannot write the result: Broken pipe"_s));
    QCOMPARE(contentsOf(downloads.folder.path()),
             QStringList{u"file: "_s + QString::fromLatin1(newBytes)});
}

void tst_Cli::signalEndsTheWaiting_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<bool>("download");

    QTest::addRow("SIGHUP-download") << SIGHUP << true;
    QTest::addRow("SIGINT-download") << SIGINT << true;
    QTest::addRow("SIGTERM-download") << SIGTERM << true;
    QTest::addRow("SIGTERM-plans") << SIGTERM << false;
}

void tst_Cli::signalEndsTheWaiting()
{
    QFETCH(int, number);
    QFETCH(bool, download);

    Downloads downloads;
    Program program;
    if (download)
        program.run({u"download"_s, downloads.url, downloads.folder.filePath(u"new/file"_s)});
    else
        program.run(downloads.server, {u"plans"_s});
    QVERIFY(downloads.server.waitForRequests(1));
    QCOMPARE(temporaryIn(downloads.folder.path()).isEmpty(), !download);
    QCOMPARE(::kill(pid_t(program.processId()), number), 0);
    QCOMPARE(program.outcome(), outcome(128 + number, {}, {}));
    QCOMPARE(contentsOf(downloads.folder.path()), downloads.before);
}

// Reading a large file back takes long enough for a user to change their mind.
void tst_Cli::signalWhileVerifyingChangesNothing()
{
    Downloads downloads;
    Program program;
    program.run({u"download"_s, downloads.url, downloads.file});
    QVERIFY(downloads.server.waitForRequests(1));

    // A pipe where the library is to write: its end comes when this test wants.
    const QByteArray path =
        QFile::encodeName(temporaryIn(downloads.folder.path()) + u"/download"_s);
    QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    int pipe = ::open(path.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    const auto closePipe = qScopeGuard([&pipe] { ::close(pipe); });
    QVERIFY(pipe >= 0);

    // A page more than the pipe holds: the program is seen to write, is let go on, and is then seen
    // to read back what it wrote.
    const int capacity = ::fcntl(pipe, F_GETPIPE_SZ);
    QVERIFY(capacity > 0);
    char page[4096];
    downloads.server.reply(
        0, LoopbackServer::response(200, QByteArray(capacity + qsizetype(sizeof page), 'x')));
    QVERIFY(QTest::qWaitFor([&] { return unreadIn(pipe) == capacity; }, 20000));
    QCOMPARE(::read(pipe, page, sizeof page), ssize_t(sizeof page));
    QVERIFY(QTest::qWaitFor([&] { return unreadIn(pipe) == 0; }));

    QCOMPARE(::kill(pid_t(program.processId()), SIGTERM), 0);
    ::close(std::exchange(pipe, -1));
    QCOMPARE(program.outcome(), outcome(128 + SIGTERM, {}, {}));
    QCOMPARE(contentsOf(downloads.folder.path()), downloads.before);
}

void tst_Cli::signalEndsThePrinting_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("response");
    QTest::addColumn<bool>("toStandardError");

    const QByteArray longText(2'000'000, 'x');
    QTest::addRow("result") << QStringList{u"plans"_s}
                            << LoopbackServer::response(200,
                                                        R"({"plans": [")" + longText + R"("]})")
                            << false;
    QTest::addRow("error") << resume
                           << LoopbackServer::response(
                                  200, R"({"error": {"message": ")" + longText + R"("}})")
                           << true;
}

// A reader that stalled used to make the program deaf to signals.
void tst_Cli::signalEndsThePrinting()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, response);
    QFETCH(bool, toStandardError);

    QTemporaryDir folder;
    const QString path = folder.filePath(u"pipe"_s);
    const QByteArray name = QFile::encodeName(path);
    QCOMPARE(::mkfifo(name.constData(), 0600), 0);
    const int pipe = ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    QVERIFY(pipe >= 0);
    const auto closePipe = qScopeGuard([pipe] { ::close(pipe); });

    LoopbackServer server;
    server.script(response);
    Program program;
    if (toStandardError)
        program.setStandardErrorFile(path);
    else
        program.setStandardOutputFile(path);
    program.run(server, arguments);
    const int capacity = ::fcntl(pipe, F_GETPIPE_SZ);
    QVERIFY(capacity > 0);
    QVERIFY(QTest::qWaitFor([&] { return unreadIn(pipe) == capacity; }, 20000));
    QCOMPARE(::kill(pid_t(program.processId()), SIGTERM), 0);
    QCOMPARE(program.outcome(), outcome(128 + SIGTERM, {}, {}));
}

void tst_Cli::ignoredSignalStaysIgnored()
{
    LoopbackServer server;
    Program program;
    program.setChildProcessModifier([] { ::signal(SIGHUP, SIG_IGN); });
    program.run(server, {u"plans"_s});
    QVERIFY(server.waitForRequests(1));
    QCOMPARE(::kill(pid_t(program.processId()), SIGHUP), 0);
    server.reply(0, LoopbackServer::response(200, "{}"));
    QCOMPARE(program.outcome(), outcome(0, u"No plans.\n"_s, {}));
}

namespace {

// A terminal, as the program sees it; the test holds the other end.
class Terminal
{
public:
    Terminal()
    {
        char name[64] = {};
        if (::openpty(&m_master, &m_slave, name, nullptr, nullptr) == 0)
            path = QString::fromLocal8Bit(name);
        ::fcntl(m_master, F_SETFL, O_NONBLOCK);
    }
    ~Terminal()
    {
        ::close(m_master);
        ::close(m_slave);
    }
    Q_DISABLE_COPY_MOVE(Terminal)

    QByteArray shown()
    {
        char buffer[4096];
        for (ssize_t n = ::read(m_master, buffer, sizeof buffer); n > 0;
             n = ::read(m_master, buffer, sizeof buffer))
            m_shown.append(buffer, n);
        return m_shown;
    }

    QString path;

private:
    int m_master = -1;
    int m_slave = -1;
    QByteArray m_shown;
};

} // namespace

void tst_Cli::showsWaitingOnATerminal()
{
    Terminal terminal;
    if (terminal.path.isEmpty())
        QSKIP("No terminal is to be had here");
    LoopbackServer server;
    Program program;
    program.setStandardErrorFile(terminal.path);
    program.run(server, usage);
    QVERIFY(QTest::qWaitFor([&] { return terminal.shown().startsWith("\r|\r/\r-\r\\\r|"); }));
    server.reply(0, LoopbackServer::response(200, "{}"));
    QCOMPARE(program.outcome(), outcome(1, {}, {}));
    const QByteArray end("\r \rcorvane-cli: the service said no and gave no reason\r\n");
    QVERIFY2(terminal.shown().endsWith(end), terminal.shown().toPercentEncoding().constData());
}

void tst_Cli::showsNoWaitingWithJson()
{
    Terminal terminal;
    if (terminal.path.isEmpty())
        QSKIP("No terminal is to be had here");
    LoopbackServer server;
    Program program;
    program.setStandardErrorFile(terminal.path);
    program.run(server, check + QStringList{u"--json"_s, u"--timeout"_s, u"0.3"_s});
    QCOMPARE(program.outcome(), outcome(4, {}, {}));
    QCOMPARE(
        terminal.shown(),
        QByteArray(
            "corvane-cli: no answer within 0.3 s; the service may have acted all the same\r\n"));
}

QTEST_GUILESS_MAIN(tst_Cli)

#include "tst_cli.moc"
