#include "host.h"
#include "operations.h"

#include <QtCore/qregularexpression.h>
#include <QtCore/qscopeguard.h>
#include <QtCore/qtemporarydir.h>
#include <QtNetwork/qnetworkproxy.h>
#include <QtTest/qtest.h>

using namespace Qt::StringLiterals;

// What a host sets for its process reaches every call, as docs/network.md says. Real proxies and
// real TLS are tst_transport's.
class tst_Network : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void proxyIsAskedForNames();
    void proxyHoldsFromTheNextCallOn();
    void factoryChoosesByAddress();
    void systemsProxyIsUsedOnRequest();
    void machineItselfIsReachedWithoutProxy();
    void redirectsAreNotRemembered();
};

namespace {

// Which only a proxy can find.
const QUrl nowhere(u"http://service.invalid/"_s);

class ByHost : public QNetworkProxyFactory
{
public:
    ByHost(const QString &host, const QNetworkProxy &proxy)
        : m_host(host)
        , m_proxy(proxy)
    {
    }
    Q_DISABLE_COPY_MOVE(ByHost)

    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery &query) override
    {
        return {query.peerHostName() == m_host ? m_proxy : QNetworkProxy::NoProxy};
    }

private:
    QString m_host;
    QNetworkProxy m_proxy;
};

QNetworkProxy through(const LoopbackServer &server)
{
    return {QNetworkProxy::HttpProxy, server.url().host(),
            static_cast<quint16>(server.url().port())};
}

} // namespace

void tst_Network::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_Network::cleanup()
{
    QNetworkProxyFactory::setApplicationProxyFactory(nullptr);
    QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
}

void tst_Network::proxyIsAskedForNames()
{
    const QTemporaryDir dir;
    Host host;
    QNetworkProxy::setApplicationProxy(through(host.server));
    host.client.setServerUrl(nowhere);
    host.server.always(LoopbackServer::response(200, "{}"));
    const QList<Operation> all = operations(nowhere, dir.filePath(u"file"_s));
    for (const Operation &operation : all) {
        operation.call(host.client);
        host.log.settled();
        const LoopbackServer::Request &request = host.server.requests().constLast();
        QVERIFY2(request.target.startsWith("http://service.invalid/"), request.target.constData());
    }
    QCOMPARE(host.server.requests().size(), all.size());
    QVERIFY(!host.log.lines().join(u'\n').contains("networkError"_L1));
}

void tst_Network::proxyHoldsFromTheNextCallOn()
{
    Host host;
    LoopbackServer other;
    host.client.setServerUrl(nowhere);
    for (LoopbackServer *server : {&host.server, &other}) {
        server->always(LoopbackServer::response(200, "{}"));
        QNetworkProxy::setApplicationProxy(through(*server));
        host.client.fetchPurchasePlans();
        host.log.settled();
        QCOMPARE(server->requests().size(), 1);
    }
    QCOMPARE(host.log.lines(), QStringList(2, SignalLog::purchasePlansReceived({})));
}

void tst_Network::factoryChoosesByAddress()
{
    const QTemporaryDir dir;
    const QString file = dir.filePath(u"file"_s);
    Host host;
    LoopbackServer asked;
    // It belongs to the process from now on.
    QNetworkProxyFactory::setApplicationProxyFactory(new ByHost(nowhere.host(), through(asked)));
    asked.always(LoopbackServer::response(200, "{}"));
    host.server.always(LoopbackServer::response(200, "{}"));
    host.client.downloadUpdate(nowhere, file);
    host.log.settled();
    QCOMPARE(asked.requests().size(), 1);
    QCOMPARE(host.server.requests().size(), 0);
    host.client.downloadUpdate(host.server.url(), file);
    QCOMPARE(host.log.settled(), QStringList(2, SignalLog::updateDownloaded(file)));
    QCOMPARE(asked.requests().size(), 1);
    QCOMPARE(host.server.requests().size(), 1);
}

// The system's settings are the environment's here.
void tst_Network::systemsProxyIsUsedOnRequest()
{
    Host host;
    const QByteArray before = qgetenv("http_proxy");
    const auto restore = qScopeGuard([before] {
        QNetworkProxyFactory::setUseSystemConfiguration(false);
        if (before.isNull())
            qunsetenv("http_proxy");
        else
            qputenv("http_proxy", before);
    });
    qputenv("http_proxy", host.server.url().toEncoded());
    QNetworkProxyFactory::setUseSystemConfiguration(true);
    host.client.setServerUrl(nowhere);
    host.server.always(LoopbackServer::response(200, "{}"));
    host.client.fetchPurchasePlans();
    QCOMPARE(host.log.settled(), QStringList{SignalLog::purchasePlansReceived({})});
    QVERIFY(host.server.requests().constFirst().target.startsWith("http://service.invalid/"));
}

void tst_Network::machineItselfIsReachedWithoutProxy()
{
    Host host;
    LoopbackServer proxy;
    QNetworkProxy::setApplicationProxy(through(proxy));
    host.server.always(LoopbackServer::response(200, "{}"));
    QUrl url = host.server.url();
    for (const QString &name : {u"127.0.0.1"_s, u"localhost"_s}) {
        url.setHost(name);
        host.client.setServerUrl(url);
        host.client.fetchPurchasePlans();
        host.log.settled();
    }
    QCOMPARE(host.log.lines(), QStringList(2, SignalLog::purchasePlansReceived({})));
    QCOMPARE(host.server.requests().size(), 2);
    QCOMPARE(proxy.connectionCount(), 0);
}

void tst_Network::redirectsAreNotRemembered()
{
    Host host;
    LoopbackServer other;
    // Closing: a connection that is kept may see the request twice.
    host.server.always("HTTP/1.1 308 Moved\r\nContent-Length: 0\r\nLocation: "
                           + other.url().toEncoded() + "\r\n\r\n",
                       LoopbackServer::Close);
    other.always(LoopbackServer::response(200, "{}"));
    for (int count = 1; count <= 2; ++count) {
        host.client.fetchPurchasePlans();
        host.log.settled();
        QCOMPARE(host.server.requests().size(), count);
        QCOMPARE(other.requests().size(), count);
    }
    QCOMPARE(host.log.lines(), QStringList(2, SignalLog::purchasePlansReceived({})));
}

QTEST_GUILESS_MAIN(tst_Network)
#include "tst_network.moc"
