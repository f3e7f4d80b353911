#include "desktop.h"
#include "files.h"
#include "loopbackserver.h"
#include "plainnetwork.h"
#include "rawclient.h"

#include <QtCore/qdir.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>
#include <QtWidgets/qapplication.h>
#include <QtWidgets/qcombobox.h>

using namespace Qt::StringLiterals;

namespace {

const QString offer = u"È disponibile la versione 1.5.0."_s;
const QString timedOut = u"La richiesta non è finita nel tempo concesso (3 s)."_s;

const QString plans =
    u"| Abbonamento mensile | Tutte le funzioni, rinnovo ogni mese. | 9.90 EUR | \n"
    "| Abbonamento annuale | Tutte le funzioni, due mesi in regalo. | 99.00 EUR | \n"
    "| Licenza perpetua | Un solo pagamento, un anno di aggiornamenti. | 249.00 EUR | \n"_s;

// A scenario, what the person does while it is in force, and what the page then tells: %1 stands
// for the network layer's own words. No failure: all goes well.
struct Case
{
    QString scenario;
    QString operation;
    QString failure;
};

QList<Case> cases()
{
    const QString words = u"%1"_s;
    const QString checkFailed = u"Ricerca non riuscita: non si sa se ci sono aggiornamenti. "_s;
    const QString noVersion =
        checkFailed + u"La risposta del servizio non indica alcuna versione."_s;
    const QString downloadFailed = u"Scaricamento non riuscito. "_s;
    const QString wrongFile = downloadFailed
        + u"Il file scaricato non è quello pubblicato, forse è arrivato incompleto o il disco è "
          u"pieno: "
          "è stato eliminato."_s;
    const QString plansFailed = u"Piani non ricevuti. "_s;
    const QString noPlans = u"Il servizio non ha indicato alcun piano."_s;
    const QString notCharged =
        u"\nNon viene addebitato nulla senza la tua approvazione: riprova."_s;
    const QString perhapsCharged =
        u"\nIl pagamento potrebbe essere avvenuto: premi di nuovo «Completa "
        "l'acquisto», non pagherai due volte."_s;
    const QString retry = u"\nRiprova."_s;
    const QString unreadable =
        u"Pagamento non avviato. La risposta del servizio non era leggibile."_s;
    const QString notStarted = unreadable + notCharged;
    const QString notResumed = unreadable + retry;
    const QString notCompleted = u"Pagamento non completato."_s + perhapsCharged;
    const QString notAccepted = u"Dati non accettati dal servizio. "_s;
    const QString notConfirmed = u"Invio non confermato. "_s;

    QList<Case> list{
        {u"service-down"_s, u"check"_s, checkFailed + words},
        {u"service-down"_s, u"download"_s, downloadFailed + words},
        {u"service-down"_s, u"plans"_s, plansFailed + words},
        {u"service-down"_s, u"buy"_s, notStarted},
        {u"service-down"_s, u"complete"_s, notCompleted},
        {u"service-down"_s, u"resume"_s, notResumed},
        {u"service-down"_s, u"usage"_s, notAccepted + words},

        {u"flaky-network"_s, u"check"_s, checkFailed + words},
        {u"flaky-network"_s, u"download"_s, downloadFailed + words},
        {u"flaky-network"_s, u"plans"_s, plansFailed + words},
        {u"flaky-network"_s, u"buy"_s, words + notCharged},
        {u"flaky-network"_s, u"complete"_s, words + perhapsCharged},
        {u"flaky-network"_s, u"resume"_s, words + retry},
        {u"flaky-network"_s, u"usage"_s, notConfirmed + words},

        {u"silent-service"_s, u"check"_s, checkFailed + timedOut},
        {u"silent-service"_s, u"download"_s, downloadFailed + timedOut},
        {u"silent-service"_s, u"plans"_s, plansFailed + timedOut},
        {u"silent-service"_s, u"buy"_s, timedOut + notCharged},
        {u"silent-service"_s, u"complete"_s, timedOut + perhapsCharged},
        {u"silent-service"_s, u"resume"_s, timedOut + retry},
        {u"silent-service"_s, u"usage"_s, notConfirmed + timedOut},

        {u"no-release"_s, u"check"_s,
         checkFailed + u"Nessuna versione pubblicata su questo canale."_s},
        {u"wrong-digest"_s, u"update"_s, wrongFile},
        {u"missing-release"_s, u"download"_s, downloadFailed + words},
        {u"slow-download"_s, u"download"_s, {}},
        {u"stalled-download"_s, u"download"_s, downloadFailed + timedOut},
        {u"truncated-download"_s, u"download"_s, downloadFailed + words},
        {u"corrupt-download"_s, u"download"_s, wrongFile},

        {u"no-plans"_s, u"plans"_s, noPlans},
        {u"payment-declined"_s, u"complete"_s, u"Il pagamento è stato rifiutato."_s},
        {u"duplicate-capture"_s, u"complete"_s,
         u"Questo ordine è già stato pagato."_s + perhapsCharged},
        {u"lost-payment-reply"_s, u"complete"_s, words + perhapsCharged},
        {u"expired-licence"_s, u"resume"_s, u"La licenza è scaduta."_s},
        {u"expired-licence"_s, u"usage"_s, notAccepted + u"La licenza è scaduta."_s},
    };
    // The service says what is wrong. Of a GET the library tells the network layer's words instead.
    const QList<std::pair<QString, QString>> refusals{
        {u"maintenance"_s, u"Servizio in manutenzione. Riprova più tardi."_s},
        {u"internal-error"_s, u"Errore interno del servizio."_s},
        {u"rate-limited"_s, u"Troppe richieste. Riprova tra poco."_s},
        {u"recovering"_s, u"Servizio non disponibile."_s},
    };
    for (const auto &[scenario, message] : refusals)
        list += {{scenario, u"check"_s, checkFailed + words},
                 {scenario, u"download"_s, downloadFailed + words},
                 {scenario, u"plans"_s, plansFailed + words},
                 {scenario, u"buy"_s, message},
                 {scenario, u"complete"_s, message + perhapsCharged},
                 {scenario, u"resume"_s, message},
                 {scenario, u"usage"_s, notAccepted + message}};
    // What comes looks like a success, and is not what the service says.
    for (const QString &scenario : {u"captive-portal"_s, u"garbled-replies"_s})
        list += {{scenario, u"check"_s, noVersion},
                 {scenario, u"download"_s, wrongFile},
                 {scenario, u"plans"_s, noPlans},
                 {scenario, u"buy"_s, notStarted},
                 {scenario, u"complete"_s, notCompleted},
                 {scenario, u"resume"_s, notResumed},
                 {scenario, u"usage"_s, u"Invio non confermato dal servizio."_s}};
    for (const QString &operation :
         {u"check"_s, u"download"_s, u"plans"_s, u"buy"_s, u"complete"_s, u"resume"_s, u"usage"_s})
        list.append({u"slow-network"_s, operation, {}});
    return list;
}

QString updatesPage(const QString &notice, bool isOffered = true, bool isDownloaded = false)
{
    return u"Versione installata: 1.4.0. Canale: stable.\n[Cerca aggiornamenti]\n%1\n%2\n%3"_s.arg(
        isOffered ? u"[Scarica e verifica]"_s : u"(Scarica e verifica)"_s,
        isDownloaded ? u"[Apri cartella]"_s : u"(Apri cartella)"_s, notice);
}

// Before anybody begins to buy.
QString plansPage(const QString &plansOrNotice)
{
    return plansOrNotice
        + u"[Aggiorna l'elenco]\nNome\n<>\nCognome\n<>\nE-mail\n<>\n[Acquista con PayPal]"_s;
}

QString formPage(const QString &licence, const QString &notice)
{
    return licence + plans
        + u"[Aggiorna l'elenco]\nNome\n<Ada>\nCognome\n<Rossi>\nE-mail\n<ada@example.org>\n"
          "[Acquista con PayPal]\n"_s
        + notice;
}

} // namespace

