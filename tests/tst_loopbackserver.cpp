#include "loopbackserver.h"
#include "plainnetwork.h"

#include <QtCore/qregularexpression.h>
#include <QtNetwork/qtcpsocket.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <poll.h>

using namespace Qt::StringLiterals;

// The server that all other tests trust.
class tst_LoopbackServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void recordsRequestExactly();
    void recordsRequestThatArrivesInPieces();
    void recordsPipelinedRequestsOneByOne();
    void answersByteForByteInScriptOrder();
    void holdsRequestUntilReplied();
    void answersWhatNoScriptIsForAlwaysTheSame();
    void greetsBeforeARequest();
    void resetsAfterSending();
    void sendsBytewise();
    void refusesAndResetsOnceDead();
    void forgetsAClientThatHasGone();
    void saysWhenRequestsDoNotCome();
    void ownPartLeavesOutWhatAPlainRequestHas();
    void ownPartNamesWhatOnlyAPlainRequestHas();
    void outcomeIsWhatAPlainRequestGets();
    void outcomeHasTheWholeBody();

private:
    static void connectTo(QTcpSocket &socket, const LoopbackServer &server);
    static QByteArray readUntilClosed(QTcpSocket &socket);
};

void tst_LoopbackServer::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_LoopbackServer::connectTo(QTcpSocket &socket, const LoopbackServer &server)
{
    QSignalSpy connected(&socket, &QTcpSocket::connected);
    socket.connectToHost(server.url().host(), static_cast<quint16>(server.url().port()));
    QVERIFY(connected.wait());
}

QByteArray tst_LoopbackServer::readUntilClosed(QTcpSocket &socket)
{
    QSignalSpy closed(&socket, &QTcpSocket::disconnected);
    if (socket.state() != QAbstractSocket::UnconnectedState && !closed.wait())
        return "(not closed)";
    return socket.readAll();
}

void tst_LoopbackServer::recordsRequestExactly()
{
    LoopbackServer server;
    QTcpSocket socket;
    connectTo(socket, server);
    socket.write("POST /a%20b?c=d HTTP/1.1\r\nhOsT: x\r\nContent-Length: 5\r\nX-Y:  z:z \r\n\r\n"
                 "\r\n\r\n!");
    QVERIFY(server.waitForRequests(1));

    const LoopbackServer::Request request = server.requests().constFirst();
    QCOMPARE(request.method, "POST");
    QCOMPARE(request.target, "/a%20b?c=d");
    QCOMPARE(request.version, "HTTP/1.1");
    const QList<QPair<QByteArray, QByteArray>> headers{
        {"hOsT", "x"}, {"Content-Length", "5"}, {"X-Y", "z:z"}};
    QCOMPARE(request.headers, headers);
    QCOMPARE(request.header("HOST"), "x");
    QVERIFY(request.header("Cookie").isNull());
    QCOMPARE(request.body, "\r\n\r\n!");
}

void tst_LoopbackServer::recordsRequestThatArrivesInPieces()
{
    LoopbackServer server;
    QTcpSocket socket;
    connectTo(socket, server);
    const QByteArray head = "POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nab";
    for (const char byte : head) {
        socket.write(&byte, 1);
        socket.flush();
    }
    QVERIFY(server.requests().isEmpty());
    socket.write("c");
    QVERIFY(server.waitForRequests(1));
    QCOMPARE(server.requests().constFirst().body, "abc");
}

