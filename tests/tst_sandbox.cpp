#include "corvane.h"
#include "database.h"
#include "rawclient.h"

#include <QtCore/qcryptographichash.h>
#include <QtCore/qdir.h>
#include <QtCore/qfile.h>
#include <QtCore/qfileinfo.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qprocess.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qtemporarydir.h>
#include <QtNetwork/qhostaddress.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtNetwork/qtcpserver.h>
#include <QtNetwork/qtcpsocket.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <algorithm>
#include <csignal>
#include <numeric>

#include <fcntl.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 20000;

// Runs in the process to be, before the program.
using SpoilOutput = void (*)();

// The number under which the process holds the file open; empty if it does not.
QString descriptor(qint64 process, const QString &file)
{
    const QDir descriptors(u"/proc/%1/fd"_s.arg(process));
    const QFileInfoList links = descriptors.entryInfoList(QDir::Files);
    const auto link = std::find_if(links.begin(), links.end(), [&](const QFileInfo &candidate) {
        return candidate.symLinkTarget() == file;
    });
    return link == links.end() ? QString() : link->fileName();
}

// The number after the name in a file of /proc; -1 if there is none.
qint64 procNumber(const QString &name, const QString &key)
{
    QFile file("/proc/"_L1 + name);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpression line(u"^%1:\\s+(\\d+)"_s.arg(key),
                                  QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(QString::fromLatin1(file.readAll()));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

// The process has the database open and waits for somebody else's transaction, over and over.
bool waitUntilHeldUp(qint64 process, const QString &database)
{
    qint64 first = -1;
    return QTest::qWaitFor(
        [&] {
            if (descriptor(process, database).isEmpty())
                return false;
            const qint64 waits =
                procNumber(u"%1/status"_s.arg(process), u"voluntary_ctxt_switches"_s);
            if (first < 0)
                first = waits;
            return waits >= first + 5;
        },
        timeout);
}

// One running corvane-sandbox, killed with the object if the test has not ended it.
class Sandbox
{
public:
    explicit Sandbox(const QStringList &arguments)
    {
        // A test program that is killed takes its sandbox along.
        m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
        m_process.start(QStringLiteral(CORVANE_SANDBOX_PATH), arguments);
        while (!m_process.canReadLine()) {
            if (!m_process.waitForReadyRead(timeout))
                return;
        }
        m_firstLine = m_process.readLine();
    }
    ~Sandbox()
    {
        m_process.kill();
        m_process.waitForFinished(timeout);
    }
    Q_DISABLE_COPY_MOVE(Sandbox)

    QByteArray firstLine() const { return m_firstLine; }
    QString address() const { return QString::fromUtf8(m_firstLine).trimmed(); }
    quint16 port() const { return quint16(QUrl(address()).port()); }
    qint64 processId() const { return m_process.processId(); }

    // Sends the signal and says how the process ended: its exit code, or a word.
    QString end(int signal)
    {
        // Process 0 is not one that has ended, but everything in the test's own group.
        if (processId() == 0)
            return u"not running"_s;
        ::kill(pid_t(processId()), signal);
        if (!m_process.waitForFinished(timeout))
            return u"still running"_s;
        if (m_process.exitStatus() != QProcess::NormalExit)
            return u"crashed"_s;
        return QString::number(m_process.exitCode());
    }
    bool holdsOpen(const QString &file) const { return !descriptor(processId(), file).isEmpty(); }
    // How far it has read the file that it holds open.
    qint64 positionIn(const QString &file) const
    {
        const QString number = descriptor(processId(), file);
        return procNumber(u"%1/fdinfo/%2"_s.arg(QString::number(processId()), number), u"pos"_s);
    }
    // What came since the last call.
    QByteArray standardOutput() { return m_process.readAllStandardOutput(); }
    QByteArray standardError() { return m_process.readAllStandardError(); }
    QByteArray errorLine()
    {
        m_process.setReadChannel(QProcess::StandardError);
        while (!m_process.canReadLine()) {
            if (!m_process.waitForReadyRead(timeout))
                break;
        }
        return m_process.readLine();
    }

private:
    QProcess m_process;
    QByteArray m_firstLine;
};

struct Answer
{
    int status = 0;
    QByteArray contentType;
    QByteArray allow;
    QByteArray location;
    QByteArray body;

    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
};

Answer answerFrom(const QByteArray &reply)
{
    const qsizetype head = reply.indexOf("\r\n\r\n");
    const QByteArrayList lines = reply.first(std::max<qsizetype>(head, 0)).split('\n');
    // All of its values in a row, should there be more than one.
    const auto header = [&lines](const QByteArray &start) {
        return std::accumulate(lines.begin(), lines.end(), QByteArray(),
                               [&start](const QByteArray &values, const QByteArray &line) {
                                   return line.startsWith(start)
                                       ? values + line.sliced(start.size()).trimmed()
                                       : values;
                               });
    };
    return {lines.constFirst().split(' ').value(1).toInt(), header("Content-Type: "),
            header("Allow: "), header("Location: "), reply.sliced(head + 4)};
}

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray refusal(const QString &message)
{
    return compact({{u"success"_s, false}, {u"error"_s, QJsonObject{{u"message"_s, message}}}});
}

QByteArray sha256(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex();
}

QJsonObject startRequest()
{
    return {{u"product_code"_s, u"DEMO"_s},
            {u"plan_code"_s, u"ANNUALE"_s},
            {u"first_name"_s, u"Ada"_s},
            {u"last_name"_s, u"Rossi"_s},
            {u"email"_s, u"ada@example.org"_s}};
}

QJsonObject usageRequest()
{
    return {{u"product_code"_s, u"DEMO"_s},
            {u"license_key"_s, u""_s},
            {u"machine_fingerprint"_s, u"macchina-1"_s},
            {u"event_type"_s, u"avvio"_s}};
}

QJsonObject with(QJsonObject object, const QString &member, const QJsonValue &value)
{
    object.insert(member, value);
    return object;
}

QJsonObject without(QJsonObject object, const QString &member)
{
    object.remove(member);
    return object;
}

} // namespace

class tst_Sandbox : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void firstLineIsTheAddressAndNothingElseIsPrinted();
    void listensOnLoopbackOnly();
    void listensOnTheGivenPort();
    void listensOnTheGivenAddress_data();
    void listensOnTheGivenAddress();
    void helpFitsAScreen();
    void versionIsTheProjects();
    void refusesToStart_data();
    void refusesToStart();
    void refusesATakenPort();
    void refusesTheDatabaseOfAnotherProgram();
    void refusesTheDatabaseOfAnotherVersion();
    void endsCleanlyOnSignal_data();
    void endsCleanlyOnSignal();
    void endsCleanlyOnSignalWhileItStarts();
    void endsWithTheProcess();
    void refusesToStartWithoutAnOutput_data();
    void refusesToStartWithoutAnOutput();

    void stateIsGoneWithoutADatabase();
    void acknowledgedStateSurvivesAKill();
    void existingDatabaseIsNotSeededAgain();
    void twoMayStartOnOneNewDatabase();
    void newDatabaseOffersThreePlans();

    void latestReleaseIsDescribed();
    void latestReleaseIsTheHighestVersion_data();
    void latestReleaseIsTheHighestVersion();
    void releaseWithoutNotesHasEmptyNotes();
    void notesAreCutAtOneMebibyte();
    void pipesAreNoFiles();
    void releaseUrlsArePercentEncoded();
    void channelWithoutReleaseIsNoError_data();
    void channelWithoutReleaseIsNoError();
    void folderWithTwoFilesIsNoRelease();
    void folderOfAnUnknownProductIsNotServed();
    void releasesAreOptional();
    void newReleaseIsSeenAtOnce();
    void digestIsComputedAgainWhenTheFileChanges();
    void digestIsComputedAgainWhenTheTimeIsSetBack();
    void digestIsKeptWhileTheFileStays();
    void downloadUrlServesTheReleaseFile();
    void stableUrlServesTheNewestRelease();
    void emptyReleaseFileIsServed();
    void unknownFileIsRefused_data();
    void unknownFileIsRefused();
    void nothingOutsideTheReleasesIsServed_data();
    void nothingOutsideTheReleasesIsServed();
    void linksOutOfTheFolderAreNotFollowed_data();
    void linksOutOfTheFolderAreNotFollowed();
    void linkedNotesOutsideTheFolderAreNotRead();
    void linksInsideTheFolderAreFollowed();
    void releasesFolderMayItselfBeALink();
    void fileIsReadAtTheReceiversPace();
    void fileThatBecomesShorterEndsItsTransfer();
    void abandonedDownloadIsLetGo();

    void startAnswersTheNewPurchase();
    void startStoresAPendingLicenseAndAnOrder();
    void purchasesHaveTheirOwnIds();
    void resumeAnswersTheStartedPurchase();
    void resumeFindsNoKeyOfAnotherProduct();
    void resumeRefusesAPaidPurchase();
    void approvalPageShowsThePurchase();
    void approvalPageEscapesItsTexts();
    void approvalIsConfirmed();
    void approvingTwiceIsHarmless();
    void approvingAfterThePaymentIsHarmless();
    void cancellingIsConfirmed();
    void cancellingTwiceIsHarmless();
    void decisionLeadsBackToThePage_data();
    void decisionLeadsBackToThePage();
    void decisionIsNotReversed_data();
    void decisionIsNotReversed();
    void pagesOfOtherSitesDecideNothing_data();
    void pagesOfOtherSitesDecideNothing();
    void pageKeepsToItself();
    void unknownOrderHasAPage_data();
    void unknownOrderHasAPage();
    void captureRefusesAnUnapprovedOrder();
    void captureTakesThePayment();
    void capturingTwicePaysOnce();
    void captureOfWhatAnotherProcessHasJustPaidSucceeds();
    void failedCaptureChangesNothing();

    void usageEventIsStored();
    void usageEventOfALicenseIsStored();
    void usageRefusesAKeyOfAnotherProduct();

    void refuses_data();
    void refuses();
    void refusesOtherMethods_data();
    void refusesOtherMethods();
    void headIsAnsweredWithoutABody();
    void databaseFailureIsAnsweredAndReported();

    void libraryBuysALicense();
    void libraryUpdatesItself();
    void libraryReportsUsage();
    void libraryHearsRefusals();

private:
    Answer answerTo(QNetworkReply *reply) const;
    Answer get(const QString &target);
    Answer post(const QString &target, const QByteArray &body, const QByteArray &origin = {});
    Answer post(const QString &target, const QJsonObject &body);
    Answer approve(const QJsonObject &started);
    Answer cancel(const QJsonObject &started);
    QStringList decisions() const;
    Answer capture(const QJsonObject &started);
    QJsonObject start();
    QByteArray exchange(const QByteArray &requests, qsizetype answers);
    QString path(const QString &name) const;
    void write(const QString &name, const QByteArray &data) const;
    QJsonObject latest(const QString &channel);
    QStringList query(const QString &sql) const;
    void restart(const QStringList &arguments);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<Sandbox> m_sandbox;
    std::unique_ptr<QNetworkAccessManager> m_network;
};

