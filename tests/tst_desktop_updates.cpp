#include "corvane.h"
#include "desktop.h"
#include "desktophost.h"
#include "files.h"
#include "loopbackserver.h"

#include <QtCore/qdir.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <filesystem>

using namespace Qt::StringLiterals;

namespace {

const QString first = u"Versione installata: 1.4.0. Canale: stable.\n"_s;
const QString idle = first + u"[Cerca aggiornamenti]\n(Scarica e verifica)\n(Apri cartella)"_s;
const QString offering = first + u"[Cerca aggiornamenti]\n[Scarica e verifica]\n(Apri cartella)"_s;
const QString done = first + u"[Cerca aggiornamenti]\n[Scarica e verifica]\n[Apri cartella]"_s;
const QString busy =
    first + u"(Cerca aggiornamenti)\n(Scarica e verifica)\n(Apri cartella)\n*\n[Annulla]"_s;

const QString available = offering + u"\nÈ disponibile la versione 1.5.0."_s;
const QString unknown = u"\nRicerca non riuscita: non si sa se ci sono aggiornamenti. "_s;
const QString failed = u"\nScaricamento non riuscito. "_s;
const QString mismatch =
    u"Il file scaricato non è quello pubblicato, forse è arrivato incompleto o "
    "il disco è pieno: è stato eliminato."_s;

} // namespace

// The desktop example's page of updates, as a person uses it.
class tst_DesktopUpdates : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void looksForUpdatesAtStart();
    void looksForUpdatesOnDemand();
    void tellsNoUpdateFromFailedCheck_data();
    void tellsNoUpdateFromFailedCheck();
    void tellsWhatTheNetworkSays();
    void showsNotesAsTheyStand();
    void makesOneCheckAtATime();
    void givesUpCheck();
    void hearsNothingOfCheckGivenUp();
    void endsCheckThatTakesTooLong();

    void downloadsIntoPlace();
    void replacesOldFileInOneStep();
    void opensFolder();
    void takesFileNameFromUrl_data();
    void takesFileNameFromUrl();
    void failedDownloadLeavesWhatWasThere_data();
    void failedDownloadLeavesWhatWasThere();
    void givesUpDownload();
    void hearsNothingOfDownloadGivenUp();
    void leavesNothingOfDownloadGivenUpAtItsEnd();
    void endsDownloadThatTakesTooLong();
    void tellsFolderThatCannotBeWritten();
    void tellsDestinationThatCannotBeReplaced();
    void newCheckForgetsDownload();

private:
    // All that is in the folder of downloads.
    QStringList files() const;
    void openAndFind();

    std::unique_ptr<Desktop> m_desktop;
};

void tst_DesktopUpdates::init()
{
    QTest::failOnWarning(Desktop::warnings());
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_desktop->sandbox.isRunning());
}

void tst_DesktopUpdates::cleanup()
{
    QCOMPARE(m_desktop->sandbox.complaints(), QString());
    m_desktop.reset();
}

void tst_DesktopUpdates::looksForUpdatesAtStart()
{
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"bytes": "stall", "after": 0}})"_s);
    m_desktop->open();
    QCOMPARE(m_desktop->page(), busy + u"\nRicerca di aggiornamenti in corso…"_s);

    m_desktop->sandbox.setFaults({});
    m_desktop->open();
    QVERIFY2(m_desktop->waitForPage(available), qPrintable(m_desktop->page()));
}

void tst_DesktopUpdates::looksForUpdatesOnDemand()
{
    openAndFind();
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"merge": {"release": {"version": "1.6.0"}}}})"_s);
    m_desktop->click(u"Cerca aggiornamenti"_s);
    QVERIFY(m_desktop->waitForPage(offering + u"\nÈ disponibile la versione 1.6.0."_s));
}