// What a person sees of each of the sandbox's scenarios, put in force by the window's panel.
class tst_DesktopFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void everyScenarioIsTried();
    void failureIsSeenAndPasses_data();
    void failureIsSeenAndPasses();
    void longDownloadEnds_data();
    void longDownloadEnds();
    void standardTimeoutIsShort();
    void panelIsNotForEverybody();
    void panelTellsWhatItOffers();
    void panelTellsThatThereIsNoSandbox_data();
    void panelTellsThatThereIsNoSandbox();
    void panelTellsThatAScenarioIsRefused();

private:
    QJsonArray scenarios() const;
    void prepare(const QString &operation);
    QString networkWords(const QString &scenario, const QString &operation) const;
    bool knock() const;
    int counted(QLatin1StringView what) const;
    int requestsBeforeResets() const;
    void endScenario();
    void act(const QString &operation);
    QString pageAfter(const QString &operation);
    QString failurePage(const QString &operation, const QString &notice) const;
    QString successPage(const QString &operation) const;
    QString pendingPage(const QString &notice) const;
    QString licenceKey() const;
    QString downloadedFile() const { return m_desktop->downloads() + "/demo.bin"_L1; }

    std::unique_ptr<Desktop> m_desktop;
    // Before anything is sent.
    QString m_usagePage;
};

