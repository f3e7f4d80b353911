#ifndef RAWCLIENT_H
#define RAWCLIENT_H

#include <QtCore/qbytearray.h>
#include <QtNetwork/qhostaddress.h>
#include <QtNetwork/qtcpsocket.h>

// Speaks HTTP to a port of 127.0.0.1 byte by byte, as no client library would.
class RawClient
{
public:
    explicit RawClient(quint16 port, const QHostAddress &host = QHostAddress::LocalHost);

    void send(const QByteArray &bytes);
    // The next reply, as far as its Content-Length goes. What has come of it if the connection ends
    // or nothing comes for ten seconds.
    QByteArray reply();
    // All that comes until the server closes; null if it does not in ten seconds.
    QByteArray untilClosed();
    // Waits until so many bytes have come that were not returned yet.
    bool waitFor(qsizetype size);
    // Waits until the server has closed or reset the connection.
    bool waitForEnd();
    bool wasReset() const { return m_socket.error() == QAbstractSocket::RemoteHostClosedError; }

private:
    bool receive();

    QTcpSocket m_socket;
    QByteArray m_received;
};

#endif // RAWCLIENT_H
