#include "loopbackserver.h"

#include <QtCore/qprocess.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qtemporarydir.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

// The example hosts, run as a newcomer runs them.
class tst_Examples : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void minimalSaysWhatIsOnOffer_data();
    void minimalSaysWhatIsOnOffer();
    void minimalReportsFailure();
    void minimalReportsRefusedCall();
    void firstTellsAnswersApart_data();
    void firstTellsAnswersApart();
    void firstReportsFailure();
    void threadReadsFileInItsThread();
    void threadReportsFailure();

private:
    // Runs a program to its end: its exit status and what it printed.
    static QPair<int, QByteArray> run(const QString &program, const QStringList &arguments);
    static QPair<int, QByteArray> runMinimal(const QString &serverUrl);
};

void tst_Examples::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

QPair<int, QByteArray> tst_Examples::run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    QSignalSpy finished(&process, &QProcess::finished);
    process.start(program, arguments);
    if (!finished.wait(20000))
        return {-1, "(not finished)"};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            process.readAll()};
}

QPair<int, QByteArray> tst_Examples::runMinimal(const QString &serverUrl)
{
    return run(QStringLiteral(CORVANE_MINIMAL_PATH), {serverUrl});
}

void tst_Examples::minimalSaysWhatIsOnOffer_data()
{
    QTest::addColumn<QByteArray>("version");
    QTest::addColumn<QByteArray>("output");

    QTest::newRow("newer") << QByteArray("1.5.0") << QByteArray("On offer: \"1.5.0\"\n");
    QTest::newRow("installed") << QByteArray("1.4.0")
                               << QByteArray("Nothing to install. \"1.4.0\"\n");
}

void tst_Examples::minimalSaysWhatIsOnOffer()
{
    QFETCH(QByteArray, version);
    QFETCH(QByteArray, output);

    LoopbackServer server;
    server.script(LoopbackServer::response(
        200, R"({"success":true,"release":{"version":")" + version + "\"}}"));
    QCOMPARE(runMinimal(server.url().toString()), qMakePair(0, output));
}

void tst_Examples::minimalReportsFailure()
{
    LoopbackServer server;
    server.script(LoopbackServer::response(500, ""));
    const auto [status, output] = runMinimal(server.url().toString());
    QCOMPARE(status, 1);
    QVERIFY(output.contains("/api/v1/releases/latest/DEMO"));
}

void tst_Examples::minimalReportsRefusedCall()
{
    QCOMPARE(runMinimal(QString()),
             qMakePair(1, QByteArray("\"Server URL o product code non configurati.\"\n")));
}

void tst_Examples::firstTellsAnswersApart_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("line");

    QTest::newRow("newer") << QByteArray(R"({"success":true,"release":{"version":"1.5.0"}})") << 0
                           << u"È disponibile la versione 1.5.0."_s;
    QTest::newRow("installed") << QByteArray(R"({"success":true,"release":{"version":"1.4.0"}})")
                               << 0 << u"Nessun aggiornamento."_s;
    QTest::newRow("refused") << QByteArray(R"({"success":false})") << 1
                             << u"Il servizio non indica alcuna versione."_s;
}

void tst_Examples::firstTellsAnswersApart()
{
    QFETCH(const QByteArray, reply);
    QFETCH(const int, status);
    QFETCH(const QString, line);

    LoopbackServer server;
    server.script(LoopbackServer::response(200, reply));
    QCOMPARE(run(QStringLiteral(CORVANE_FIRST_PATH), {server.url().toString()}),
             qMakePair(status, (line + u'\n').toUtf8()));
}

void tst_Examples::firstReportsFailure()
{
    LoopbackServer server;
    server.script(LoopbackServer::response(500, ""));
    const auto [status, output] =
        run(QStringLiteral(CORVANE_FIRST_PATH), {server.url().toString()});
    QCOMPARE(status, 1);
    QVERIFY(output.contains("/api/v1/releases/latest/DEMO"));
}

void tst_Examples::threadReadsFileInItsThread()
{
    const QTemporaryDir folder;
    const QString path = folder.filePath(u"demo.bin"_s);
    LoopbackServer server;
    server.script(LoopbackServer::response(200, "abc"));
    const QString output =
        u"files: saved %1\n"
        "main: SHA-256 ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n"_s.arg(
            path);
    QCOMPARE(run(QStringLiteral(CORVANE_THREAD_PATH), {server.url().toString(), path}),
             qMakePair(0, output.toUtf8()));
}

void tst_Examples::threadReportsFailure()
{
    QCOMPARE(run(QStringLiteral(CORVANE_THREAD_PATH), {}),
             qMakePair(1, QByteArray("main: URL o destinazione aggiornamento non validi.\n")));
}

QTEST_GUILESS_MAIN(tst_Examples)
#include "tst_examples.moc"
