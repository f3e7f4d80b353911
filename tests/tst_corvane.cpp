#include "files.h"
#include "host.h"
#include "operations.h"

#include <QtCore/qmetaobject.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qscopeguard.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qthread.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkproxy.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>
#include <QtTest/qtesteventloop.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <type_traits>

using namespace Qt::StringLiterals;

// The object itself: construction, configuration, meta-object, lifetime, threads.
class tst_Corvane : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void startsUnconfigured();
    void readsNoEnvironment();
    void belongsToItsParent();
    void ownsOneNetworkAccessManager();
    void keepsServerUrlUnchanged_data();
    void keepsServerUrlUnchanged();
    void normalisesProductCode_data();
    void normalisesProductCode();
    void settersEmitNothing();
    void sentRequestKeepsItsConfiguration();
    void sendsCookiesBack();
    void twoClientsShareNothing();
    void printsNothing();
    void metaObjectHoldsTheSevenSignalsAlone();
    void metaCallEmitsTheSignalOfItsIndex_data();
    void metaCallEmitsTheSignalOfItsIndex();
    void registersArgumentTypesOfTheRecords();
    void castsToItsOwnName();
    void recordsStartAtTheirDefaults();
    void recordsKeepTheirFieldOrder();
    void recordsHaveNoOperatorsOfTheirOwn();
    void internalMembersArePrivate();
    void parentDestructionDropsRequestsInFlight();
    void slotMayDeleteTheClientLater();
    void slotMayCallAgain();
    void answersOnTheThreadItLivesOn();
    void deliversRecordsToAnotherThread();
};

namespace {

// What an heir sees of the class.
struct Heir : Corvane
{
    // Whether a member can be named there.
#define CAN_NAME(member) \
    template <typename T, typename = void> struct CanName_##member : std::false_type \
    { \
    }; \
    template <typename T> \
    struct CanName_##member<T, std::void_t<decltype(&T::member)>> : std::true_type \
    { \
    };
    CAN_NAME(serverUrl)
    CAN_NAME(postJson)
    CAN_NAME(handleReply)
    CAN_NAME(parseUpdate)
    CAN_NAME(parsePurchaseStart)
    CAN_NAME(parsePurchaseCapture)
    CAN_NAME(m_network)
    CAN_NAME(m_serverUrl)
    CAN_NAME(m_productCode)
    CAN_NAME(m_currentVersion)
    CAN_NAME(m_downloadPath)

    template <typename T, typename = void> struct CanNameOperation : std::false_type
    {
    };
    template <typename T>
    struct CanNameOperation<T, std::void_t<typename T::Operation>> : std::true_type
    {
    };
};

// The class overrides nothing of QObject's but what its meta-object needs.
struct Probe : Corvane
{
    static_assert(std::is_same_v<decltype(&Probe::event), bool (QObject::*)(QEvent *)>);
    static_assert(
        std::is_same_v<decltype(&Probe::eventFilter), bool (QObject::*)(QObject *, QEvent *)>);
    static_assert(std::is_same_v<decltype(&Probe::timerEvent), void (QObject::*)(QTimerEvent *)>);
    static_assert(std::is_same_v<decltype(&Probe::childEvent), void (QObject::*)(QChildEvent *)>);
    static_assert(std::is_same_v<decltype(&Probe::customEvent), void (QObject::*)(QEvent *)>);
    static_assert(
        std::is_same_v<decltype(&Probe::connectNotify), void (QObject::*)(const QMetaMethod &)>);
    static_assert(
        std::is_same_v<decltype(&Probe::disconnectNotify), void (QObject::*)(const QMetaMethod &)>);
};

const QByteArray offer = R"({"success":true,"release":{"version":"2"}})";

UpdateInfo offerFrom(const QString &currentVersion)
{
    UpdateInfo update;
    update.updateAvailable = true;
    update.currentVersion = currentVersion;
    update.latestVersion = u"2"_s;
    update.raw = {{u"success"_s, true}, {u"release"_s, QJsonObject{{u"version"_s, u"2"_s}}}};
    return update;
}

} // namespace