void tst_DesktopFaults::init()
{
    QTest::failOnWarning(Desktop::warnings());
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_desktop->sandbox.isRunning());
}

void tst_DesktopFaults::cleanup()
{
    QCOMPARE(m_desktop->sandbox.complaints(), QString());
    m_desktop.reset();
}

void tst_DesktopFaults::everyScenarioIsTried()
{
    QStringList all;
    const QJsonArray offered = scenarios();
    for (const auto &scenario : offered)
        all += scenario["name"_L1].toString();
    QStringList tried;
    for (const Case &one : cases())
        tried += one.scenario;
    tried.removeDuplicates();
    all.sort();
    tried.sort();
    QCOMPARE(tried, all);
}

void tst_DesktopFaults::failureIsSeenAndPasses_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("failure");
    for (const Case &one : cases())
        QTest::addRow("%s-%s", qPrintable(one.scenario), qPrintable(one.operation))
            << one.scenario << one.operation << one.failure;
}

void tst_DesktopFaults::failureIsSeenAndPasses()
{
    QFETCH(const QString, scenario);
    QFETCH(const QString, operation);
    QFETCH(QString, failure);
    if (failure.contains(timedOut)) {
        m_desktop->service.callTimeout = std::chrono::seconds(3);
        m_desktop->service.downloadTimeout = std::chrono::seconds(3);
    }
    QVERIFY(QDir().mkpath(m_desktop->downloads()));
    Files::write(downloadedFile(), "old");
    m_desktop->open(true);
    prepare(operation);
    if (failure.contains("%1"_L1))
        failure = failure.arg(networkWords(scenario, operation));
    const QString failed = failurePage(operation, failure);

    const int passing = scenario == "flaky-network"_L1 ? requestsBeforeResets() : 0;
    m_desktop->startScenario(scenario);
    for (int i = 0; i < passing; ++i)
        QVERIFY(knock());
    QString seen = pageAfter(operation);
    if (scenario == "flaky-network"_L1) {
        for (int press = 1; press < 10 && seen == failed; ++press)
            seen = pageAfter(operation);
    } else if (scenario == "recovering"_L1) {
        QCOMPARE(seen, failed);
        QCOMPARE(pageAfter(operation), failed);
        seen = pageAfter(operation);
    } else if (!failure.isEmpty()) {
        QCOMPARE(seen, failed);
        QCOMPARE(Files::contentOf(downloadedFile()), "old");
        endScenario();
        seen = pageAfter(operation);
    }
    QCOMPARE(seen, successPage(operation));
    const bool isDownload = operation == "download"_L1 || operation == "update"_L1;
    QCOMPARE(Files::contentOf(downloadedFile()), isDownload ? Sandbox::release : "old");
    QCOMPARE(QDir(m_desktop->downloads())
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList(u"demo.bin"_s));
}

void tst_DesktopFaults::longDownloadEnds_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::addColumn<bool>("isStopped");

    QTest::newRow("slow-download-timeout") << u"slow-download"_s << false;
    QTest::newRow("slow-download-stopped") << u"slow-download"_s << true;
    QTest::newRow("stalled-download-timeout") << u"stalled-download"_s << false;
    QTest::newRow("stalled-download-stopped") << u"stalled-download"_s << true;
}

