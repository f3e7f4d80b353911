#include "files.h"

#include <QtCore/qdir.h>
#include <QtCore/qfileinfo.h>
#include <QtCore/qprocess.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qtemporarydir.h>
#include <QtTest/qtest.h>

#include <algorithm>
#include <csignal>
#include <memory>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 60000;
const QString sourceDirectory = QStringLiteral(SOURCE_DIR);
const QString sandbox = QStringLiteral(CORVANE_SANDBOX_PATH);
const QString withSandbox = sourceDirectory + "/docs/with-sandbox"_L1;
const QRegularExpression address(u"^http://127\\.0\\.0\\.1:\\d+\\n$"_s);
const QRegularExpression stopPassed(u"service_stop \\.+ +Passed"_s);

// Whether the process is a sandbox that has not ended. Of one that is ending, the kernel lets go of
// the files, and with them of the fixture's lock, a moment before the process is gone.
bool isSandbox(qint64 process)
{
    constexpr ulong exiting = 0x4; // the kernel's PF_EXITING
    const QByteArray stat = Files::contentOf(u"/proc/%1/stat"_s.arg(process));
    const QByteArrayList fields = stat.sliced(stat.lastIndexOf(')') + 1).simplified().split(' ');
    return stat.contains("(corvane-sandbox)") && (fields.value(6).toULong() & exiting) == 0;
}

// The sandbox that ends with the process; 0 if there is none.
qint64 sandboxOf(qint64 process)
{
    const QByteArray arguments =
        QByteArray("\0--end-with\0", 12) + QByteArray::number(process) + '\0';
    const QStringList entries = QDir(u"/proc"_s).entryList(QDir::Dirs);
    const auto entry = std::find_if(entries.begin(), entries.end(), [&](const QString &candidate) {
        return isSandbox(candidate.toLongLong())
            && Files::contentOf(u"/proc/%1/cmdline"_s.arg(candidate)).contains(arguments);
    });
    return entry == entries.end() ? 0 : entry->toLongLong();
}

bool waitForEnd(qint64 process)
{
    return QTest::qWaitFor([process] { return !isSandbox(process); }, timeout);
}

bool waitForFile(const QString &path)
{
    return QTest::qWaitFor([&path] { return QFileInfo::exists(path); }, timeout);
}

struct Outcome
{
    // 128 and the signal, as shells have it, for one that was killed.
    int exitCode = -1;
    QString output;
};

// A program that is killed with the object, if it has not ended, or with the test program.
class Program
{
public:
    Program(const QString &name, const QStringList &arguments, const QString &folder)
    {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.setWorkingDirectory(folder);
        m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"CORVANE_SANDBOX"_s, sandbox);
        environment.insert(u"no_proxy"_s, u"127.0.0.1"_s);
        environment.remove(u"CORVANE_SANDBOX_URL"_s);
        m_process.setProcessEnvironment(environment);
        m_process.start(name, arguments);
        m_process.waitForStarted(timeout);
    }
    ~Program()
    {
        m_process.kill();
        m_process.waitForFinished(timeout);
    }
    Q_DISABLE_COPY_MOVE(Program)

    qint64 id() const { return m_process.processId(); }
    bool send(int signal) { return id() > 0 && ::kill(pid_t(id()), signal) == 0; }

    bool waitForOutput(const QByteArray &text)
    {
        while (!m_output.contains(text)) {
            if (!m_process.waitForReadyRead(timeout))
                return false;
            m_output += m_process.readAll();
        }
        return true;
    }
    void closeInput() { m_process.closeWriteChannel(); }

    Outcome outcome()
    {
        if (m_process.state() != QProcess::NotRunning && !m_process.waitForFinished(timeout))
            return {};
        const bool isKilled = m_process.exitStatus() == QProcess::CrashExit;
        return {m_process.exitCode() + (isKilled ? 128 : 0),
                QString::fromUtf8(m_output + m_process.readAll())};
    }