// First of all, while nothing else has named the records at run time: construction registers them.
void tst_Corvane::initTestCase()
{
    for (const char *name : {"UpdateInfo", "PurchaseStartInfo", "PurchaseCaptureInfo"})
        QVERIFY(!QMetaType::fromName(name).isValid());
    const Corvane first;
    const Corvane second;
    QCOMPARE(QMetaType::fromName("UpdateInfo"), QMetaType::fromType<UpdateInfo>());
    QCOMPARE(QMetaType::fromName("PurchaseStartInfo"), QMetaType::fromType<PurchaseStartInfo>());
    QCOMPARE(QMetaType::fromName("PurchaseCaptureInfo"),
             QMetaType::fromType<PurchaseCaptureInfo>());
    // Under these names alone, to the letter.
    for (const char *name : {"updateinfo", "purchasestartinfo", "purchasecaptureinfo"})
        QVERIFY(!QMetaType::fromName(name).isValid());
    // In their order.
    QVERIFY(QMetaType::fromName("UpdateInfo").id() < QMetaType::fromName("PurchaseStartInfo").id());
    QVERIFY(QMetaType::fromName("PurchaseStartInfo").id()
            < QMetaType::fromName("PurchaseCaptureInfo").id());
}

void tst_Corvane::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_Corvane::startsUnconfigured()
{
    const Corvane client;
    QCOMPARE(client.serverUrl(), QUrl());
    QVERIFY(!client.serverUrl().isValid());
    QCOMPARE(client.productCode(), QString());
    QVERIFY(!client.parent());
}

void tst_Corvane::readsNoEnvironment()
{
    const char *const names[] = {"CORVANE_SERVER", "CORVANE_SERVER_URL", "CORVANE_PRODUCT",
                                 "CORVANE_PRODUCT_CODE"};
    const auto restore = qScopeGuard([&names] {
        for (const char *name : names)
            qunsetenv(name);
    });
    for (const char *name : names)
        qputenv(name, "http://127.0.0.1/");
    const Corvane client;
    QCOMPARE(client.serverUrl(), QUrl());
    QCOMPARE(client.productCode(), QString());
}

void tst_Corvane::belongsToItsParent()
{
    QObject parent;
    auto *client = new Corvane(&parent);
    QCOMPARE(client->parent(), &parent);
    static_assert(!std::is_convertible_v<QObject *, Corvane>, "no conversion from a parent");
    static_assert(!std::is_copy_constructible_v<Corvane> && !std::is_copy_assignable_v<Corvane>);
}

void tst_Corvane::ownsOneNetworkAccessManager()
{
    const QTemporaryDir dir;
    Host host;
    const auto managers = host.client.findChildren<QNetworkAccessManager *>();
    QCOMPARE(managers.size(), 1);
    QCOMPARE(managers.constFirst()->parent(), &host.client);
    // As it is by default.
    QVERIFY(!managers.constFirst()->isStrictTransportSecurityEnabled());
    QVERIFY(!managers.constFirst()->cache());
    QCOMPARE(managers.constFirst()->proxy(), QNetworkAccessManager().proxy());

    host.client.checkForUpdate(u"1"_s, u"stable"_s);
    host.client.downloadUpdate(host.server.url(), dir.filePath(u"file"_s));
    host.client.fetchPurchasePlans();
    host.client.resumePayPalPurchase(u"K"_s);
    QCOMPARE(managers.constFirst()->findChildren<QNetworkReply *>().size(), 4);
    // Nothing else comes with a call.
    QCOMPARE(host.client.children(), QObjectList{managers.constFirst()});
}

void tst_Corvane::keepsServerUrlUnchanged_data()
{
    QTest::addColumn<QUrl>("url");

    QTest::newRow("plain") << QUrl(u"https://example.org"_s);
    QTest::newRow("whole") << QUrl(u"https://user:pw@example.org:8443/base/?q=1#f"_s);
    QTest::newRow("invalid") << QUrl(u"http://[bad"_s);
    QTest::newRow("relative") << QUrl(u" a/../b "_s);
    QTest::newRow("empty") << QUrl();
}

