#include "corvane.h"
#include "desktop.h"
#include "desktophost.h"
#include "files.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qscopeguard.h>
#include <QtCore/qsettings.h>
#include <QtGui/qaccessible.h>
#include <QtGui/qdesktopservices.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qlineedit.h>
#include <QtWidgets/qtableview.h>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 20000;

const QString monthly =
    u"| Abbonamento mensile | Tutte le funzioni, rinnovo ogni mese. | 9.90 EUR | \n"_s;
const QString plans = monthly
    + u"| Abbonamento annuale | Tutte le funzioni, due mesi in regalo. | 99.00 EUR | \n"
      "| Licenza perpetua | Un solo pagamento, un anno di aggiornamenti. | 249.00 EUR | \n"_s;
const QString fetchButton = u"[Aggiorna l'elenco]\n"_s;
const QString emptyForm = u"Nome\n<>\nCognome\n<>\nE-mail\n<>\n[Acquista con PayPal]"_s;
const QString form = u"Nome\n<Ada>\nCognome\n<Rossi>\nE-mail\n<ada@example.org>\n"_s;
const QString filledForm = form + u"[Acquista con PayPal]"_s;
const QString busy = u"\n*\n[Annulla]"_s;

const QString started = u"Pagamento avviato."_s;
const QString paid = u"Pagamento completato."_s;
const QString notApproved = u"Il pagamento non è ancora stato approvato."_s;
const QString choosePlan = u"Scegli un piano nell'elenco."_s;
const QString plansFailed = u"Piani non ricevuti. "_s;
const QString noPage =
    u"Il servizio non ha indicato una pagina di pagamento valida: premi «Riprendi»."_s;
const QString interrupted = u"Richiesta interrotta."_s;
const QString late = u"La richiesta non è finita nel tempo concesso (0.3 s)."_s;
const QString nothingCharged =
    u"\nNon viene addebitato nulla senza la tua approvazione: riprova."_s;
const QString perhapsPaid =
    u"\nIl pagamento potrebbe essere avvenuto: premi di nuovo «Completa l'acquisto», non pagherai due volte."_s;
const QString justRetry = u"\nRiprova."_s;
const QString unreadable = u" La risposta del servizio non era leggibile."_s;

QString textOf(const QVariant &value)
{
    if (value.typeId() == QMetaType::QStringList)
        return value.toStringList().join(u',');
    return value.toString();
}

// What is kept once a capture was tried.
QStringList mayBePaid(QStringList kept)
{
    return kept.replaceInStrings(u"may_be_paid=false"_s, u"may_be_paid=true"_s);
}

const QString stall = uR"({"bytes": "stall", "after": 0})"_s;

} // namespace

// The desktop example's page of purchases, as a person uses it.
class tst_DesktopPurchase : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void fetchesPlansOnceThePageIsShown();
    void fetchesPlansOnDemand();
    void showsAnyPlan_data();
    void showsAnyPlan();
    void showsTextsAsTheyStand();
    void showsManyPlans();
    void longTextsLeaveThePageUsable();
    void failedFetchKeepsThePlans_data();
    void failedFetchKeepsThePlans();
    void tellsThatThereAreNoPlans_data();
    void tellsThatThereAreNoPlans();
    void fetchesOnceAtATime();
    void givesUpFetch();
    void endsFetchThatTakesTooLong();

    void onlyPlansWithCodeCanBeChosen();
    void buysThePlanThatIsMarked();
    void wrongFormIsNotSent_data();
    void wrongFormIsNotSent();
    void tellsFirstProblemFirst();
    void sendsWhatWasTyped();
    void returnBuys_data();
    void returnBuys();
    void refusedStartKeepsTheForm();
    void unreadableStartKeepsTheForm_data();
    void unreadableStartKeepsTheForm();
    void tellsWhatTheNetworkSays_data();
    void tellsWhatTheNetworkSays();

    void opensTheApprovalPage();
    void opensNothingButWebPages_data();
    void opensNothingButWebPages();
    void tellsThatNoBrowserOpens();
    void makesOneCallAtATime_data();
    void makesOneCallAtATime();

    void capturesOnDemand();
    void capturesWhenTheBuyerReturns();
    void capturesOncePerOpening();
    void capturesNothingThatIsNotExpected();
    void keepsTheKeyOfTheCapture_data();
    void keepsTheKeyOfTheCapture();
    void buysAgain();
    void unreadableCaptureLosesNothing_data();
    void unreadableCaptureLosesNothing();
    void lostCaptureIsPaidOnce_data();
    void lostCaptureIsPaidOnce();

    void keepsStateWhereThePageSays();
    void tellsFolderThatCannotBeWritten();
    void writesAgainOnceItCan();
    void goesOnAfterClosing();
    void resumesAfterClosing();
    void resumeKeepsWhatItIsNotTold_data();
    void resumeKeepsWhatItIsNotTold();
    void resumeMayBeRefused_data();
    void resumeMayBeRefused();
    void tellsStartAndResumeApart();
    void capturesWhatAnotherWindowHasForgotten();
    void abandons();
    void whatMayBePaidIsNotAbandonedLightly();
    void duplicateCaptureLeavesTheKeyInSight();

    void givesUpCall_data();
    void givesUpCall();
    void hearsNothingOfCallGivenUp();
    void endsStartThatTakesTooLong();
    void endsCallThatTakesTooLong_data();
    void endsCallThatTakesTooLong();

private:
    // In the place of all others.
    void fault(const QString &operation, const QString &what) const;
    // The requests of the operation that the sandbox has had.
    qsizetype requests(const QString &operation) const;
    // What the newest of them had in it.
    QJsonObject sent(const QString &operation) const;
    QJsonArray rows(const QString &table) const;
    // The state file's, "key=value" each.
    QStringList kept() const;

    // The application, and its page of purchases.
    void open();
    void fillForm(const QString &plan = u"Abbonamento annuale"_s);
    // Until it is pending.
    void buy(const QString &plan = u"Abbonamento annuale"_s);
    QString orderId() const;
    // Of the newest purchase.
    QString licenceKey() const;
    QString pendingText(bool mayBePaid = false) const;
    static QString licenceText(const QStringList &keys);
    void approve() const;
    // Until this, and nothing else, is told, and nothing is under way.
    bool waitForTold(const QString &text) const;
    QTableView *table() const;
    void clickRow(int row) const;
    // As a screen reader says it.
    QString focused() const;

    std::unique_ptr<Desktop> m_desktop;
};

void tst_DesktopPurchase::init()
{
    QTest::failOnWarning(Desktop::warnings());
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_desktop->sandbox.isRunning());
}

void tst_DesktopPurchase::cleanup()
{
    QCOMPARE(m_desktop->sandbox.complaints(), QString());
    m_desktop.reset();
}

void tst_DesktopPurchase::fetchesPlansOnceThePageIsShown()
{
    m_desktop->open();
    QVERIFY(m_desktop->waitForLine(u"È disponibile"_s));
    QCOMPARE(requests(u"plans"_s), 0);

    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY2(m_desktop->waitForPage(plans + fetchButton + emptyForm),
             qPrintable(m_desktop->page()));
    QCOMPARE(requests(u"plans"_s), 1);
}

void tst_DesktopPurchase::fetchesPlansOnDemand()
{
    fault(u"plans"_s, uR"({"body": {"plans": [{"plan_code": "A", "name": "Vecchio"}]}})"_s);
    m_desktop->open();
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForPage(u"| Vecchio |  |  | \n"_s + fetchButton + emptyForm));

    m_desktop->sandbox.setFaults({});
    m_desktop->click(u"Aggiorna l'elenco"_s);
    QVERIFY(m_desktop->waitForPage(plans + fetchButton + emptyForm));
}