private:
    QProcess m_process;
    QByteArray m_output;
};

// An outside project, with the lines at the end of its CMakeLists.txt. Its tests are commands, so
// that nothing is compiled.
class Project
{
public:
    explicit Project(const QString &lines)
    {
        const QString text = uR"(
cmake_minimum_required(VERSION 3.25)
project(Host LANGUAGES NONE)
enable_testing()
add_executable(Corvane::Sandbox IMPORTED)
set_target_properties(Corvane::Sandbox PROPERTIES IMPORTED_LOCATION "%1")
include("%2/cmake/CorvaneSandbox.cmake")
)"_s.arg(sandbox, sourceDirectory);
        Files::write(path(u"CMakeLists.txt"_s), (text + lines).toUtf8());
        m_configured =
            Program(QStringLiteral(CMAKE_PROGRAM),
                    {u"-G"_s, QStringLiteral(CMAKE_GENERATOR), u"-S"_s, u"."_s, u"-B"_s, u"."_s},
                    m_folder.path())
                .outcome();
    }

    QString path(const QString &file) const { return m_folder.filePath(file); }
    QByteArray content(const QString &file) const { return Files::contentOf(path(file)); }
    // What a test has written to the file.
    qint64 process(const QString &file) const { return content(file).trimmed().toLongLong(); }
    const Outcome &configured() const { return m_configured; }

    std::unique_ptr<Program> start(const QStringList &arguments = {}) const
    {
        return std::make_unique<Program>(
            QStringLiteral(CTEST_PROGRAM),
            QStringList{u"--output-on-failure"_s, u"-j8"_s, u"--timeout"_s, u"60"_s} + arguments,
            m_folder.path());
    }
    Outcome run(const QStringList &arguments = {}) const { return start(arguments)->outcome(); }

private:
    QTemporaryDir m_folder;
    Outcome m_configured;
};

// A fixture of one test, a script that can tell the sandbox's process from $pid.
QString fixture(const QString &script, const QString &arguments = {})
{
    return uR"(
corvane_sandbox_fixture(NAME service %1)
corvane_sandbox_test(NAME test FIXTURE service
    COMMAND sh -c [==[pid=$(cat "$0/corvane-sandbox/service/pid"); %2]==] "${CMAKE_BINARY_DIR}")
)"_s.arg(arguments, script);
}

} // namespace

// What hosts' tests are given: the CTest fixture, and docs/with-sandbox.
class tst_SandboxFixture : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void testsOfAFixtureShareItsSandbox();
    void fixturesHaveSandboxesOfTheirOwn();
    void argumentsArriveAsGiven();
    void buildTreesMayBeTestedAtOnce();
    void testsMayBeRepeated();
    void nothingIsLeftRunning_data();
    void nothingIsLeftRunning();
    void sandboxEndsWithCTest_data();
    void sandboxEndsWithCTest();
    void testsOfASandboxThatDoesNotStartAreNotRun_data();
    void testsOfASandboxThatDoesNotStartAreNotRun();
    void earlyEndIsToldOf();
    void complaintsAreShown();
    void sandboxIsStoppedCleanly();
    void formerSandboxIsStoppedFirst();
    void sandboxThatDoesNotEndIsKilled();
    void otherProcessOfItsNumberIsLeftAlone();
    void testCannotRunWithoutItsSandbox();
    void misuseIsAnError_data();
    void misuseIsAnError();

    void commandFindsItsSandbox();
    void exitStatusIsTheCommands_data();
    void exitStatusIsTheCommands();
    void signalsReachTheCommand();
    void sandboxIsApartFromTheCommand();
    void sandboxEndsWithTheCommand_data();
    void sandboxEndsWithTheCommand();
    void commandIsNotRunWithoutASandbox_data();
    void commandIsNotRunWithoutASandbox();

private:
    static Outcome runWithSandbox(const QStringList &arguments, const QString &script);
    // A command that says when it is ready.
    static QStringList untilItsInputEnds(const QString &script);
};