void tst_Corvane::keepsServerUrlUnchanged()
{
    QFETCH(QUrl, url);

    Corvane client;
    client.setServerUrl(QUrl(u"http://before.example"_s));
    client.setServerUrl(url);
    QCOMPARE(client.serverUrl(), url);
    QCOMPARE(client.serverUrl().errorString(), url.errorString());
}

void tst_Corvane::normalisesProductCode_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("held");

    QTest::newRow("as-it-is") << u"DEMO"_s << u"DEMO"_s;
    QTest::newRow("blanks-and-case") << u"  ab-12x \n"_s << u"AB-12X"_s;
    QTest::newRow("unicode-spaces") << u"\u2003\u00A0ab\t\u3000"_s << u"AB"_s;
    QTest::newRow("inner-blanks-kept") << u" a  b "_s << u"A  B"_s;
    QTest::newRow("full-upper-casing") << u"stra\u00DFe \uFB01"_s << u"STRASSE FI"_s;
    QTest::newRow("outside-the-basic-plane") << u"\U00010428"_s << u"\U00010400"_s;
    QTest::newRow("blanks-only") << u" \t\r\n "_s << QString(u""_s);
    QTest::newRow("empty") << QString() << QString();
}

void tst_Corvane::normalisesProductCode()
{
    QFETCH(QString, code);
    QFETCH(QString, held);

    Corvane client;
    client.setProductCode(u"BEFORE"_s);
    client.setProductCode(code);
    QCOMPARE(client.productCode(), held);
}

void tst_Corvane::settersEmitNothing()
{
    Corvane client;
    SignalLog log(&client);
    QSignalSpy renamed(&client, &QObject::objectNameChanged);
    client.setServerUrl(QUrl(u"http://[bad"_s));
    client.setServerUrl(QUrl(u"http://127.0.0.1"_s));
    client.setProductCode(QString());
    client.setProductCode(u"DEMO"_s);
    QCoreApplication::processEvents();
    QCOMPARE(log.lines(), QStringList());
    QVERIFY(renamed.isEmpty());
}

void tst_Corvane::sentRequestKeepsItsConfiguration()
{
    Host host;
    host.client.checkForUpdate(u"1"_s, u"stable"_s);
    host.client.setServerUrl(QUrl());
    host.client.setProductCode(u"OTHER"_s);
    QVERIFY(host.server.waitForRequests(1));
    QVERIFY(host.server.requests().constFirst().target.startsWith("/api/v1/releases/latest/DEMO?"));
    host.server.reply(0, LoopbackServer::response(200, offer));
    QCOMPARE(host.log.settled(), QStringList{SignalLog::updateChecked(offerFrom(u"1"_s))});
}

// As every manager does by default.
void tst_Corvane::sendsCookiesBack()
{
    Host host;
    host.server.script("HTTP/1.1 200 OK\r\nSet-Cookie: session=1\r\nContent-Length: 0\r\n\r\n");
    host.server.script(LoopbackServer::response(200, "{}"));
    host.client.fetchPurchasePlans();
    host.log.settled();
    host.client.resumePayPalPurchase(u"K"_s);
    host.log.settled();
    QCOMPARE(host.server.requests().constFirst().header("Cookie"), QByteArray());
    QCOMPARE(host.server.requests().constLast().header("Cookie"), "session=1");
}

void tst_Corvane::twoClientsShareNothing()
{
    Host first;
    Host second;
    second.client.setProductCode(u"SECOND"_s);
    QCOMPARE(first.client.productCode(), u"DEMO"_s);
    QVERIFY(first.client.serverUrl() != second.client.serverUrl());

    first.client.checkForUpdate(u"1"_s, u"stable"_s);
    second.client.checkForUpdate(u"2"_s, u"stable"_s);
    QVERIFY(first.server.waitForRequests(1));
    QVERIFY(second.server.waitForRequests(1));
    first.server.reply(0, LoopbackServer::response(200, offer));
    QCOMPARE(first.log.settled(), QStringList{SignalLog::updateChecked(offerFrom(u"1"_s))});
    QCOMPARE(second.log.lines(), QStringList());
}