void tst_DesktopPurchase::showsAnyPlan_data()
{
    QTest::addColumn<QString>("plan");
    // "|" can be chosen, "-" cannot.
    QTest::addColumn<QString>("row");

    QTest::newRow("number") << u"7.5"_s << u"- 7.5 |  |  | "_s;
    QTest::newRow("null") << u"null"_s << u"- null |  |  | "_s;
    QTest::newRow("truth") << u"true"_s << u"- true |  |  | "_s;
    QTest::newRow("text") << uR"("Piano")"_s << u"- Piano |  |  | "_s;
    QTest::newRow("array") << uR"(["A", 1])"_s << uR"(- ["A",1] |  |  | )"_s;
    QTest::newRow("empty") << u"{}"_s << u"-  |  |  | "_s;
    QTest::newRow("no-code") << uR"({"name": "Piano"})"_s << u"- Piano |  |  | "_s;
    QTest::newRow("empty-code") << uR"({"plan_code": "", "name": "Piano"})"_s
                                << u"- Piano |  |  | "_s;
    QTest::newRow("blank-code") << uR"({"plan_code": " \t\n", "name": "Piano"})"_s
                                << u"- Piano |  |  | "_s;
    QTest::newRow("code-is-a-number")
        << uR"({"plan_code": 12, "name": "Piano"})"_s << u"- Piano |  |  | "_s;
    QTest::newRow("code-is-null") << uR"({"plan_code": null, "name": "Piano"})"_s
                                  << u"- Piano |  |  | "_s;
    QTest::newRow("only-code") << uR"({"plan_code": "A"})"_s << u"| A |  |  | "_s;
    QTest::newRow("empty-name") << uR"({"plan_code": "A", "name": ""})"_s << u"| A |  |  | "_s;
    QTest::newRow("null-members")
        << uR"({"plan_code": "A", "name": null, "description": null, "price": null,
                "currency": null})"_s
        << u"| A |  |  | "_s;
    QTest::newRow("numbers")
        << uR"({"plan_code": "A", "name": 1, "description": 2.5, "price": 1e3})"_s
        << u"| 1 | 2.5 | 1000 | "_s;
    QTest::newRow("currency-alone")
        << uR"({"plan_code": "A", "currency": "EUR"})"_s << u"| A |  | EUR | "_s;
    QTest::newRow("nested")
        << uR"({"plan_code": "A", "name": ["x"], "price": {"amount": 9, "tax": {"IT": 22}}})"_s
        << uR"(| ["x"] |  | {"amount":9,"tax":{"IT":22}} | )"_s;
    QTest::newRow("markers") << uR"({"plan_code": "A", "price": "%2", "currency": "%1"})"_s
                             << u"| A |  | %2 %1 | "_s;
    QTest::newRow("unknown-members")
        << uR"({"plan_code": "A", "product_code": "DEMO", "seats": 5, "trial": true,
                "extra": {"b": [1, "due"]}, "until": "domani"})"_s
        << u"| A |  |  | extra: {\"b\":[1,\"due\"]}\nseats: 5\ntrial: true\nuntil: domani"_s;
    QTest::newRow("lines") << uR"({"plan_code": "A", "name": "Uno\nDue"})"_s
                           << u"| Uno\nDue |  |  | "_s;
    QTest::newRow("markup")
        << uR"({"plan_code": "A", "name": "<b>Più</b> & meglio", "note": "<img src=x>"})"_s
        << u"| <b>Più</b> & meglio |  |  | note: <img src=x>"_s;
}

void tst_DesktopPurchase::showsAnyPlan()
{
    QFETCH(const QString, plan);
    QFETCH(const QString, row);

    fault(u"plans"_s, uR"({"body": {"plans": [{"plan_code": "Z"}, %1]}})"_s.arg(plan));
    m_desktop->open();
    m_desktop->showPage(u"Acquisto"_s);
    const QString page = u"| Z |  |  | \n"_s + row + u'\n' + fetchButton + emptyForm;
    QVERIFY2(m_desktop->waitForPage(page), qPrintable(m_desktop->page()));
    // A column that would be empty is not there.
    QCOMPARE(table()->isColumnHidden(3), row.endsWith(u"| "_s));
}

void tst_DesktopPurchase::showsTextsAsTheyStand()
{
    const QString text =
        u"<b>Troppo</b> &tardi &amp; chiuso: <img src=x>\nRiprova <i>domani</i>."_s;
    open();
    fillForm();
    fault(u"start"_s, uR"({"error": "%1"})"_s.arg(QString(text).replace(u'\n', "\\n"_L1)));
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(text));
    const QList<QLabel *> labels = m_desktop->window()->findChildren<QLabel *>();
    const auto label = std::find_if(labels.begin(), labels.end(),
                                    [&](const QLabel *found) { return found->text() == text; });
    QVERIFY(label != labels.end());
    QCOMPARE((*label)->textFormat(), Qt::PlainText);
    QVERIFY(!(*label)->buddy());
}

void tst_DesktopPurchase::showsManyPlans()
{
    QStringList many;
    for (int i = 0; i < 500; ++i)
        many += uR"({"plan_code": "P%1", "name": "Piano %1"})"_s.arg(i);
    open();
    const QSize size = m_desktop->window()->size();
    fault(u"plans"_s, uR"({"body": {"plans": [%1]}})"_s.arg(many.join(u',')));
    m_desktop->click(u"Aggiorna l'elenco"_s);
    QVERIFY(m_desktop->waitForLine(u"| Piano 499 |"_s));
    QCOMPARE(m_desktop->window()->size(), size);

    fillForm(u"Piano 499"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    // It is none of the sandbox's.
    QVERIFY(waitForTold(u"Piano sconosciuto."_s));
    QCOMPARE(sent(u"start"_s).value("plan_code"_L1), u"P499"_s);
}

void tst_DesktopPurchase::longTextsLeaveThePageUsable()
{
    open();
    const QSize size = m_desktop->window()->size();
    const QString word = u"lungo"_s.repeated(500);
    fault(u"plans"_s,
          uR"({"body": {"plans": [{"plan_code": "ANNUALE", "name": "%1", "description": "%2",
               "price": "%1", "other": "%1"}]}})"_s.arg(word, u"Molte parole. "_s.repeated(500)));
    m_desktop->click(u"Aggiorna l'elenco"_s);
    QVERIFY(m_desktop->waitForLine(u"| lungo"_s));
    fillForm(word);
    fault(u"start"_s, uR"({"error": "%1"})"_s.arg(word));
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(word));
    m_desktop->sandbox.setFaults({});
    // The window has had the time to become as wide as what it shows.
    QCOMPARE(m_desktop->window()->size(), size);
    buy(word);
}

void tst_DesktopPurchase::failedFetchKeepsThePlans_data()
{
    QTest::addColumn<QString>("what");
    QTest::newRow("error") << uR"({"status": 503, "error": "Chiuso."})"_s;
    QTest::newRow("page") << uR"({"status": 503, "page": "<h1>503</h1>"})"_s;
    QTest::newRow("nothing") << uR"({"status": 500})"_s;
    QTest::newRow("broken-off") << uR"({"bytes": "reset"})"_s;
    QTest::newRow("no-http") << uR"({"bytes": "garbage"})"_s;
}