// By itself in the end, and at once when the person has enough of it.
void tst_DesktopFaults::longDownloadEnds()
{
    QFETCH(const QString, scenario);
    QFETCH(const bool, isStopped);
    const QTemporaryDir releases;
    const QString folder = releases.filePath(u"DEMO/stable/1.5.0"_s);
    QVERIFY(QDir().mkpath(folder));
    Files::write(folder + "/demo.bin"_L1, Sandbox::release.repeated(100));
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH),
                                          QStringList{u"--releases"_s, releases.path()});
    if (!isStopped)
        m_desktop->service.downloadTimeout = std::chrono::seconds(3);
    m_desktop->open(true);
    QVERIFY(m_desktop->waitForPage(updatesPage(offer)));
    m_desktop->startScenario(scenario);

    m_desktop->click(u"Scarica e verifica"_s);
    QCOMPARE(m_desktop->page(),
             u"Versione installata: 1.4.0. Canale: stable.\n(Cerca aggiornamenti)\n"
             "(Scarica e verifica)\n(Apri cartella)\n*\n[Annulla]\n"
             "Scaricamento della versione 1.5.0…"_s);
    if (isStopped) {
        QVERIFY(QTest::qWaitFor(
            [this] { return !m_desktop->sandbox.journal(u"download"_s).isEmpty(); }));
        m_desktop->click(u"Annulla"_s);
        QCOMPARE(m_desktop->page(), updatesPage(offer));
    } else {
        const QString failed = updatesPage(u"Scaricamento non riuscito. "_s + timedOut);
        m_desktop->waitForPage(failed);
        QCOMPARE(m_desktop->page(), failed);
    }
    QVERIFY(QTest::qWaitFor([this] {
        return QDir(m_desktop->downloads())
            .isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }));

    endScenario();
    m_desktop->click(u"Scarica e verifica"_s);
    QVERIFY(m_desktop->waitForPage(successPage(u"download"_s)));
}

// Whatever goes wrong with a call is seen within a minute.
void tst_DesktopFaults::standardTimeoutIsShort()
{
    QVERIFY(Service().callTimeout < std::chrono::minutes(1));
}

void tst_DesktopFaults::panelIsNotForEverybody()
{
    m_desktop->open();
    QVERIFY(!m_desktop->panel());
}

void tst_DesktopFaults::panelTellsWhatItOffers()
{
    m_desktop->open(true);
    auto *names = m_desktop->panel()->findChild<QComboBox *>();
    const QJsonArray all = scenarios();
    QVERIFY(QTest::qWaitFor([&] { return names->count() == all.size(); }));
    for (int i = 0; i < names->count(); ++i) {
        names->setCurrentIndex(i);
        QCOMPARE(names->currentText(), all[i]["name"_L1].toString());
        QCOMPARE(Desktop::seen(m_desktop->panel()),
                 all[i]["sentence"_L1].toString() + u"\n[Metti in atto]\n[Fine del guasto]"_s);
    }
}

void tst_DesktopFaults::panelTellsThatThereIsNoSandbox_data()
{
    QTest::addColumn<QByteArray>("answer");

    QTest::newRow("not-found") << LoopbackServer::response(404, "{}");
    QTest::newRow("page") << LoopbackServer::response(200, "<h1>Benvenuti</h1>", "text/html");
    QTest::newRow("refused") << QByteArray("refused");
    QTest::newRow("silence") << QByteArray();
}

void tst_DesktopFaults::panelTellsThatThereIsNoSandbox()
{
    QFETCH(const QByteArray, answer);
    LoopbackServer server;
    m_desktop->service.url = server.url();
    m_desktop->service.callTimeout = std::chrono::milliseconds(300);
    if (answer == "refused")
        server.die();
    else if (!answer.isEmpty())
        server.always(answer);

    QNetworkAccessManager network;
    network.setTransferTimeout(300);
    const std::unique_ptr<QNetworkReply> reply(
        network.get(QNetworkRequest(server.url(u"/sandbox/scenarios"_s))));
    QSignalSpy finished(reply.get(), &QNetworkReply::finished);
    QVERIFY(finished.wait());
    const QString problem = reply->error() == QNetworkReply::NoError
        ? u"Il servizio non è una sandbox."_s
        : u"La sandbox non risponde: "_s + reply->errorString();

    m_desktop->open(true);
    const auto seen = [this] { return Desktop::seen(m_desktop->panel()); };
    const QString expected = u"(Metti in atto)\n[Fine del guasto]\n"_s + problem;
    QVERIFY2(QTest::qWaitFor([&] { return seen() == expected; }), qPrintable(seen()));
}

