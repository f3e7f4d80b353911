// A host of the first release: compiled against that release's headers, it runs with today's
// library. What it knows of the library's layout stands in its own code.

#include "corvane.h"

#include <QtCore/qjsondocument.h>
#include <QtCore/qmetaobject.h>
#include <QtCore/qtemporarydir.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qtest.h>

#include <algorithm>
#include <array>
#include <new>

using namespace Qt::StringLiterals;

namespace {

// Nobody answers there, and nobody waits for an answer.
const QUrl nowhere(u"http://127.0.0.1:1"_s);

// A reply that has ended well.
class EndedReply : public QNetworkReply
{
public:
    explicit EndedReply(const QByteArray &body, QObject *parent = nullptr)
        : QNetworkReply(parent)
        , m_body(body)
    {
        open(ReadOnly);
        setFinished(true);
    }

    void abort() override { }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return m_body.size(); }

protected:
    qint64 readData(char *data, qint64 maximum) override
    {
        const qsizetype size = qMin<qsizetype>(m_body.size(), maximum);
        std::copy_n(m_body.constData(), size, data);
        m_body.remove(0, size);
        return size;
    }

private:
    QByteArray m_body;
};

// Makes every call that a host can, and each is refused or goes nowhere.
void callAll(Corvane &client)
{
    client.setServerUrl(nowhere);
    client.setProductCode(u"demo"_s);
    client.checkForUpdate(u"1.4.0"_s, u"stable"_s);
    client.downloadUpdate(nowhere, u"release.bin"_s);
    client.fetchPurchasePlans();
    client.startPayPalPurchase(u"ANNUALE"_s, u"Ada"_s, u"Rossi"_s, u"ada@example.org"_s);
    client.resumePayPalPurchase(u"KEY"_s);
    client.capturePayPalPurchase(u"ORDER"_s);
    client.sendUsage(u"KEY"_s, u"pc-ada"_s, u"start"_s, {});
}

} // namespace

class tst_Host_1_0 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void objectFitsIntoItsPlace();
    void fieldsAreInTheirPlaces();
    void recordsKeepTheirSizes();
    void recordsKeepTheirFields();
    void signalsKeepTheirOrder();
    void repliesOfOperationsEndInTheirSignals_data();
    void repliesOfOperationsEndInTheirSignals();
};

void tst_Host_1_0::objectFitsIntoItsPlace()
{
    // As a host's own field after the object would be.
    struct Place
    {
        alignas(Corvane) std::array<char, sizeof(Corvane)> object;
        std::array<char, 64> next;
    };
    Place place{};
    place.next.fill('n');
    auto *client = new (place.object.data()) Corvane;
    callAll(*client);
    client->~Corvane();
    QCOMPARE(QByteArray(place.next.data(), place.next.size()), QByteArray(64, 'n'));
}

void tst_Host_1_0::fieldsAreInTheirPlaces()
{
    Corvane client;
    callAll(client);
    QCOMPARE(client.m_network, client.findChild<QNetworkAccessManager *>());
    QCOMPARE(client.m_serverUrl, nowhere);
    QCOMPARE(client.m_serverUrl, client.serverUrl());
    QCOMPARE(client.m_productCode, u"DEMO"_s);
    QCOMPARE(client.m_productCode, client.productCode());
    QCOMPARE(client.m_currentVersion, u"1.4.0"_s);
    QCOMPARE(client.m_downloadPath, u"release.bin"_s);
}

// By what the library registers: this program has used none of the types when it asks.
void tst_Host_1_0::recordsKeepTheirSizes()
{
    const Corvane client;
    QCOMPARE(QMetaType::fromName("UpdateInfo").sizeOf(), qsizetype(sizeof(UpdateInfo)));
    QCOMPARE(QMetaType::fromName("PurchaseStartInfo").sizeOf(),
             qsizetype(sizeof(PurchaseStartInfo)));
    QCOMPARE(QMetaType::fromName("PurchaseCaptureInfo").sizeOf(),
             qsizetype(sizeof(PurchaseCaptureInfo)));
}

