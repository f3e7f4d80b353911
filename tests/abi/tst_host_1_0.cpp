// A host of the first release: compiled against that release's headers, it runs with today's
// library. What it knows of the library's layout stands in its own code.

#include "corvane.h"

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

void tst_Host_1_0::recordsKeepTheirFields()
{
    Corvane client;
    callAll(client);
    int count = 0;
    connect(&client, &Corvane::updateChecked, this, [&count](const UpdateInfo &update) {
        ++count;
        QCOMPARE(update.updateAvailable, true);
        QCOMPARE(update.productCode, u"a"_s);
        QCOMPARE(update.currentVersion, u"1.4.0"_s);
        QCOMPARE(update.latestVersion, u"b"_s);
        QCOMPARE(update.downloadUrl, u"c"_s);
        QCOMPARE(update.stableDownloadUrl, u"d"_s);
        QCOMPARE(update.sha256, u"e"_s);
        QCOMPARE(update.notes, u"f"_s);
        QCOMPARE(update.raw.size(), 2);
    });
    client.handleReply(new EndedReply(R"({"success": true, "release": {
                           "product_code": "a", "version": "b", "download_url": "c",
                           "stable_download_url": "d", "sha256": "e", "notes": "f"}})",
                                      &client),
                       Corvane::UpdateCheck);
    connect(&client, &Corvane::purchaseStarted, this, [&count](const PurchaseStartInfo &purchase) {
        ++count;
        QCOMPARE(purchase.success, true);
        QCOMPARE(purchase.paymentId, 1);
        QCOMPARE(purchase.licenseId, 2);
        QCOMPARE(purchase.licenseKey, u"a"_s);
        QCOMPARE(purchase.paypalOrderId, u"b"_s);
        QCOMPARE(purchase.approvalUrl, u"c"_s);
        QCOMPARE(purchase.message, u"Pagamento avviato."_s);
        QCOMPARE(purchase.raw.size(), 6);
    });
    client.handleReply(
        new EndedReply(R"({"success": true, "payment_id": 1, "license_id": 2, "license_key": "a",
                           "paypal_order_id": "b", "approval_url": "c"})",
                       &client),
        Corvane::PurchaseStart);
    connect(&client, &Corvane::purchaseCaptured, this,
            [&count](const PurchaseCaptureInfo &capture) {
                ++count;
                QCOMPARE(capture.paid, true);
                QCOMPARE(capture.licenseId, 2);
                QCOMPARE(capture.message, u"Pagamento completato."_s);
                QCOMPARE(capture.raw.size(), 2);
            });
    client.handleReply(new EndedReply(R"({"paid": true, "license_id": 2})", &client),
                       Corvane::PurchaseCapture);
    QCOMPARE(count, 3);
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