void tst_Corvane::printsNothing()
{
    QTemporaryDir dir;
    const QString destination = dir.filePath(u"file"_s);
    QFile printed(dir.filePath(u"printed"_s));
    QVERIFY(printed.open(QIODevice::WriteOnly));
    std::fflush(nullptr);
    const int out = dup(STDOUT_FILENO);
    const int err = dup(STDERR_FILENO);
    QVERIFY(dup2(printed.handle(), STDOUT_FILENO) >= 0);
    QVERIFY(dup2(printed.handle(), STDERR_FILENO) >= 0);
    qsizetype lines = 0;
    for (const int status : {200, 500}) {
        Host host;
        for (const Operation &operation : operations(host.server.url(), destination)) {
            host.server.script(LoopbackServer::response(status, "not JSON"));
            operation.call(host.client);
            host.log.settled();
        }
        host.client.downloadUpdate({}, {});
        lines += host.log.lines().size();
    }
    std::fflush(nullptr);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    close(out);
    close(err);
    QCOMPARE(lines, 16);
    QCOMPARE(Files::contentOf(printed.fileName()), "");
}

void tst_Corvane::metaObjectHoldsTheSevenSignalsAlone()
{
    const QMetaObject &meta = Corvane::staticMetaObject;
    QCOMPARE(meta.className(), "Corvane");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(Corvane().metaObject(), &meta);

    QByteArrayList methods;
    for (int index = meta.methodOffset(); index < meta.methodCount(); ++index) {
        const QMetaMethod method = meta.method(index);
        QCOMPARE(method.methodType(), QMetaMethod::Signal);
        QCOMPARE(method.access(), QMetaMethod::Public);
        QCOMPARE(method.returnMetaType(), QMetaType::fromType<void>());
        methods.append(method.methodSignature() + ' ' + method.parameterNames().join(','));
    }
    const QByteArrayList expected{
        "usageSent(bool,QString) accepted,message",
        "updateChecked(UpdateInfo) update",
        "updateDownloaded(QString) destinationPath",
        "purchasePlansReceived(QJsonArray) plans",
        "purchaseStarted(PurchaseStartInfo) purchase",
        "purchaseCaptured(PurchaseCaptureInfo) capture",
        "networkError(QString) message",
    };
    QCOMPARE(methods, expected);
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.classInfoCount(), meta.classInfoOffset());
    QCOMPARE(meta.constructorCount(), 0);

    const int offset = meta.methodOffset();
    QCOMPARE(QMetaMethod::fromSignal(&Corvane::usageSent).methodIndex(), offset);
    QCOMPARE(QMetaMethod::fromSignal(&Corvane::updateChecked).methodIndex(), offset + 1);
    QCOMPARE(QMetaMethod::fromSignal(&Corvane::updateDownloaded).methodIndex(), offset + 2);
    QCOMPARE(QMetaMethod::fromSignal(&Corvane::purchasePlansReceived).methodIndex(), offset + 3);
    QCOMPARE(QMetaMethod::fromSignal(&Corvane::purchaseStarted).methodIndex(), offset + 4);
    QCOMPARE(QMetaMethod::fromSignal(&Corvane::purchaseCaptured).methodIndex(), offset + 5);
    QCOMPARE(QMetaMethod::fromSignal(&Corvane::networkError).methodIndex(), offset + 6);
}

void tst_Corvane::metaCallEmitsTheSignalOfItsIndex_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QVariantList>("arguments");
    QTest::addColumn<QString>("line");

    PurchaseStartInfo purchase;
    purchase.paymentId = 7;
    PurchaseCaptureInfo capture;
    capture.licenseId = 8;
    const QJsonArray plans{1, 2};
    const UpdateInfo update = offerFrom(u"1"_s);
    QTest::newRow("usageSent") << 0 << QVariantList{true, u"m"_s}
                               << SignalLog::usageSent(true, u"m"_s);
    QTest::newRow("updateChecked")
        << 1 << QVariantList{QVariant::fromValue(update)} << SignalLog::updateChecked(update);
    QTest::newRow("updateDownloaded")
        << 2 << QVariantList{u"p"_s} << SignalLog::updateDownloaded(u"p"_s);
    QTest::newRow("purchasePlansReceived")
        << 3 << QVariantList{QVariant(plans)} << SignalLog::purchasePlansReceived(plans);
    QTest::newRow("purchaseStarted")
        << 4 << QVariantList{QVariant::fromValue(purchase)} << SignalLog::purchaseStarted(purchase);
    QTest::newRow("purchaseCaptured")
        << 5 << QVariantList{QVariant::fromValue(capture)} << SignalLog::purchaseCaptured(capture);
    QTest::newRow("networkError") << 6 << QVariantList{u"e"_s} << SignalLog::networkError(u"e"_s);
}