void tst_DesktopUpdates::tellsNoUpdateFromFailedCheck_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<QString>("page");

    const QString noVersion =
        idle + unknown + u"La risposta del servizio non indica alcuna versione."_s;
    const QString offered =
        idle + u"\nÈ offerta la versione 1.5.0, ma non può essere scaricata: "_s;
    const QString noPlace = offered + u"il servizio non indica dove."_s;
    const QString noDigest =
        offered + u"il servizio non ne indica lo SHA-256, e non potrebbe essere verificata."_s;

    QTest::newRow("nothing-new") << uR"({"merge": {"release": {"version": "1.4.0"}}})"_s
                                 << idle
            + u"\nNessun aggiornamento: la versione installata è quella offerta."_s;
    QTest::newRow("nothing-new-and-nothing-to-download")
        << uR"({"merge": {"release": {"version": "1.4.0", "download_url": null,
             "stable_download_url": null, "sha256": null}}})"_s
        << idle + u"\nNessun aggiornamento: la versione installata è quella offerta."_s;
    QTest::newRow("older") << uR"({"merge": {"release": {"version": "1.3.9"}}})"_s
                           << offering
            + u"\nIl servizio offre la versione 1.3.9, precedente a quella installata."_s;
    QTest::newRow("newer-by-number") << uR"({"merge": {"release": {"version": "1.10"}}})"_s
                                     << offering + u"\nÈ disponibile la versione 1.10."_s;
    QTest::newRow("refused-in-body")
        << uR"({"body": {"success": false, "error": {"message": "Canale <b>chiuso</b>."}}})"_s
        << idle + unknown + u"Canale <b>chiuso</b>."_s;
    QTest::newRow("error-beside-success")
        << uR"({"merge": {"error": {"message": "Canale quasi chiuso."}}})"_s
        << available + u" Canale quasi chiuso."_s;
    QTest::newRow("version-in-letters") << uR"({"merge": {"release": {"version": "estate"}}})"_s
                                        << offering + u"\nÈ disponibile la versione estate."_s;
    QTest::newRow("refused-without-reason") << uR"({"body": {"success": false}})"_s << noVersion;
    QTest::newRow("page") << uR"({"page": "<h1>Benvenuti</h1>"})"_s << noVersion;
    QTest::newRow("nothing") << uR"({"status": 204})"_s << noVersion;
    QTest::newRow("no-release") << uR"({"merge": {"release": null}})"_s << noVersion;
    QTest::newRow("version-is-a-number")
        << uR"({"merge": {"release": {"version": 2}}})"_s << noVersion;
    QTest::newRow("other-product")
        << uR"({"merge": {"release": {"product_code": "OTHER"}}})"_s
        << idle + unknown + u"La risposta del servizio non riguarda questo prodotto."_s;
    QTest::newRow("no-url") << uR"({"merge": {"release": {"download_url": null}}})"_s << noPlace;
    QTest::newRow("local-file")
        << uR"({"merge": {"release": {"download_url": "file:///etc/hostname"}}})"_s << noPlace;
    QTest::newRow("relative-url")
        << uR"({"merge": {"release": {"download_url": "/releases/demo.bin"}}})"_s << noPlace;
    QTest::newRow("no-digest") << uR"({"merge": {"release": {"sha256": null}}})"_s << noDigest;
    QTest::newRow("short-digest") << uR"({"merge": {"release": {"sha256": "00ff"}}})"_s << noDigest;
}

void tst_DesktopUpdates::tellsNoUpdateFromFailedCheck()
{
    QFETCH(const QString, what);
    QFETCH(const QString, page);

    m_desktop->sandbox.setFaults(uR"({"operation": "update-check", "do": %1})"_s.arg(what));
    m_desktop->open();
    QVERIFY2(m_desktop->waitForPage(page), qPrintable(m_desktop->page()));
}

void tst_DesktopUpdates::tellsWhatTheNetworkSays()
{
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"status": 503, "error": "Chiuso."}})"_s);
    m_desktop->open();
    QVERIFY(m_desktop->waitForLine(u"Ricerca non riuscita"_s));
    QSignalSpy errors(m_desktop->host()->updates.findChild<Corvane *>(), &Corvane::networkError);
    m_desktop->click(u"Cerca aggiornamenti"_s);
    QVERIFY(errors.wait(20000));
    QVERIFY(!errors.at(0).at(0).toString().isEmpty());
    QCOMPARE(m_desktop->page(), idle + unknown + errors.at(0).at(0).toString());
}

void tst_DesktopUpdates::showsNotesAsTheyStand()
{
    m_desktop->sandbox.setFaults(uR"({"operation": "update-check", "do": {"merge": {"release":
               {"notes": "Più <b>veloce</b>.\n\nE più piccola."}}}})"_s);
    m_desktop->open();
    QVERIFY(m_desktop->waitForPage(
        available + u"\nNovità della versione 1.5.0:\nPiù <b>veloce</b>.\n\nE più piccola."_s));

    m_desktop->sandbox.setFaults({});
    m_desktop->click(u"Cerca aggiornamenti"_s);
    QVERIFY(m_desktop->waitForPage(available));
}