// Every test has a sandbox of its own, with a database and a releases folder that it may change.
void tst_Sandbox::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
    m_dir = std::make_unique<QTemporaryDir>();
    m_network = std::make_unique<QNetworkAccessManager>();
    QVERIFY(m_dir->isValid());
    QVERIFY(QDir().mkpath(path(u"releases"_s)));
    restart({u"--database"_s, path(u"state.sqlite"_s), u"--releases"_s, path(u"releases"_s)});
}

// Whatever the test did, the sandbox has reported no trouble that the test has not read, and ends.
void tst_Sandbox::cleanup()
{
    QCOMPARE(m_sandbox->end(SIGTERM), u"0"_s);
    QCOMPARE(m_sandbox->standardError(), QByteArray());
    m_sandbox.reset();
    m_network.reset();
    m_dir.reset();
}

void tst_Sandbox::firstLineIsTheAddressAndNothingElseIsPrinted()
{
    const QByteArray expected = "http://127.0.0.1:" + QByteArray::number(m_sandbox->port()) + "\n";
    QVERIFY(m_sandbox->port() > 0);
    QCOMPARE(m_sandbox->firstLine(), expected);
    QCOMPARE(get(u"/"_s).status, 404);
    QCOMPARE(m_sandbox->end(SIGTERM), u"0"_s);
    QCOMPARE(m_sandbox->standardOutput(), QByteArray());
    restart({});
}

void tst_Sandbox::listensOnLoopbackOnly()
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress(u"127.0.0.2"_s), m_sandbox->port());
    QVERIFY(!socket.waitForConnected(timeout));
    QCOMPARE(socket.error(), QAbstractSocket::ConnectionRefusedError);
}

void tst_Sandbox::listensOnTheGivenPort()
{
    QTcpServer placeholder;
    QVERIFY(placeholder.listen(QHostAddress::LocalHost));
    const quint16 port = placeholder.serverPort();
    placeholder.close();

    restart({u"--port"_s, QString::number(port)});
    QCOMPARE(m_sandbox->port(), port);
    QCOMPARE(get(u"/"_s).status, 404);
}

void tst_Sandbox::listensOnTheGivenAddress_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("printed");
    QTest::addColumn<QString>("asked");
    QTest::newRow("another-loopback") << u"127.0.0.2"_s << u"127.0.0.2"_s << u"127.0.0.2"_s;
    QTest::newRow("ipv6") << u"::1"_s << u"[::1]"_s << u"[::1]"_s;
    // Of an address that stands for all, the service's own URLs have the one that was used.
    QTest::newRow("all") << u"0.0.0.0"_s << u"0.0.0.0"_s << u"127.0.0.3"_s;
    QTest::newRow("all-ipv6") << u"::"_s << u"[::]"_s << u"[::1]"_s;
}

void tst_Sandbox::listensOnTheGivenAddress()
{
    QFETCH(const QString, address);
    QFETCH(const QString, printed);
    QFETCH(const QString, asked);
    if (address.contains(u':') && !QTcpServer().listen(QHostAddress::LocalHostIPv6))
        QSKIP("This machine has no IPv6.");

    restart({u"--listen"_s, address});
    const QString port = u':' + QString::number(m_sandbox->port());
    QCOMPARE(m_sandbox->address(), "http://"_L1 + printed + port);
    const QString used = "http://"_L1 + asked + port;
    const Answer answer = post(used + "/api/v1/purchase/start"_L1, startRequest());
    QCOMPARE(answer.status, 200);
    const QString approval = answer.json().value("approval_url"_L1).toString();
    QVERIFY2(approval.startsWith(used + "/paypal/approve/"_L1), qPrintable(approval));
    QCOMPARE(get(approval).status, 200);
}

void tst_Sandbox::helpFitsAScreen()
{
    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--help"_s});
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitCode(), 0);

    const QByteArray help = process.readAllStandardOutput();
    for (const char *option :
         {"--port <N>", "--listen <ADDRESS>", "--data <FILE>", "--database <FILE>",
          "--releases <DIR>", "--end-with <PID>", "--version"})
        QVERIFY2(help.contains(option), option);
    QVERIFY(help.contains("A folder named after a product holds that product's releases"));
    QVERIFY(help.contains("moving a new file into place, never by writing over it"));
    const QByteArrayList lines = help.split('\n');
    QVERIFY(lines.size() <= 24);
    for (const QByteArray &line : lines.mid(1)) // the usage line holds the program's path
        QVERIFY2(line.size() <= 80, line.constData());
}

void tst_Sandbox::versionIsTheProjects()
{
    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--version"_s});
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(process.readAllStandardOutput(), QByteArray("corvane-sandbox " CORVANE_VERSION "\n"));
}

void tst_Sandbox::refusesToStart_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");

    const auto noPort = [](const QString &port) {
        return u"\"%1\" is not a port: give a number from 0 to 65535.\n"_s.arg(port);
    };
    QTest::newRow("port-no-number")
        << QStringList{u"--port"_s, u"http"_s} << 2 << noPort(u"http"_s);
    QTest::newRow("port-empty") << QStringList{u"--port="_s} << 2 << noPort(u""_s);
    QTest::newRow("port-negative") << QStringList{u"--port=-1"_s} << 2 << noPort(u"-1"_s);
    QTest::newRow("port-too-high")
        << QStringList{u"--port"_s, u"65536"_s} << 2 << noPort(u"65536"_s);
    const auto noAddress = [](const QString &address) {
        return u"\"%1\" is not an IP address: give one of this machine's, such as 127.0.0.1, ::1 "
               u"or "
               "0.0.0.0.\n"_s.arg(address);
    };
    QTest::newRow("listen-on-a-name")
        << QStringList{u"--listen"_s, u"localhost"_s} << 2 << noAddress(u"localhost"_s);
    QTest::newRow("listen-empty") << QStringList{u"--listen="_s} << 2 << noAddress(u""_s);
    QTest::newRow("unknown-option") << QStringList{u"--prot"_s, u"80"_s} << 2
                                    << u"Unknown option 'prot'. See corvane-sandbox --help.\n"_s;
    QTest::newRow("stray-argument")
        << QStringList{u"8080"_s} << 2
        << u"unexpected argument \"8080\". See corvane-sandbox --help.\n"_s;
    QTest::newRow("end-with-nobody") << QStringList{u"--end-with"_s, u"2147483647"_s} << 1
                                     << u"cannot watch process \"2147483647\" (No such "
                                        "process).\n"_s;
    QTest::newRow("end-with-no-number")
        << QStringList{u"--end-with"_s, u"ctest"_s} << 1
        << u"cannot watch process \"ctest\" (Invalid argument).\n"_s;
    const QString useFolder =
        u"the releases folder \"%1\" does not exist: create it, or name another with --releases.\n"_s;
    QTest::newRow("releases-missing")
        << QStringList{u"--releases"_s, u"missing"_s} << 1 << useFolder.arg(u"missing"_s);
    QTest::newRow("releases-empty") << QStringList{u"--releases="_s} << 1 << useFolder.arg(u""_s);
    QTest::newRow("releases-is-a-file")
        << QStringList{u"--releases"_s, u"text.txt"_s} << 1 << useFolder.arg(u"text.txt"_s);
    QTest::newRow("database-empty")
        << QStringList{u"--database"_s, u""_s} << 2
        << u"the database has no name: name a file, or leave --database out to keep the state in "
           "memory.\n"_s;
    const QString useDatabase =
        u"cannot use the database \"%1\" (%2): name a file that you may write and that "
        "corvane-sandbox made, or a new one, with --database.\n"_s;
    QTest::newRow("database-folder-missing")
        << QStringList{u"--database"_s, u"missing/state.sqlite"_s} << 1
        << useDatabase.arg(u"missing/state.sqlite"_s, u"unable to open database file"_s);
    QTest::newRow("database-is-text")
        << QStringList{u"--database"_s, u"text.txt"_s} << 1
        << useDatabase.arg(u"text.txt"_s, u"file is not a database"_s);
}

void tst_Sandbox::refusesToStart()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const int, exitCode);
    QFETCH(const QString, message);

    write(u"text.txt"_s, QByteArray(4096, 'x'));
    QProcess process;
    process.setWorkingDirectory(m_dir->path());
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), arguments);
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), exitCode);
    QCOMPARE(process.readAllStandardOutput(), QByteArray());
    QCOMPARE(QString::fromUtf8(process.readAllStandardError()), "corvane-sandbox: "_L1 + message);
}

void tst_Sandbox::refusesATakenPort()
{
    QProcess process;
    const QString port = QString::number(m_sandbox->port());
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--port"_s, port});
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitCode(), 1);
    QCOMPARE(QString::fromUtf8(process.readAllStandardError()),
             u"corvane-sandbox: cannot listen on port %1 (The bound address is already in use): "
             "choose another with --port, or leave it out for any free one.\n"_s.arg(port));
}

void tst_Sandbox::refusesTheDatabaseOfAnotherProgram()
{
    QCOMPARE(m_sandbox->end(SIGTERM), u"0"_s);
    query(u"PRAGMA application_id = 7"_s);

    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--database"_s, path(u"state.sqlite"_s)});
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitCode(), 1);
    QVERIFY(process.readAllStandardError().contains("the database belongs to another program"));
    restart({});
}

void tst_Sandbox::refusesTheDatabaseOfAnotherVersion()
{
    QCOMPARE(m_sandbox->end(SIGTERM), u"0"_s);
    query(u"PRAGMA user_version = 99"_s);

    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--database"_s, path(u"state.sqlite"_s)});
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitCode(), 1);
    QVERIFY(process.readAllStandardError().contains("made by another version of corvane-sandbox"));
    restart({});
}

void tst_Sandbox::endsCleanlyOnSignal_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("sigint") << SIGINT;
    QTest::newRow("sigterm") << SIGTERM;
}

void tst_Sandbox::endsCleanlyOnSignal()
{
    QFETCH(const int, signal);
    QCOMPARE(get(u"/"_s).status, 404); // with a connection kept alive
    QCOMPARE(m_sandbox->end(signal), u"0"_s);
    restart({});
}

// The signal used to kill it until it had opened its database.
void tst_Sandbox::endsCleanlyOnSignalWhileItStarts()
{
    const Database other(path(u"state.sqlite"_s));
    QCOMPARE(other.query(u"BEGIN IMMEDIATE"_s), QStringList());
    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--database"_s, path(u"state.sqlite"_s)});
    QVERIFY(process.waitForStarted(timeout));
    QVERIFY(waitUntilHeldUp(process.processId(), path(u"state.sqlite"_s)));
    process.terminate();
    QCOMPARE(other.query(u"ROLLBACK"_s), QStringList());
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(process.readAllStandardError(), QByteArray());
}