// Long texts, which stay nowhere but in memory of their own, and numbers that fill their fields.
void tst_Host_1_0::recordsKeepTheirFields()
{
    Corvane client;
    callAll(client);
    int count = 0;
    const auto reply = [&client](Corvane::Operation operation, const QJsonObject &body) {
        client.handleReply(new EndedReply(QJsonDocument(body).toJson(), &client), operation);
    };

    QJsonObject release{{u"product_code"_s, u"DEMO-EDIZIONE-PROFESSIONALE"_s},
                        {u"version"_s, u"1.5.0-anteprima.20260131+perché"_s},
                        {u"download_url"_s, u"https://example.org/releases/demo-1.5.0.bin"_s},
                        {u"stable_download_url"_s, u"https://example.org/stabile/demo.bin"_s},
                        {u"sha256"_s, u"0123456789abcdef0123456789abcdef0123456789abcdef"_s},
                        {u"notes"_s, u"Novità: più veloce, già tradotto, così com'è. ☕ 日本語"_s}};
    QJsonObject checked{{u"success"_s, true}, {u"release"_s, release}};
    const auto atUpdate = [&](const UpdateInfo &update) {
        ++count;
        QCOMPARE(update.updateAvailable, update.latestVersion != u"1.4.0"_s);
        QCOMPARE(update.productCode, release.value("product_code"_L1).toString());
        QCOMPARE(update.currentVersion, u"1.4.0"_s);
        QCOMPARE(update.latestVersion, release.value("version"_L1).toString());
        QCOMPARE(update.downloadUrl, release.value("download_url"_L1).toString());
        QCOMPARE(update.stableDownloadUrl, release.value("stable_download_url"_L1).toString());
        QCOMPARE(update.sha256, release.value("sha256"_L1).toString());
        QCOMPARE(update.notes, release.value("notes"_L1).toString());
        QCOMPARE(update.raw, checked);
    };
    connect(&client, &Corvane::updateChecked, this, atUpdate);
    reply(Corvane::UpdateCheck, checked);
    release.insert(u"version"_s, u"1.4.0"_s);
    checked.insert(u"release"_s, release);
    reply(Corvane::UpdateCheck, checked);
    QCOMPARE(count, 2);

    const QJsonObject error{{u"message"_s, u"Il pagamento è già stato respinto perché scaduto."_s}};
    QJsonObject started{{u"success"_s, true},
                        {u"payment_id"_s, 2147483647},
                        {u"license_id"_s, -2147483647},
                        {u"license_key"_s, u"CHIAVE-DI-LICENZA-0123-4567-89AB-È"_s},
                        {u"paypal_order_id"_s, u"ORDINE-0123456789ABCDEFGHIJ"_s},
                        {u"approval_url"_s, u"https://example.org/approvazione?ordine=01234"_s},
                        {u"error"_s, error}};
    const auto atStart = [&](const PurchaseStartInfo &purchase) {
        ++count;
        const bool success = started.value("success"_L1).toBool();
        QCOMPARE(purchase.success, success);
        QCOMPARE(purchase.paymentId, 2147483647);
        QCOMPARE(purchase.licenseId, -2147483647);
        QCOMPARE(purchase.licenseKey, started.value("license_key"_L1).toString());
        QCOMPARE(purchase.paypalOrderId, started.value("paypal_order_id"_L1).toString());
        QCOMPARE(purchase.approvalUrl, started.value("approval_url"_L1).toString());
        QCOMPARE(purchase.message,
                 success ? u"Pagamento avviato."_s : error.value("message"_L1).toString());
        QCOMPARE(purchase.raw, started);
    };
    connect(&client, &Corvane::purchaseStarted, this, atStart);
    reply(Corvane::PurchaseStart, started);
    started.insert(u"success"_s, false);
    reply(Corvane::PurchaseResume, started);
    QCOMPARE(count, 4);

    QJsonObject captured{{u"paid"_s, true}, {u"license_id"_s, 2147483647}, {u"error"_s, error}};
    const auto atCapture = [&](const PurchaseCaptureInfo &capture) {
        ++count;
        const bool paid = captured.value("paid"_L1).toBool();
        QCOMPARE(capture.paid, paid);
        QCOMPARE(capture.licenseId, 2147483647);
        QCOMPARE(capture.message,
                 paid ? u"Pagamento completato."_s : error.value("message"_L1).toString());
        QCOMPARE(capture.raw, captured);
    };
    connect(&client, &Corvane::purchaseCaptured, this, atCapture);
    reply(Corvane::PurchaseCapture, captured);
    captured.insert(u"paid"_s, false);
    reply(Corvane::PurchaseCapture, captured);
    QCOMPARE(count, 6);
}