void tst_DesktopPurchase::failedFetchKeepsThePlans()
{
    QFETCH(const QString, what);

    open();
    fillForm();
    QSignalSpy errors(m_desktop->host()->plans.findChild<Corvane *>(), &Corvane::networkError);
    fault(u"plans"_s, what);
    m_desktop->click(u"Aggiorna l'elenco"_s);
    QVERIFY(errors.wait(timeout));
    const QString error = errors.at(0).at(0).toString();
    QVERIFY(!error.isEmpty());
    QCOMPARE(m_desktop->page(), plans + plansFailed + error + u'\n' + fetchButton + filledForm);

    // They may still be on offer.
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(started));
}

void tst_DesktopPurchase::tellsThatThereAreNoPlans_data()
{
    QTest::addColumn<QString>("what");
    QTest::newRow("empty") << uR"({"body": {"plans": []}})"_s;
    QTest::newRow("no-list") << uR"({"body": {"plans": {"plan_code": "A"}}})"_s;
    QTest::newRow("nothing") << uR"({"status": 204})"_s;
    QTest::newRow("page") << uR"({"page": "<h1>Benvenuti</h1>"})"_s;
    QTest::newRow("half") << uR"({"bytes": "wrong-length"})"_s;
}

void tst_DesktopPurchase::tellsThatThereAreNoPlans()
{
    QFETCH(const QString, what);

    open();
    fault(u"plans"_s, what);
    m_desktop->click(u"Aggiorna l'elenco"_s);
    const QString page = u"Il servizio non ha indicato alcun piano.\n"_s + fetchButton + emptyForm;
    QVERIFY2(m_desktop->waitForPage(page), qPrintable(m_desktop->page()));
    m_desktop->click(u"Acquista con PayPal"_s);
    QCOMPARE(m_desktop->page(), page + u'\n' + choosePlan);

    m_desktop->sandbox.setFaults({});
    m_desktop->click(u"Aggiorna l'elenco"_s);
    QVERIFY(m_desktop->waitForPage(plans + fetchButton + emptyForm + u'\n' + choosePlan));
}

void tst_DesktopPurchase::fetchesOnceAtATime()
{
    fault(u"plans"_s, stall);
    m_desktop->open();
    m_desktop->showPage(u"Acquisto"_s);
    QCOMPARE(m_desktop->page(), u"(Aggiorna l'elenco)\n"_s + emptyForm + busy);
    m_desktop->showPage(u"Utilizzo"_s);
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(QTest::qWaitFor([&] { return requests(u"plans"_s) == 1; }, timeout));
    // What was sent meanwhile would have come before this.
    QCOMPARE(m_desktop->sandbox.get(u"/api/v1/releases/latest/DEMO?channel=stable"_s).status, 200);
    QCOMPARE(requests(u"plans"_s), 1);
}

void tst_DesktopPurchase::givesUpFetch()
{
    open();
    fault(u"plans"_s, stall);
    m_desktop->click(u"Aggiorna l'elenco"_s);
    m_desktop->click(u"Annulla"_s);
    QCOMPARE(m_desktop->page(),
             plans + plansFailed + interrupted + u'\n' + fetchButton + emptyForm);

    m_desktop->sandbox.setFaults({});
    m_desktop->click(u"Aggiorna l'elenco"_s);
    QCOMPARE(m_desktop->page(), plans + u"(Aggiorna l'elenco)\n"_s + emptyForm + busy);
    QVERIFY(m_desktop->waitForPage(plans + fetchButton + emptyForm));
}

void tst_DesktopPurchase::endsFetchThatTakesTooLong()
{
    fault(u"plans"_s, stall);
    m_desktop->service.callTimeout = std::chrono::milliseconds(300);
    m_desktop->open();
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForPage(plansFailed + late + u'\n' + fetchButton + emptyForm));
}

void tst_DesktopPurchase::onlyPlansWithCodeCanBeChosen()
{
    fault(u"plans"_s,
          uR"({"body": {"plans": [7, {"name": "Primo"}, {"plan_code": "ANNUALE", "name": "Secondo"},
               {"plan_code": " ", "name": "Terzo"}, {"plan_code": "MENSILE", "name": "Quarto"},
               "Quinto"]}})"_s);
    m_desktop->open();
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"| Secondo"_s));
    for (const int row : {0, 1, 3, 5}) {
        clickRow(row);
        QVERIFY(!table()->selectionModel()->hasSelection());
        m_desktop->click(u"Acquista con PayPal"_s);
        QVERIFY(m_desktop->page().endsWith(choosePlan));
    }

    table()->setFocus();
    const auto press = [this](Qt::Key key) {
        QTest::keyClick(table(), key);
        const QModelIndexList chosen = table()->selectionModel()->selectedRows();
        return chosen.isEmpty() ? QString() : chosen.first().data().toString();
    };
    clickRow(2);
    QCOMPARE(press(Qt::Key_Down), u"Quarto"_s);
    QCOMPARE(press(Qt::Key_Down), u"Quarto"_s);
    QCOMPARE(press(Qt::Key_Up), u"Secondo"_s);
    QCOMPARE(press(Qt::Key_Up), u"Secondo"_s);
}

// By the keyboard the current row can be another one.
void tst_DesktopPurchase::buysThePlanThatIsMarked()
{
    open();
    fillForm();
    QTest::keyClick(table(), Qt::Key_Down, Qt::ControlModifier);
    QTest::keyClick(table(), Qt::Key_Up, Qt::ControlModifier);
    QTest::keyClick(table(), Qt::Key_Up, Qt::ControlModifier);
    const QModelIndexList marked = table()->selectionModel()->selectedRows();
    QCOMPARE(marked.size(), 1);
    const QJsonArray offered = rows(u"plans"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(started));
    QCOMPARE(sent(u"start"_s).value("plan_code"_L1),
             offered.at(marked.first().row())["plan_code"_L1]);
}

void tst_DesktopPurchase::wrongFormIsNotSent_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("problem");

    const QString noFirstName = u"Indica il nome."_s;
    const QString noLastName = u"Indica il cognome."_s;
    const QString noAddress = u"Indica un indirizzo e-mail, per esempio ada@example.org."_s;
    QTest::newRow("no-first-name") << u"Nome"_s << QString() << noFirstName;
    QTest::newRow("blank-first-name") << u"Nome"_s << u"   "_s << noFirstName;
    QTest::newRow("no-last-name") << u"Cognome"_s << QString() << noLastName;
    QTest::newRow("blank-last-name") << u"Cognome"_s << u"   "_s << noLastName;
    QTest::newRow("no-address") << u"E-mail"_s << QString() << noAddress;
    QTest::newRow("blank-address") << u"E-mail"_s << u"  "_s << noAddress;
    QTest::newRow("no-at") << u"E-mail"_s << u"ada.example.org"_s << noAddress;
    QTest::newRow("two-ats") << u"E-mail"_s << u"ada@rossi@example.org"_s << noAddress;
    QTest::newRow("no-user") << u"E-mail"_s << u"@example.org"_s << noAddress;
    QTest::newRow("no-host") << u"E-mail"_s << u"ada@"_s << noAddress;
    QTest::newRow("blank-within") << u"E-mail"_s << u"ada rossi@example.org"_s << noAddress;
}