void tst_SandboxFixture::testsOfAFixtureShareItsSandbox()
{
    const Project project(uR"(
corvane_sandbox_fixture(NAME service)
foreach(test IN ITEMS one two)
    corvane_sandbox_test(NAME ${test} FIXTURE service COMMAND
        sh -c [[curl --fail --silent "$CORVANE_SANDBOX_URL/sandbox/state" && echo "$CORVANE_SANDBOX_URL" >"$0"]] ${test})
endforeach()
)"_s);
    QCOMPARE(project.configured().exitCode, 0);
    const Outcome outcome = project.run();
    QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.output));
    const QByteArray one = project.content(u"one"_s);
    QVERIFY2(address.match(QString::fromUtf8(one)).hasMatch(), one.constData());
    QCOMPARE(project.content(u"two"_s), one);
}

void tst_SandboxFixture::fixturesHaveSandboxesOfTheirOwn()
{
    const Project project(uR"(
corvane_sandbox_fixture(NAME sound)
corvane_sandbox_fixture(NAME broken ARGUMENTS --scenario service-down)
foreach(fixture IN ITEMS sound broken)
    corvane_sandbox_test(NAME test-${fixture} FIXTURE ${fixture} COMMAND
        sh -c [[curl --silent --output /dev/null --write-out "%{http_code}" "$CORVANE_SANDBOX_URL/api/v1/purchase/plans?product_code=DEMO" >"$0"]] ${fixture})
endforeach()
)"_s);
    const Outcome outcome = project.run();
    QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.output));
    QCOMPARE(project.content(u"sound"_s), "200");
    QCOMPARE(project.content(u"broken"_s), "503");
}

void tst_SandboxFixture::argumentsArriveAsGiven()
{
    const Project project(uR"(
corvane_sandbox_fixture(NAME service ARGUMENTS
    --fault [==[{"operation": "plans", "do": {"status": 500, "error": "a; \"b\" $c 'd'"}}]==])
corvane_sandbox_test(NAME test FIXTURE service COMMAND
    sh -c [==[printf '%s|' "$@" >arguments; curl --silent "$CORVANE_SANDBOX_URL/api/v1/purchase/plans?product_code=DEMO" >reply]==]
    sh "one two" "three;four" "$five" "[six]")
)"_s);
    const Outcome outcome = project.run();
    QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.output));
    QCOMPARE(project.content(u"reply"_s),
             R"({"error":{"message":"a; \"b\" $c 'd'"},"success":false})");
    QCOMPARE(project.content(u"arguments"_s), "one two|three;four|$five|[six]|");
}

// Each test waits for the other's.
void tst_SandboxFixture::buildTreesMayBeTestedAtOnce()
{
    QTemporaryDir meeting;
    const QByteArray there = QFile::encodeName(meeting.filePath(u"there"_s));
    const QByteArray back = QFile::encodeName(meeting.filePath(u"back"_s));
    QCOMPARE(::mkfifo(there.constData(), 0600), 0);
    QCOMPARE(::mkfifo(back.constData(), 0600), 0);
    const QString url = u"echo \"$CORVANE_SANDBOX_URL\""_s;
    const Project first(fixture(
        u"%1 >%2; cat %3 >other"_s.arg(url, QFile::decodeName(there), QFile::decodeName(back))));
    const Project second(fixture(
        u"cat %2 >other; %1 >%3"_s.arg(url, QFile::decodeName(there), QFile::decodeName(back))));

    const auto running = first.start();
    QCOMPARE(second.run().exitCode, 0);
    QCOMPARE(running->outcome().exitCode, 0);
    const QByteArray firstUrl = second.content(u"other"_s);
    const QByteArray secondUrl = first.content(u"other"_s);
    QVERIFY2(address.match(QString::fromUtf8(firstUrl)).hasMatch(), firstUrl.constData());
    QVERIFY2(address.match(QString::fromUtf8(secondUrl)).hasMatch(), secondUrl.constData());
    QVERIFY(firstUrl != secondUrl);
}

