#include "rawclient.h"

#include <QtCore/qregularexpression.h>
#include <QtNetwork/qnetworkproxy.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 10000;

// Of the first reply in the bytes, which has a whole head; its length as announced.
qsizetype endOfReply(const QByteArray &bytes, qsizetype head)
{
    static const QRegularExpression length(u"\\r\\nContent-Length: (\\d+)\\r\\n"_s);
    const QRegularExpressionMatch match = length.match(QString::fromLatin1(bytes.first(head)));
    return head + (match.hasMatch() ? match.captured(1).toLongLong() : 0);
}

} // namespace

RawClient::RawClient(quint16 port, const QHostAddress &host)
{
    m_socket.setProxy(QNetworkProxy::NoProxy);
    m_socket.connectToHost(host, port);
    if (!m_socket.waitForConnected(timeout))
        qFatal("The server does not accept connections");
}

void RawClient::send(const QByteArray &bytes)
{
    m_socket.write(bytes);
    m_socket.flush();
}

QByteArray RawClient::reply()
{
    qsizetype end = -1;
    while (end < 0 || m_received.size() < end) {
        const qsizetype head = m_received.indexOf("\r\n\r\n");
        if (end < 0 && head >= 0)
            end = endOfReply(m_received, head + 4);
        else if (!receive())
            break;
    }
    QByteArray reply = m_received.first(end < 0 ? m_received.size() : end);
    m_received.remove(0, reply.size());
    return reply;
}

QByteArray RawClient::untilClosed()
{
    while (receive()) {
    }
    return m_socket.state() == QAbstractSocket::UnconnectedState
        ? std::exchange(m_received, QByteArray(""))
        : QByteArray();
}

bool RawClient::waitFor(qsizetype size)
{
    while (m_received.size() < size) {
        if (!receive())
            return false;
    }
    return true;
}

bool RawClient::waitForEnd()
{
    while (receive()) {
    }
    return m_socket.state() == QAbstractSocket::UnconnectedState;
}

bool RawClient::receive()
{
    const bool more = m_socket.bytesAvailable() > 0 || m_socket.waitForReadyRead(timeout);
    m_received += m_socket.readAll();
    return more;
}
