#include "files.h"
#include "host.h"
#include "operations.h"

#include <QtCore/qmap.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qset.h>
#include <QtCore/qtemporarydir.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qtest.h>

#include <algorithm>

using namespace Qt::StringLiterals;

// The tables of docs/errors.md: whatever happens to a call ends in the signal that they name, and
// whatever can happen stands in them, once.
class tst_Errors : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void tablesNameWhatCanHappen();
    void everyRowTellsMeaningAndWords();
    void callEndsAsItsRowSays_data();
    void callEndsAsItsRowSays();

private:
    // What happens to the call of an operation, by its place in operations().
    using Case = QPair<int, QString>;
    struct Row
    {
        QString signal;
        QString meaning;
        QString words;
    };

    void takeSection(const QString &section);

    QStringList m_names; // that the page explains
    QMultiMap<Case, Row> m_rows;
};

namespace {

// The operations as hosts call them, in the order of operations().
const QStringList calls{u"sendUsage"_s,
                        u"checkForUpdate"_s,
                        u"downloadUpdate"_s,
                        u"fetchPurchasePlans"_s,
                        u"startPayPalPurchase"_s,
                        u"resumePayPalPurchase"_s,
                        u"capturePayPalPurchase"_s};

const QString serviceText = u"Testo"_s;
const QByteArray acceptance =
    R"({"success":true,"paid":true,"plans":[{}],"release":{"version":"2"}})";
const QByteArray explained = R"({"success":false,"error":{"message":"Testo"}})";
const QByteArray unexplained = R"({"success":false})";
const QByteArray page = "<html></html>";

struct Happening
{
    QString name;
    QByteArray response; // null: there is none
    QString call = {}; // the only one that it can happen to
};

const QString notSent = u"not sent"_s;
const QString fileNotOpened = u"file not opened"_s;

const QList<Happening> happenings{
    {notSent, {}},
    {u"no answer"_s, {}},
    {u"error status, empty"_s, LoopbackServer::response(503, "")},
    {u"error status, explained"_s, LoopbackServer::response(403, explained)},
    {u"error status, unexplained"_s, LoopbackServer::response(500, unexplained)},
    {u"error status, unreadable"_s, LoopbackServer::response(502, page, "text/html")},
    {u"error status, yes"_s, LoopbackServer::response(403, acceptance)},
    {u"yes"_s, LoopbackServer::response(200, acceptance)},
    {u"no, explained"_s, LoopbackServer::response(200, explained)},
    {u"no, unexplained"_s, LoopbackServer::response(200, unexplained)},
    {u"unreadable"_s, LoopbackServer::response(200, page, "text/html")},
    {u"yes, with a text"_s,
     LoopbackServer::response(200, R"({"success":true,"error":{"message":"Testo"}})"),
     u"sendUsage"_s},
    {u"same version"_s,
     LoopbackServer::response(200, R"({"success":true,"release":{"version":"x"}})"),
     u"checkForUpdate"_s},
    {u"no release"_s, LoopbackServer::response(200, R"({"success":true})"), u"checkForUpdate"_s},
    {u"no plans"_s, LoopbackServer::response(200, R"({"plans":[]})"), u"fetchPurchasePlans"_s},
    {u"not paid"_s,
     LoopbackServer::response(409, R"({"success":false,"paid":false,"error":{"message":"Testo"}})"),
     u"capturePayPalPurchase"_s},
    {fileNotOpened, LoopbackServer::response(200, "x"), u"downloadUpdate"_s},
};

// Whom a heading is about: "All calls", "All calls but a", "a, b"; nobody under any other.
QSet<int> callsOf(const QString &heading)
{
    const bool others = heading.startsWith("All calls"_L1);
    QSet<int> places;
    for (int i = 0; i < calls.size(); ++i) {
        if (heading.contains(calls.at(i)) != others)
            places += i;
    }
    return places;
}

// The cells of every row below a table's head.
QList<QStringList> rowsOf(const QString &section)
{
    static const QRegularExpression line(u"^\\| (.*) \\|$"_s, QRegularExpression::MultilineOption);
    QList<QStringList> rows;
    for (const QRegularExpressionMatch &match : line.globalMatch(section))
        rows += match.captured(1).split(u" | "_s);
    return rows.sliced(qMin(1, rows.size()));
}

// A text as the page names it.
QString named(const QString &text, const QString &networks)
{
    if (text.isEmpty())
        return u"no text"_s;
    if (text == serviceText)
        return u"the service's text"_s;
    return text == networks ? u"Qt's text"_s : u'"' + text + u'"';
}

QString named(bool flag)
{
    return flag ? u"true"_s : u"false"_s;
}

QString described(const UpdateInfo &update)
{
    QString text = "`updateChecked`: `updateAvailable` "_L1 + named(update.updateAvailable);
    if (update.updateAvailable)
        return text;
    if (!update.latestVersion.isEmpty())
        return text + ", `latestVersion` as installed"_L1;
    text += ", `latestVersion` empty"_L1;
    if (update.raw.isEmpty())
        return text + ", `raw` empty"_L1;
    if (update.raw.contains("error"_L1))
        return text + ", `raw` with "_L1
            + named(update.raw.value("error"_L1).toObject().value("message"_L1).toString(), {});
    return update.raw.value("success"_L1).toBool() ? text : text + ", `raw` without `success`"_L1;
}

// Every signal of the client as the page describes it.
class Descriptions : public QObject
{
    Q_OBJECT

public:
    explicit Descriptions(Corvane *client)
    {
        const auto add = [this](const QString &line) { lines += line; };
        connect(client, &Corvane::usageSent, this,
                [this, add](bool accepted, const QString &message) {
                    add("`usageSent`: "_L1 + named(accepted) + ", "_L1 + named(message, networks));
                });
        connect(client, &Corvane::updateChecked, this,
                [add](const UpdateInfo &update) { add(described(update)); });
        connect(client, &Corvane::updateDownloaded, this,
                [add] { add(u"`updateDownloaded`: the path"_s); });
        connect(client, &Corvane::purchasePlansReceived, this, [add](const QJsonArray &plans) {
            add("`purchasePlansReceived`: "_L1 + (plans.isEmpty() ? "no plans"_L1 : "plans"_L1));
        });
        connect(client, &Corvane::purchaseStarted, this,
                [this, add](const PurchaseStartInfo &purchase) {
                    add("`purchaseStarted`: `success` "_L1
                        + answered(purchase.success, purchase.message, purchase.raw));
                });
        connect(client, &Corvane::purchaseCaptured, this,
                [this, add](const PurchaseCaptureInfo &capture) {
                    add("`purchaseCaptured`: `paid` "_L1
                        + answered(capture.paid, capture.message, capture.raw)
                        + whetherPaid(capture));
                });
        connect(client, &Corvane::networkError, this, [this, add](const QString &message) {
            add("`networkError`: "_L1 + named(message, networks));
        });
    }

