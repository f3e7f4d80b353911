#include "loopbackserver.h"

#include <QtNetwork/qhostaddress.h>
#include <QtNetwork/qtcpsocket.h>
#include <QtTest/qsignalspy.h>

#include <sys/socket.h>

using namespace Qt::StringLiterals;

namespace {

// Closing a socket that does not linger resets the connection.
void reset(QTcpSocket *socket)
{
    if (socket->state() == QTcpSocket::UnconnectedState)
        return;
    const linger none{1, 0};
    const auto descriptor = static_cast<int>(socket->socketDescriptor());
    if (setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &none, sizeof none) != 0)
        qFatal("The connection cannot be reset");
    socket->abort();
}

} // namespace

QByteArray LoopbackServer::Request::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

LoopbackServer::LoopbackServer(QObject *parent)
    : QObject(parent)
{
    connect(&m_server, &QTcpServer::newConnection, this, &LoopbackServer::accept);
    if (!m_server.listen(QHostAddress::LocalHost))
        qFatal("No free port on the loopback interface");
}

QUrl LoopbackServer::url(const QString &path) const
{
    QUrl url(u"http://127.0.0.1"_s);
    url.setPort(m_server.serverPort());
    url.setPath(path);
    return url;
}

QByteArray LoopbackServer::response(int status, const QByteArray &body,
                                    const QByteArray &contentType)
{
    return "HTTP/1.1 " + QByteArray::number(status) + " Scripted\r\nContent-Type: " + contentType
        + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

void LoopbackServer::script(const QByteArray &bytes, After after)
{
    m_script.append({bytes, after});
}

void LoopbackServer::always(const QByteArray &bytes, After after, const QByteArray &target)
{
    m_always.insert(target, {bytes, after});
}

void LoopbackServer::greet(const QByteArray &bytes, After after)
{
    m_greeting = {bytes, after};
}

void LoopbackServer::sendBytewise()
{
    m_bytewise = true;
}

void LoopbackServer::die()
{
    m_server.close();
    const QList<QTcpSocket *> sockets = m_unread.keys(); // those that are reset leave
    for (QTcpSocket *socket : sockets)
        reset(socket);
}

void LoopbackServer::reply(qsizetype request, const QByteArray &bytes, After after)
{
    if (QTcpSocket *socket = m_connections.at(request))
        send(socket, {bytes, after});
}

bool LoopbackServer::waitForRequests(qsizetype count, int milliseconds)
{
    QSignalSpy received(this, &LoopbackServer::requestReceived);
    while (m_requests.size() < count) {
        if (!received.wait(milliseconds))
            return false;
    }
    return true;
}

void LoopbackServer::accept()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        ++m_connectionCount;
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_unread.remove(socket);
            socket->deleteLater();
        });
        read(socket);
        if (m_greeting)
            send(socket, *m_greeting);
    }
}

void LoopbackServer::read(QTcpSocket *socket)
{
    m_unread[socket] += socket->readAll();
    while (takeRequest(socket)) {
    }
}

// Takes one whole request from what has been read; false if there is none yet.
bool LoopbackServer::takeRequest(QTcpSocket *socket)
{
    if (!m_unread.contains(socket)) // closed by the answer to the request before
        return false;
    QByteArray &unread = m_unread[socket];
    const qsizetype headEnd = unread.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return false;

    Request request;
    QList<QByteArray> lines = unread.left(headEnd).split('\n');
    const QList<QByteArray> words = lines.takeFirst().trimmed().split(' ');
    request.method = words.value(0);
    request.target = words.value(1);
    request.version = words.value(2);
    for (const QByteArray &line : std::as_const(lines)) {
        const qsizetype colon = line.indexOf(':');
        request.headers.append({line.left(colon), line.mid(colon + 1).trimmed()});
    }

    const qsizetype bodyStart = headEnd + 4;
    const qsizetype bodySize = request.header("Content-Length").toLongLong();
    if (unread.size() < bodyStart + bodySize)
        return false;
    request.body = unread.mid(bodyStart, bodySize);
    unread.remove(0, bodyStart + bodySize);

    m_requests.append(request);
    m_connections.append(socket);
    answer(socket, request.target);
    Q_EMIT requestReceived();
    return true;
}

void LoopbackServer::answer(QTcpSocket *socket, const QByteArray &target)
{
    if (!m_script.isEmpty())
        send(socket, m_script.takeFirst());
    else if (m_always.contains(target))
        send(socket, m_always.value(target));
    else if (m_always.contains({}))
        send(socket, m_always.value({}));
}

void LoopbackServer::send(QTcpSocket *socket, const Answer &answer)
{
    if (!socket->isOpen()) // the client has gone
        return;

    if (m_bytewise && answer.bytes.size() > 1) {
        socket->setSocketOption(QTcpSocket::LowDelayOption, 1);
        socket->write(answer.bytes.first(1));
        const Answer rest{answer.bytes.sliced(1), answer.after};
        connect(
            socket, &QTcpSocket::bytesWritten, this, [this, socket, rest] { send(socket, rest); },
            Qt::SingleShotConnection);
        return;
    }

    socket->write(answer.bytes);
    if (answer.after == Close)
        socket->disconnectFromHost();
    if (answer.after != Reset)
        return;
    socket->flush();
    reset(socket);
}