void tst_SandboxFixture::testsMayBeRepeated()
{
    const Project project(fixture(u"echo $pid >>processes"_s));
    QCOMPARE(project.run({u"--repeat"_s, u"until-fail:3"_s}).exitCode, 0);
    const QByteArrayList processes = project.content(u"processes"_s).trimmed().split('\n');
    QCOMPARE(processes.size(), 3);
    for (const QByteArray &process : processes)
        QVERIFY(!isSandbox(process.toLongLong()));
}

void tst_SandboxFixture::nothingIsLeftRunning_data()
{
    QTest::addColumn<QString>("end");
    QTest::addColumn<int>("exitCode");

    QTest::newRow("passes") << u"true"_s << 0;
    QTest::newRow("fails") << u"false"_s << 8;
    QTest::newRow("crashes") << u"kill -SEGV $$"_s << 8;
    QTest::newRow("is-killed") << u"kill -KILL $$"_s << 8;
    QTest::newRow("leaves-a-connection")
        << u"exec curl --silent \"$CORVANE_SANDBOX_URL/sandbox/journal?wait=60\" >/dev/null 2>&1 &"_s
        << 0;
}

void tst_SandboxFixture::nothingIsLeftRunning()
{
    QFETCH(const QString, end);
    QFETCH(const int, exitCode);

    const Project project(fixture("cp /proc/$pid/comm name; echo $pid >process; "_L1 + end));
    // CTest adds to the test what it needs.
    const Outcome outcome = project.run({u"-R"_s, u"^test$"_s});
    QVERIFY2(outcome.exitCode == exitCode, qPrintable(outcome.output));
    QVERIFY2(outcome.output.contains(stopPassed), qPrintable(outcome.output));
    QCOMPARE(project.content(u"name"_s), "corvane-sandbox\n");
    QVERIFY(!isSandbox(project.process(u"process"_s)));
}

void tst_SandboxFixture::sandboxEndsWithCTest_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("interrupted") << SIGINT;
    QTest::newRow("killed") << SIGKILL;
}

void tst_SandboxFixture::sandboxEndsWithCTest()
{
    QFETCH(const int, signal);

    // The test lives on, as one that hangs does, until the pipe is opened.
    const Project project(fixture(
        u"[ -p pipe ] || exit 0; echo $pid >part; mv part process; trap '' INT; cat pipe"_s));
    QCOMPARE(::mkfifo(QFile::encodeName(project.path(u"pipe"_s)).constData(), 0600), 0);
    const auto running = project.start();
    QVERIFY(waitForFile(project.path(u"process"_s)));
    const qint64 process = project.process(u"process"_s);
    QVERIFY(isSandbox(process));

    QVERIFY(running->send(signal));
    QCOMPARE(running->outcome().exitCode, 128 + signal);
    QVERIFY(waitForEnd(process));
    QFile pipe(project.path(u"pipe"_s));
    QVERIFY(pipe.open(QIODevice::WriteOnly));
    QVERIFY(pipe.remove());
    // What was left behind is in nobody's way.
    const Outcome outcome = project.run();
    QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.output));
}

void tst_SandboxFixture::testsOfASandboxThatDoesNotStartAreNotRun_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("reason");

    QTest::newRow("data-missing") << u"--data missing.json"_s
                                  << u"corvane-sandbox: cannot read the data \"missing.json\""_s;
    QTest::newRow("unknown-option")
        << u"--nonsense"_s << u"corvane-sandbox: Unknown option 'nonsense'."_s;
}