void tst_DesktopPurchase::wrongFormIsNotSent()
{
    QFETCH(const QString, field);
    QFETCH(const QString, text);
    QFETCH(const QString, problem);

    open();
    fillForm();
    m_desktop->type(field, text);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY2(m_desktop->page().endsWith(u"[Acquista con PayPal]\n"_s + problem),
             qPrintable(m_desktop->page()));
    QCOMPARE(focused(), field);

    // What is put right is sent, and the problem is told no more.
    m_desktop->type(field, field == u"E-mail"_s ? u"ada@example.org"_s : u"Rossi"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(!m_desktop->page().contains(problem));
    QVERIFY(waitForTold(started));
    QCOMPARE(requests(u"start"_s), 1);
}

void tst_DesktopPurchase::tellsFirstProblemFirst()
{
    open();
    const auto problem = [this] {
        m_desktop->click(u"Acquista con PayPal"_s);
        return m_desktop->page().section(u'\n', -1) + u" -> "_s + focused();
    };
    QCOMPARE(problem(), u"Scegli un piano nell'elenco. -> Piani in vendita"_s);
    m_desktop->selectPlan(u"Abbonamento annuale"_s);
    QCOMPARE(problem(), u"Indica il nome. -> Nome"_s);
    m_desktop->type(u"Nome"_s, u"Ada"_s);
    QCOMPARE(problem(), u"Indica il cognome. -> Cognome"_s);
    m_desktop->type(u"Cognome"_s, u"Rossi"_s);
    QCOMPARE(problem(), u"Indica un indirizzo e-mail, per esempio ada@example.org. -> E-mail"_s);
    QCOMPARE(requests(u"start"_s), 0);
}

void tst_DesktopPurchase::sendsWhatWasTyped()
{
    open();
    m_desktop->selectPlan(u"Abbonamento mensile"_s);
    m_desktop->type(u"Nome"_s, u" Ada Maria "_s);
    m_desktop->type(u"Cognome"_s, u"D'Angelo <b>"_s);
    m_desktop->type(u"E-mail"_s, u" Ada.Maria+1@Example.ORG "_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(started));
    // The library trims, and writes the address in lower case.
    QCOMPARE(sent(u"start"_s),
             QJsonObject({{u"product_code"_s, u"DEMO"_s},
                          {u"plan_code"_s, u"MENSILE"_s},
                          {u"first_name"_s, u"Ada Maria"_s},
                          {u"last_name"_s, u"D'Angelo <b>"_s},
                          {u"email"_s, u"ada.maria+1@example.org"_s}}));
}

void tst_DesktopPurchase::returnBuys_data()
{
    QTest::addColumn<QString>("field");
    QTest::newRow("first-name") << u"Nome"_s;
    QTest::newRow("last-name") << u"Cognome"_s;
    QTest::newRow("address") << u"E-mail"_s;
}

void tst_DesktopPurchase::returnBuys()
{
    QFETCH(const QString, field);

    open();
    fillForm();
    const QList<QLineEdit *> edits = m_desktop->window()->findChildren<QLineEdit *>();
    for (QLineEdit *edit : edits) {
        edit->setFocus();
        if (focused() != field)
            continue;
        QTest::keyClick(edit, Qt::Key_Return);
        // There is no more to press on.
        QTest::keyClick(edit, Qt::Key_Return);
    }
    QVERIFY(waitForTold(started));
    QCOMPARE(requests(u"start"_s), 1);
}

void tst_DesktopPurchase::refusedStartKeepsTheForm()
{
    open();
    fillForm();
    // The page takes it for an address, the sandbox does not.
    m_desktop->type(u"E-mail"_s, u"ada@localhost"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(m_desktop->waitForPage(
        plans + fetchButton
        + u"Nome\n<Ada>\nCognome\n<Rossi>\nE-mail\n<ada@localhost>\n[Acquista con PayPal]\n"
          "Indirizzo e-mail non valido."_s));
    QCOMPARE(kept(), QStringList());
    QCOMPARE(m_desktop->opened, QList<QUrl>());

    m_desktop->type(u"E-mail"_s, u"ada@example.org"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(started));
}

void tst_DesktopPurchase::unreadableStartKeepsTheForm_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<QString>("told");

    const QString refused = u"Pagamento non avviato."_s;
    const QString noAnswer = refused + unreadable + nothingCharged;
    QTest::newRow("page") << uR"({"page": "<h1>Benvenuti</h1>"})"_s << noAnswer;
    QTest::newRow("error-page") << uR"({"status": 503, "page": "<h1>503</h1>"})"_s << noAnswer;
    QTest::newRow("half") << uR"({"bytes": "wrong-length"})"_s << noAnswer;
    QTest::newRow("nothing") << uR"({"status": 204})"_s << noAnswer;
    QTest::newRow("no-reason") << uR"({"body": {"success": false}})"_s << refused;
    QTest::newRow("truth-in-words") << uR"({"merge": {"success": "true"}})"_s << refused;
}

void tst_DesktopPurchase::unreadableStartKeepsTheForm()
{
    QFETCH(const QString, what);
    QFETCH(const QString, told);

    open();
    fillForm();
    fault(u"start"_s, what);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY2(m_desktop->waitForPage(plans + fetchButton + filledForm + u'\n' + told),
             qPrintable(m_desktop->page()));
    QCOMPARE(kept(), QStringList());
    QCOMPARE(m_desktop->opened, QList<QUrl>());
}

void tst_DesktopPurchase::tellsWhatTheNetworkSays_data()
{
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("hint");
    QTest::newRow("start") << u"start"_s << u"Acquista con PayPal"_s << nothingCharged;
    QTest::newRow("resume") << u"resume"_s << u"Riprendi"_s << justRetry;
    QTest::newRow("capture") << u"capture"_s << u"Completa l'acquisto"_s << perhapsPaid;
}

void tst_DesktopPurchase::tellsWhatTheNetworkSays()
{
    QFETCH(const QString, operation);
    QFETCH(const QString, button);
    QFETCH(const QString, hint);

    open();
    if (operation == u"start"_s)
        fillForm();
    else
        buy();
    fault(operation, uR"({"bytes": "reset"})"_s);
    const QString page = m_desktop->page();
    m_desktop->click(button);
    QSignalSpy errors(m_desktop->host()->purchase.findChild<Corvane *>(), &Corvane::networkError);
    QVERIFY(errors.wait(timeout));
    const QString error = errors.at(0).at(0).toString();
    QVERIFY(!error.isEmpty());
    QVERIFY2(waitForTold(error + hint), qPrintable(m_desktop->page()));
    // All else is as it was.
    if (operation != u"capture"_s)
        QVERIFY(m_desktop->page().startsWith(page.section(u'\n', 0, -2)));

    m_desktop->sandbox.setFaults({});
    m_desktop->click(button);
    QVERIFY(waitForTold(operation == u"capture"_s ? notApproved : started));
}

void tst_DesktopPurchase::opensTheApprovalPage()
{
    open();
    buy();
    QCOMPARE(m_desktop->opened.size(), 1);
    const QUrl page = m_desktop->opened.first();
    QCOMPARE(page, m_desktop->sandbox.url(u"/paypal/approve/"_s + orderId()));
    const QByteArray content = m_desktop->sandbox.get(page.path()).body;
    QVERIFY(content.contains("Abbonamento annuale"));
    QVERIFY(content.contains("Ada Rossi"));
    QCOMPARE(m_desktop->page(), plans + fetchButton + pendingText() + u'\n' + started);

    m_desktop->click(u"Apri la pagina di pagamento"_s);
    QCOMPARE(m_desktop->opened, QList<QUrl>({page, page}));
    QCOMPARE(requests(u"resume"_s), 0);
}

void tst_DesktopPurchase::opensNothingButWebPages_data()
{
    QTest::addColumn<QString>("url");
    QTest::newRow("none") << u"null"_s;
    QTest::newRow("number") << u"8"_s;
    QTest::newRow("empty") << uR"("")"_s;
    QTest::newRow("file") << uR"("file:///etc/hostname")"_s;
    QTest::newRow("script") << uR"("javascript:alert")"_s;
    QTest::newRow("path") << uR"("/paypal/approve/1")"_s;
    QTest::newRow("no-host") << uR"("http:/paypal")"_s;
    QTest::newRow("no-url") << uR"("http://[paypal")"_s;
    QTest::newRow("other-program") << uR"("mailto:ada@example.org")"_s;
}

void tst_DesktopPurchase::opensNothingButWebPages()
{
    QFETCH(const QString, url);

    open();
    fillForm();
    fault(u"start"_s, uR"({"merge": {"approval_url": %1}})"_s.arg(url));
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY2(waitForTold(noPage), qPrintable(m_desktop->page()));
    m_desktop->click(u"Apri la pagina di pagamento"_s);
    QCOMPARE(m_desktop->opened, QList<QUrl>());
    m_desktop->leave();
    m_desktop->comeBack();
    QCOMPARE(requests(u"capture"_s), 0);

    // It can be had all the same.
    m_desktop->click(u"Riprendi"_s);
    QVERIFY(waitForTold(started));
    QCOMPARE(m_desktop->opened.size(), 1);
}

void tst_DesktopPurchase::tellsThatNoBrowserOpens()
{
    open();
    buy();
    // There is no program to be found, and a folder that Qt would complain about if there were
    // none.
    const QTemporaryDir folder;
    const QByteArray oldPath = qgetenv("PATH");
    const QByteArray oldFolder = qgetenv("XDG_RUNTIME_DIR");
    const auto restore = qScopeGuard([&] {
        qputenv("PATH", oldPath);
        qputenv("XDG_RUNTIME_DIR", oldFolder);
    });
    qputenv("PATH", "");
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(folder.path()));
    QDesktopServices::unsetUrlHandler(u"http"_s);
    // In the words of the platform.
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"openUrl|web browser"_s));
    m_desktop->click(u"Apri la pagina di pagamento"_s);
    QCOMPARE(m_desktop->page(),
             plans + fetchButton + pendingText()
                 + u"\nImpossibile aprire il browser: copia l'indirizzo della pagina."_s);
}