void tst_DesktopFaults::panelTellsThatAScenarioIsRefused()
{
    LoopbackServer server;
    server.always(LoopbackServer::response(404, "{}"));
    server.always(
        LoopbackServer::response(200, R"({"scenarios": [{"name": "a", "sentence": "b"}]})"),
        LoopbackServer::KeepOpen, "/sandbox/scenarios");
    m_desktop->service.url = server.url();
    m_desktop->open(true);
    const auto seen = [this] { return Desktop::seen(m_desktop->panel()); };
    QVERIFY(QTest::qWaitFor([&] { return seen() == "b\n[Metti in atto]\n[Fine del guasto]"_L1; }));

    m_desktop->click(u"Metti in atto"_s);
    const QString expected = u"b\n[Metti in atto]\n[Fine del guasto]\nLa sandbox non risponde: "_s
        + PlainNetwork::errorString(server.url(u"/sandbox/scenario"_s));
    QVERIFY2(QTest::qWaitFor([&] { return seen() == expected; }), qPrintable(seen()));
}

QJsonArray tst_DesktopFaults::scenarios() const
{
    return m_desktop->sandbox.get(u"/sandbox/scenarios"_s).json().value("scenarios"_L1).toArray();
}

// All that comes before what the person does, while nothing is wrong.
void tst_DesktopFaults::prepare(const QString &operation)
{
    QVERIFY(m_desktop->waitForPage(updatesPage(offer)));
    if (operation == "usage"_L1) {
        m_desktop->showPage(u"Utilizzo"_s);
        m_desktop->click(u"Invia questi dati a ogni avvio"_s);
        m_usagePage = m_desktop->page();
    }
    if (operation != "buy"_L1 && operation != "complete"_L1 && operation != "resume"_L1)
        return;
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForPage(plansPage(plans)));
    m_desktop->fillForm(u"Abbonamento annuale"_s);
    if (operation == "buy"_L1)
        return;
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(m_desktop->waitForLine(u"Pagamento avviato."_s));
    m_desktop->sandbox.ask("POST", m_desktop->opened.constLast().path());
}

// Asks for the same thing, while the same thing goes wrong.
QString tst_DesktopFaults::networkWords(const QString &scenario, const QString &operation) const
{
    static const QHash<QString, QString> paths{
        {u"check"_s, u"/api/v1/releases/latest/DEMO?channel=stable"_s},
        {u"download"_s, u"/releases/DEMO/stable/1.5.0/demo.bin"_s},
        {u"plans"_s, u"/api/v1/purchase/plans?product_code=DEMO"_s},
        {u"buy"_s, u"/api/v1/purchase/start"_s},
        {u"complete"_s, u"/api/v1/purchase/capture"_s},
        {u"resume"_s, u"/api/v1/purchase/resume"_s},
        {u"usage"_s, u"/api/v1/client/usage"_s},
    };
    const Sandbox &sandbox = m_desktop->sandbox;
    if (scenario == "flaky-network"_L1)
        sandbox.setFaults(uR"({"do": {"bytes": "reset"}})"_s);
    else
        sandbox.post(u"/sandbox/scenario"_s, {{u"name"_s, scenario}});
    const bool isGet =
        operation == "check"_L1 || operation == "download"_L1 || operation == "plans"_L1;
    return PlainNetwork::outcomeOf(sandbox.url(paths.value(operation)), isGet ? QByteArray() : "{}")
        .errorString;
}

// A request that nobody waits for; false if the scenario does not count it.
bool tst_DesktopFaults::knock() const
{
    const int seen = counted("seen"_L1);
    RawClient client(m_desktop->sandbox.port());
    client.send("GET / HTTP/1.1\r\nHost: a\r\n\r\n");
    return QTest::qWaitFor([&] { return counted("seen"_L1) == seen + 1; });
}

// What the first rule in force has seen or done.
int tst_DesktopFaults::counted(QLatin1StringView what) const
{
    return m_desktop->sandbox.get(u"/sandbox/faults"_s).json()["faults"_L1][0][what].toInt();
}

// So many pass before two in a row are reset: the network layer asks a second time. The scenario's
// seed decides, and it is the same each time.
int tst_DesktopFaults::requestsBeforeResets() const
{
    m_desktop->sandbox.post(u"/sandbox/scenario"_s, {{u"name"_s, u"flaky-network"_s}});
    int count = 0;
    for (int resets = 0; resets < 2 && count < 100; ++count) {
        const int done = counted("done"_L1);
        if (!knock())
            return -1;
        resets = counted("done"_L1) > done ? resets + 1 : 0;
    }
    return count - 2;
}