void tst_SandboxFixture::testsOfASandboxThatDoesNotStartAreNotRun()
{
    QFETCH(const QString, arguments);
    QFETCH(const QString, reason);

    const Project project(fixture(u"echo >run"_s, "ARGUMENTS "_L1 + arguments));
    const Outcome outcome = project.run();
    QCOMPARE(outcome.exitCode, 8);
    QVERIFY2(outcome.output.contains(reason), qPrintable(outcome.output));
    static const QRegularExpression notRun(u"test \\.+\\*\\*\\*Not Run"_s);
    QVERIFY2(outcome.output.contains(notRun), qPrintable(outcome.output));
    QVERIFY2(outcome.output.contains(stopPassed), qPrintable(outcome.output));
    QVERIFY(!QFileInfo::exists(project.path(u"run"_s)));
}

void tst_SandboxFixture::earlyEndIsToldOf()
{
    // Its lock is free when it is gone.
    const Project project(
        fixture(u"kill -KILL $pid; flock \"$0/corvane-sandbox/service/lock\" true"_s));
    const Outcome outcome = project.run();
    QCOMPARE(outcome.exitCode, 8);
    QVERIFY2(outcome.output.contains("corvane-sandbox: ended before it was stopped"_L1),
             qPrintable(outcome.output));
}

void tst_SandboxFixture::complaintsAreShown()
{
    const Project project(fixture(
        u"true"_s, u"ARGUMENTS --database state.sqlite --data ${CMAKE_SOURCE_DIR}/data.json"_s));
    Files::write(project.path(u"data.json"_s), "{}");
    QCOMPARE(project.run().exitCode, 0);
    const Outcome outcome = project.run({u"--verbose"_s});
    QCOMPARE(outcome.exitCode, 0);
    QVERIFY2(outcome.output.contains("\"state.sqlite\" holds data already"_L1),
             qPrintable(outcome.output));
}

// Of a killed one, the file beside the database that holds the newest of it is left.
void tst_SandboxFixture::sandboxIsStoppedCleanly()
{
    const Project project(
        fixture(u"ls state.sqlite-wal"_s, u"ARGUMENTS --database state.sqlite"_s));
    const Outcome outcome = project.run();
    QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.output));
    QVERIFY(QFileInfo::exists(project.path(u"state.sqlite"_s)));
    QVERIFY(!QFileInfo::exists(project.path(u"state.sqlite-wal"_s)));
}

void tst_SandboxFixture::formerSandboxIsStoppedFirst()
{
    const Project project(fixture(u"true"_s));
    const auto script = [&project](const QStringList &arguments) {
        return Program(sourceDirectory + "/cmake/sandbox-fixture"_L1,
                       QStringList(project.path(u"folder"_s)) + arguments, project.path({}))
            .outcome();
    };
    const Outcome first = script({u"start"_s, sandbox});
    QVERIFY2(address.match(first.output).hasMatch(), qPrintable(first.output));
    const qint64 firstProcess = project.process(u"folder/pid"_s);
    QVERIFY(isSandbox(firstProcess));

    const Outcome second = script({u"start"_s, sandbox});
    QVERIFY2(address.match(second.output).hasMatch(), qPrintable(second.output));
    QVERIFY(!isSandbox(firstProcess));
    const qint64 secondProcess = project.process(u"folder/pid"_s);
    QVERIFY(isSandbox(secondProcess));

    QCOMPARE(script({u"stop"_s}).exitCode, 0);
    QVERIFY(!isSandbox(secondProcess));
    QCOMPARE(script({u"stop"_s}).exitCode, 0);
}

void tst_SandboxFixture::sandboxThatDoesNotEndIsKilled()
{
    const Project project(fixture(u"kill -STOP $pid; echo $pid >process"_s));
    const Outcome outcome = project.run();
    QVERIFY2(outcome.exitCode == 0, qPrintable(outcome.output));
    QVERIFY(!isSandbox(project.process(u"process"_s)));
}

