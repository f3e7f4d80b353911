#include "desktop.h"
#include "files.h"
#include "plainnetwork.h"

#include <QtCore/qdir.h>
#include <QtCore/qelapsedtimer.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qsemaphore.h>
#include <QtCore/qthread.h>
#include <QtCore/qtimer.h>
#include <QtTest/qtest.h>
#include <QtWidgets/qapplication.h>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

// A file on a disk that takes its time: whoever opens it to write waits until it may go on.
class SlowFile
{
public:
    explicit SlowFile(const QString &path)
        : m_file(path)
        , m_reader(QThread::create([this] {
            // Not for ever, should the test itself be waiting.
            const bool wasTold = m_mayGoOn.tryAcquire(1, 10000);
            m_isRead = m_file.open(QIODevice::ReadOnly | QIODevice::Unbuffered) && wasTold;
        }))
    {
        if (::mkfifo(QFile::encodeName(path).constData(), 0600) == 0)
            m_reader->start();
    }
    ~SlowFile()
    {
        goOn();
        m_reader->wait();
    }
    Q_DISABLE_COPY_MOVE(SlowFile)

    void goOn() { m_mayGoOn.release(); }
    // The next that is written; nothing if it was not told to go on.
    QByteArray line()
    {
        m_reader->wait();
        return m_isRead ? m_file.readLine() : QByteArray();
    }

private:
    QFile m_file;
    QSemaphore m_mayGoOn;
    bool m_isRead = false;
    std::unique_ptr<QThread> m_reader;
};

} // namespace

// What the desktop example does in a thread of its own: its diary, and the verification of
// downloads.
class tst_DesktopDiary : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void everyResultHasALine();
    void messageStaysInItsLine();
    void secretsAreNotWritten_data();
    void secretsAreNotWritten();
    void addressesOfPeopleAreNotWritten();
    void everySessionBeginsAnew();
    void slowDiskHoldsUpNobody();
    void closingWaitsForNoResult();
    void verificationHoldsUpNobody();
    void closingEndsVerification();

private:
    QString file() const { return m_desktop->stateFolder() + "/registro.txt"_L1; }
    QStringList lines() const;
    bool waitForLines(const QStringList &expected) const;
    void open();
    void startLargeDownload();
    bool isVerifying() const;

    QTemporaryDir m_releases;
    std::unique_ptr<Desktop> m_desktop;
};

void tst_DesktopDiary::init()
{
    QTest::failOnWarning(Desktop::warnings());
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_desktop->sandbox.isRunning());
}

void tst_DesktopDiary::cleanup()
{
    QCOMPARE(m_desktop->sandbox.complaints(), QString());
    m_desktop.reset();
}

void tst_DesktopDiary::everyResultHasALine()
{
    open();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForLine(u"Versione 1.5.0 scaricata e verificata: "_s));
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"| Abbonamento mensile"_s));
    m_desktop->fillForm(u"Abbonamento mensile"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(m_desktop->waitForLine(u"Pagamento avviato."_s));
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"Il pagamento non è ancora stato approvato."_s));
    m_desktop->sandbox.ask("POST", m_desktop->opened.constLast().path());
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"Pagamento completato."_s));
    m_desktop->showPage(u"Utilizzo"_s);
    m_desktop->click(u"Invia questi dati a ogni avvio"_s);
    m_desktop->click(u"Invia adesso"_s);
    QVERIFY(m_desktop->waitForLine(u"Dati inviati."_s));
    m_desktop->sandbox.setFaults(uR"({"do": {"status": 503}})"_s);
    const QString words = PlainNetwork::errorString(
        m_desktop->sandbox.url(u"/api/v1/purchase/plans?product_code=DEMO"_s));
    m_desktop->showPage(u"Acquisto"_s);
    m_desktop->click(u"Aggiorna l'elenco"_s);
    QVERIFY(m_desktop->waitForLine(u"Piani non ricevuti. "_s + words));

    const QString order = m_desktop->opened.constLast().fileName();
    const QStringList expected{
        u"aggiornamento: sì, versione offerta: 1.5.0"_s,
        u"aggiornamento scaricato"_s,
        u"piani ricevuti: 3"_s,
        u"pagamento avviato: sì, ordine: %1, messaggio: Pagamento avviato."_s.arg(order),
        u"pagamento completato: no, messaggio: Il pagamento non è ancora stato approvato."_s,
        u"pagamento completato: sì, messaggio: Pagamento completato."_s,
        u"dati di utilizzo accettati: sì, messaggio:"_s,
        u"errore: "_s + QString(words).replace(u"?product_code=DEMO"_s, u"***"_s),
    };
    QVERIFY2(waitForLines(expected), qPrintable(lines().join(u'\n')));

    const QByteArray written = Files::contentOf(file());
    const QByteArray started = m_desktop->sandbox.journal(u"start"_s)
                                   .constLast()["reply"_L1]["body"_L1]
                                   .toString()
                                   .toUtf8();
    const QByteArray event = m_desktop->sandbox.journal(u"usage"_s)
                                 .constLast()["request"_L1]["body"_L1]
                                 .toString()
                                 .toUtf8();
    const QStringList secrets{u"Ada"_s, u"Rossi"_s, u"example.org"_s,
                              QJsonDocument::fromJson(started)["license_key"_L1].toString(),
                              QJsonDocument::fromJson(event)["machine_fingerprint"_L1].toString()};
    for (const QString &secret : secrets)
        QVERIFY2(!secret.isEmpty() && !written.contains(secret.toUtf8()), qPrintable(secret));
}

