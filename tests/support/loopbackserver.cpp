#include "loopbackserver.h"

#include <QtNetwork/qhostaddress.h>
#include <QtNetwork/qtcpsocket.h>
#include <QtTest/qsignalspy.h>

using namespace Qt::StringLiterals;

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
    if (!m_script.isEmpty())
        send(socket, m_script.takeFirst());
    Q_EMIT requestReceived();
    return true;
}

void LoopbackServer::send(QTcpSocket *socket, const Answer &answer)
{
    socket->write(answer.bytes);
    if (answer.after == Close)
        socket->disconnectFromHost();
}