void tst_Sandbox::endsWithTheProcess()
{
    QProcess other;
    other.start(u"cat"_s);
    QVERIFY(other.waitForStarted(timeout));
    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH),
                  {u"--end-with"_s, QString::number(other.processId())});
    QVERIFY(process.waitForReadyRead(timeout));
    const QUrl address(QString::fromUtf8(process.readLine()).trimmed());
    QCOMPARE(get(address.resolved(QUrl(u"/sandbox/faults"_s)).toString()).status, 200);

    other.kill();
    QVERIFY(other.waitForFinished(timeout));
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(process.readAllStandardError(), QByteArray());
}

void tst_Sandbox::refusesToStartWithoutAnOutput_data()
{
    QTest::addColumn<SpoilOutput>("spoil");
    QTest::addColumn<QString>("reason");

    QTest::newRow("closed") << SpoilOutput([] { ::close(STDOUT_FILENO); })
                            << u"Bad file descriptor"_s;
    QTest::newRow("full") << SpoilOutput([] {
        ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO);
    }) << u"No space left on device"_s;
    QTest::newRow("reader-gone") << SpoilOutput([] {
        int ends[2];
        if (::pipe(ends) == 0 && ::dup2(ends[1], STDOUT_FILENO) >= 0)
            ::close(ends[0]);
    }) << u"Broken pipe"_s;
}

// It used to serve where nobody could know.
void tst_Sandbox::refusesToStartWithoutAnOutput()
{
    QFETCH(const SpoilOutput, spoil);
    QFETCH(const QString, reason);

    QProcess process;
    process.setChildProcessModifier(spoil);
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {});
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 1);
    QCOMPARE(QString::fromUtf8(process.readAllStandardError()),
             u"corvane-sandbox: cannot print the address (%1): give it an output that can be "
             "written.\n"_s.arg(reason));
}

void tst_Sandbox::stateIsGoneWithoutADatabase()
{
    restart({});
    const QJsonObject resume = without(start(), u"paypal_order_id"_s);
    const QJsonObject request = with(resume, u"product_code"_s, u"DEMO"_s);
    QCOMPARE(post(u"/api/v1/purchase/resume"_s, request).status, 200);

    restart({});
    QCOMPARE(post(u"/api/v1/purchase/resume"_s, request).status, 404);
    QVERIFY(start().value("license_key"_L1) != request.value("license_key"_L1));
}

void tst_Sandbox::acknowledgedStateSurvivesAKill()
{
    const QJsonObject started = start();
    QCOMPARE(approve(started).status, 303);
    QCOMPARE(m_sandbox->end(SIGKILL), u"crashed"_s);

    restart({u"--database"_s, path(u"state.sqlite"_s)});
    const Answer captured = capture(started);
    QCOMPARE(captured.status, 200);
    QCOMPARE(captured.json().value("license_key"_L1), started.value("license_key"_L1));
}

void tst_Sandbox::existingDatabaseIsNotSeededAgain()
{
    query(u"DELETE FROM plans WHERE plan_code <> 'PERPETUA'"_s);
    restart({u"--database"_s, path(u"state.sqlite"_s)});
    const QJsonArray plans =
        get(u"/api/v1/purchase/plans?product_code=DEMO"_s).json().value("plans"_L1).toArray();
    QCOMPARE(plans.size(), 1);
    QCOMPARE(plans.at(0).toObject().value("plan_code"_L1).toString(), u"PERPETUA"_s);
}

// The second used to fail: it found the file still empty and began to fill it, too.
void tst_Sandbox::twoMayStartOnOneNewDatabase()
{
    const QString file = path(u"new.sqlite"_s);
    const Database other(file);
    QCOMPARE(other.query(u"BEGIN IMMEDIATE"_s), QStringList());
    for (
        const QString &sql : query(
            u"SELECT sql FROM sqlite_master WHERE sql IS NOT NULL AND name <> 'sqlite_sequence'"_s))
        QCOMPARE(other.query(sql), QStringList());
    for (const QString &mark : {u"PRAGMA application_id"_s, u"PRAGMA user_version"_s})
        QCOMPARE(other.query(mark + " = "_L1 + query(mark).constFirst()), QStringList());

    QProcess process;
    process.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--database"_s, file});
    QVERIFY(process.waitForStarted(timeout));
    QVERIFY(waitUntilHeldUp(process.processId(), file));
    QCOMPARE(other.query(u"COMMIT"_s), QStringList());
    QVERIFY(process.waitForReadyRead(timeout));
    process.terminate();
    QVERIFY(process.waitForFinished(timeout));
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(process.readAllStandardError(), QByteArray());
}

void tst_Sandbox::newDatabaseOffersThreePlans()
{
    const auto plan = [](const QString &code, const QString &name, const QString &description,
                         const QString &price) {
        return QJsonObject{{u"plan_code"_s, code},
                           {u"name"_s, name},
                           {u"description"_s, description},
                           {u"price"_s, price},
                           {u"currency"_s, u"EUR"_s}};
    };
    const QJsonArray plans{plan(u"MENSILE"_s, u"Abbonamento mensile"_s,
                                u"Tutte le funzioni, rinnovo ogni mese."_s, u"9.90"_s),
                           plan(u"ANNUALE"_s, u"Abbonamento annuale"_s,
                                u"Tutte le funzioni, due mesi in regalo."_s, u"99.00"_s),
                           plan(u"PERPETUA"_s, u"Licenza perpetua"_s,
                                u"Un solo pagamento, un anno di aggiornamenti."_s, u"249.00"_s)};

    const Answer answer = get(u"/api/v1/purchase/plans?product_code=DEMO"_s);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.contentType, QByteArray("application/json"));
    QCOMPARE(answer.body, compact({{u"plans"_s, plans}}));
}

void tst_Sandbox::latestReleaseIsDescribed()
{
    const QByteArray file("\0release\xff", 9);
    write(u"releases/DEMO/stable/1.4.0/demo.zip"_s, file);
    write(u"releases/DEMO/stable/1.4.0/notes.txt"_s, "Più veloce.\n");
    write(u"releases/DEMO/beta/2.0.0/demo.zip"_s, "beta");

    const QString folder = m_sandbox->address() + "/releases/DEMO/stable"_L1;
    const Answer answer = get(u"/api/v1/releases/latest/DEMO?channel=stable&_=1700000000000"_s);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.contentType, QByteArray("application/json"));
    QCOMPARE(answer.body,
             compact({{u"success"_s, true},
                      {u"release"_s,
                       QJsonObject{{u"product_code"_s, u"DEMO"_s},
                                   {u"version"_s, u"1.4.0"_s},
                                   {u"download_url"_s, folder + "/1.4.0/demo.zip"_L1},
                                   {u"stable_download_url"_s, folder + "/latest"_L1},
                                   {u"sha256"_s, QString::fromLatin1(sha256(file))},
                                   {u"notes"_s, u"Più veloce.\n"_s},
                                   {u"channel"_s, u"stable"_s}}}}));
}

void tst_Sandbox::latestReleaseIsTheHighestVersion_data()
{
    QTest::addColumn<QStringList>("versions");
    QTest::addColumn<QString>("latest");

    QTest::newRow("by-number") << QStringList{u"1.9"_s, u"1.10"_s, u"1.2"_s} << u"1.10"_s;
    QTest::newRow("longer-is-higher") << QStringList{u"1.9"_s, u"1.9.1"_s} << u"1.9.1"_s;
    QTest::newRow("suffix-is-before-the-plain-version")
        << QStringList{u"1.9-rc1"_s, u"1.9"_s} << u"1.9"_s;
    QTest::newRow("number-outranks-suffix")
        << QStringList{u"1.10-rc1"_s, u"1.9"_s} << u"1.10-rc1"_s;
    QTest::newRow("suffixes-by-text")
        << QStringList{u"1.9-rc2"_s, u"1.9-rc1"_s, u"1.9-beta"_s} << u"1.9-rc2"_s;
    QTest::newRow("no-number-is-lowest") << QStringList{u"nightly"_s, u"0.1"_s} << u"0.1"_s;
    QTest::newRow("no-number-alone") << QStringList{u"nightly"_s} << u"nightly"_s;
}

void tst_Sandbox::latestReleaseIsTheHighestVersion()
{
    QFETCH(const QStringList, versions);
    QFETCH(const QString, latest);

    for (const QString &version : versions)
        write(u"releases/DEMO/stable/%1/demo.zip"_s.arg(version), version.toUtf8());
    QCOMPARE(this->latest(u"stable"_s).value("version"_L1).toString(), latest);
}

void tst_Sandbox::releaseWithoutNotesHasEmptyNotes()
{
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");
    QCOMPARE(latest(u"stable"_s).value("notes"_L1), QJsonValue(u""_s));
}

void tst_Sandbox::notesAreCutAtOneMebibyte()
{
    constexpr qsizetype longest = 1024 * 1024;
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");
    write(u"releases/DEMO/stable/1.0/notes.txt"_s, QByteArray(longest, 'n') + "cut off");
    QVERIFY(latest(u"stable"_s).value("notes"_L1).toString() == QString(longest, u'n'));
}

// The service used to wait for ever for somebody to write into the pipe.
void tst_Sandbox::pipesAreNoFiles()
{
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");
    const QString notes = path(u"releases/DEMO/stable/1.0/notes.txt"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(notes).constData(), 0600), 0);
    QVERIFY(QDir().mkpath(path(u"releases/DEMO/stable/2.0"_s)));
    QVERIFY(QFile::link(notes, path(u"releases/DEMO/stable/2.0/demo.zip"_s)));

    const QJsonObject release = latest(u"stable"_s);
    QCOMPARE(release.value("version"_L1).toString(), u"1.0"_s);
    QCOMPARE(release.value("notes"_L1), QJsonValue(u""_s));
    QCOMPARE(get(u"/releases/DEMO/stable/latest"_s).body, QByteArray("1"));
}

void tst_Sandbox::releaseUrlsArePercentEncoded()
{
    write(u"releases/DEMO/più veloce/1.0+a/50% di più?.zip"_s, "scelta");
    const QJsonObject release = latest(u"pi%C3%B9%20veloce"_s);
    QCOMPARE(release.value("channel"_L1).toString(), u"più veloce"_s);
    const QString folder = m_sandbox->address() + "/releases/DEMO/pi%C3%B9%20veloce/"_L1;
    QCOMPARE(release.value("download_url"_L1).toString(),
             folder + "1.0%2Ba/50%25%20di%20pi%C3%B9%3F.zip"_L1);
    QCOMPARE(release.value("stable_download_url"_L1).toString(), folder + "latest"_L1);
    QCOMPARE(get(release.value("download_url"_L1).toString()).body, QByteArray("scelta"));
    QCOMPARE(get(release.value("stable_download_url"_L1).toString()).body, QByteArray("scelta"));
}

void tst_Sandbox::channelWithoutReleaseIsNoError_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("unknown-channel") << u"/api/v1/releases/latest/DEMO?channel=beta"_s;
    QTest::newRow("empty-channel") << u"/api/v1/releases/latest/DEMO?channel="_s;
    QTest::newRow("missing-channel") << u"/api/v1/releases/latest/DEMO"_s;
    QTest::newRow("channel-without-versions") << u"/api/v1/releases/latest/DEMO?channel=empty"_s;
    QTest::newRow("version-without-a-file") << u"/api/v1/releases/latest/DEMO?channel=hollow"_s;
    QTest::newRow("channel-above") << u"/api/v1/releases/latest/DEMO?channel=.."_s;
    QTest::newRow("channel-elsewhere") << u"/api/v1/releases/latest/DEMO?channel=stable/../.."_s;
}