void tst_Corvane::metaCallEmitsTheSignalOfItsIndex()
{
    QFETCH(int, index);
    QFETCH(QVariantList, arguments);
    QFETCH(QString, line);

    Corvane client;
    SignalLog log(&client);
    QList<void *> pointers{nullptr};
    for (QVariant &argument : arguments)
        pointers.append(argument.data());
    QMetaObject::metacall(&client, QMetaObject::InvokeMetaMethod,
                          Corvane::staticMetaObject.methodOffset() + index, pointers.data());
    QCOMPARE(log.lines(), QStringList{line});
}

void tst_Corvane::registersArgumentTypesOfTheRecords()
{
    const auto registered = [](int index, int argument) {
        Corvane client;
        QMetaType type;
        void *arguments[] = {&type, &argument};
        QMetaObject::metacall(&client, QMetaObject::RegisterMethodArgumentMetaType,
                              Corvane::staticMetaObject.methodOffset() + index, arguments);
        return type;
    };
    QCOMPARE(registered(0, 0), QMetaType());
    QCOMPARE(registered(0, 1), QMetaType());
    QCOMPARE(registered(1, 0), QMetaType::fromType<UpdateInfo>());
    QCOMPARE(registered(2, 0), QMetaType());
    QCOMPARE(registered(3, 0), QMetaType());
    QCOMPARE(registered(4, 0), QMetaType::fromType<PurchaseStartInfo>());
    QCOMPARE(registered(5, 0), QMetaType::fromType<PurchaseCaptureInfo>());
    QCOMPARE(registered(6, 0), QMetaType());
}

void tst_Corvane::castsToItsOwnName()
{
    Corvane client;
    QCOMPARE(client.qt_metacast("Corvane"), static_cast<void *>(&client));
    QCOMPARE(client.qt_metacast("QObject"), static_cast<void *>(static_cast<QObject *>(&client)));
    QCOMPARE(client.qt_metacast("corvane"), nullptr);
    QCOMPARE(client.qt_metacast(nullptr), nullptr);
}

void tst_Corvane::recordsStartAtTheirDefaults()
{
    // These would not compile if a field had no default.
    [[maybe_unused]] const UpdateInfo update;
    [[maybe_unused]] const PurchaseStartInfo purchase;
    [[maybe_unused]] const PurchaseCaptureInfo capture;
    QCOMPARE(SignalLog::updateChecked({}), uR"(updateChecked [false,"","","","","","","",{}])"_s);
    QCOMPARE(SignalLog::purchaseStarted({}), uR"(purchaseStarted [false,0,0,"","","","",{}])"_s);
    QCOMPARE(SignalLog::purchaseCaptured({}), uR"(purchaseCaptured [false,0,"",{}])"_s);
}