void tst_DesktopDiary::messageStaysInItsLine()
{
    m_desktop->sandbox.setFaults(uR"({"operation": "usage", "do": {"status": 403, "error":
               "Uno\ndue\r\ntre\rquattro\u2028cinque\u2029sei\u0085sette\u000botto %1"}})"_s);
    open();
    m_desktop->showPage(u"Utilizzo"_s);
    m_desktop->click(u"Invia questi dati a ogni avvio"_s);
    m_desktop->click(u"Invia adesso"_s);
    QVERIFY(m_desktop->waitForLine(u"Dati non accettati dal servizio. Uno"_s));
    const QStringList expected{
        u"aggiornamento: sì, versione offerta: 1.5.0"_s,
        u"dati di utilizzo accettati: no, messaggio: Uno due tre quattro cinque sei sette otto %1"_s};
    QVERIFY2(waitForLines(expected), qPrintable(lines().join(u'\n')));
}

void tst_DesktopDiary::secretsAreNotWritten_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("secret");

    QTest::newRow("token") << u"http://%1/x?token=segreto&b=c"_s << u"?token=segreto&b=c"_s;
    QTest::newRow("password") << u"http://ada:segreto@%1/x"_s << u"http://ada:segreto@%1/x"_s;
}

// Errors name the address that was asked.
void tst_DesktopDiary::secretsAreNotWritten()
{
    QFETCH(QString, address);
    QFETCH(QString, secret);
    const QString host = m_desktop->sandbox.url().authority();
    address = address.arg(host);
    if (secret.contains("%1"_L1))
        secret = secret.arg(host);
    const QString words = PlainNetwork::errorString(QUrl(address));
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"merge": {"release": {"download_url": "%1"}}}})"_s
            .arg(address));
    open();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForLine(u"Scaricamento non riuscito. "_s + words));
    const QStringList expected{u"aggiornamento: sì, versione offerta: 1.5.0"_s,
                               u"errore: "_s + QString(words).replace(secret, u"***"_s)};
    QVERIFY2(waitForLines(expected), qPrintable(lines().join(u'\n')));
    QVERIFY(!Files::contentOf(file()).contains("segreto"));
}

void tst_DesktopDiary::addressesOfPeopleAreNotWritten()
{
    m_desktop->sandbox.setFaults(uR"({"operation": "usage", "do": {"status": 403,
               "error": "Ne sa di più ada@example.org, non altri."}})"_s);
    open();
    m_desktop->showPage(u"Utilizzo"_s);
    m_desktop->click(u"Invia questi dati a ogni avvio"_s);
    m_desktop->click(u"Invia adesso"_s);
    QVERIFY(m_desktop->waitForLine(u"Dati non accettati dal servizio. Ne sa"_s));
    const QStringList expected{
        u"aggiornamento: sì, versione offerta: 1.5.0"_s,
        u"dati di utilizzo accettati: no, messaggio: Ne sa di più *** non altri."_s};
    QVERIFY2(waitForLines(expected), qPrintable(lines().join(u'\n')));
}

void tst_DesktopDiary::everySessionBeginsAnew()
{
    open();
    QVERIFY(waitForLines({u"aggiornamento: sì, versione offerta: 1.5.0"_s}));
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"merge": {"release": {"version": "2"}}}})"_s);
    m_desktop->open();
    QVERIFY(m_desktop->waitForLine(u"È disponibile la versione 2."_s));
    QVERIFY(waitForLines({u"aggiornamento: sì, versione offerta: 2"_s}));
}