void tst_DesktopUpdates::makesOneCheckAtATime()
{
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"bytes": "stall", "after": 0}})"_s);
    m_desktop->open();
    QVERIFY(QTest::qWaitFor(
        [&] { return m_desktop->sandbox.journal(u"update-check"_s).size() == 1; }, 20000));
    QTest::keyClick(m_desktop->window(), Qt::Key_F5);
    m_desktop->host()->updates.check();
    m_desktop->host()->updates.download();
    QCOMPARE(m_desktop->page(), busy + u"\nRicerca di aggiornamenti in corso…"_s);
    // What was sent meanwhile would have come before this.
    QCOMPARE(m_desktop->sandbox.get(u"/api/v1/purchase/plans?product_code=DEMO"_s).status, 200);
    QCOMPARE(m_desktop->sandbox.journal(u"update-check"_s).size(), 1);
    QCOMPARE(m_desktop->sandbox.journal(u"download"_s).size(), 0);
}

void tst_DesktopUpdates::givesUpCheck()
{
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"bytes": "stall", "after": 0}})"_s);
    m_desktop->open();
    m_desktop->click(u"Annulla"_s);
    QCOMPARE(m_desktop->page(), idle);

    m_desktop->sandbox.setFaults({});
    m_desktop->click(u"Cerca aggiornamenti"_s);
    QVERIFY(m_desktop->waitForPage(available));
}

// The signal of a check that was given up is on its way, or comes while its client waits to be
// deleted.
void tst_DesktopUpdates::hearsNothingOfCheckGivenUp()
{
    openAndFind();
    auto *client = m_desktop->host()->updates.findChild<Corvane *>();
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"bytes": "stall", "after": 0}})"_s);
    m_desktop->click(u"Cerca aggiornamenti"_s);
    m_desktop->host()->updates.cancel();
    UpdateInfo late;
    late.latestVersion = u"9.9"_s;
    Q_EMIT client->updateChecked(late);
    Q_EMIT client->networkError(u"late"_s);
    QCOMPARE(m_desktop->page(), idle);
}

void tst_DesktopUpdates::endsCheckThatTakesTooLong()
{
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"bytes": "stall", "after": 0}})"_s);
    m_desktop->service.callTimeout = std::chrono::milliseconds(300);
    m_desktop->open();
    QVERIFY(m_desktop->waitForPage(idle + unknown
                                   + u"La richiesta non è finita nel tempo concesso (0.3 s)."_s));

    m_desktop->sandbox.setFaults({});
    m_desktop->service.callTimeout = std::chrono::seconds(20);
    m_desktop->open();
    QVERIFY(m_desktop->waitForPage(available));
}

void tst_DesktopUpdates::downloadsIntoPlace()
{
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForPage(done + u"\nVersione 1.5.0 scaricata e verificata: "_s
                                   + m_desktop->downloads() + u"/demo.bin"_s));
    QCOMPARE(files(), QStringList(u"demo.bin"_s));
    QCOMPARE(Files::contentOf(m_desktop->downloads() + u"/demo.bin"_s), Sandbox::release);
}

// A second name of the old file still has it: nothing was written into it.
void tst_DesktopUpdates::replacesOldFileInOneStep()
{
    QDir().mkpath(m_desktop->downloads());
    const QString file = m_desktop->downloads() + u"/demo.bin"_s;
    const QString other = m_desktop->downloads() + u".old"_s;
    Files::write(file, "old");
    std::filesystem::create_hard_link(QFile(file).filesystemFileName(),
                                      QFile(other).filesystemFileName());
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForLine(u"Versione 1.5.0 scaricata"_s));
    QCOMPARE(Files::contentOf(m_desktop->downloads() + u"/demo.bin"_s), Sandbox::release);
    QCOMPARE(Files::contentOf(other), QByteArray("old"));
}

void tst_DesktopUpdates::opensFolder()
{
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForLine(u"Versione 1.5.0 scaricata"_s));
    m_desktop->click(u"Apri cartella"_s);
    QCOMPARE(m_desktop->opened, QList<QUrl>{QUrl::fromLocalFile(m_desktop->downloads())});
}