// A later release may add signals behind these.
void tst_Host_1_0::signalsKeepTheirOrder()
{
    const QByteArrayList expected{"usageSent(bool,QString)",
                                  "updateChecked(UpdateInfo)",
                                  "updateDownloaded(QString)",
                                  "purchasePlansReceived(QJsonArray)",
                                  "purchaseStarted(PurchaseStartInfo)",
                                  "purchaseCaptured(PurchaseCaptureInfo)",
                                  "networkError(QString)"};
    const QMetaObject &meta = Corvane::staticMetaObject;
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QByteArrayList found;
    for (int i = 0; i < expected.size(); ++i)
        found.append(meta.method(meta.methodOffset() + i).methodSignature());
    QCOMPARE(found, expected);
}

void tst_Host_1_0::repliesOfOperationsEndInTheirSignals_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<QByteArray>("signal");

    QTest::addRow("usage") << int(Corvane::Usage) << QByteArray("usageSent");
    QTest::addRow("update-check") << int(Corvane::UpdateCheck) << QByteArray("updateChecked");
    QTest::addRow("download") << int(Corvane::UpdateDownload) << QByteArray("updateDownloaded");
    QTest::addRow("plans") << int(Corvane::PurchasePlans) << QByteArray("purchasePlansReceived");
    QTest::addRow("start") << int(Corvane::PurchaseStart) << QByteArray("purchaseStarted");
    QTest::addRow("resume") << int(Corvane::PurchaseResume) << QByteArray("purchaseStarted");
    QTest::addRow("capture") << int(Corvane::PurchaseCapture) << QByteArray("purchaseCaptured");
}

void tst_Host_1_0::repliesOfOperationsEndInTheirSignals()
{
    QFETCH(const int, operation);
    QFETCH(const QByteArray, signal);
    const QTemporaryDir directory;
    Corvane client;
    client.downloadUpdate(nowhere, directory.filePath(u"release.bin"_s));
    QByteArrayList seen;
    connect(&client, &Corvane::usageSent, this, [&seen] { seen.append("usageSent"); });
    connect(&client, &Corvane::updateChecked, this, [&seen] { seen.append("updateChecked"); });
    connect(&client, &Corvane::updateDownloaded, this,
            [&seen] { seen.append("updateDownloaded"); });
    connect(&client, &Corvane::purchasePlansReceived, this,
            [&seen] { seen.append("purchasePlansReceived"); });
    connect(&client, &Corvane::purchaseStarted, this, [&seen] { seen.append("purchaseStarted"); });
    connect(&client, &Corvane::purchaseCaptured, this,
            [&seen] { seen.append("purchaseCaptured"); });
    connect(&client, &Corvane::networkError, this, [&seen] { seen.append("networkError"); });
    client.handleReply(new EndedReply("{}", &client), Corvane::Operation(operation));
    QCOMPARE(seen, QByteArrayList{signal});
}

QTEST_GUILESS_MAIN(tst_Host_1_0)
#include "tst_host_1_0.moc"
