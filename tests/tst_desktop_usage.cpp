#include "desktop.h"
#include "files.h"
#include "plainnetwork.h"

#include <QtCore/qjsondocument.h>
#include <QtTest/qtest.h>
#include <QtWidgets/qapplication.h>

using namespace Qt::StringLiterals;

namespace {

const QString intro = u"Se lo permetti, l'applicazione dice al servizio di essere stata avviata. "
                      "Non viene inviato nulla finché non lo permetti, e poi solo questi dati:\n"_s;
const QString choice = u"Invia questi dati a ogni avvio"_s;
const QString refused = u"[ ] Invia questi dati a ogni avvio\n(Invia adesso)"_s;
const QString agreed = u"[x] Invia questi dati a ogni avvio\n[Invia adesso]"_s;
const QString busy = u"[x] Invia questi dati a ogni avvio\n(Invia adesso)\n*\n[Annulla]"_s;

} // namespace

// The desktop example's page of usage events: what is sent, when, and who is asked before.
class tst_DesktopUsage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void nothingIsSentBeforeTheUserAgrees();
    void previewIsWhatIsSent_data();
    void previewIsWhatIsSent();
    void choiceIsKept();
    void refusalForgetsTheId();
    void refusalIsKept();
    void refusalEndsTheCall();
    void refusalForgetsCookies();
    void outcomeIsTold_data();
    void outcomeIsTold();
    void unwritableStateIsTold();

private:
    void open();
    void buy();
    QString preview() const;
    QString machineId() const;
    QString page(const QString &rest) const { return intro + preview() + u'\n' + rest; }
    QList<QJsonObject> sent() const { return m_desktop->sandbox.journal(u"usage"_s); }

    std::unique_ptr<Desktop> m_desktop;
};

void tst_DesktopUsage::init()
{
    QTest::failOnWarning(Desktop::warnings());
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_desktop->sandbox.isRunning());
}

void tst_DesktopUsage::cleanup()
{
    QCOMPARE(m_desktop->sandbox.complaints(), QString());
    m_desktop.reset();
}

void tst_DesktopUsage::nothingIsSentBeforeTheUserAgrees()
{
    for (int session = 0; session < 2; ++session) {
        open();
        QCOMPARE(m_desktop->page(), page(refused));
        buy();
    }
    QCOMPARE(sent(), QList<QJsonObject>());
    QVERIFY(!Files::contentOf(m_desktop->stateFile()).contains(machineId().toUtf8()));

    // The user has all the time to think again.
    m_desktop->click(choice);
    QCOMPARE(m_desktop->page(), page(agreed));
    QCOMPARE(sent(), QList<QJsonObject>());
}

void tst_DesktopUsage::previewIsWhatIsSent_data()
{
    QTest::addColumn<bool>("isBought");
    QTest::addColumn<QByteArray>("fault");

    QTest::newRow("before-purchase") << false << QByteArray();
    QTest::newRow("after-purchase") << true << QByteArray();
    QTest::newRow("licence-with-blanks")
        << true
        << QByteArray(R"({"operation": "capture", "do": {"merge": {"license_key": " \tA-1 "}}})");
}