void tst_DesktopUpdates::takesFileNameFromUrl_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QString>("file");

    QTest::newRow("name") << QByteArray("/a/other.bin?file=../../no") << u"other.bin"_s;
    QTest::newRow("blank") << QByteArray("/a%20b.bin") << u"a b.bin"_s;
    QTest::newRow("none") << QByteArray("/") << u"aggiornamento"_s;
    QTest::newRow("slash") << QByteArray("/..%2F..%2Fno.bin") << u"no.bin"_s;
    QTest::newRow("folder-above") << QByteArray("/..") << u"aggiornamento"_s;
    QTest::newRow("backslash") << QByteArray("/..%5Cno.bin") << u"aggiornamento"_s;
    QTest::newRow("hidden") << QByteArray("/.profile") << u"aggiornamento"_s;
    QTest::newRow("accent") << QByteArray("/citt%C3%A0-1.5.bin") << u"città-1.5.bin"_s;
}

void tst_DesktopUpdates::takesFileNameFromUrl()
{
    QFETCH(const QByteArray, path);
    QFETCH(const QString, file);

    LoopbackServer server;
    server.script(LoopbackServer::response(200, Sandbox::release));
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"merge": {"release": {"download_url": "%1"}}}})"_s
            .arg(server.url().resolved(QUrl(u"/"_s)).toString().chopped(1)
                 + QString::fromLatin1(path)));
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForLine(u"Versione 1.5.0 scaricata"_s));
    QCOMPARE(files(), QStringList(file));
    QCOMPARE(QDir(QFileInfo(m_desktop->downloads()).path()).entryList(QDir::Files), QStringList());
}

void tst_DesktopUpdates::failedDownloadLeavesWhatWasThere_data()
{
    QTest::addColumn<QString>("rule");
    // Empty if it is the network layer's.
    QTest::addColumn<QString>("problem");

    QTest::newRow("other-digest")
        << uR"({"operation": "update-check", "do": {"merge": {"release": {"sha256": "%1"}}}})"_s
               .arg(QString(64, u'0'))
        << mismatch;
    QTest::newRow("corrupt") << uR"({"operation": "download", "do": {"bytes": "corrupt"}})"_s
                             << mismatch;
    QTest::newRow("page-instead")
        << uR"({"operation": "download", "do": {"page": "<h1>Benvenuti</h1>"}})"_s << mismatch;
    QTest::newRow("empty") << uR"({"operation": "download", "do": {"status": 204}})"_s << mismatch;
    QTest::newRow("cut-short") << uR"({"operation": "download", "do": {"bytes": "wrong-length"}})"_s
                               << mismatch;
    QTest::newRow("missing")
        << uR"({"operation": "download", "do": {"status": 404, "error": "Manca."}})"_s << QString();
    QTest::newRow("reset") << uR"({"operation": "download", "do": {"bytes": "reset"}})"_s
                           << QString();
}

void tst_DesktopUpdates::failedDownloadLeavesWhatWasThere()
{
    QFETCH(const QString, rule);
    QFETCH(const QString, problem);

    QDir().mkpath(m_desktop->downloads());
    Files::write(m_desktop->downloads() + u"/demo.bin"_s, "old");
    m_desktop->sandbox.setFaults(rule);
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    const QString told = offering + failed + problem;
    if (problem.isEmpty()) {
        QVERIFY(m_desktop->waitForLine(failed.sliced(1)));
        QVERIFY(m_desktop->page().startsWith(told) && m_desktop->page() != told);
    } else {
        QVERIFY2(m_desktop->waitForPage(told), qPrintable(m_desktop->page()));
    }
    QCOMPARE(files(), QStringList(u"demo.bin"_s));
    QCOMPARE(Files::contentOf(m_desktop->downloads() + u"/demo.bin"_s), QByteArray("old"));

    m_desktop->sandbox.setFaults({});
    m_desktop->click(u"Cerca aggiornamenti"_s);
    QVERIFY(m_desktop->waitForPage(available));
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForLine(u"Versione 1.5.0 scaricata"_s));
    QCOMPARE(Files::contentOf(m_desktop->downloads() + u"/demo.bin"_s), Sandbox::release);
}

void tst_DesktopUpdates::givesUpDownload()
{
    m_desktop->sandbox.setFaults(uR"({"operation": "download", "do": {"bytes": "stall"}})"_s);
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QCOMPARE(m_desktop->page(), busy + u"\nScaricamento della versione 1.5.0…"_s);
    m_desktop->click(u"Annulla"_s);
    QCOMPARE(m_desktop->page(), available);
    QVERIFY(QTest::qWaitFor([this] { return files().isEmpty(); }, 20000));
}

