#include "loopbackserver.h"

#include <QtCore/qprocess.h>
#include <QtCore/qregularexpression.h>
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

private:
    // Runs corvane-minimal to its end: its exit status and what it printed.
    static QPair<int, QByteArray> runMinimal(const QString &serverUrl);
};

void tst_Examples::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

QPair<int, QByteArray> tst_Examples::runMinimal(const QString &serverUrl)
{
    QProcess process;
    QSignalSpy finished(&process, &QProcess::finished);
    process.start(QStringLiteral(CORVANE_MINIMAL_PATH), {serverUrl});
    if (!finished.wait(20000))
        return {-1, "(not finished)"};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            process.readAllStandardError()};
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

QTEST_GUILESS_MAIN(tst_Examples)
#include "tst_examples.moc"