void tst_DesktopUsage::previewIsWhatIsSent()
{
    QFETCH(const bool, isBought);
    QFETCH(const QByteArray, fault);
    if (!fault.isEmpty())
        m_desktop->sandbox.setFaults(QString::fromUtf8(fault));
    open();
    if (isBought)
        buy();
    const QByteArray shown = preview().toUtf8();
    const QJsonObject object = QJsonDocument::fromJson(shown).object();
    QCOMPARE(object.keys(),
             QStringList({u"app_version"_s, u"event_type"_s, u"language"_s, u"license_key"_s,
                          u"machine_fingerprint"_s, u"product_code"_s, u"system"_s}));
    QCOMPARE(object["license_key"_L1].toString().isEmpty(), !isBought);

    m_desktop->click(choice);
    m_desktop->click(u"Invia adesso"_s);
    QVERIFY(m_desktop->waitForLine(u"Dati "_s));
    QCOMPARE(preview().toUtf8(), shown);
    QCOMPARE(sent().size(), 1);
    QCOMPARE(sent().constFirst()["request"_L1]["body"_L1].toString(),
             QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
}

void tst_DesktopUsage::choiceIsKept()
{
    open();
    m_desktop->click(choice);
    const QString id = machineId();
    QVERIFY(Files::contentOf(m_desktop->stateFile()).contains(id.toUtf8()));

    for (int session = 1; session <= 2; ++session) {
        open();
        QVERIFY(m_desktop->waitForPage(page(agreed + u"\nDati inviati."_s)));
        QCOMPARE(machineId(), id);
        QCOMPARE(sent().size(), session);
        const QByteArray body = sent().constLast()["request"_L1]["body"_L1].toString().toUtf8();
        QCOMPARE(QJsonDocument::fromJson(body)["machine_fingerprint"_L1].toString(), id);
    }
}

void tst_DesktopUsage::refusalForgetsTheId()
{
    open();
    m_desktop->click(choice);
    const QString first = machineId();
    m_desktop->click(choice);
    QCOMPARE(m_desktop->page(), page(refused));
    QVERIFY(!Files::contentOf(m_desktop->stateFile()).contains(first.toUtf8()));

    m_desktop->click(choice);
    const QString second = machineId();
    QVERIFY(second != first);
    QVERIFY(Files::contentOf(m_desktop->stateFile()).contains(second.toUtf8()));
}

void tst_DesktopUsage::refusalIsKept()
{
    open();
    m_desktop->click(choice);
    const QString id = machineId();
    m_desktop->click(choice);
    open();
    QCOMPARE(m_desktop->page(), page(refused));
    QVERIFY(machineId() != id);
    QCOMPARE(sent(), QList<QJsonObject>());
}

void tst_DesktopUsage::refusalEndsTheCall()
{
    m_desktop->sandbox.setFaults(uR"({"operation": "usage", "do": {"delay": 60000}})"_s);
    open();
    m_desktop->click(choice);
    const QString id = machineId();
    m_desktop->click(u"Invia adesso"_s);
    QCOMPARE(m_desktop->page(), page(busy));
    QVERIFY(QTest::qWaitFor([this] { return sent().size() == 1; }));

    m_desktop->click(choice);
    QCOMPARE(m_desktop->page(), page(refused + u"\nInvio non confermato. Richiesta interrotta."_s));
    QVERIFY(machineId() != id);
    QVERIFY(!Files::contentOf(m_desktop->stateFile()).contains(id.toUtf8()));
    QVERIFY(QTest::qWaitFor(
        [this] { return sent().constFirst()["ending"_L1].toString() == "client-left"_L1; }));
}

// By which the service could tell that the new id is the old one's user.
void tst_DesktopUsage::refusalForgetsCookies()
{
    const auto send = [this] {
        m_desktop->click(u"Invia adesso"_s);
        QVERIFY(m_desktop->waitForPage(page(agreed + u"\nDati inviati."_s)));
    };
    const auto hasCookie = [this] {
        const QJsonValue request = sent().constLast()["request"_L1];
        return QJsonDocument(request.toObject()).toJson().contains("chi=ada");
    };
    m_desktop->sandbox.setFaults(
        uR"({"operation": "usage", "do": {"headers": {"Set-Cookie": "chi=ada"}}})"_s);
    open();
    m_desktop->click(choice);
    send();
    send();
    QVERIFY(hasCookie());
    m_desktop->click(choice);
    m_desktop->click(choice);
    send();
    QVERIFY(!hasCookie());
    QCOMPARE(sent().size(), 3);
}

void tst_DesktopUsage::outcomeIsTold_data()
{
    QTest::addColumn<QByteArray>("action");
    QTest::addColumn<QString>("notice");

    QTest::newRow("accepted") << QByteArray("{}") << u"Dati inviati."_s;
    QTest::newRow("refused") << QByteArray(R"({"status": 403, "error": "La licenza è scaduta."})")
                             << u"Dati non accettati dal servizio. La licenza è scaduta."_s;
    QTest::newRow("refused-with-success-status")
        << QByteArray(R"({"status": 200, "error": "Evento <b>sconosciuto</b>."})")
        << u"Dati non accettati dal servizio. Evento <b>sconosciuto</b>."_s;
    QTest::newRow("refused-without-reason")
        << QByteArray(R"({"body": {"success": false}})") << u"Invio non confermato dal servizio."_s;
    QTest::newRow("page") << QByteArray(R"({"status": 502, "page": "<h1>Bad Gateway</h1>"})")
                          << u"Dati non accettati dal servizio. %1"_s;
    QTest::newRow("status-without-body")
        << QByteArray(R"({"status": 503})") << u"Invio non confermato. %1"_s;
    QTest::newRow("no-reply") << QByteArray(R"({"bytes": "reset"})")
                              << u"Invio non confermato. %1"_s;
    QTest::newRow("timeout") << QByteArray(R"({"bytes": "stall"})")
                             << u"Invio non confermato. La richiesta non è finita nel "
                                "tempo concesso (0.3 s)."_s;
    QTest::newRow("stopped") << QByteArray(R"({"bytes": "stall"})")
                             << u"Invio non confermato. Richiesta interrotta."_s;
}

void tst_DesktopUsage::outcomeIsTold()
{
    QFETCH(const QByteArray, action);
    QFETCH(QString, notice);
    if (notice.contains("tempo"_L1))
        m_desktop->service.callTimeout = std::chrono::milliseconds(300);
    open();
    m_desktop->click(choice);
    if (action != "{}")
        m_desktop->sandbox.setFaults(
            uR"({"operation": "usage", "do": %1})"_s.arg(QString::fromUtf8(action)));
    if (notice.contains("%1"_L1))
        notice = notice.arg(
            PlainNetwork::outcomeOf(m_desktop->sandbox.url(u"/api/v1/client/usage"_s), "{}")
                .errorString);

    // Of the second one, nothing is told of the first while it is under way.
    for (int i = 0; i < 2; ++i) {
        m_desktop->click(u"Invia adesso"_s);
        QCOMPARE(m_desktop->page(), page(busy));
        if (notice.endsWith("interrotta."_L1))
            m_desktop->click(u"Annulla"_s);
        m_desktop->waitForPage(page(agreed + u'\n' + notice));
        QCOMPARE(m_desktop->page(), page(agreed + u'\n' + notice));
    }
}

// A file where the folder ought to be: not even root can write into it.
void tst_DesktopUsage::unwritableStateIsTold()
{
    Files::write(m_desktop->stateFolder(), "");
    open();
    QCOMPARE(m_desktop->page(), page(refused));
    m_desktop->click(choice);
    const QString told = u"\nLa scelta vale fino alla chiusura: %1 non può essere scritto."_s.arg(
        m_desktop->stateFile());
    QCOMPARE(m_desktop->page(), page(agreed + told));
    m_desktop->click(u"Invia adesso"_s);
    QVERIFY(m_desktop->waitForPage(page(agreed + u"\nDati inviati."_s)));

    open();
    QCOMPARE(m_desktop->page(), page(refused));
    QCOMPARE(sent().size(), 1);
}

// Begins a session, and lets all that it sends be answered.
void tst_DesktopUsage::open()
{
    m_desktop->open();
    QVERIFY(m_desktop->waitForLine(u"È disponibile la versione 1.5.0."_s));
    m_desktop->showPage(u"Utilizzo"_s);
}

void tst_DesktopUsage::buy()
{
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"| Abbonamento mensile"_s));
    m_desktop->fillForm(u"Abbonamento mensile"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(m_desktop->waitForLine(u"Pagamento avviato."_s));
    m_desktop->sandbox.ask("POST", m_desktop->opened.constLast().path());
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"Pagamento completato."_s));
    m_desktop->showPage(u"Utilizzo"_s);
}

// As the page shows it, whatever it is.
QString tst_DesktopUsage::preview() const
{
    static const QRegularExpression object(u"\\{\\n.*\\n\\}\\n"_s,
                                           QRegularExpression::DotMatchesEverythingOption);
    return object.match(m_desktop->page()).captured();
}

QString tst_DesktopUsage::machineId() const
{
    return QJsonDocument::fromJson(preview().toUtf8())["machine_fingerprint"_L1].toString();
}

QTEST_MAIN(tst_DesktopUsage)
#include "tst_desktop_usage.moc"