void tst_Corvane::recordsKeepTheirFieldOrder()
{
    const UpdateInfo update{true, u"a"_s, u"b"_s, u"c"_s, u"d"_s, u"e"_s, u"f"_s, u"g"_s, {}};
    QCOMPARE(update.productCode + update.currentVersion + update.latestVersion + update.downloadUrl
                 + update.stableDownloadUrl + update.sha256 + update.notes,
             u"abcdefg"_s);
    const PurchaseStartInfo purchase{true, 1, 2, u"a"_s, u"b"_s, u"c"_s, u"d"_s, {}};
    QCOMPARE(purchase.paymentId, 1);
    QCOMPARE(purchase.licenseId, 2);
    QCOMPARE(purchase.licenseKey + purchase.paypalOrderId + purchase.approvalUrl + purchase.message,
             u"abcd"_s);
    const PurchaseCaptureInfo capture{true, 1, u"a"_s, {}};
    QCOMPARE(capture.licenseId, 1);
    QCOMPARE(capture.message, u"a"_s);
    static_assert(std::is_same_v<decltype(PurchaseStartInfo::paymentId), int>);
    static_assert(std::is_same_v<decltype(PurchaseStartInfo::licenseId), int>);
    static_assert(std::is_same_v<decltype(PurchaseCaptureInfo::licenseId), int>);

    // As many fields as these names, and no more.
    const auto &[u1, u2, u3, u4, u5, u6, u7, u8, updateRaw] = update;
    const auto &[s1, s2, s3, s4, s5, s6, s7, purchaseRaw] = purchase;
    const auto &[c1, c2, c3, captureRaw] = capture;
    QCOMPARE(&updateRaw, &update.raw);
    QCOMPARE(&purchaseRaw, &purchase.raw);
    QCOMPARE(&captureRaw, &capture.raw);
}

void tst_Corvane::recordsHaveNoOperatorsOfTheirOwn()
{
    for (const QMetaType type :
         {QMetaType::fromType<UpdateInfo>(), QMetaType::fromType<PurchaseStartInfo>(),
          QMetaType::fromType<PurchaseCaptureInfo>()})
    {
        QVERIFY(!type.isEqualityComparable());
        QVERIFY(!type.isOrdered());
        QVERIFY(!type.hasRegisteredDataStreamOperators());
        QVERIFY(!type.hasRegisteredDebugStreamOperator());
    }
}

void tst_Corvane::internalMembersArePrivate()
{
    QVERIFY(Heir::CanName_serverUrl<Heir>()); // that the question can be answered with yes
    QVERIFY(!Heir::CanNameOperation<Heir>());
    QVERIFY(!Heir::CanName_postJson<Heir>());
    QVERIFY(!Heir::CanName_handleReply<Heir>());
    QVERIFY(!Heir::CanName_parseUpdate<Heir>());
    QVERIFY(!Heir::CanName_parsePurchaseStart<Heir>());
    QVERIFY(!Heir::CanName_parsePurchaseCapture<Heir>());
    QVERIFY(!Heir::CanName_m_network<Heir>());
    QVERIFY(!Heir::CanName_m_serverUrl<Heir>());
    QVERIFY(!Heir::CanName_m_productCode<Heir>());
    QVERIFY(!Heir::CanName_m_currentVersion<Heir>());
    QVERIFY(!Heir::CanName_m_downloadPath<Heir>());
}

void tst_Corvane::parentDestructionDropsRequestsInFlight()
{
    LoopbackServer server;
    auto parent = std::make_unique<QObject>();
    auto *client = new Corvane(parent.get());
    client->setServerUrl(server.url());
    client->setProductCode(u"DEMO"_s);
    int emitted = 0;
    connect(client, &Corvane::networkError, this, [&emitted] { ++emitted; });
    connect(client, &Corvane::updateChecked, this, [&emitted] { ++emitted; });
    client->checkForUpdate(u"1"_s, u"stable"_s);
    QVERIFY(server.waitForRequests(1));
    QPointer<QNetworkReply> reply = client->findChild<QNetworkReply *>();
    parent.reset();
    QVERIFY(!reply);
    QCOMPARE(emitted, 0);
}

void tst_Corvane::slotMayDeleteTheClientLater()
{
    LoopbackServer server;
    auto *client = new Corvane;
    client->setServerUrl(server.url());
    client->setProductCode(u"DEMO"_s);
    int emitted = 0;
    QSignalSpy destroyed(client, &QObject::destroyed);
    connect(client, &Corvane::updateChecked, this, [&emitted, client] {
        ++emitted;
        client->deleteLater();
    });
    server.script(LoopbackServer::response(200, offer));
    client->checkForUpdate(u"1"_s, u"stable"_s);
    QVERIFY(destroyed.wait());
    QCOMPARE(emitted, 1);
}