void tst_LoopbackServer::recordsPipelinedRequestsOneByOne()
{
    LoopbackServer server;
    QTcpSocket socket;
    connectTo(socket, server);
    socket.write("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
    QVERIFY(server.waitForRequests(2));
    QCOMPARE(server.requests().at(0).target, "/1");
    QCOMPARE(server.requests().at(1).target, "/2");
    QCOMPARE(server.connectionCount(), 1);
}

void tst_LoopbackServer::answersByteForByteInScriptOrder()
{
    LoopbackServer server;
    server.script("one\r\n");
    server.script(QByteArray("tw\0o", 4), LoopbackServer::Close);
    QTcpSocket socket;
    connectTo(socket, server);
    socket.write("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
    QCOMPARE(readUntilClosed(socket), QByteArray("one\r\ntw\0o", 9));
    QCOMPARE(LoopbackServer::response(404, "{}", "text/html"),
             "HTTP/1.1 404 Scripted\r\nContent-Type: text/html\r\nContent-Length: 2\r\n\r\n{}");
}

void tst_LoopbackServer::holdsRequestUntilReplied()
{
    LoopbackServer server;
    QTcpSocket first;
    QTcpSocket second;
    connectTo(first, server);
    first.write("GET /1 HTTP/1.1\r\n\r\n");
    QVERIFY(server.waitForRequests(1));
    connectTo(second, server);
    second.write("GET /2 HTTP/1.1\r\n\r\n");
    QVERIFY(server.waitForRequests(2));

    server.reply(1, "to the second", LoopbackServer::Close);
    QCOMPARE(readUntilClosed(second), "to the second");
    QCOMPARE(first.readAll(), "");
    server.reply(0, "to the ");
    server.reply(0, "first", LoopbackServer::Close);
    QCOMPARE(readUntilClosed(first), "to the first");
}

void tst_LoopbackServer::answersWhatNoScriptIsForAlwaysTheSame()
{
    LoopbackServer server;
    server.always("any ");
    server.always("x ", LoopbackServer::Close, "/x?y");
    server.script("scripted ");
    QTcpSocket socket;
    connectTo(socket, server);
    for (const char *target : {"/x?y", "/", "/x", "/x?y"})
        socket.write(QByteArray("GET ") + target + " HTTP/1.1\r\n\r\n");
    QCOMPARE(readUntilClosed(socket), "scripted any any x ");
}

void tst_LoopbackServer::greetsBeforeARequest()
{
    LoopbackServer server;
    server.greet("hello", LoopbackServer::Close);
    for (int i = 0; i < 2; ++i) {
        QTcpSocket socket;
        connectTo(socket, server);
        QCOMPARE(readUntilClosed(socket), "hello");
    }
    QVERIFY(server.requests().isEmpty());
}

// What comes with a reset may be lost; what has been read before it is not.
void tst_LoopbackServer::resetsAfterSending()
{
    LoopbackServer server;
    server.script("part");
    QTcpSocket socket;
    connectTo(socket, server);
    QSignalSpy ready(&socket, &QTcpSocket::readyRead);
    socket.write("GET / HTTP/1.1\r\n\r\n");
    QVERIFY(ready.wait());
    QCOMPARE(socket.readAll(), "part");
    const auto descriptor = static_cast<int>(socket.socketDescriptor());
    pollfd hangUp{descriptor, 0, 0};
    server.reply(0, "", LoopbackServer::Reset);
    // The kernel knows of a reset as an error, of a mere close not.
    QCOMPARE(poll(&hangUp, 1, 10000), 1);
    QVERIFY(hangUp.revents & POLLERR);
}

void tst_LoopbackServer::sendsBytewise()
{
    LoopbackServer server;
    server.sendBytewise();
    server.script("byte by byte", LoopbackServer::Close);
    QTcpSocket socket;
    connectTo(socket, server);
    QSignalSpy ready(&socket, &QTcpSocket::readyRead);
    socket.write("GET / HTTP/1.1\r\n\r\n");
    QCOMPARE(readUntilClosed(socket), "byte by byte");
    QVERIFY(ready.size() > 1);
}

void tst_LoopbackServer::refusesAndResetsOnceDead()
{
    LoopbackServer server;
    QTcpSocket socket;
    connectTo(socket, server);
    socket.write("GET / HTTP/1.1\r\n\r\n");
    QVERIFY(server.waitForRequests(1));
    const QUrl url = server.url();
    server.die();
    QCOMPARE(readUntilClosed(socket), "");
    QTcpSocket late;
    QSignalSpy failed(&late, &QTcpSocket::errorOccurred);
    late.connectToHost(url.host(), static_cast<quint16>(url.port()));
    QVERIFY(failed.wait());
    QCOMPARE(late.error(), QTcpSocket::ConnectionRefusedError);
}

void tst_LoopbackServer::forgetsAClientThatHasGone()
{
    LoopbackServer server;
    server.sendBytewise();
    {
        QTcpSocket socket;
        connectTo(socket, server);
        socket.write("GET / HTTP/1.1\r\n\r\n");
        QVERIFY(server.waitForRequests(1));
        server.reply(0, "a part");
    }
    QTcpSocket next;
    connectTo(next, server);
    next.write("GET / HTTP/1.1\r\n\r\n");
    QVERIFY(server.waitForRequests(2));
    server.reply(0, "nobody hears this");
    server.reply(1, "but this", LoopbackServer::Close);
    QCOMPARE(readUntilClosed(next), "but this");
}

void tst_LoopbackServer::saysWhenRequestsDoNotCome()
{
    LoopbackServer server;
    QVERIFY(!server.waitForRequests(1, 1));
}

void tst_LoopbackServer::ownPartLeavesOutWhatAPlainRequestHas()
{
    LoopbackServer server;
    LoopbackServer::Request request =
        PlainNetwork::ask(server, {"GET", "/a?b", {}, {}, {}}).request;
    QCOMPARE(PlainNetwork::ownPart(server, request), "GET /a?b\n\n");

    request.headers.append(qMakePair(QByteArray("X-Own"), QByteArray("1")));
    QCOMPARE(PlainNetwork::ownPart(server, request), "GET /a?b\nx-own: 1\n\n");
}

void tst_LoopbackServer::ownPartNamesWhatOnlyAPlainRequestHas()
{
    LoopbackServer server;
    LoopbackServer::Request request =
        PlainNetwork::ask(server, {"POST", "/", {}, {}, "body"}).request;
    request.headers.removeIf(
        [](const auto &header) { return header.first.toLower() == "user-agent"; });
    QCOMPARE(PlainNetwork::ownPart(server, request), "POST /\n-user-agent\n\nbody");
}

void tst_LoopbackServer::outcomeIsWhatAPlainRequestGets()
{
    LoopbackServer server;
    server.script(LoopbackServer::response(200, "fine"));
    server.script(LoopbackServer::response(403, "not fine"));
    const PlainNetwork::Outcome fine = PlainNetwork::outcomeOf(server.url());
    QCOMPARE(fine.error, QNetworkReply::NoError);
    QCOMPARE(fine.status, 200);
    QCOMPARE(fine.body, "fine");
    const PlainNetwork::Outcome refused = PlainNetwork::outcomeOf(server.url(), "body");
    QCOMPARE(refused.error, QNetworkReply::ContentAccessDenied);
    QVERIFY(refused.errorString.contains(server.url().toString()));
    QCOMPARE(refused.status, 403);
    QCOMPARE(refused.body, "not fine");
    QCOMPARE(server.requests().constFirst().method, "GET");
    QCOMPARE(server.requests().constLast().method, "POST");
    QCOMPARE(server.requests().constLast().body, "body");
}

void tst_LoopbackServer::outcomeHasTheWholeBody()
{
    QByteArray body;
    for (int i = 0; i < 500'000; ++i)
        body += QByteArray::number(i) + ' ';
    const QByteArray deflated = qCompress(body).sliced(4); // without the size that Qt puts before
    LoopbackServer server;
    server.script(LoopbackServer::response(200, body));
    server.script("HTTP/1.1 404 Scripted\r\nContent-Encoding: deflate\r\nContent-Length: "
                  + QByteArray::number(deflated.size()) + "\r\n\r\n" + deflated);
    QVERIFY(PlainNetwork::outcomeOf(server.url()).body == body);
    QVERIFY(PlainNetwork::outcomeOf(server.url()).body == body);
}

QTEST_GUILESS_MAIN(tst_LoopbackServer)
#include "tst_loopbackserver.moc"