void tst_Sandbox::channelWithoutReleaseIsNoError()
{
    QFETCH(const QString, target);
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");
    write(u"releases/DEMO/hollow/1.0/notes.txt"_s, "notes alone");
    write(u"releases/OTHER/loose.zip"_s, "of another product");
    QVERIFY(QDir().mkpath(path(u"releases/DEMO/empty"_s)));

    const Answer answer = get(target);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.body, refusal(u"Nessuna versione pubblicata su questo canale."_s));
}

void tst_Sandbox::folderWithTwoFilesIsNoRelease()
{
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");
    write(u"releases/DEMO/stable/2.0/demo.zip"_s, "2");
    write(u"releases/DEMO/stable/2.0/demo.exe"_s, "2");

    QCOMPARE(latest(u"stable"_s).value("version"_L1).toString(), u"1.0"_s);
    QCOMPARE(QString::fromUtf8(m_sandbox->errorLine()),
             path(u"releases/DEMO/stable/2.0"_s)
                 + " is no release: it must hold one file, and notes.txt if you like\n"_L1);
}

void tst_Sandbox::folderOfAnUnknownProductIsNotServed()
{
    write(u"releases/OTHER/stable/1.0/other.zip"_s, "other");
    for (const QString &target :
         {u"/api/v1/releases/latest/OTHER?channel=stable"_s, u"/releases/OTHER/stable/latest"_s,
          u"/releases/OTHER/stable/1.0/other.zip"_s})
    {
        const Answer answer = get(target);
        QCOMPARE(answer.status, 404);
        QCOMPARE(answer.body, refusal(u"Prodotto sconosciuto."_s));
    }
}

void tst_Sandbox::releasesAreOptional()
{
    restart({});
    QCOMPARE(get(u"/api/v1/releases/latest/DEMO?channel=stable"_s).body,
             refusal(u"Nessuna versione pubblicata su questo canale."_s));
    QCOMPARE(get(u"/releases/DEMO/stable/latest"_s).status, 404);
}

void tst_Sandbox::newReleaseIsSeenAtOnce()
{
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");
    QCOMPARE(latest(u"stable"_s).value("version"_L1).toString(), u"1.0"_s);
    write(u"releases/DEMO/stable/2.0/demo.zip"_s, "2");
    QCOMPARE(latest(u"stable"_s).value("version"_L1).toString(), u"2.0"_s);
}

void tst_Sandbox::digestIsComputedAgainWhenTheFileChanges()
{
    const QString name = u"releases/DEMO/stable/1.0/demo.zip"_s;
    write(name, "first");
    QCOMPARE(latest(u"stable"_s).value("sha256"_L1).toString().toLatin1(), sha256("first"));

    QFile file(path(name));
    const QDateTime time = QFileInfo(file).lastModified();
    write(name, "other");
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.setFileTime(time.addSecs(1), QFileDevice::FileModificationTime));
    QCOMPARE(latest(u"stable"_s).value("sha256"_L1).toString().toLatin1(), sha256("other"));

    QVERIFY(file.resize(3));
    QVERIFY(file.setFileTime(time.addSecs(1), QFileDevice::FileModificationTime));
    QCOMPARE(latest(u"stable"_s).value("sha256"_L1).toString().toLatin1(), sha256("oth"));
}

// The old digest used to be told for a file of the same size and time.
void tst_Sandbox::digestIsComputedAgainWhenTheTimeIsSetBack()
{
    const QString name = u"releases/DEMO/stable/1.0/demo.zip"_s;
    write(name, "first");
    const QFileInfo before(path(name));
    const QDateTime changed = before.metadataChangeTime();
    QCOMPARE(latest(u"stable"_s).value("sha256"_L1).toString().toLatin1(), sha256("first"));

    // A file system's clock may stand still for some milliseconds.
    const auto replace = [&] {
        write(name, "other");
        QFile file(path(name));
        return file.open(QIODevice::ReadWrite)
            && file.setFileTime(before.lastModified(), QFileDevice::FileModificationTime)
            && QFileInfo(path(name)).metadataChangeTime() != changed;
    };
    QVERIFY(QTest::qWaitFor(replace, timeout));
    QCOMPARE(QFileInfo(path(name)).lastModified(), before.lastModified());
    QCOMPARE(latest(u"stable"_s).value("sha256"_L1).toString().toLatin1(), sha256("other"));
}

void tst_Sandbox::digestIsKeptWhileTheFileStays()
{
    const QByteArray file(4 * 1024 * 1024, 'x');
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, file);
    const auto bytesRead = [&] {
        return procNumber(u"%1/io"_s.arg(m_sandbox->processId()), u"rchar"_s);
    };
    const qint64 start = bytesRead();
    QVERIFY(start >= 0);
    const QJsonObject first = latest(u"stable"_s);
    QCOMPARE(first.value("sha256"_L1).toString().toLatin1(), sha256(file));
    const qint64 hashed = bytesRead();
    QVERIFY(hashed - start >= file.size());
    QCOMPARE(latest(u"stable"_s), first);
    QVERIFY(bytesRead() - hashed < file.size());
}

void tst_Sandbox::downloadUrlServesTheReleaseFile()
{
    QByteArray file(300'000, '\0');
    for (qsizetype i = 0; i < file.size(); ++i)
        file[i] = char(i * 31 % 251);
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, file);
    write(u"releases/DEMO/stable/2.0/demo.zip"_s, "newer");

    const Answer answer = get(u"/releases/DEMO/stable/1.0/demo.zip"_s);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.contentType, QByteArray("application/octet-stream"));
    QVERIFY(answer.body == file);
}

void tst_Sandbox::stableUrlServesTheNewestRelease()
{
    write(u"releases/DEMO/stable/1.9/demo.zip"_s, "older");
    write(u"releases/DEMO/stable/1.10/demo.zip"_s, "newer");
    const Answer answer = get(u"/releases/DEMO/stable/latest"_s);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.body, QByteArray("newer"));
}

void tst_Sandbox::emptyReleaseFileIsServed()
{
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "");
    const Answer answer = get(u"/releases/DEMO/stable/latest"_s);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.body, QByteArray());
    QCOMPARE(latest(u"stable"_s).value("sha256"_L1).toString().toLatin1(), sha256(""));
    QVERIFY(!m_sandbox->holdsOpen(path(u"releases/DEMO/stable/1.0/demo.zip"_s)));
}

void tst_Sandbox::unknownFileIsRefused_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("channel") << u"/releases/DEMO/beta/1.0/demo.zip"_s;
    QTest::newRow("channel-latest") << u"/releases/DEMO/beta/latest"_s;
    QTest::newRow("version") << u"/releases/DEMO/stable/1.1/demo.zip"_s;
    QTest::newRow("file") << u"/releases/DEMO/stable/1.0/demo.exe"_s;
    QTest::newRow("empty-file") << u"/releases/DEMO/stable/1.0/"_s;
    QTest::newRow("notes") << u"/releases/DEMO/stable/1.0/notes.txt"_s;
}

void tst_Sandbox::unknownFileIsRefused()
{
    QFETCH(const QString, target);
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");
    write(u"releases/DEMO/stable/1.0/notes.txt"_s, "notes");

    const Answer answer = get(target);
    QCOMPARE(answer.status, 404);
    QCOMPARE(answer.body, refusal(u"File sconosciuto."_s));
}

void tst_Sandbox::nothingOutsideTheReleasesIsServed_data()
{
    QTest::addColumn<QByteArray>("target");
    QTest::newRow("plain-dots") << QByteArray("/releases/DEMO/stable/../../../outside/secret.txt");
    QTest::newRow("dots-as-channel") << QByteArray("/releases/DEMO/../OTHER/secret.txt");
    QTest::newRow("encoded-dots-as-channel")
        << QByteArray("/releases/DEMO/%2e%2e/OTHER/secret.txt");
    QTest::newRow("encoded-dots-as-channel-latest") << QByteArray("/releases/DEMO/%2e%2E/latest");
    QTest::newRow("encoded-dots-as-version")
        << QByteArray("/releases/DEMO/stable/%2e%2e/secret.txt");
    QTest::newRow("single-dot-as-version") << QByteArray("/releases/DEMO/loose/%2e/secret.txt");
    QTest::newRow("encoded-slashes-as-channel")
        << QByteArray("/releases/DEMO/..%2f..%2F../outside/secret.txt");
    QTest::newRow("encoded-slashes-inside")
        << QByteArray("/releases/DEMO/stable%2F../loose/secret.txt");
    QTest::newRow("encoded-slashes-as-file")
        << QByteArray("/releases/DEMO/stable/1.0/..%2f..%2f..%2f..%2foutside%2fsecret.txt");
    QTest::newRow("encoded-twice") << QByteArray("/releases/DEMO/%252e%252e/OTHER/secret.txt");
    QTest::newRow("backslashes") << QByteArray("/releases/DEMO/..\\..\\/outside/secret.txt");
    QTest::newRow("absolute") << QByteArray("/releases//etc/passwd");
    QTest::newRow("absolute-as-version") << QByteArray("/releases/DEMO/stable/%2Fetc/passwd");
    QTest::newRow("absolute-whole") << QByteArray("//etc/passwd");
    QTest::newRow("null-byte") << QByteArray("/releases/DEMO/stable/1.0/demo.zip%00secret.txt");
    QTest::newRow("null-byte-as-version") << QByteArray("/releases/DEMO/stable/1.0%00/demo.zip");
    QTest::newRow("no-unicode") << QByteArray("/releases/DEMO/stable/%c0%ae%c0%ae/secret.txt");
}

// Over a socket of its own: a URL class would tidy up the target before it is sent.
void tst_Sandbox::nothingOutsideTheReleasesIsServed()
{
    QFETCH(const QByteArray, target);
    write(u"outside/secret.txt"_s, "SECRET");
    write(u"releases/OTHER/secret.txt"_s, "SECRET");
    write(u"releases/DEMO/secret.txt"_s, "SECRET");
    write(u"releases/DEMO/loose/secret.txt"_s, "SECRET");
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");

    const QByteArray answer = exchange("GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n", 1);
    QVERIFY2(answer.startsWith("HTTP/1.1 404 "), answer.constData());
    QVERIFY2(!answer.contains("SECRET") && !answer.contains("root:"), answer.constData());
}

void tst_Sandbox::linksOutOfTheFolderAreNotFollowed_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("link");
    QTest::newRow("file") << u"outside/stable/1.0/demo.zip"_s
                          << u"releases/DEMO/stable/1.0/demo.zip"_s;
    QTest::newRow("version") << u"outside/stable/1.0"_s << u"releases/DEMO/stable/1.0"_s;
    QTest::newRow("channel") << u"outside/stable"_s << u"releases/DEMO/stable"_s;
    QTest::newRow("product") << u"outside"_s << u"releases/DEMO"_s;
    QTest::newRow("neighbour-with-the-same-beginning")
        << u"releases-old/stable"_s << u"releases/DEMO/stable"_s;
}