    // Nothing of what is said already.
    static QString whetherPaid(const PurchaseCaptureInfo &capture)
    {
        if (capture.paid || capture.raw.isEmpty())
            return {};
        return capture.raw.contains("paid"_L1) ? u", `raw` with `\"paid\": false`"_s
                                               : u", `raw` without `paid`"_s;
    }

    // Of the call's own reply.
    QString networks;
    QStringList lines;

private:
    QString answered(bool flag, const QString &message, const QJsonObject &raw) const
    {
        return named(flag) + ", "_L1 + named(message, networks)
            + (raw.isEmpty() ? ", `raw` empty"_L1 : ""_L1);
    }
};

} // namespace

void tst_Errors::initTestCase()
{
    QCOMPARE(calls.size(), operations({}, {}).size());
    const QString text = QString::fromUtf8(Files::contentOf(QStringLiteral(ERRORS_PAGE)));
    const QStringList sections = text.split(u"\n## "_s);
    for (const QString &section : sections)
        takeSection(section);
    QVERIFY(!m_rows.isEmpty());
}

void tst_Errors::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_Errors::takeSection(const QString &section)
{
    const QSet<int> places = callsOf(section.section(u'\n', 0, 0));
    for (const QStringList &cells : rowsOf(section)) {
        if (places.isEmpty()) {
            m_names += cells.constFirst();
            continue;
        }
        const QStringList names = cells.constFirst().split(u"; "_s);
        for (const QString &name : names) {
            for (const int place : places)
                m_rows.insert({place, name}, {cells.value(1), cells.value(2), cells.value(3)});
        }
    }
}

void tst_Errors::tablesNameWhatCanHappen()
{
    QStringList names;
    QList<Case> cases;
    for (const Happening &happening : happenings) {
        names += happening.name;
        for (int i = 0; i < calls.size(); ++i) {
            if (happening.call.isEmpty() || happening.call == calls.at(i))
                cases += {i, happening.name};
        }
    }
    QCOMPARE(m_names, names);
    std::sort(cases.begin(), cases.end());
    QCOMPARE(m_rows.keys(), cases);
}

void tst_Errors::everyRowTellsMeaningAndWords()
{
    for (const Row &row : std::as_const(m_rows)) {
        QVERIFY2(!row.meaning.isEmpty(), qPrintable(row.signal));
        QVERIFY2(!row.words.isEmpty(), qPrintable(row.signal));
    }
}

void tst_Errors::callEndsAsItsRowSays_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<int>("happening");

    for (int i = 0; i < happenings.size(); ++i) {
        for (int j = 0; j < calls.size(); ++j) {
            if (happenings.at(i).call.isEmpty() || happenings.at(i).call == calls.at(j))
                QTest::addRow("%s, %s", qPrintable(calls.at(j)), qPrintable(happenings.at(i).name))
                    << j << i;
        }
    }
}

void tst_Errors::callEndsAsItsRowSays()
{
    QFETCH(int, call);
    QFETCH(int, happening);
    const auto &[name, response, only] = happenings.at(happening);

    QTemporaryDir dir;
    Host host;
    Descriptions descriptions(&host.client);
    QUrl url = host.server.url();
    if (response.isNull())
        url = name == notSent ? QUrl() : QUrl(u"http://127.0.0.1:1/"_s);
    host.client.setServerUrl(url);
    host.server.script(response, LoopbackServer::Close);
    operations(url, name == fileNotOpened ? dir.path() : dir.filePath(u"file"_s))
        .at(call)
        .call(host.client);

    auto *reply = host.client.findChild<QNetworkReply *>();
    QCOMPARE(reply == nullptr, name == notSent);
    if (reply) {
        connect(reply, &QNetworkReply::readChannelFinished, &descriptions,
                [&descriptions, reply] { descriptions.networks = reply->errorString(); });
    }
    QCOMPARE(host.log.settled().size(), 1);
    QCOMPARE(descriptions.lines, QStringList{m_rows.value({call, name}).signal});
}

QTEST_GUILESS_MAIN(tst_Errors)
#include "tst_errors.moc"