void tst_DesktopFaults::endScenario()
{
    m_desktop->click(u"Fine del guasto"_s);
    QVERIFY(QTest::qWaitFor([this] {
        return Desktop::seen(m_desktop->panel()).endsWith("\nNessun guasto in atto."_L1);
    }));
}

void tst_DesktopFaults::act(const QString &operation)
{
    if (operation == "check"_L1 || operation == "update"_L1)
        m_desktop->click(u"Cerca aggiornamenti"_s);
    if (operation == "update"_L1)
        QVERIFY(m_desktop->waitForPage(updatesPage(offer)));
    if (operation == "download"_L1 || operation == "update"_L1)
        m_desktop->click(u"Scarica e verifica"_s);
    // They are asked for when their page is first seen.
    if (operation == "plans"_L1 && m_desktop->button(u"Aggiorna l'elenco"_s))
        m_desktop->click(u"Aggiorna l'elenco"_s);
    else if (operation == "plans"_L1)
        m_desktop->showPage(u"Acquisto"_s);
    if (operation == "buy"_L1)
        m_desktop->click(u"Acquista con PayPal"_s);
    if (operation == "complete"_L1)
        m_desktop->click(u"Completa l'acquisto"_s);
    if (operation == "resume"_L1)
        m_desktop->click(u"Riprendi"_s);
    if (operation == "usage"_L1)
        m_desktop->click(u"Invia adesso"_s);
}

// Once the person has done it, and it has ended. Without what keeps caches from answering an update
// check, as that is never the same.
QString tst_DesktopFaults::pageAfter(const QString &operation)
{
    act(operation);
    const auto isBusy = [this] { return m_desktop->page().contains("\n*\n"_L1); };
    if (!isBusy())
        return u"There is no sign that something is under way:\n"_s + m_desktop->page();
    if (!QTest::qWaitFor([&] { return !isBusy(); }, 20000))
        return u"It does not end:\n"_s + m_desktop->page();
    static const QRegularExpression unique(u"&_=\\d+"_s);
    return m_desktop->page().remove(unique);
}

QString tst_DesktopFaults::failurePage(const QString &operation, const QString &notice) const
{
    if (operation == "check"_L1)
        return updatesPage(notice, false);
    if (operation == "download"_L1 || operation == "update"_L1)
        return updatesPage(notice);
    if (operation == "plans"_L1)
        return plansPage(notice + u'\n');
    if (operation == "buy"_L1)
        return formPage({}, notice);
    if (operation == "usage"_L1)
        return m_usagePage + u'\n' + notice;
    return pendingPage(notice);
}

QString tst_DesktopFaults::successPage(const QString &operation) const
{
    if (operation == "check"_L1)
        return updatesPage(offer);
    if (operation == "download"_L1 || operation == "update"_L1)
        return updatesPage(u"Versione 1.5.0 scaricata e verificata: "_s + downloadedFile(), true,
                           true);
    if (operation == "plans"_L1)
        return plansPage(plans);
    if (operation == "complete"_L1)
        return formPage(u"Chiave di licenza\n<%1>\n"_s.arg(licenceKey()),
                        u"Pagamento completato."_s);
    if (operation == "usage"_L1)
        return m_usagePage + u"\nDati inviati."_s;
    return pendingPage(u"Pagamento avviato."_s);
}

QString tst_DesktopFaults::pendingPage(const QString &notice) const
{
    const QUrl approval = m_desktop->opened.constLast();
    const bool mayBePaid = notice.contains("potrebbe essere avvenuto"_L1);
    return plans + u"[Aggiorna l'elenco]\n"_s
        + m_desktop->pendingPurchase(u"ANNUALE"_s, approval.fileName(), licenceKey(), approval,
                                     mayBePaid)
        + u'\n' + notice;
}

// As the start answered it.
QString tst_DesktopFaults::licenceKey() const
{
    const QJsonObject started = m_desktop->sandbox.journal(u"start"_s).constLast();
    const QByteArray reply = started["reply"_L1]["body"_L1].toString().toUtf8();
    return QJsonDocument::fromJson(reply)["license_key"_L1].toString();
}

QTEST_MAIN(tst_DesktopFaults)
#include "tst_desktop_faults.moc"