void tst_DesktopPurchase::makesOneCallAtATime_data()
{
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("button");
    QTest::newRow("start") << u"start"_s << u"Acquista con PayPal"_s;
    QTest::newRow("resume") << u"resume"_s << u"Riprendi"_s;
    QTest::newRow("capture") << u"capture"_s << u"Completa l'acquisto"_s;
}

void tst_DesktopPurchase::makesOneCallAtATime()
{
    QFETCH(const QString, operation);
    QFETCH(const QString, button);

    open();
    fillForm();
    QString page = plans + u"(Aggiorna l'elenco)\n"_s + form + u"(Acquista con PayPal)"_s + busy;
    if (operation != u"start"_s) {
        m_desktop->click(u"Acquista con PayPal"_s);
        QVERIFY(waitForTold(started));
        page = plans + u"(Aggiorna l'elenco)\n"_s
            + pendingText(operation == u"capture"_s).replace(u'[', u'(').replace(u']', u')') + busy;
    }
    fault(operation, stall);
    m_desktop->click(button);
    QCOMPARE(m_desktop->page(), page);
    m_desktop->leave();
    m_desktop->comeBack();
    Purchase &purchase = m_desktop->host()->purchase;
    purchase.start(u"ANNUALE"_s, {});
    purchase.resume();
    purchase.capture();
    purchase.abandon();
    QVERIFY(QTest::qWaitFor([&] { return requests(operation) == 1; }, timeout));
    // What was sent meanwhile would have come before this.
    QCOMPARE(m_desktop->sandbox.get(u"/api/v1/releases/latest/DEMO?channel=stable"_s).status, 200);
    QCOMPARE(requests(u"start"_s), 1);
    QCOMPARE(requests(u"resume"_s) + requests(u"capture"_s), operation == u"start"_s ? 0 : 1);
    QCOMPARE(m_desktop->page(), page);
}

void tst_DesktopPurchase::capturesOnDemand()
{
    open();
    buy();
    const QString pending = plans + fetchButton + pendingText() + u'\n';
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(m_desktop->waitForPage(pending + notApproved));

    approve();
    m_desktop->click(u"Completa l'acquisto"_s);
    const QString key = rows(u"licenses"_s).at(0)["license_key"_L1].toString();
    QVERIFY2(m_desktop->waitForPage(licenceText({key}) + plans + fetchButton + filledForm + u'\n'
                                    + paid),
             qPrintable(m_desktop->page()));
    QCOMPARE(sent(u"capture"_s), QJsonObject({{u"paypal_order_id"_s, orderId()}}));
    QCOMPARE(kept(), QStringList(u"license/keys="_s + key));

    m_desktop->open();
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY(m_desktop->waitForPage(licenceText({key}) + plans + fetchButton + emptyForm));
}

void tst_DesktopPurchase::capturesWhenTheBuyerReturns()
{
    open();
    buy();
    m_desktop->leave();
    approve();
    QCOMPARE(requests(u"capture"_s), 0);
    m_desktop->comeBack();
    QVERIFY(waitForTold(paid));
    QCOMPARE(rows(u"payments"_s).size(), 1);
}

void tst_DesktopPurchase::capturesOncePerOpening()
{
    open();
    buy();
    m_desktop->leave();
    m_desktop->comeBack();
    QVERIFY(waitForTold(notApproved));
    m_desktop->leave();
    m_desktop->comeBack();
    QCOMPARE(m_desktop->page(), plans + fetchButton + pendingText() + u'\n' + notApproved);

    m_desktop->click(u"Apri la pagina di pagamento"_s);
    m_desktop->leave();
    approve();
    m_desktop->comeBack();
    QVERIFY(waitForTold(paid));
    QCOMPARE(requests(u"capture"_s), 2);
}

void tst_DesktopPurchase::capturesNothingThatIsNotExpected()
{
    const auto goAndReturn = [this] {
        m_desktop->leave();
        m_desktop->comeBack();
        return !m_desktop->page().contains(busy);
    };
    open();
    QVERIFY(goAndReturn());
    buy();
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(notApproved));
    QVERIFY(goAndReturn());

    // After it was closed, nobody knows whether the buyer has been there.
    m_desktop->open();
    QVERIFY(m_desktop->waitForLine(u"| Abbonamento"_s));
    QVERIFY(goAndReturn());

    m_desktop->click(u"Apri la pagina di pagamento"_s);
    m_desktop->click(u"Abbandona"_s);
    QVERIFY(goAndReturn());
    // It needs an opening of its own.
    fillForm();
    fault(u"start"_s, uR"({"merge": {"approval_url": null}})"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(noPage));
    QVERIFY(goAndReturn());
    QCOMPARE(requests(u"capture"_s), 1);
}

void tst_DesktopPurchase::keepsTheKeyOfTheCapture_data()
{
    QTest::addColumn<QString>("answered");
    QTest::addColumn<bool>("isNew");
    QTest::newRow("new") << uR"("NEW-KEY")"_s << true;
    QTest::newRow("none") << u"null"_s << false;
    QTest::newRow("empty") << uR"("")"_s << false;
    QTest::newRow("number") << u"12"_s << false;
}

void tst_DesktopPurchase::keepsTheKeyOfTheCapture()
{
    QFETCH(const QString, answered);
    QFETCH(const bool, isNew);

    open();
    buy();
    approve();
    fault(u"capture"_s, uR"({"merge": {"license_key": %1}})"_s.arg(answered));
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(paid));
    const QString key =
        isNew ? u"NEW-KEY"_s : rows(u"licenses"_s).at(0)["license_key"_L1].toString();
    QVERIFY(m_desktop->page().startsWith(licenceText({key})));
    QCOMPARE(kept(), QStringList(u"license/keys="_s + key));
}