// The library has saved the file, and the news of it is on its way when the user gives up and
// starts again.
void tst_DesktopUpdates::hearsNothingOfDownloadGivenUp()
{
    m_desktop->sandbox.setFaults(
        uR"({"operation": "download", "when": {"skip": 1}, "do": {"bytes": "stall"}})"_s);
    openAndFind();
    auto *client = m_desktop->host()->updates.findChild<Corvane *>();
    QObject context;
    QObject::connect(client, &Corvane::updateDownloaded, &context, [this] {
        m_desktop->click(u"Annulla"_s);
        m_desktop->click(u"Scarica e verifica"_s);
    });
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(QTest::qWaitFor([&] { return m_desktop->sandbox.journal(u"download"_s).size() == 2; },
                            20000));
    QCOMPARE(m_desktop->page(), busy + u"\nScaricamento della versione 1.5.0…"_s);
    m_desktop->click(u"Annulla"_s);
    QCOMPARE(m_desktop->page(), available);
    QVERIFY(QTest::qWaitFor([this] { return files().isEmpty(); }, 20000));
}

// The reply has come whole, and the library saves it although its client is to be deleted.
void tst_DesktopUpdates::leavesNothingOfDownloadGivenUpAtItsEnd()
{
    openAndFind();
    auto *client = m_desktop->host()->updates.findChild<Corvane *>();
    m_desktop->click(u"Scarica e verifica"_s);
    auto *reply = client->findChild<QNetworkReply *>();
    QVERIFY(reply);
    QObject context;
    QObject::connect(reply, &QIODevice::readChannelFinished, &context,
                     [this] { m_desktop->host()->updates.cancel(); });
    QStringList saved;
    QObject::connect(reply, &QNetworkReply::finished, &context, [&] { saved = files(); });
    QVERIFY(m_desktop->waitForPage(available));
    QVERIFY(QTest::qWaitFor([&] { return !saved.isEmpty(); }, 20000));
    QVERIFY(QTest::qWaitFor([this] { return files().isEmpty(); }, 20000));
}

void tst_DesktopUpdates::endsDownloadThatTakesTooLong()
{
    m_desktop->sandbox.setFaults(uR"({"operation": "download", "do": {"bytes": "stall"}})"_s);
    m_desktop->service.downloadTimeout = std::chrono::milliseconds(1500);
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForPage(offering + failed
                                   + u"La richiesta non è finita nel tempo concesso (1.5 s)."_s));
    QVERIFY(QTest::qWaitFor([this] { return files().isEmpty(); }, 20000));
}

void tst_DesktopUpdates::tellsFolderThatCannotBeWritten()
{
    const QString file = m_desktop->downloads();
    Files::write(file, {});
    m_desktop->service.downloadFolder = file + u"/below"_s;
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->page().startsWith(
        offering + failed + u"Impossibile scrivere nella cartella %1/below: "_s.arg(file)));
    QCOMPARE(m_desktop->sandbox.journal(u"download"_s).size(), 0);
}

void tst_DesktopUpdates::tellsDestinationThatCannotBeReplaced()
{
    const QString folder = m_desktop->downloads() + u"/demo.bin"_s;
    QDir().mkpath(folder);
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForLine(failed.sliced(1) + u"Impossibile salvare %1: "_s.arg(folder)));
    QCOMPARE(files(), QStringList(u"demo.bin"_s));
}

void tst_DesktopUpdates::newCheckForgetsDownload()
{
    openAndFind();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForLine(u"Versione 1.5.0 scaricata"_s));
    m_desktop->sandbox.setFaults(
        uR"({"operation": "update-check", "do": {"merge": {"release": {"version": "1.4.0"}}}})"_s);
    m_desktop->click(u"Cerca aggiornamenti"_s);
    QVERIFY(m_desktop->waitForPage(
        idle + u"\nNessun aggiornamento: la versione installata è quella offerta."_s));
}

QStringList tst_DesktopUpdates::files() const
{
    return QDir(m_desktop->downloads())
        .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

void tst_DesktopUpdates::openAndFind()
{
    m_desktop->open();
    QVERIFY(m_desktop->waitForPage(available));
}

QTEST_MAIN(tst_DesktopUpdates)
#include "tst_desktop_updates.moc"