void tst_Sandbox::linksOutOfTheFolderAreNotFollowed()
{
    QFETCH(const QString, target);
    QFETCH(const QString, link);
    write(u"outside/stable/1.0/demo.zip"_s, "SECRET");
    write(u"releases-old/stable/1.0/demo.zip"_s, "SECRET");
    QVERIFY(QDir().mkpath(QFileInfo(path(link)).path()));
    QVERIFY(QFile::link(path(target), path(link)));

    QCOMPARE(get(u"/releases/DEMO/stable/1.0/demo.zip"_s).status, 404);
    QCOMPARE(get(u"/releases/DEMO/stable/latest"_s).status, 404);
    QCOMPARE(get(u"/api/v1/releases/latest/DEMO?channel=stable"_s).body,
             refusal(u"Nessuna versione pubblicata su questo canale."_s));
}

void tst_Sandbox::linkedNotesOutsideTheFolderAreNotRead()
{
    write(u"outside/notes.txt"_s, "SECRET");
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "1");
    QVERIFY(
        QFile::link(path(u"outside/notes.txt"_s), path(u"releases/DEMO/stable/1.0/notes.txt"_s)));
    QCOMPARE(latest(u"stable"_s).value("version"_L1).toString(), u"1.0"_s);
    QCOMPARE(latest(u"stable"_s).value("notes"_L1), QJsonValue(u""_s));
}

void tst_Sandbox::linksInsideTheFolderAreFollowed()
{
    write(u"releases/DEMO/beta/1.0/demo.zip"_s, "same");
    QVERIFY(QDir().mkpath(path(u"releases/DEMO/stable"_s)));
    QVERIFY(QFile::link(path(u"releases/DEMO/beta/1.0"_s), path(u"releases/DEMO/stable/1.0"_s)));
    QCOMPARE(get(u"/releases/DEMO/stable/latest"_s).body, QByteArray("same"));
}

void tst_Sandbox::releasesFolderMayItselfBeALink()
{
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "linked");
    QVERIFY(QFile::link(path(u"releases"_s), path(u"link"_s)));
    restart({u"--releases"_s, path(u"link"_s)});
    QCOMPARE(get(u"/releases/DEMO/stable/latest"_s).body, QByteArray("linked"));
}

// A file used to be read to its end whether or not anybody took it, into memory.
void tst_Sandbox::fileIsReadAtTheReceiversPace()
{
    constexpr qint64 size = 128 * 1024 * 1024;
    constexpr qint64 whatSocketsHold = 32 * 1024 * 1024;
    const QString stalled = path(u"releases/DEMO/stalled/1.0/demo.zip"_s);
    for (const QString &name :
         {u"releases/DEMO/stalled/1.0/demo.zip"_s, u"releases/DEMO/stable/1.0/demo.zip"_s})
    {
        write(name, "");
        QVERIFY(QFile::resize(path(name), size));
    }

    QTcpSocket socket;
    socket.setReadBufferSize(1000);
    socket.connectToHost(QHostAddress::LocalHost, m_sandbox->port());
    socket.write("GET /releases/DEMO/stalled/latest HTTP/1.1\r\nHost: a\r\n\r\n");
    QVERIFY(socket.waitForReadyRead(timeout));

    // While this one is served to its end, the other could be too.
    QCOMPARE(get(u"/releases/DEMO/stable/latest"_s).body.size(), size);
    const qint64 position = m_sandbox->positionIn(stalled);
    QVERIFY2(position > 0 && position < whatSocketsHold, qPrintable(QString::number(position)));

    // What was held back comes when it is wanted.
    qint64 received = 0;
    socket.setReadBufferSize(0);
    connect(&socket, &QTcpSocket::readyRead, this, [&] { received += socket.readAll().size(); });
    received += socket.readAll().size();
    QVERIFY(QTest::qWaitFor([&] { return received > size; }, timeout));
}

// Whoever waits for the rest would wait for ever.
void tst_Sandbox::fileThatBecomesShorterEndsItsTransfer()
{
    constexpr qint64 size = 64 * 1024 * 1024;
    const QString file = path(u"releases/DEMO/stable/1.0/demo.zip"_s);
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "");
    QVERIFY(QFile::resize(file, size));
    QTcpSocket socket;
    socket.setReadBufferSize(1000);
    socket.connectToHost(QHostAddress::LocalHost, m_sandbox->port());
    socket.write("GET /releases/DEMO/stable/latest HTTP/1.1\r\nHost: a\r\n\r\n");
    QVERIFY(socket.waitForReadyRead(timeout));
    QVERIFY(QFile::resize(file, 1000));

    qint64 received = 0;
    socket.setReadBufferSize(0);
    connect(&socket, &QTcpSocket::readyRead, this, [&] { received += socket.readAll().size(); });
    received += socket.readAll().size();
    QVERIFY(
        QTest::qWaitFor([&] { return socket.state() == QTcpSocket::UnconnectedState; }, timeout));
    received += socket.readAll().size();
    QVERIFY(received < size);
    QVERIFY(!m_sandbox->holdsOpen(file));
}

void tst_Sandbox::abandonedDownloadIsLetGo()
{
    const QString file = path(u"releases/DEMO/stable/1.0/demo.zip"_s);
    write(u"releases/DEMO/stable/1.0/demo.zip"_s, "");
    QVERIFY(QFile::resize(file, 64 * 1024 * 1024));
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, m_sandbox->port());
    QVERIFY(socket.waitForConnected(timeout));
    socket.setReadBufferSize(1000);
    socket.write("GET /releases/DEMO/stable/latest HTTP/1.1\r\nHost: a\r\n\r\n");
    QVERIFY(socket.waitForReadyRead(timeout));
    QVERIFY(m_sandbox->holdsOpen(file));
    socket.abort();
    QVERIFY(QTest::qWaitFor([&] { return !m_sandbox->holdsOpen(file); }, timeout));
    QCOMPARE(get(u"/"_s).status, 404);
}

void tst_Sandbox::startAnswersTheNewPurchase()
{
    const Answer answer = post(u"/api/v1/purchase/start"_s, startRequest());
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.contentType, QByteArray("application/json"));

    const QJsonObject started = answer.json();
    const QString key = started.value("license_key"_L1).toString();
    const QString order = started.value("paypal_order_id"_L1).toString();
    static const QRegularExpression keyForm(u"\\A[2-9A-Z]{4}(-[2-9A-Z]{4}){3}\\z"_s);
    static const QRegularExpression orderForm(u"\\A[2-9A-Z]{17}\\z"_s);
    QVERIFY2(keyForm.match(key).hasMatch(), qPrintable(key));
    QVERIFY2(orderForm.match(order).hasMatch(), qPrintable(order));
    QCOMPARE(answer.body,
             compact({{u"success"_s, true},
                      {u"payment_id"_s, 1},
                      {u"license_id"_s, 1001},
                      {u"license_key"_s, key},
                      {u"paypal_order_id"_s, order},
                      {u"approval_url"_s, m_sandbox->address() + "/paypal/approve/"_L1 + order}}));
}

void tst_Sandbox::startStoresAPendingLicenseAndAnOrder()
{
    const QJsonObject started = start();
    QCOMPARE(query(u"SELECT id, license_key, product_code, plan_code, first_name, last_name, email,"
                   " status FROM licenses"_s),
             QStringList{"1001|"_L1 + started.value("license_key"_L1).toString()
                         + "|DEMO|ANNUALE|Ada|Rossi|ada@example.org|pending"_L1});
    QCOMPARE(query(u"SELECT id, paypal_order_id, license_id, plan_name, price, currency,"
                   " approved_at IS NULL FROM orders"_s),
             QStringList{"1|"_L1 + started.value("paypal_order_id"_L1).toString()
                         + "|1001|Abbonamento annuale|99.00|EUR|1"_L1});
    QCOMPARE(query(u"SELECT count(*) FROM payments"_s), QStringList{u"0"_s});
}

void tst_Sandbox::purchasesHaveTheirOwnIds()
{
    const QJsonObject first = start();
    const QJsonObject second = start();
    for (const auto member : {"payment_id"_L1, "license_id"_L1, "license_key"_L1,
                              "paypal_order_id"_L1, "approval_url"_L1})
        QVERIFY2(first.value(member) != second.value(member), member.data());
}

void tst_Sandbox::resumeAnswersTheStartedPurchase()
{
    start();
    const QJsonObject started = start();
    const Answer resumed =
        post(u"/api/v1/purchase/resume"_s,
             {{u"product_code"_s, u"DEMO"_s}, {u"license_key"_s, started.value("license_key"_L1)}});
    QCOMPARE(resumed.status, 200);
    QCOMPARE(resumed.json(), started);
}

void tst_Sandbox::resumeFindsNoKeyOfAnotherProduct()
{
    query(u"INSERT INTO products VALUES ('OTHER', 'Altro')"_s);
    const Answer resumed = post(
        u"/api/v1/purchase/resume"_s,
        {{u"product_code"_s, u"OTHER"_s}, {u"license_key"_s, start().value("license_key"_L1)}});
    QCOMPARE(resumed.status, 404);
    QCOMPARE(resumed.body, refusal(u"Chiave di licenza sconosciuta."_s));
}

void tst_Sandbox::resumeRefusesAPaidPurchase()
{
    const QJsonObject started = start();
    QCOMPARE(approve(started).status, 303);
    QCOMPARE(capture(started).status, 200);
    const Answer resumed =
        post(u"/api/v1/purchase/resume"_s,
             {{u"product_code"_s, u"DEMO"_s}, {u"license_key"_s, started.value("license_key"_L1)}});
    QCOMPARE(resumed.status, 409);
    QCOMPARE(resumed.body, refusal(u"Questo acquisto è già stato pagato."_s));
}

void tst_Sandbox::approvalPageShowsThePurchase()
{
    const QJsonObject started = start();
    const Answer page = get(started.value("approval_url"_L1).toString());
    QCOMPARE(page.status, 200);
    QCOMPARE(page.contentType, QByteArray("text/html; charset=utf-8"));
    for (const QByteArray &text :
         {QByteArray("<h1>Approva il pagamento</h1>"),
          started.value("paypal_order_id"_L1).toString().toUtf8(),
          QByteArray("Abbonamento annuale"), QByteArray("99,00\u00a0EUR"), QByteArray("Ada Rossi"),
          QByteArray("ada@example.org"), QByteArray("<button>Paga</button>")})
        QVERIFY2(page.body.contains(text), text.constData());
    QCOMPARE(query(u"SELECT approved_at IS NULL FROM orders"_s), QStringList{u"1"_s});
}