void tst_Corvane::slotMayCallAgain()
{
    Host host;
    connect(&host.client, &Corvane::updateChecked, &host.client, [&host](const UpdateInfo &update) {
        if (update.currentVersion == "1"_L1)
            host.client.checkForUpdate(u"2"_s, u"stable"_s);
    });
    host.server.script(LoopbackServer::response(200, offer));
    host.server.script(LoopbackServer::response(200, "{}"));
    host.client.checkForUpdate(u"1"_s, u"stable"_s);

    UpdateInfo second;
    second.currentVersion = u"2"_s;
    QCOMPARE(host.log.settled(),
             (QStringList{SignalLog::updateChecked(offerFrom(u"1"_s)),
                          SignalLog::updateChecked(second)}));
}

void tst_Corvane::answersOnTheThreadItLivesOn()
{
    LoopbackServer server;
    QThread thread;
    auto *client = new Corvane;
    client->setServerUrl(server.url());
    client->setProductCode(u"DEMO"_s);
    client->moveToThread(&thread);
    connect(&thread, &QThread::finished, client, &QObject::deleteLater);
    connect(&thread, &QThread::finished, &QTestEventLoop::instance(), &QTestEventLoop::exitLoop);
    std::atomic<QThread *> emittedOn = nullptr;
    const auto record = [&] {
        emittedOn = QThread::currentThread();
        thread.quit();
    };
    connect(client, &Corvane::updateChecked, client, record, Qt::DirectConnection);
    server.script(LoopbackServer::response(200, offer));
    QMetaObject::invokeMethod(client, [client] { client->checkForUpdate(u"1"_s, u"stable"_s); });
    // Only now: starting the thread orders what was posted before what is received, in a way that
    // ThreadSanitizer sees; Qt's own order, in libraries that are not instrumented, it does not.
    thread.start();
    QTestEventLoop::instance().enterLoop(10);
    thread.quit();
    QVERIFY(thread.wait(10000));
    QCOMPARE(emittedOn.load(), &thread);
}

void tst_Corvane::deliversRecordsToAnotherThread()
{
    QThread thread;
    QObject receiver;
    receiver.moveToThread(&thread);

    UpdateInfo update = offerFrom(u"1"_s);
    PurchaseStartInfo purchase;
    purchase.licenseKey = u"K"_s;
    purchase.raw = {{u"a"_s, 1}};
    PurchaseCaptureInfo capture;
    capture.message = u"m"_s;
    capture.raw = {{u"b"_s, 2}};
    const QStringList expected{u"on the other thread"_s, SignalLog::updateChecked(update),
                               SignalLog::purchaseStarted(purchase),
                               SignalLog::purchaseCaptured(capture)};

    std::mutex mutex; // for ThreadSanitizer, again

    QStringList lines;
    const auto add = [&](const QString &line) {
        const std::lock_guard lock(mutex);
        lines += line;
    };
    Corvane client;
    connect(&client, &Corvane::updateChecked, &receiver, [&](const UpdateInfo &value) {
        add(QThread::currentThread() == &thread ? u"on the other thread"_s : u"elsewhere"_s);
        add(SignalLog::updateChecked(value));
    });
    connect(&client, &Corvane::purchaseStarted, &receiver,
            [&](const PurchaseStartInfo &value) { add(SignalLog::purchaseStarted(value)); });
    connect(&client, &Corvane::purchaseCaptured, &receiver, [&](const PurchaseCaptureInfo &value) {
        add(SignalLog::purchaseCaptured(value));
        thread.quit();
    });
    Q_EMIT client.updateChecked(update);
    Q_EMIT client.purchaseStarted(purchase);
    Q_EMIT client.purchaseCaptured(capture);
    // The signals took copies along.
    update.notes = u"changed"_s;
    purchase.raw = {};
    capture.message.clear();
    const auto end = qScopeGuard([&thread] {
        thread.quit();
        thread.wait(10000);
    });
    thread.start();
    QVERIFY(thread.wait(10000));
    const std::lock_guard lock(mutex);
    QCOMPARE(lines, expected);
}

QTEST_GUILESS_MAIN(tst_Corvane)
#include "tst_corvane.moc"