void tst_DesktopDiary::slowDiskHoldsUpNobody()
{
    QVERIFY(QDir().mkpath(m_desktop->stateFolder()));
    SlowFile diary(file());
    open();
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"| Abbonamento mensile"_s));
    diary.goOn();
    QVERIFY(diary.line().endsWith(" aggiornamento: sì, versione offerta: 1.5.0\n"));
    QVERIFY(diary.line().endsWith(" piani ricevuti: 3\n"));
}

// The thread that writes is held up, so that they are still on their way.
void tst_DesktopDiary::closingWaitsForNoResult()
{
    QVERIFY(QDir().mkpath(m_desktop->stateFolder()));
    SlowFile diary(file());
    open();
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"| Abbonamento mensile"_s));
    m_desktop->showPage(u"Aggiornamenti"_s);
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(QTest::qWaitFor([this] { return isVerifying(); }));
    diary.goOn();
    m_desktop->close();
    QVERIFY(diary.line().endsWith(" aggiornamento: sì, versione offerta: 1.5.0\n"));
    QCOMPARE(QDir(m_desktop->downloads())
                 .entryList({u".*"_s}, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList());
}

void tst_DesktopDiary::verificationHoldsUpNobody()
{
    startLargeDownload();
    QElapsedTimer clock;
    qint64 longest = 0;
    int ticks = 0;
    QTimer timer;
    connect(&timer, &QTimer::timeout, this, [&] {
        if (clock.isValid())
            longest = qMax(longest, clock.elapsed());
        clock.invalidate();
        if (isVerifying()) {
            clock.start();
            ++ticks;
        }
    });
    timer.start(2);
    QVERIFY(QTest::qWaitFor([this] { return isVerifying(); }, 60000));
    QVERIFY(QTest::qWaitFor([this] { return !isVerifying(); }, 60000));
    QVERIFY(m_desktop->waitForLine(u"Versione 1.5.0 scaricata e verificata: "_s));
    // Milliseconds; a large part of them is the machine's.
    QVERIFY2(longest < 1000, qPrintable(QString::number(longest)));
    QVERIFY2(ticks > 5, qPrintable(QString::number(ticks)));
}

void tst_DesktopDiary::closingEndsVerification()
{
    startLargeDownload();
    QVERIFY(QTest::qWaitFor([this] { return isVerifying(); }, 60000));
    m_desktop->close();
    // Had it come to its end, the release would be there.
    QCOMPARE(QDir(m_desktop->downloads())
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList());
}

// Without their times.
QStringList tst_DesktopDiary::lines() const
{
    static const QRegularExpression time(
        u"^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z "_s);
    QStringList lines = QString::fromUtf8(Files::contentOf(file())).split(u'\n');
    for (QString &line : lines)
        line.remove(time);
    return lines;
}

// Each has an end.
bool tst_DesktopDiary::waitForLines(const QStringList &expected) const
{
    return QTest::qWaitFor([&] { return lines() == expected + QStringList(QString()); });
}

void tst_DesktopDiary::open()
{
    m_desktop->open();
    QVERIFY(m_desktop->waitForLine(u"È disponibile la versione 1.5.0."_s));
}

// 100 MB that take no room in the folder. The sandbox has to hash them, too.
void tst_DesktopDiary::startLargeDownload()
{
    const QString folder = m_releases.filePath(u"DEMO/stable/1.5.0"_s);
    QVERIFY(QDir().mkpath(folder));
    QFile release(folder + "/demo.bin"_L1);
    QVERIFY(release.open(QIODevice::ReadWrite));
    QVERIFY(release.resize(100'000'000));
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH),
                                          QStringList{u"--releases"_s, m_releases.path()});
    m_desktop->service.callTimeout = std::chrono::minutes(1);
    m_desktop->open();
    QVERIFY(QTest::qWaitFor(
        [this] { return m_desktop->page().endsWith(u"\nÈ disponibile la versione 1.5.0."_s); },
        60000));
    m_desktop->click(u"Scarica e verifica"_s);
}

bool tst_DesktopDiary::isVerifying() const
{
    return m_desktop->page().endsWith(u"\nVerifica della versione 1.5.0…"_s);
}

QTEST_MAIN(tst_DesktopDiary)
#include "tst_desktop_diary.moc"