void tst_Sandbox::approvalPageEscapesItsTexts()
{
    query(u"UPDATE plans SET name = '<u>', price = '<1>', currency = '<E>'"_s);
    QJsonObject request = with(startRequest(), u"first_name"_s, u"<script>\"&%1%2"_s);
    request.insert("last_name"_L1, u"<i>È</i>"_s);
    request.insert("email"_L1, u"<b>@example.org"_s);
    const QJsonObject started = post(u"/api/v1/purchase/start"_s, request).json();
    const QByteArray name = "<dd>&lt;script&gt;&quot;&amp;%1%2 &lt;i&gt;È&lt;/i&gt;</dd>";
    for (const Answer &page : {get(started.value("approval_url"_L1).toString()), approve(started)})
    {
        QVERIFY(page.body.contains(name));
        QVERIFY(page.body.contains("<dd>&lt;b&gt;@example.org</dd>"));
        QVERIFY(page.body.contains("<dd>&lt;u&gt;</dd>"));
        QVERIFY(page.body.contains("<dd>&lt;1&gt;\u00a0&lt;E&gt;</dd>"));
    }
}

void tst_Sandbox::approvalIsConfirmed()
{
    const QJsonObject started = start();
    const Answer page = approve(started);
    QCOMPARE(page.status, 303);
    QCOMPARE(page.contentType, QByteArray("text/html; charset=utf-8"));
    QVERIFY(page.body.contains("<h1>Pagamento approvato</h1>"));
    QVERIFY(!page.body.contains("<form"));
    QCOMPARE(query(u"SELECT approved_at IS NULL FROM orders"_s), QStringList{u"0"_s});
    QCOMPARE(get(started.value("approval_url"_L1).toString()).body, page.body);
}

void tst_Sandbox::approvingTwiceIsHarmless()
{
    const QJsonObject started = start();
    const Answer first = approve(started);
    const QStringList time = query(u"SELECT approved_at FROM orders"_s);
    const Answer second = approve(started);
    QCOMPARE(second.status, 303);
    QCOMPARE(second.body, first.body);
    QCOMPARE(query(u"SELECT approved_at FROM orders"_s), time);
}

void tst_Sandbox::approvingAfterThePaymentIsHarmless()
{
    const QJsonObject started = start();
    const QByteArray page = approve(started).body;
    QCOMPARE(capture(started).status, 200);
    QCOMPARE(approve(started).body, page);
    QCOMPARE(get(started.value("approval_url"_L1).toString()).body, page);
    QCOMPARE(query(u"SELECT count(*) FROM payments"_s), QStringList{u"1"_s});
}

void tst_Sandbox::cancellingIsConfirmed()
{
    const QJsonObject started = start();
    const Answer page = cancel(started);
    QCOMPARE(page.status, 303);
    QCOMPARE(page.contentType, QByteArray("text/html; charset=utf-8"));
    QVERIFY(page.body.contains("<h1>Pagamento annullato</h1>"));
    QVERIFY(!page.body.contains("<form"));
    QCOMPARE(query(u"SELECT approved_at IS NULL, cancelled_at IS NULL FROM orders"_s),
             QStringList{u"1|0"_s});
    QCOMPARE(get(started.value("approval_url"_L1).toString()).body, page.body);
}

void tst_Sandbox::cancellingTwiceIsHarmless()
{
    const QJsonObject started = start();
    const Answer first = cancel(started);
    const QStringList time = decisions();
    const Answer second = cancel(started);
    QCOMPARE(second.status, 303);
    QCOMPARE(second.body, first.body);
    QCOMPARE(decisions(), time);
}

void tst_Sandbox::decisionLeadsBackToThePage_data()
{
    QTest::addColumn<QString>("decision");
    QTest::newRow("approve") << u"approve"_s;
    QTest::newRow("cancel") << u"cancel"_s;
}

// So that to load it again posts nothing again.
void tst_Sandbox::decisionLeadsBackToThePage()
{
    QFETCH(const QString, decision);
    const QString page = start().value("approval_url"_L1).toString();
    const Answer answer = post(QString(page).replace(u"approve"_s, decision), QByteArray());
    QCOMPARE(answer.status, 303);
    QCOMPARE(QUrl(page).resolved(QUrl(QString::fromLatin1(answer.location))), QUrl(page));
    QCOMPARE(answer.body, get(page).body);
}

void tst_Sandbox::decisionIsNotReversed_data()
{
    QTest::addColumn<bool>("approves");
    QTest::addColumn<bool>("pays");
    QTest::newRow("approve-cancelled") << false << false;
    QTest::newRow("cancel-approved") << true << false;
    QTest::newRow("cancel-paid") << true << true;
}

void tst_Sandbox::decisionIsNotReversed()
{
    QFETCH(const bool, approves);
    QFETCH(const bool, pays);
    const QJsonObject started = start();
    const QByteArray page = approves ? approve(started).body : cancel(started).body;
    if (pays)
        QCOMPARE(capture(started).status, 200);
    const QStringList before = decisions();
    const Answer answer = approves ? cancel(started) : approve(started);
    QCOMPARE(answer.status, 409);
    QCOMPARE(answer.contentType, QByteArray("text/html; charset=utf-8"));
    QCOMPARE(answer.body, page);
    QCOMPARE(decisions(), before);
}

void tst_Sandbox::pagesOfOtherSitesDecideNothing_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("origin");
    QTest::addColumn<int>("status");
    for (const QString &path : {u"/paypal/approve/"_s, u"/paypal/cancel/"_s}) {
        const auto row = [path](const char *tag, const char *origin, int status) {
            QTest::addRow("%s%s", qUtf8Printable(path.section(u'/', 2)), tag)
                << path << QByteArray(origin) << status;
        };
        row("other", "http://a.example", 403);
        row("hidden", "null", 403);
        row("other-port", "http://127.0.0.1:1", 403);
        row("other-scheme", "https://own", 403);
        row("own", "http://own", 303);
    }
}

void tst_Sandbox::pagesOfOtherSitesDecideNothing()
{
    QFETCH(const QString, path);
    QFETCH(QByteArray, origin);
    QFETCH(const int, status);
    const QString order = start().value("paypal_order_id"_L1).toString();
    origin.replace("own", "127.0.0.1:" + QByteArray::number(m_sandbox->port()));
    const Answer answer = post(path + order, QByteArray(), origin);
    QCOMPARE(answer.status, status);
    QCOMPARE(answer.contentType, QByteArray("text/html; charset=utf-8"));
    QCOMPARE(answer.body.contains("<h1>Richiesta rifiutata</h1>"), status == 403);
    QCOMPARE(decisions() == QStringList{u"|"_s}, status == 403);
}

// No other page may show it within itself, and nothing keeps it.
void tst_Sandbox::pageKeepsToItself()
{
    const QByteArray answers = exchange("GET /paypal/approve/X HTTP/1.1\r\nHost: a\r\n\r\n", 1);
    for (const QByteArray &header :
         {QByteArray("Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; "
                     "form-action 'self'; base-uri 'none'; frame-ancestors 'none'\r\n"),
          QByteArray("X-Content-Type-Options: nosniff\r\n"),
          QByteArray("Cache-Control: no-store\r\n")})
        QVERIFY2(answers.contains(header), answers.constData());
}

void tst_Sandbox::unknownOrderHasAPage_data()
{
    QTest::addColumn<bool>("posted");
    QTest::addColumn<QString>("target");
    const QString approve = u"/paypal/approve/NESSUNO"_s;
    QTest::newRow("get") << false << approve;
    QTest::newRow("approve") << true << approve;
    QTest::newRow("cancel") << true << u"/paypal/cancel/NESSUNO"_s;
}

void tst_Sandbox::unknownOrderHasAPage()
{
    QFETCH(const bool, posted);
    QFETCH(const QString, target);
    const Answer page = posted ? post(target, QByteArray()) : get(target);
    QCOMPARE(page.status, 404);
    QCOMPARE(page.contentType, QByteArray("text/html; charset=utf-8"));
    QVERIFY(page.body.contains("<h1>Ordine sconosciuto</h1>"));
}

void tst_Sandbox::captureRefusesAnUnapprovedOrder()
{
    const Answer answer = capture(start());
    QCOMPARE(answer.status, 409);
    QCOMPARE(
        answer.body,
        compact({{u"success"_s, false},
                 {u"paid"_s, false},
                 {u"error"_s,
                  QJsonObject{{u"message"_s, u"Il pagamento non è ancora stato approvato."_s}}}}));
    QCOMPARE(query(u"SELECT count(*) FROM payments"_s), QStringList{u"0"_s});
}

void tst_Sandbox::captureTakesThePayment()
{
    start();
    const QJsonObject started = start();
    QCOMPARE(approve(started).status, 303);
    const Answer answer = capture(started);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.body,
             compact({{u"paid"_s, true},
                      {u"success"_s, true},
                      {u"license_id"_s, started.value("license_id"_L1)},
                      {u"license_key"_s, started.value("license_key"_L1)}}));
    QCOMPARE(query(u"SELECT id, amount, currency FROM payments"_s), QStringList{u"2|99.00|EUR"_s});
    QCOMPARE(started.value("payment_id"_L1).toInt(), 2);
    QCOMPARE(query(u"SELECT status FROM licenses ORDER BY id"_s),
             (QStringList{u"pending"_s, u"active"_s}));
}

void tst_Sandbox::capturingTwicePaysOnce()
{
    const QJsonObject started = start();
    QCOMPARE(approve(started).status, 303);
    const Answer first = capture(started);
    const Answer second = capture(started);
    QCOMPARE(first.status, 200);
    QCOMPARE(second.status, 200);
    QCOMPARE(second.body, first.body);
    QCOMPARE(query(u"SELECT count(*) FROM payments"_s), QStringList{u"1"_s});
}

// Used to be answered as an error of the service. The trigger pays where another process can:
// after the purchase was read.
void tst_Sandbox::captureOfWhatAnotherProcessHasJustPaidSucceeds()
{
    const QJsonObject started = start();
    QCOMPARE(approve(started).status, 303);
    query(u"CREATE TRIGGER pay BEFORE UPDATE ON licenses"
          " BEGIN INSERT INTO payments (id, amount, currency) VALUES (1, '99.00', 'other'); END"_s);
    const Answer answer = capture(started);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.json().value("license_key"_L1), started.value("license_key"_L1));
    QCOMPARE(query(u"SELECT id, currency FROM payments"_s), QStringList{u"1|other"_s});
}

void tst_Sandbox::failedCaptureChangesNothing()
{
    const QJsonObject started = start();
    QCOMPARE(approve(started).status, 303);
    query(u"ALTER TABLE payments RENAME TO hidden"_s);
    QCOMPARE(capture(started).status, 500);
    QVERIFY(m_sandbox->errorLine().contains("no such table: payments"));

    // A failure between the two changes: the licence must not stay active.
    query(u"ALTER TABLE hidden RENAME TO payments"_s);
    query(u"CREATE TRIGGER refuse BEFORE INSERT ON payments"
          " BEGIN SELECT raise(ABORT, 'no money'); END"_s);
    QCOMPARE(capture(started).status, 500);
    QVERIFY(m_sandbox->errorLine().contains("no money"));
    QCOMPARE(query(u"SELECT status FROM licenses"_s), QStringList{u"pending"_s});

    query(u"DROP TRIGGER refuse"_s);
    QCOMPARE(capture(started).status, 200);
}