void tst_DesktopPurchase::buysAgain()
{
    open();
    buy();
    approve();
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(paid));
    const QString first = licenceKey();
    QVERIFY(m_desktop->page().startsWith(licenceText({first})));

    m_desktop->selectPlan(u"Licenza perpetua"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(started));
    // It is paid for, whatever becomes of the other.
    QVERIFY(m_desktop->page().startsWith(licenceText({first})));
    approve();
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(paid));
    QCOMPARE(rows(u"payments"_s).size(), 2);
    QVERIFY(licenceKey() != first);
    QVERIFY(m_desktop->page().startsWith(licenceText({first, licenceKey()})));
    QCOMPARE(kept(), QStringList(u"license/keys=%1,%2"_s.arg(first, licenceKey())));
}

void tst_DesktopPurchase::unreadableCaptureLosesNothing_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<bool>("isTaken");
    QTest::addColumn<QString>("told");

    const QString refused = u"Pagamento non completato."_s;
    const QString noAnswer = refused + perhapsPaid;
    QTest::newRow("cut") << uR"({"bytes": "close"})"_s << true << noAnswer;
    QTest::newRow("half") << uR"({"bytes": "wrong-length"})"_s << true << noAnswer;
    QTest::newRow("not-paid") << uR"({"merge": {"paid": null}})"_s << true << noAnswer;
    QTest::newRow("paid-in-words") << uR"({"merge": {"paid": "true"}})"_s << true << noAnswer;
    QTest::newRow("page") << uR"({"page": "<h1>Benvenuti</h1>"})"_s << false << noAnswer;
    QTest::newRow("error-page") << uR"({"status": 503, "page": "<h1>503</h1>"})"_s << false
                                << noAnswer;
    QTest::newRow("error") << uR"({"status": 500, "error": "Errore <b>interno</b>."})"_s << false
                           << u"Errore <b>interno</b>."_s + perhapsPaid;
}

void tst_DesktopPurchase::unreadableCaptureLosesNothing()
{
    QFETCH(const QString, what);
    QFETCH(const bool, isTaken);
    QFETCH(const QString, told);

    open();
    buy();
    approve();
    const QStringList before = kept();
    fault(u"capture"_s, what);
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY2(m_desktop->waitForPage(plans + fetchButton + pendingText(true) + u'\n' + told),
             qPrintable(m_desktop->page()));
    QCOMPARE(rows(u"payments"_s).size(), isTaken ? 1 : 0);
    QCOMPARE(kept(), mayBePaid(before));

    m_desktop->sandbox.setFaults({});
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(paid));
    QCOMPARE(rows(u"payments"_s).size(), 1);
    QCOMPARE(rows(u"orders"_s).size(), 1);
}

void tst_DesktopPurchase::lostCaptureIsPaidOnce_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<bool>("isTaken");
    QTest::newRow("broken-off") << uR"({"bytes": "reset"})"_s << true;
    QTest::newRow("no-http") << uR"({"bytes": "garbage"})"_s << true;
    QTest::newRow("nothing") << uR"({"status": 500})"_s << false;
}

void tst_DesktopPurchase::lostCaptureIsPaidOnce()
{
    QFETCH(const QString, what);
    QFETCH(const bool, isTaken);

    open();
    buy();
    approve();
    const QStringList before = kept();
    fault(u"capture"_s, what);
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"[Completa l'acquisto]"_s));
    QVERIFY2(m_desktop->page().endsWith(perhapsPaid), qPrintable(m_desktop->page()));
    QCOMPARE(rows(u"payments"_s).size(), isTaken ? 1 : 0);
    QCOMPARE(kept(), mayBePaid(before));

    // Even if it is closed before.
    m_desktop->sandbox.setFaults({});
    m_desktop->open();
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(paid));
    QCOMPARE(rows(u"payments"_s).size(), 1);
}

void tst_DesktopPurchase::keepsStateWhereThePageSays()
{
    open();
    buy();
    const QJsonObject licence = rows(u"licenses"_s).at(0).toObject();
    QVERIFY(m_desktop->page().contains(u" restano in %1, "_s.arg(m_desktop->stateFile())));
    QCOMPARE(
        kept(),
        QStringList(
            {u"pending_purchase/approval_url="_s + m_desktop->opened.last().toString(),
             u"pending_purchase/license_key="_s + licence.value("license_key"_L1).toString(),
             u"pending_purchase/may_be_paid=false"_s, u"pending_purchase/order_id="_s + orderId(),
             u"pending_purchase/plan=ANNUALE"_s}));
}

void tst_DesktopPurchase::tellsFolderThatCannotBeWritten()
{
    // Not even root can write below a file.
    Files::write(m_desktop->stateFolder(), {});
    const QString warning = u"%1 non può essere scritto: completa l'acquisto prima di chiudere, e "
                            "annota la chiave di licenza.\n"_s.arg(m_desktop->stateFile());
    open();
    buy();
    QVERIFY(m_desktop->page().startsWith(warning));
    QVERIFY(!m_desktop->page().contains(u"restano in"_s));
    QCOMPARE(m_desktop->opened.size(), 1);

    approve();
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(paid));
    QVERIFY(m_desktop->page().startsWith(warning + licenceText({licenceKey()})));
}

void tst_DesktopPurchase::writesAgainOnceItCan()
{
    Files::write(m_desktop->stateFolder(), {});
    open();
    fillForm();
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(m_desktop->waitForLine(started));
    QVERIFY(QFile::remove(m_desktop->stateFolder()));

    approve();
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY2(waitForTold(paid), qPrintable(m_desktop->page()));
    QVERIFY(m_desktop->page().startsWith(licenceText({licenceKey()})));
    QCOMPARE(kept().size(), 1);
}

void tst_DesktopPurchase::goesOnAfterClosing()
{
    open();
    buy();
    const QString page = plans + fetchButton + pendingText();
    m_desktop->close();
    approve();

    m_desktop->open();
    QVERIFY2(m_desktop->waitForPage(page), qPrintable(m_desktop->page()));
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(paid));
    QCOMPARE(requests(u"start"_s), 1);
}

void tst_DesktopPurchase::resumesAfterClosing()
{
    open();
    buy();
    const QString page = plans + fetchButton + pendingText() + u'\n';
    const QStringList before = kept();
    const QUrl approvalPage = m_desktop->opened.last();

    m_desktop->open();
    m_desktop->click(u"Riprendi"_s);
    QVERIFY(m_desktop->waitForPage(page + started));
    QCOMPARE(m_desktop->opened, QList<QUrl>({approvalPage, approvalPage}));
    QCOMPARE(sent(u"resume"_s),
             QJsonObject({{u"product_code"_s, u"DEMO"_s},
                          {u"license_key"_s, rows(u"licenses"_s).at(0)["license_key"_L1]}}));
    QCOMPARE(kept(), before);
    m_desktop->leave();
    approve();
    m_desktop->comeBack();
    QVERIFY(waitForTold(paid));
}