void tst_SandboxFixture::otherProcessOfItsNumberIsLeftAlone()
{
    const Project project(fixture(
        u"cd \"$0/corvane-sandbox/service\"; kill -KILL $pid; flock lock cp \"$0/process\" pid"_s));
    Program other(u"cat"_s, {}, project.path({}));
    Files::write(project.path(u"process"_s), QByteArray::number(other.id()));

    QCOMPARE(project.run().exitCode, 8);
    Files::write(project.path(u"corvane-sandbox/service/pid"_s), QByteArray::number(other.id()));
    QCOMPARE(project.run().exitCode, 8);
    // It has had no signal but this.
    QVERIFY(other.send(SIGKILL));
    QCOMPARE(other.outcome().exitCode, 128 + SIGKILL);
}

void tst_SandboxFixture::testCannotRunWithoutItsSandbox()
{
    const Project project(fixture(u"echo >run"_s));
    const Outcome outcome =
        project.run({u"--fixture-exclude-any"_s, u"service"_s, u"-R"_s, u"^test$"_s});
    QCOMPARE(outcome.exitCode, 8);
    QVERIFY2(outcome.output.contains("corvane-sandbox: not running; ctest starts it"_L1),
             qPrintable(outcome.output));
    QVERIFY(!QFileInfo::exists(project.path(u"run"_s)));
}

void tst_SandboxFixture::misuseIsAnError_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("message");

    const QString ofFixture = u"corvane_sandbox_fixture(NAME <fixture>"_s;
    const QString ofTest = u"corvane_sandbox_test(NAME <test> FIXTURE <fixture> COMMAND"_s;
    QTest::newRow("fixture-without-name") << u"corvane_sandbox_fixture()"_s << ofFixture;
    QTest::newRow("fixture-with-path") << u"corvane_sandbox_fixture(NAME ../a)"_s << ofFixture;
    QTest::newRow("fixture-with-more") << u"corvane_sandbox_fixture(NAME a --mask)"_s << ofFixture;
    QTest::newRow("test-without-name")
        << u"corvane_sandbox_test(FIXTURE known COMMAND true)"_s << ofTest;
    QTest::newRow("test-without-fixture")
        << u"corvane_sandbox_test(NAME a COMMAND true)"_s << ofTest;
    QTest::newRow("test-without-command")
        << u"corvane_sandbox_test(NAME a FIXTURE known)"_s << ofTest;
    QTest::newRow("test-with-more")
        << u"corvane_sandbox_test(a NAME a FIXTURE known COMMAND true)"_s << ofTest;
    QTest::newRow("unknown-fixture") << u"corvane_sandbox_test(NAME a FIXTURE b COMMAND true)"_s
                                     << u"there is no fixture \"b\" yet"_s;
}

void tst_SandboxFixture::misuseIsAnError()
{
    QFETCH(const QString, line);
    QFETCH(const QString, message);

    const Project project("corvane_sandbox_fixture(NAME known)\n"_L1 + line);
    QCOMPARE(project.configured().exitCode, 1);
    // CMake breaks lines where it likes.
    QVERIFY2(project.configured().output.simplified().contains(message),
             qPrintable(project.configured().output));
}

Outcome tst_SandboxFixture::runWithSandbox(const QStringList &arguments, const QString &script)
{
    QTemporaryDir folder;
    return Program(withSandbox, arguments + QStringList{u"--"_s, u"sh"_s, u"-c"_s, script},
                   folder.path())
        .outcome();
}

QStringList tst_SandboxFixture::untilItsInputEnds(const QString &script)
{
    return {u"--"_s, u"sh"_s, u"-c"_s, script + "; echo ready; read line; exit 0"_L1};
}

void tst_SandboxFixture::commandFindsItsSandbox()
{
    const QString ask = u"curl --silent --output /dev/null --write-out '%{http_code}' "
                        "\"$CORVANE_SANDBOX_URL/api/v1/purchase/plans?product_code=DEMO\""_s;
    const Outcome plain = runWithSandbox({}, ask);
    QCOMPARE(plain.output, u"200"_s);
    QCOMPARE(plain.exitCode, 0);
    QCOMPARE(runWithSandbox({u"--scenario"_s, u"service-down"_s}, ask).output, u"503"_s);
}