void tst_Sandbox::usageEventIsStored()
{
    QJsonObject request = usageRequest();
    request.insert("durata"_L1, 12.5);
    request.insert("dettagli"_L1, QJsonObject{{u"città"_s, QJsonArray{1, u"due"_s, true}}});
    const Answer answer = post(u"/api/v1/client/usage"_s, request);
    QCOMPARE(answer.status, 200);
    QCOMPARE(answer.body, QByteArray("{\"success\":true}"));
    QCOMPARE(query(u"SELECT product_code, license_key, machine_fingerprint, event_type, payload"
                   " FROM usage_events"_s),
             QStringList{u"DEMO||macchina-1|avvio|"
                         "{\"dettagli\":{\"città\":[1,\"due\",true]},\"durata\":12.5}"_s});

    const QDateTime received = QDateTime::fromString(
        query(u"SELECT received_at FROM usage_events"_s).constFirst(), Qt::ISODateWithMs);
    QVERIFY(qAbs(received.msecsTo(QDateTime::currentDateTimeUtc())) < 60'000);
}

void tst_Sandbox::usageEventOfALicenseIsStored()
{
    const QJsonValue key = start().value("license_key"_L1);
    QCOMPARE(post(u"/api/v1/client/usage"_s, with(usageRequest(), u"license_key"_s, key)).body,
             QByteArray("{\"success\":true}"));
    QCOMPARE(query(u"SELECT license_key, payload FROM usage_events"_s),
             QStringList{key.toString() + "|{}"_L1});
}

void tst_Sandbox::usageRefusesAKeyOfAnotherProduct()
{
    query(u"INSERT INTO products VALUES ('OTHER', 'Altro')"_s);
    QJsonObject request = with(usageRequest(), u"license_key"_s, start().value("license_key"_L1));
    request.insert("product_code"_L1, u"OTHER"_s);
    QCOMPARE(post(u"/api/v1/client/usage"_s, request).status, 404);
    QCOMPARE(query(u"SELECT count(*) FROM usage_events"_s), QStringList{u"0"_s});
}

void tst_Sandbox::refuses_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QByteArray>("body"); // null for GET
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("message");

    const QString startPath = u"/api/v1/purchase/start"_s;
    const QString resumePath = u"/api/v1/purchase/resume"_s;
    const QString capturePath = u"/api/v1/purchase/capture"_s;
    const QString usagePath = u"/api/v1/client/usage"_s;
    const QString noProduct = u"Prodotto sconosciuto."_s;
    const QString noObject = u"La richiesta non è un oggetto JSON."_s;
    const QString noName = u"Nome e cognome sono obbligatori."_s;
    const QString noMail = u"Indirizzo e-mail non valido."_s;
    const auto noText = [](const QString &member) {
        return u"Il campo «%1» manca o non è un testo."_s.arg(member);
    };
    const auto postRow = [](const char *tag, const QString &target, const QJsonObject &object,
                            int status, const QString &message) {
        QTest::newRow(tag) << target << compact(object) << status << message;
    };

    QTest::newRow("root") << u"/"_s << QByteArray() << 404 << u"Indirizzo sconosciuto."_s;
    QTest::newRow("unknown-path") << u"/api/v1/purchase"_s << QByteArray() << 404
                                  << u"Indirizzo sconosciuto."_s;
    QTest::newRow("longer-path") << startPath + "/x"_L1 << QByteArray("{}") << 404
                                 << u"Indirizzo sconosciuto."_s;
    QTest::newRow("release-unknown-product")
        << u"/api/v1/releases/latest/NESSUNO?channel=stable"_s << QByteArray() << 404 << noProduct;
    QTest::newRow("release-lower-case-product")
        << u"/api/v1/releases/latest/demo?channel=stable"_s << QByteArray() << 404 << noProduct;
    QTest::newRow("plans-unknown-product")
        << u"/api/v1/purchase/plans?product_code=NESSUNO"_s << QByteArray() << 404 << noProduct;
    QTest::newRow("plans-missing-product")
        << u"/api/v1/purchase/plans"_s << QByteArray() << 404 << noProduct;
    QTest::newRow("plans-encoded-product")
        << u"/api/v1/purchase/plans?product_code=DEMO%26x"_s << QByteArray() << 404 << noProduct;

    QTest::newRow("start-empty-body") << startPath << QByteArray("") << 400 << noObject;
    QTest::newRow("start-malformed") << startPath << QByteArray("{\"a\":") << 400 << noObject;
    QTest::newRow("start-array") << startPath << QByteArray("[]") << 400 << noObject;
    for (const char *member : {"product_code", "plan_code", "first_name", "last_name", "email"}) {
        const QString name = QString::fromLatin1(member);
        QTest::addRow("start-missing-%s", member)
            << startPath << compact(without(startRequest(), name)) << 400 << noText(name);
        QTest::addRow("start-number-as-%s", member)
            << startPath << compact(with(startRequest(), name, 1)) << 400 << noText(name);
    }
    postRow("start-unknown-product", startPath,
            with(startRequest(), u"product_code"_s, u"NESSUNO"_s), 404, noProduct);
    postRow("start-unknown-plan", startPath, with(startRequest(), u"plan_code"_s, u"ORARIA"_s), 404,
            u"Piano sconosciuto."_s);
    postRow("start-lower-case-plan", startPath, with(startRequest(), u"plan_code"_s, u"annuale"_s),
            404, u"Piano sconosciuto."_s);
    postRow("start-blank-first-name", startPath, with(startRequest(), u"first_name"_s, u" "_s), 422,
            noName);
    postRow("start-blank-last-name", startPath, with(startRequest(), u"last_name"_s, u"\t"_s), 422,
            noName);
    postRow("start-empty-last-name", startPath, with(startRequest(), u"last_name"_s, u""_s), 422,
            noName);
    for (const char *address :
         {"", "ada", "ada@", "@example.org", "ada@example", "a da@example.org", "ada@example..org",
          "ada@b@example.org", "ada@example.org\n"})
    {
        QTest::addRow("start-email-%s", *address ? address : "empty")
            << startPath << compact(with(startRequest(), u"email"_s, QString::fromLatin1(address)))
            << 422 << noMail;
    }

    const QJsonObject resume{{u"product_code"_s, u"DEMO"_s}, {u"license_key"_s, u"AAAA"_s}};
    QTest::newRow("resume-malformed") << resumePath << QByteArray("x") << 400 << noObject;
    postRow("resume-missing-key", resumePath, without(resume, u"license_key"_s), 400,
            noText(u"license_key"_s));
    postRow("resume-unknown-product", resumePath, with(resume, u"product_code"_s, u"NESSUNO"_s),
            404, noProduct);
    postRow("resume-unknown-key", resumePath, resume, 404, u"Chiave di licenza sconosciuta."_s);

    QTest::newRow("capture-malformed") << capturePath << QByteArray("x") << 400 << noObject;
    postRow("capture-missing-order", capturePath, {}, 400, noText(u"paypal_order_id"_s));
    postRow("capture-unknown-order", capturePath, {{u"paypal_order_id"_s, u"NESSUNO"_s}}, 404,
            u"Ordine sconosciuto."_s);

    QTest::newRow("usage-malformed") << usagePath << QByteArray("x") << 400 << noObject;
    for (const char *member : {"product_code", "license_key", "machine_fingerprint", "event_type"})
    {
        const QString name = QString::fromLatin1(member);
        QTest::addRow("usage-missing-%s", member)
            << usagePath << compact(without(usageRequest(), name)) << 400 << noText(name);
    }
    postRow("usage-unknown-product", usagePath,
            with(usageRequest(), u"product_code"_s, u"NESSUNO"_s), 404, noProduct);
    postRow("usage-unknown-key", usagePath, with(usageRequest(), u"license_key"_s, u"AAAA"_s), 404,
            u"Chiave di licenza sconosciuta."_s);
    postRow("usage-empty-event", usagePath, with(usageRequest(), u"event_type"_s, u""_s), 422,
            u"Il tipo di evento è obbligatorio."_s);
    postRow("usage-blank-event", usagePath, with(usageRequest(), u"event_type"_s, u" "_s), 422,
            u"Il tipo di evento è obbligatorio."_s);
}

void tst_Sandbox::refuses()
{
    QFETCH(const QString, target);
    QFETCH(const QByteArray, body);
    QFETCH(const int, status);
    QFETCH(const QString, message);

    const Answer answer = body.isNull() ? get(target) : post(target, body);
    QCOMPARE(answer.status, status);
    QCOMPARE(answer.contentType, QByteArray("application/json"));
    QCOMPARE(answer.body, refusal(message));
    QCOMPARE(query(u"SELECT (SELECT count(*) FROM licenses) + (SELECT count(*) FROM orders)"
                   " + (SELECT count(*) FROM payments) + (SELECT count(*) FROM usage_events)"_s),
             QStringList{u"0"_s});
}

void tst_Sandbox::refusesOtherMethods_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("target");
    QTest::addColumn<QByteArray>("allow");

    QTest::newRow("post-release") << QByteArray("POST") << u"/api/v1/releases/latest/DEMO"_s
                                  << QByteArray("GET");
    QTest::newRow("post-file") << QByteArray("POST") << u"/releases/DEMO/stable/latest"_s
                               << QByteArray("GET");
    QTest::newRow("put-plans") << QByteArray("PUT") << u"/api/v1/purchase/plans"_s
                               << QByteArray("GET");
    QTest::newRow("get-start") << QByteArray("GET") << u"/api/v1/purchase/start"_s
                               << QByteArray("POST");
    QTest::newRow("get-resume") << QByteArray("GET") << u"/api/v1/purchase/resume"_s
                                << QByteArray("POST");
    QTest::newRow("get-capture") << QByteArray("GET") << u"/api/v1/purchase/capture"_s
                                 << QByteArray("POST");
    QTest::newRow("get-usage") << QByteArray("GET") << u"/api/v1/client/usage"_s
                               << QByteArray("POST");
    QTest::newRow("delete-approval")
        << QByteArray("DELETE") << u"/paypal/approve/X"_s << QByteArray("GET, POST");
    QTest::newRow("get-cancel") << QByteArray("GET") << u"/paypal/cancel/X"_s << QByteArray("POST");
}

void tst_Sandbox::refusesOtherMethods()
{
    QFETCH(const QByteArray, method);
    QFETCH(const QString, target);
    QFETCH(const QByteArray, allow);

    const QNetworkRequest request(QUrl(m_sandbox->address() + target));
    const Answer answer = answerTo(m_network->sendCustomRequest(request, method));
    QCOMPARE(answer.status, 405);
    QCOMPARE(answer.contentType, QByteArray("application/json"));
    QCOMPARE(answer.allow, allow);
    QCOMPARE(answer.body, refusal(u"Metodo non ammesso per questo indirizzo."_s));
}

