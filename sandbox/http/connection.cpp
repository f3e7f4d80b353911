#include "http/connection.h"

#include <QtCore/qiodevice.h>
#include <QtCore/qrandom.h>
#include <QtCore/qscopedvaluerollback.h>
#include <QtNetwork/qtcpsocket.h>

#include <algorithm>
#include <utility>

#include <sys/socket.h>

namespace {

// A reader that does not keep up gets no more than this ahead of its reading.
constexpr qint64 enoughUnsent = 256 * 1024;
constexpr qsizetype largestPart = 64 * 1024;
// A client that has been told that the connection closes has so long to take in what was sent.
constexpr std::chrono::seconds farewell(5);
// Of a slow delivery: a part each time.
constexpr int partsEachSecond = 20;
constexpr qsizetype garbageSize = 512;

// The same in every run, and not the beginning of any reply.
QByteArray garbage()
{
    QByteArray bytes(garbageSize, '\0');
    QRandomGenerator random(1);
    std::generate(bytes.begin() + 1, bytes.end(), [&random] { return char(random.bounded(256)); });
    return bytes;
}

bool hasNoBody(int status)
{
    return status == 204 || status == 304;
}

} // namespace

HttpConnection::HttpConnection(QTcpSocket *socket, QObject *parent)
    : QObject(parent)
    , m_socket(socket)
{
    m_socket->setParent(this);
    // A client that sends more than it is answered waits.
    m_socket->setReadBufferSize(largestPart);
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    m_timer.setSingleShot(true);
    // A coarse timer may come too early.
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this,
            [this] { m_state == Sending ? start() : m_socket->abort(); });
    connect(m_socket, &QTcpSocket::readyRead, this, &HttpConnection::read);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &HttpConnection::pump);
    connect(m_socket, &QTcpSocket::disconnected, this, &HttpConnection::leave);
}

void HttpConnection::send(const HttpReply &reply, const Delivery &delivery)
{
    if (m_state != Answering)
        return;
    m_state = Sending;
    m_reply = reply;
    m_delivery = delivery;
    compose();
    if (delivery.delay.count() > 0)
        m_timer.start(delivery.delay);
    else
        start();
}

void HttpConnection::read()
{
    if (m_state == Closing)
        m_socket->skip(m_socket->bytesAvailable());
    if (m_state != Reading)
        return;

    m_unread += m_socket->readAll();
    const bool isWhole = m_reader.read(m_unread);
    if (m_reader.takeExpectation() && !isWhole)
        m_socket->write("HTTP/1.1 100 Continue\r\n\r\n");
    if (!isWhole)
        return;
    m_state = Answering;
    Q_EMIT requested();
}

void HttpConnection::compose()
{
    const bool isBodiless = request().method == "HEAD" || hasNoBody(m_reply.status);
    const qint64 size = m_reply.size();
    const qint64 announced = m_delivery.flaw == Delivery::WrongLength ? size / 2 : size;
    if (!hasNoBody(m_reply.status))
        m_reply.headers.emplaceBack("Content-Length", QByteArray::number(announced));
    if (request().isLast || m_delivery.flaw == Delivery::WrongLength)
        m_reply.headers.emplaceBack("Connection", "close");

    m_head = "HTTP/1.1 " + QByteArray::number(m_reply.status) + ' ' + reasonPhrase(m_reply.status)
        + "\r\n";
    for (const auto &[name, value] : std::as_const(m_reply.headers))
        m_head += name + ": " + value + "\r\n";
    m_head += "\r\n";
    m_position = 0;
    m_end = isBodiless ? 0 : size;
    breakUp();
}

// What the delivery's flaw leaves of the reply.
void HttpConnection::breakUp()
{
    const bool isCut = m_delivery.flaw == Delivery::Close || m_delivery.flaw == Delivery::Stall;
    if (m_delivery.flaw == Delivery::Garbage) {
        m_reply = {0, {}, garbage()};
        m_head.clear();
        m_end = garbageSize;
    } else if (isCut && m_end == 0) {
        m_head.truncate(m_head.size() / 2);
    } else if (isCut) {
        m_end = m_delivery.after < 0 ? m_end / 2 : std::min(m_delivery.after, m_end);
    }
}

