#include "scriptedserver.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// A socket at a free port of 127.0.0.<last>, and the port.
std::pair<int, quint16> bindTo(int last)
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + static_cast<quint32>(last));
    socklen_t size = sizeof address;
    auto *plain = reinterpret_cast<sockaddr *>(&address);
    if (::bind(socket, plain, size) != 0 || ::getsockname(socket, plain, &size) != 0)
        qFatal("No free port on the loopback interface");
    return {socket, ntohs(address.sin_port)};
}

QUrl urlOf(int last, quint16 port)
{
    QUrl url;
    url.setScheme(u"http"_s);
    url.setHost(u"127.0.0."_s + QString::number(last));
    url.setPort(port);
    url.setPath(u"/"_s);
    return url;
}

void watch(int events, int socket)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = socket;
    if (::epoll_ctl(events, EPOLL_CTL_ADD, socket, &event) != 0)
        qFatal("A socket cannot be watched");
}

// The size of the whole request that the bytes start with; 0 if it is not all there.
qsizetype requestSize(const QByteArray &bytes)
{
    const qsizetype bodyStart = bytes.indexOf("\r\n\r\n") + 4;
    if (bodyStart < 4)
        return 0;
    const QByteArray head = bytes.left(bodyStart).toLower();
    const QByteArray name = "\r\ncontent-length:";
    const qsizetype at = head.indexOf(name);
    if (at < 0)
        return bodyStart;
    const qsizetype valueStart = at + name.size();
    const QByteArray value = head.mid(valueStart, head.indexOf('\r', valueStart) - valueStart);
    const qsizetype size = bodyStart + value.trimmed().toLongLong();
    return size <= bytes.size() ? size : 0;
}

} // namespace

ScriptedServer::ScriptedServer(quint64 seed)
    : m_seed(seed)
    , m_events(::epoll_create1(EPOLL_CLOEXEC))
    , m_end(::eventfd(0, EFD_CLOEXEC))
{
    watch(m_events, m_end);
    for (std::size_t i = 0; i < m_listeners.size(); ++i) {
        std::tie(m_listeners.at(i), m_ports.at(i)) = bindTo(static_cast<int>(i) + 1);
        if (::listen(m_listeners.at(i), SOMAXCONN) != 0)
            qFatal("No listening on the loopback interface");
        watch(m_events, m_listeners.at(i));
    }
    std::tie(m_deaf, m_deafPort) = bindTo(1);
    m_thread = std::thread([this] { run(); });
}

ScriptedServer::~ScriptedServer()
{
    constexpr quint64 one = 1;
    if (::write(m_end, &one, sizeof one) != sizeof one)
        qFatal("The server cannot be ended");
    m_thread.join();
    for (const auto &[socket, connection] : m_connections)
        ::close(socket);
    for (const int listener : m_listeners)
        ::close(listener);
    for (const int descriptor : {m_deaf, m_events, m_end})
        ::close(descriptor);
}

QUrl ScriptedServer::url(int address) const
{
    return urlOf(address + 1, m_ports.at(static_cast<std::size_t>(address)));
}

QUrl ScriptedServer::noListener() const
{
    return urlOf(1, m_deafPort);
}

void ScriptedServer::run()
{
    std::array<epoll_event, 64> events = {};
    for (;;) {
        const bool isSending =
            std::any_of(m_connections.cbegin(), m_connections.cend(),
                        [](const auto &entry) { return !entry.second.answer.pieces.isEmpty(); });
        const int count = ::epoll_wait(m_events, events.data(), events.size(), isSending ? 1 : -1);
        for (int i = 0; i < count; ++i) {
            const int socket = events.at(static_cast<std::size_t>(i)).data.fd;
            if (socket == m_end)
                return;
            if (m_connections.count(socket) != 0)
                read(socket);
            else
                accept(socket);
        }
        if (isSending)
            sendDuePieces();
    }
}

void ScriptedServer::accept(int listener)
{
    const int socket = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0)
        return;
    // An answer fits in whole, so that sending never has to wait.
    constexpr int room = 1 << 19;
    constexpr int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    m_connections[socket];
    ++m_connectionCount;
    watch(m_events, socket);
}

void ScriptedServer::read(int socket)
{
    Connection &connection = m_connections.at(socket);
    std::array<char, 16384> buffer = {};
    const ssize_t size = ::recv(socket, buffer.data(), buffer.size(), 0);
    if (size < 0 && errno == EAGAIN)
        return; // the event was for a connection that had this number before
    if (size <= 0) {
        drop(socket, false);
        return;
    }
    connection.unread.append(buffer.data(), size);
    answer(socket, connection);
}

void ScriptedServer::answer(int socket, Connection &connection)
{
    const qsizetype size = requestSize(connection.unread);
    if (size == 0)
        return;
    const QByteArray request = connection.unread.left(size);
    connection.unread.remove(0, size);
    const std::optional<Call> call = Call::of(m_seed, request);
    if (!call)
        qFatal("A request of no call: %s", request.constData());
    const bool isRedirected = request.left(request.indexOf('\r')).contains(call->againPath());
    connection.answer = Answer::to(*call, isRedirected, noListener().toEncoded() + call->marker());
    send(socket, connection, call->fault != Call::Slow);
}

void ScriptedServer::sendDuePieces()
{
    const auto now = Clock::now();
    for (auto it = m_connections.begin(); it != m_connections.end();) {
        const auto current = it++; // it may be dropped
        Connection &connection = current->second;
        if (!connection.answer.pieces.isEmpty() && connection.due <= now)
            send(current->first, connection, false);
    }
}

void ScriptedServer::send(int socket, Connection &connection, bool all)
{
    QList<QByteArray> &pieces = connection.answer.pieces;
    do {
        const QByteArray piece = pieces.isEmpty() ? QByteArray() : pieces.takeFirst();
        if (::send(socket, piece.constData(), static_cast<std::size_t>(piece.size()), MSG_NOSIGNAL)
            != piece.size())
        {
            drop(socket, false);
            return;
        }
    } while (all && !pieces.isEmpty());
    connection.due = Clock::now() + std::chrono::milliseconds(1);
    if (pieces.isEmpty() && connection.answer.ending != Answer::KeepOpen)
        drop(socket, connection.answer.ending == Answer::Reset);
}

void ScriptedServer::drop(int socket, bool reset)
{
    constexpr linger now = {1, 0};
    if (reset)
        ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    m_connections.erase(socket);
    ::close(socket);
    --m_connectionCount;
}