// The second answer of the connection must start where the first ends: with its headers.
void tst_Sandbox::headIsAnsweredWithoutABody()
{
    const QByteArray answers = exchange("HEAD /api/v1/purchase/plans HTTP/1.1\r\nHost: a\r\n\r\n"
                                        "GET / HTTP/1.1\r\nHost: a\r\n\r\n",
                                        2);
    QVERIFY2(answers.startsWith("HTTP/1.1 405 "), answers.constData());
    QCOMPARE(answers.toLower().count("\r\nallow: get\r\n"), 1);
    QCOMPARE(answers.indexOf("\r\n\r\n") + 4, answers.indexOf("HTTP/1.1 404 "));
}

void tst_Sandbox::databaseFailureIsAnsweredAndReported()
{
    query(u"DROP TABLE usage_events"_s);
    const Answer answer = post(u"/api/v1/client/usage"_s, usageRequest());
    QCOMPARE(answer.status, 500);
    QCOMPARE(answer.body, refusal(u"Errore interno del servizio."_s));
    const QByteArray report = m_sandbox->errorLine();
    QVERIFY2(report.startsWith("/api/v1/client/usage: "), report.constData());
    QVERIFY2(report.contains("no such table: usage_events"), report.constData());
    QCOMPARE(get(u"/api/v1/purchase/plans?product_code=DEMO"_s).status, 200);
}

void tst_Sandbox::libraryBuysALicense()
{
    Corvane client;
    client.setServerUrl(QUrl(m_sandbox->address()));
    client.setProductCode(u"demo"_s);
    QSignalSpy plans(&client, &Corvane::purchasePlansReceived);
    QSignalSpy started(&client, &Corvane::purchaseStarted);
    QSignalSpy captured(&client, &Corvane::purchaseCaptured);
    QSignalSpy errors(&client, &Corvane::networkError);

    client.fetchPurchasePlans();
    QVERIFY(plans.wait(timeout));
    const QString code =
        plans.at(0).at(0).toJsonArray().at(2).toObject().value("plan_code"_L1).toString();

    client.startPayPalPurchase(code, u"Ada"_s, u"Rossi"_s, u"Ada@Example.org"_s);
    QVERIFY(started.wait(timeout));
    const auto start = started.at(0).at(0).value<PurchaseStartInfo>();
    QCOMPARE(start.message, u"Pagamento avviato."_s);

    client.resumePayPalPurchase(start.licenseKey);
    QVERIFY(started.wait(timeout));
    const auto resume = started.at(1).at(0).value<PurchaseStartInfo>();
    QCOMPARE(resume.raw, start.raw);

    QCOMPARE(post(resume.approvalUrl, QByteArray()).status, 303);
    client.capturePayPalPurchase(resume.paypalOrderId);
    QVERIFY(captured.wait(timeout));
    const auto capture = captured.at(0).at(0).value<PurchaseCaptureInfo>();
    QVERIFY(capture.paid);
    QCOMPARE(capture.licenseId, start.licenseId);
    QCOMPARE(capture.raw.value("license_key"_L1).toString(), start.licenseKey);

    QCOMPARE(query(u"SELECT l.id, l.plan_code, l.email, l.status, p.id, p.amount"
                   " FROM licenses l JOIN orders o ON o.license_id = l.id"
                   " JOIN payments p ON p.id = o.id"_s),
             QStringList{u"%1|PERPETUA|ada@example.org|active|%2|249.00"_s.arg(
                 QString::number(start.licenseId), QString::number(start.paymentId))});
    QCOMPARE(errors.size(), 0);
}

void tst_Sandbox::libraryUpdatesItself()
{
    write(u"releases/DEMO/stable/1.5/demo.zip"_s, "release 1.5");
    Corvane client;
    client.setServerUrl(QUrl(m_sandbox->address()));
    client.setProductCode(u"DEMO"_s);
    QSignalSpy checked(&client, &Corvane::updateChecked);
    QSignalSpy downloaded(&client, &Corvane::updateDownloaded);

    client.checkForUpdate(u"1.4"_s, u"stable"_s);
    QVERIFY(checked.wait(timeout));
    const auto update = checked.at(0).at(0).value<UpdateInfo>();
    QVERIFY(update.updateAvailable);
    QCOMPARE(update.latestVersion, u"1.5"_s);

    client.downloadUpdate(QUrl(update.downloadUrl), path(u"downloaded.zip"_s));
    QVERIFY(downloaded.wait(timeout));
    QFile file(path(u"downloaded.zip"_s));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(sha256(file.readAll()), update.sha256.toLatin1());
}

void tst_Sandbox::libraryReportsUsage()
{
    Corvane client;
    client.setServerUrl(QUrl(m_sandbox->address()));
    client.setProductCode(u"DEMO"_s);
    QSignalSpy sent(&client, &Corvane::usageSent);
    client.sendUsage(u""_s, u"macchina-1"_s, u"avvio"_s, {{u"versione"_s, u"1.4"_s}});
    QVERIFY(sent.wait(timeout));
    QCOMPARE(sent.at(0), (QVariantList{true, u""_s}));
    QCOMPARE(query(u"SELECT machine_fingerprint, event_type, payload FROM usage_events"_s),
             QStringList{u"macchina-1|avvio|{\"versione\":\"1.4\"}"_s});
}

void tst_Sandbox::libraryHearsRefusals()
{
    Corvane client;
    client.setServerUrl(QUrl(m_sandbox->address()));
    client.setProductCode(u"DEMO"_s);
    QSignalSpy sent(&client, &Corvane::usageSent);
    QSignalSpy started(&client, &Corvane::purchaseStarted);
    QSignalSpy captured(&client, &Corvane::purchaseCaptured);
    QSignalSpy checked(&client, &Corvane::updateChecked);

    client.sendUsage(u"AAAA"_s, u"macchina-1"_s, u"avvio"_s, {});
    QVERIFY(sent.wait(timeout));
    QCOMPARE(sent.at(0), (QVariantList{false, u"Chiave di licenza sconosciuta."_s}));

    client.startPayPalPurchase(u"ORARIA"_s, u"Ada"_s, u"Rossi"_s, u"ada@example.org"_s);
    QVERIFY(started.wait(timeout));
    QCOMPARE(started.at(0).at(0).value<PurchaseStartInfo>().message, u"Piano sconosciuto."_s);

    client.capturePayPalPurchase(start().value("paypal_order_id"_L1).toString());
    QVERIFY(captured.wait(timeout));
    QCOMPARE(captured.at(0).at(0).value<PurchaseCaptureInfo>().message,
             u"Il pagamento non è ancora stato approvato."_s);

    client.checkForUpdate(u"1.4"_s, u"stable"_s);
    QVERIFY(checked.wait(timeout));
    QVERIFY(!checked.at(0).at(0).value<UpdateInfo>().updateAvailable);
}

Answer tst_Sandbox::answerTo(QNetworkReply *reply) const
{
    const std::unique_ptr<QNetworkReply> owner(reply);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!finished.wait(timeout))
        return {};
    return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
            reply->rawHeader("Content-Type"), reply->rawHeader("Allow"),
            reply->rawHeader("Location"), reply->readAll()};
}

// The target is a path on the sandbox or a whole URL.
Answer tst_Sandbox::get(const QString &target)
{
    const QUrl url = QUrl(m_sandbox->address()).resolved(QUrl(target));
    return answerTo(m_network->get(QNetworkRequest(url)));
}

// As bytes: Qt 6.8 now and then puts the headers of a redirect together twice.
Answer tst_Sandbox::post(const QString &target, const QByteArray &body, const QByteArray &origin)
{
    const QUrl url = QUrl(m_sandbox->address()).resolved(QUrl(target));
    RawClient client(m_sandbox->port(), QHostAddress(url.host()));
    client.send("POST " + url.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority)
                + " HTTP/1.1\r\nHost: " + url.authority().toLatin1()
                + "\r\nContent-Type: application/json\r\n"
                + (origin.isNull() ? QByteArray() : "Origin: " + origin + "\r\n")
                + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body);
    return answerFrom(client.reply());
}

Answer tst_Sandbox::post(const QString &target, const QJsonObject &body)
{
    return post(target, compact(body));
}

// As the page's buttons do, but on the sandbox that runs now: a restart changes the port.
Answer tst_Sandbox::approve(const QJsonObject &started)
{
    return post("/paypal/approve/"_L1 + started.value("paypal_order_id"_L1).toString(),
                QByteArray());
}

Answer tst_Sandbox::cancel(const QJsonObject &started)
{
    return post("/paypal/cancel/"_L1 + started.value("paypal_order_id"_L1).toString(),
                QByteArray());
}

// When each order was approved and cancelled.
QStringList tst_Sandbox::decisions() const
{
    return query(u"SELECT approved_at, cancelled_at FROM orders"_s);
}

Answer tst_Sandbox::capture(const QJsonObject &started)
{
    return post(u"/api/v1/purchase/capture"_s,
                {{u"paypal_order_id"_s, started.value("paypal_order_id"_L1)}});
}

QJsonObject tst_Sandbox::start()
{
    return post(u"/api/v1/purchase/start"_s, startRequest()).json();
}

// Sends the bytes as they are and reads until that many answers with bodies have come.
QByteArray tst_Sandbox::exchange(const QByteArray &requests, qsizetype answers)
{
    static const QRegularExpression header(u"Content-Length: (\\d+)\\r\\n"_s,
                                           QRegularExpression::CaseInsensitiveOption);
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, m_sandbox->port());
    socket.write(requests);
    QByteArray received;
    while (answers > 0 && socket.waitForReadyRead(timeout)) {
        received += socket.readAll();
        qsizetype bodies = 0;
        QRegularExpressionMatchIterator headers = header.globalMatch(QString::fromLatin1(received));
        qsizetype complete = 0;
        while (headers.hasNext()) {
            const QRegularExpressionMatch match = headers.next();
            bodies = received.indexOf("\r\n\r\n", match.capturedStart()) + 4
                + match.captured(1).toLongLong();
            ++complete;
        }
        if (complete == answers && received.size() >= bodies)
            break;
    }
    return received;
}

QString tst_Sandbox::path(const QString &name) const
{
    return m_dir->filePath(name);
}

void tst_Sandbox::write(const QString &name, const QByteArray &data) const
{
    QVERIFY(QDir().mkpath(QFileInfo(path(name)).path()));
    QFile file(path(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(data), data.size());
}

// The channel as it stands in the query.
QJsonObject tst_Sandbox::latest(const QString &channel)
{
    return get("/api/v1/releases/latest/DEMO?channel="_L1 + channel)
        .json()
        .value("release"_L1)
        .toObject();
}

// In the sandbox's database file.
QStringList tst_Sandbox::query(const QString &sql) const
{
    const Database database(path(u"state.sqlite"_s));
    // A test may store what the service never would.
    database.query(u"PRAGMA ignore_check_constraints = ON"_s);
    return database.query(sql);
}

void tst_Sandbox::restart(const QStringList &arguments)
{
    m_sandbox.reset();
    m_sandbox = std::make_unique<Sandbox>(arguments);
    QVERIFY(m_sandbox->port() > 0);
}

QTEST_GUILESS_MAIN(tst_Sandbox)

#include "tst_sandbox.moc"