void tst_DesktopPurchase::resumeKeepsWhatItIsNotTold_data()
{
    QTest::addColumn<QString>("merged");
    QTest::addColumn<QString>("order");
    QTest::addColumn<QString>("key");

    QTest::newRow("all-new") << uR"("paypal_order_id": "O-2", "license_key": "K-2")"_s << u"O-2"_s
                             << u"K-2"_s;
    QTest::newRow("no-key") << uR"("paypal_order_id": "O-2", "license_key": null)"_s << u"O-2"_s
                            << QString();
    QTest::newRow("empty-key") << uR"("paypal_order_id": "O-2", "license_key": "")"_s << u"O-2"_s
                               << QString();
    QTest::newRow("no-order") << uR"("paypal_order_id": null, "license_key": "K-2")"_s << QString()
                              << u"K-2"_s;
}

void tst_DesktopPurchase::resumeKeepsWhatItIsNotTold()
{
    QFETCH(const QString, merged);
    QFETCH(QString, order);
    QFETCH(QString, key);

    open();
    buy();
    if (order.isEmpty())
        order = orderId();
    if (key.isEmpty())
        key = rows(u"licenses"_s).at(0)["license_key"_L1].toString();
    fault(u"resume"_s,
          uR"({"merge": {%1, "approval_url": "https://pay.example.org/2"}})"_s.arg(merged));
    m_desktop->click(u"Riprendi"_s);
    QVERIFY(waitForTold(started));
    QCOMPARE(kept(),
             QStringList(
                 {u"pending_purchase/approval_url=https://pay.example.org/2"_s,
                  u"pending_purchase/license_key="_s + key, u"pending_purchase/may_be_paid=false"_s,
                  u"pending_purchase/order_id="_s + order, u"pending_purchase/plan=ANNUALE"_s}));
    QVERIFY(m_desktop->page().contains(
        u"Piano ANNUALE, ordine %1, chiave di licenza %2. "_s.arg(order, key)));
    QCOMPARE(m_desktop->opened.last(), QUrl(u"https://pay.example.org/2"_s));
}

void tst_DesktopPurchase::resumeMayBeRefused_data()
{
    QTest::addColumn<bool>("isPaid");
    QTest::addColumn<QString>("told");
    QTest::addColumn<QString>("thenTold");
    QTest::newRow("paid-elsewhere") << true << u"Questo acquisto è già stato pagato."_s << paid;
    QTest::newRow("cancelled") << false << u"Questo acquisto è stato annullato."_s
                               << u"Il pagamento è stato annullato."_s;
}

void tst_DesktopPurchase::resumeMayBeRefused()
{
    QFETCH(const bool, isPaid);
    QFETCH(const QString, told);
    QFETCH(const QString, thenTold);

    open();
    buy();
    if (isPaid) {
        approve();
        m_desktop->sandbox.post(u"/api/v1/purchase/capture"_s, {{u"paypal_order_id"_s, orderId()}});
    } else {
        m_desktop->sandbox.ask("POST", u"/paypal/cancel/"_s + orderId());
    }
    m_desktop->open();
    m_desktop->click(u"Riprendi"_s);
    QVERIFY2(m_desktop->waitForPage(plans + fetchButton + pendingText() + u'\n' + told),
             qPrintable(m_desktop->page()));
    QCOMPARE(m_desktop->opened.size(), 1);
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(thenTold));
    QCOMPARE(rows(u"payments"_s).size(), isPaid ? 1 : 0);
}

// Both are answered by the same signal, and no answer names the plan.
void tst_DesktopPurchase::tellsStartAndResumeApart()
{
    open();
    buy();
    m_desktop->click(u"Riprendi"_s);
    QVERIFY(waitForTold(started));
    QCOMPARE(m_desktop->page(), plans + fetchButton + pendingText() + u'\n' + started);
    m_desktop->click(u"Abbandona"_s);

    m_desktop->selectPlan(u"Licenza perpetua"_s);
    fault(u"start"_s, uR"({"merge": {"license_key": null}})"_s);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(waitForTold(started));
    QVERIFY(m_desktop->page().contains(u"Piano PERPETUA, ordine %1, "_s.arg(orderId())));
    // Nothing of what was abandoned.
    QVERIFY(kept().contains(u"pending_purchase/license_key="_s));
    QVERIFY(kept().contains(u"pending_purchase/plan=PERPETUA"_s));
}

// Two windows of the application have one state, and what one of them writes the other one reads.
void tst_DesktopPurchase::capturesWhatAnotherWindowHasForgotten()
{
    open();
    buy();
    approve();
    fault(u"capture"_s, uR"({"merge": {"license_key": null}})"_s);
    m_desktop->click(u"Completa l'acquisto"_s);
    Files::write(m_desktop->stateFile(), {});
    m_desktop->host()->usage.setWanted(true);
    QVERIFY(!m_desktop->host()->purchase.pending());
    QVERIFY(waitForTold(paid));
    QVERIFY(m_desktop->page().startsWith(licenceText({licenceKey()})));
}

void tst_DesktopPurchase::abandons()
{
    open();
    buy();
    const QString abandoned =
        u"Acquisto abbandonato: un ordine non completato non viene addebitato. "
        "L'ordine era %1, la chiave di licenza %2."_s.arg(orderId(), licenceKey());
    m_desktop->click(u"Abbandona"_s);
    QCOMPARE(m_desktop->page(), plans + fetchButton + filledForm + u'\n' + abandoned);
    QCOMPARE(kept(), QStringList());
    QCOMPARE(rows(u"payments"_s).size(), 0);

    buy();
    QCOMPARE(requests(u"start"_s), 2);
    QCOMPARE(m_desktop->page(), plans + fetchButton + pendingText() + u'\n' + started);
}

// Also after it was closed, until the service says that nothing was paid.
void tst_DesktopPurchase::whatMayBePaidIsNotAbandonedLightly()
{
    const QString insist =
        u"Il pagamento potrebbe essere avvenuto: premi «Completa l'acquisto». Per "
        "abbandonarlo lo stesso, premi di nuovo «Abbandona»."_s;
    open();
    buy();
    fault(u"capture"_s, uR"({"bytes": "reset"})"_s);
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"[Completa l'acquisto]"_s));
    m_desktop->open();
    QVERIFY(m_desktop->waitForPage(plans + fetchButton + pendingText(true)));
    m_desktop->click(u"Abbandona"_s);
    QVERIFY(waitForTold(insist));
    // Nor is it paid again.
    m_desktop->host()->purchase.openApprovalPage();
    m_desktop->host()->purchase.resume();
    QCOMPARE(requests(u"resume"_s), 0);
    QCOMPARE(m_desktop->opened.size(), 1);

    m_desktop->sandbox.setFaults({});
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(notApproved));
    QCOMPARE(m_desktop->page(), plans + fetchButton + pendingText() + u'\n' + notApproved);

    fault(u"capture"_s, uR"({"bytes": "reset"})"_s);
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(m_desktop->waitForLine(u"[Completa l'acquisto]"_s));
    m_desktop->click(u"Abbandona"_s);
    m_desktop->click(u"Abbandona"_s);
    QVERIFY(
        waitForTold(u"Acquisto abbandonato: un ordine non completato non viene addebitato. "
                    "L'ordine era %1, la chiave di licenza %2."_s.arg(orderId(), licenceKey())));
    QCOMPARE(kept(), QStringList());
}

// The service says in words alone that the order was paid before: nothing that the buyer needs goes
// by that, and nobody is asked to pay again.
void tst_DesktopPurchase::duplicateCaptureLeavesTheKeyInSight()
{
    open();
    buy();
    approve();
    m_desktop->sandbox.post(u"/sandbox/scenario"_s, {{u"name"_s, u"duplicate-capture"_s}});
    m_desktop->click(u"Completa l'acquisto"_s);
    const QString refused = u"Questo ordine è già stato pagato."_s + perhapsPaid;
    QVERIFY(m_desktop->waitForPage(plans + fetchButton + pendingText(true) + u'\n' + refused));
    QVERIFY(m_desktop->page().contains(u"chiave di licenza "_s + licenceKey()));
}