void HttpConnection::start()
{
    if (m_delivery.flaw == Delivery::Reset)
        return reset();
    pump();
}

// Writes what the client can take now. What it takes calls for more.
void HttpConnection::pump()
{
    if (m_state != Sending || m_pumping || m_timer.isActive())
        return;
    const QScopedValueRollback guard(m_pumping, true);

    const qint64 rate = m_delivery.rate;
    const bool isPaced = rate > 0 || m_delivery.bytewise;
    const qsizetype part = m_delivery.bytewise ? 1
        : rate > 0                             ? std::max<qsizetype>(rate / partsEachSecond, 1)
                                               : largestPart;
    bool more = true;
    while (more && m_socket->bytesToWrite() < enoughUnsent) {
        more = writePart(part);
        if (isPaced)
            break;
    }
    // What is left is written when the event loop finds that the client takes it.
    if (more && !isPaced)
        return;
    m_socket->flush();
    if (m_state != Sending)
        return;
    if (more)
        m_timer.start(rate > 0 ? static_cast<int>(1000 * part / rate) : 0);
    else if (m_socket->bytesToWrite() == 0)
        finish();
}

// False when there is no more to write after it. The head and the body's beginning go together: a
// small reply is one packet.
bool HttpConnection::writePart(qsizetype most)
{
    QByteArray bytes = m_head.first(std::min(most, m_head.size()));
    m_head.remove(0, bytes.size());
    const auto size =
        static_cast<qsizetype>(std::min<qint64>(most - bytes.size(), m_end - m_position));
    QByteArray part = m_reply.file ? m_reply.file->read(size)
                                   : m_reply.body.sliced(static_cast<qsizetype>(m_position), size);
    const qint64 wrong = m_reply.size() / 2 - m_position;
    if (m_delivery.flaw == Delivery::Corrupt && wrong >= 0 && wrong < part.size())
        part[static_cast<qsizetype>(wrong)] = char(part.at(static_cast<qsizetype>(wrong)) ^ 1);
    m_position += part.size();
    m_socket->write(bytes + part);
    if (!part.isEmpty())
        Q_EMIT sent(part);

    // The file has become shorter: what was announced cannot be sent any more.
    if (part.size() < size) {
        m_delivery.flaw = Delivery::Close;
        return false;
    }
    return !m_head.isEmpty() || m_position < m_end;
}

void HttpConnection::finish()
{
    const bool isLast = request().isLast || m_delivery.flaw == Delivery::WrongLength
        || m_delivery.flaw == Delivery::Garbage;
    if (m_delivery.flaw == Delivery::Stall)
        return end(Stalled, Over);
    if (m_delivery.flaw == Delivery::Close) {
        end(Closed, Over);
        return m_socket->disconnectFromHost();
    }
    if (isLast) {
        end(Sent, Closing);
        return close();
    }
    end(Sent, Reading);
    m_reply = {};
    m_reader = {};
    if (!m_unread.isEmpty() || m_socket->bytesAvailable() > 0)
        QMetaObject::invokeMethod(this, &HttpConnection::read, Qt::QueuedConnection);
}

void HttpConnection::end(Ending ending, State next)
{
    m_state = next;
    Q_EMIT ended(ending);
}

// To close while the client still sends would take away from it what it has not read yet.
void HttpConnection::close()
{
    ::shutdown(static_cast<int>(m_socket->socketDescriptor()), SHUT_WR);
    m_timer.start(farewell);
    read();
}

// The client is told so by TCP, as by a server that crashes.
void HttpConnection::reset()
{
    const linger none{1, 0};
    ::setsockopt(static_cast<int>(m_socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &none,
                 sizeof none);
    m_reply = {0, {}, {}};
    end(Reset, Over);
    m_socket->abort();
}

void HttpConnection::leave()
{
    m_timer.stop();
    if (m_state == Answering || m_state == Sending)
        end(ClientLeft, Over);
    deleteLater();
}