void tst_SandboxFixture::exitStatusIsTheCommands_data()
{
    QTest::addColumn<QString>("script");
    QTest::addColumn<int>("exitCode");

    QTest::newRow("success") << u"exit 0"_s << 0;
    QTest::newRow("failure") << u"exit 1"_s << 1;
    QTest::newRow("any") << u"exit 77"_s << 77;
    QTest::newRow("crash") << u"ulimit -c 0; kill -SEGV $$"_s << 128 + SIGSEGV;
}

void tst_SandboxFixture::exitStatusIsTheCommands()
{
    QFETCH(const QString, script);
    QFETCH(const int, exitCode);
    const Outcome outcome = runWithSandbox({}, script);
    QCOMPARE(outcome.output, QString());
    QCOMPARE(outcome.exitCode, exitCode);
}

void tst_SandboxFixture::signalsReachTheCommand()
{
    Program program(withSandbox, untilItsInputEnds(u"trap 'exit 7' TERM"_s), QDir::tempPath());
    QVERIFY(program.waitForOutput("ready\n"));
    QVERIFY(program.send(SIGTERM));
    QCOMPARE(program.outcome().exitCode, 7);
}

// Ctrl-C reaches all of a terminal's session, and some programs wait for whatever child they have.
void tst_SandboxFixture::sandboxIsApartFromTheCommand()
{
    Program program(withSandbox, untilItsInputEnds(u"true"_s), QDir::tempPath());
    QVERIFY(program.waitForOutput("ready\n"));
    const qint64 process = sandboxOf(program.id());
    QVERIFY(process > 0);
    QCOMPARE(qint64(::getsid(pid_t(process))), process);
    const QString children = u"/proc/%1/task/%1/children"_s.arg(program.id());
    QCOMPARE(Files::contentOf(children), "");
}

void tst_SandboxFixture::sandboxEndsWithTheCommand_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("ends") << 0;
    QTest::newRow("is-killed") << SIGKILL;
}

void tst_SandboxFixture::sandboxEndsWithTheCommand()
{
    QFETCH(const int, signal);

    Program program(withSandbox, untilItsInputEnds(u"true"_s), QDir::tempPath());
    QVERIFY(program.waitForOutput("ready\n"));
    const qint64 process = sandboxOf(program.id());
    QVERIFY(process > 0);
    if (signal == 0)
        program.closeInput();
    else
        QVERIFY(program.send(signal));
    QCOMPARE(program.outcome().exitCode, signal == 0 ? 0 : 128 + signal);
    QVERIFY(waitForEnd(process));
}

void tst_SandboxFixture::commandIsNotRunWithoutASandbox_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output");

    const QStringList command{u"--"_s, u"echo"_s, u"run"_s};
    const QString usage = u"usage: with-sandbox "_s;
    QTest::newRow("no-arguments") << QStringList{} << 2 << usage;
    QTest::newRow("no-command") << QStringList{u"--mask"_s, u"--"_s} << 2 << usage;
    QTest::newRow("no-dashes") << QStringList{u"echo"_s, u"run"_s} << 2 << usage;
    QTest::newRow("does-not-start") << QStringList{u"--data"_s, u"missing.json"_s} + command << 1
                                    << u"corvane-sandbox: cannot read the data \"missing.json\""_s;
}

void tst_SandboxFixture::commandIsNotRunWithoutASandbox()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const int, exitCode);
    QFETCH(const QString, output);
    QTemporaryDir folder;
    const Outcome outcome = Program(withSandbox, arguments, folder.path()).outcome();
    QCOMPARE(outcome.exitCode, exitCode);
    QVERIFY2(outcome.output.startsWith(output), qPrintable(outcome.output));
    QVERIFY(!outcome.output.contains("\nrun"_L1));
}

QTEST_GUILESS_MAIN(tst_SandboxFixture)
#include "tst_sandbox_fixture.moc"