void tst_DesktopPurchase::givesUpCall_data()
{
    tellsWhatTheNetworkSays_data();
}

void tst_DesktopPurchase::givesUpCall()
{
    QFETCH(const QString, operation);
    QFETCH(const QString, button);
    QFETCH(const QString, hint);
    const bool isCapture = operation == u"capture"_s;

    open();
    fillForm();
    if (operation != u"start"_s) {
        buy();
        approve();
    }
    const QStringList before = kept();
    fault(operation, stall);
    m_desktop->click(button);
    QVERIFY(QTest::qWaitFor([&] { return requests(operation) == 1; }, timeout));
    m_desktop->click(u"Annulla"_s);
    QCOMPARE(m_desktop->page(),
             plans + fetchButton + (operation == u"start"_s ? filledForm : pendingText(isCapture))
                 + u'\n' + interrupted + hint);
    QCOMPARE(kept(), isCapture ? mayBePaid(before) : before);

    m_desktop->sandbox.setFaults({});
    m_desktop->click(button);
    QVERIFY(waitForTold(operation == u"capture"_s ? paid : started));
    QCOMPARE(rows(u"payments"_s).size(), operation == u"capture"_s ? 1 : 0);
}

// Its signal comes while its client waits to be deleted.
void tst_DesktopPurchase::hearsNothingOfCallGivenUp()
{
    open();
    buy();
    auto *client = m_desktop->host()->purchase.findChild<Corvane *>();
    fault(u"capture"_s, stall);
    m_desktop->click(u"Completa l'acquisto"_s);
    m_desktop->host()->purchase.cancel();
    const QString page = m_desktop->page();
    PurchaseCaptureInfo captured;
    captured.paid = true;
    Q_EMIT client->purchaseCaptured(captured);
    PurchaseStartInfo answer;
    answer.success = true;
    Q_EMIT client->purchaseStarted(answer);
    Q_EMIT client->networkError(u"late"_s);
    QCOMPARE(m_desktop->page(), page);
    QCOMPARE(m_desktop->opened.size(), 1);
}

void tst_DesktopPurchase::endsStartThatTakesTooLong()
{
    // The plans need some time, too.
    m_desktop->service.callTimeout = std::chrono::seconds(2);
    open();
    fillForm();
    fault(u"start"_s, stall);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY(m_desktop->waitForPage(plans + fetchButton + filledForm
                                   + u"\nLa richiesta non è finita nel tempo concesso (2 s)."_s
                                   + nothingCharged));
    QCOMPARE(kept(), QStringList());
}

void tst_DesktopPurchase::endsCallThatTakesTooLong_data()
{
    QTest::addColumn<QString>("operation");
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("hint");
    QTest::newRow("resume") << u"resume"_s << u"Riprendi"_s << justRetry;
    QTest::newRow("capture") << u"capture"_s << u"Completa l'acquisto"_s << perhapsPaid;
}

void tst_DesktopPurchase::endsCallThatTakesTooLong()
{
    QFETCH(const QString, operation);
    QFETCH(const QString, button);
    QFETCH(const QString, hint);

    open();
    buy();
    approve();
    const QStringList before = kept();
    fault(operation, stall);
    m_desktop->service.callTimeout = std::chrono::milliseconds(300);
    m_desktop->open();
    m_desktop->click(button);
    QVERIFY2(waitForTold(late + hint), qPrintable(m_desktop->page()));
    QCOMPARE(kept(), operation == u"capture"_s ? mayBePaid(before) : before);

    m_desktop->sandbox.setFaults({});
    m_desktop->service.callTimeout = std::chrono::seconds(20);
    m_desktop->open();
    m_desktop->click(u"Completa l'acquisto"_s);
    QVERIFY(waitForTold(paid));
    QCOMPARE(rows(u"payments"_s).size(), 1);
}

void tst_DesktopPurchase::fault(const QString &operation, const QString &what) const
{
    m_desktop->sandbox.setFaults(uR"({"operation": "%1", "do": %2})"_s.arg(operation, what));
}

qsizetype tst_DesktopPurchase::requests(const QString &operation) const
{
    return m_desktop->sandbox.journal(operation).size();
}

QJsonObject tst_DesktopPurchase::sent(const QString &operation) const
{
    const QString body =
        m_desktop->sandbox.journal(operation).constLast()["request"_L1]["body"_L1].toString();
    return QJsonDocument::fromJson(body.toUtf8()).object();
}

QJsonArray tst_DesktopPurchase::rows(const QString &table) const
{
    return m_desktop->sandbox.get(u"/sandbox/state"_s).json().value(table).toArray();
}

QStringList tst_DesktopPurchase::kept() const
{
    const QSettings settings(m_desktop->stateFile(), QSettings::IniFormat);
    QStringList lines;
    const QStringList keys = settings.allKeys();
    for (const QString &key : keys)
        lines += u"%1=%2"_s.arg(key, textOf(settings.value(key)));
    return lines;
}

void tst_DesktopPurchase::open()
{
    m_desktop->open();
    m_desktop->showPage(u"Acquisto"_s);
    QVERIFY2(m_desktop->waitForPage(plans + fetchButton + emptyForm),
             qPrintable(m_desktop->page()));
}

void tst_DesktopPurchase::fillForm(const QString &plan)
{
    m_desktop->fillForm(plan);
}

void tst_DesktopPurchase::buy(const QString &plan)
{
    fillForm(plan);
    m_desktop->click(u"Acquista con PayPal"_s);
    QVERIFY2(waitForTold(started), qPrintable(m_desktop->page()));
}

QString tst_DesktopPurchase::orderId() const
{
    return m_desktop->opened.last().fileName();
}

QString tst_DesktopPurchase::licenceKey() const
{
    return rows(u"licenses"_s).last()["license_key"_L1].toString();
}

QString tst_DesktopPurchase::pendingText(bool mayBePaid) const
{
    return m_desktop->pendingPurchase(u"ANNUALE"_s, orderId(), licenceKey(),
                                      m_desktop->opened.last(), mayBePaid);
}

QString tst_DesktopPurchase::licenceText(const QStringList &keys)
{
    return u"Chiave di licenza\n<%1>\n"_s.arg(keys.join(u", "_s));
}

void tst_DesktopPurchase::approve() const
{
    QCOMPARE(m_desktop->sandbox.ask("POST", u"/paypal/approve/"_s + orderId()).status, 303);
}

bool tst_DesktopPurchase::waitForTold(const QString &text) const
{
    return QTest::qWaitFor(
        [&] {
            const QString page = m_desktop->page();
            return !page.contains(busy)
                && (page.endsWith(u"]\n"_s + text) || page.endsWith(u")\n"_s + text));
        },
        timeout);
}

QTableView *tst_DesktopPurchase::table() const
{
    return m_desktop->window()->findChild<QTableView *>();
}

void tst_DesktopPurchase::clickRow(int row) const
{
    const QModelIndex index = table()->model()->index(row, 0);
    table()->scrollTo(index);
    QTest::mouseClick(table()->viewport(), Qt::LeftButton, {}, table()->visualRect(index).center());
}

QString tst_DesktopPurchase::focused() const
{
    return QAccessible::queryAccessibleInterface(m_desktop->window()->focusWidget())
        ->text(QAccessible::Name);
}

QTEST_MAIN(tst_DesktopPurchase)
#include "tst_desktop_purchase.moc"
