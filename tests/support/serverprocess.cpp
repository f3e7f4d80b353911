#include "serverprocess.h"

#include <QtCore/qdeadlinetimer.h>
#include <QtCore/qstandardpaths.h>
#include <QtNetwork/qnetworkproxy.h>
#include <QtNetwork/qtcpsocket.h>

#include <csignal>

#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

sockaddr_in6 loopback6()
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    return address;
}

sockaddr_in loopback4()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Binds the socket to a free port of the address and returns the port; 0 if that cannot be done.
template <typename Address> quint16 bindTo(int socket, Address address, in_port_t Address::*port)
{
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    socklen_t size = sizeof address;
    const int on = 1;
    const bool bound = ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0
        && ::bind(socket, generic, size) == 0 && ::getsockname(socket, generic, &size) == 0;
    return bound ? ntohs(address.*port) : quint16(0);
}

} // namespace

ReservedPort::ReservedPort(QHostAddress::SpecialAddress address)
    : m_address(address)
{
    const bool isIpv6 = address == QHostAddress::LocalHostIPv6;
    m_socket = ::socket(isIpv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    m_number = isIpv6 ? bindTo(m_socket, loopback6(), &sockaddr_in6::sin6_port)
                      : bindTo(m_socket, loopback4(), &sockaddr_in::sin_port);
}

ReservedPort::~ReservedPort()
{
    if (m_socket >= 0)
        ::close(m_socket);
}

QString ServerProcess::find(const QString &name)
{
    QString program = QStandardPaths::findExecutable(name);
    if (!program.isEmpty())
        return program;
    return QStandardPaths::findExecutable(name, {u"/usr/local/sbin"_s, u"/usr/sbin"_s, u"/sbin"_s});
}

ServerProcess::ServerProcess(const QString &program, const QStringList &arguments)
{
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    m_process.start(program, arguments);
}

ServerProcess::~ServerProcess()
{
    m_process.kill();
    m_process.waitForFinished(10000);
}

bool ServerProcess::waitForPort(const ReservedPort &port, int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    while (m_process.state() != QProcess::NotRunning && !deadline.hasExpired()) {
        QTcpSocket socket;
        socket.setProxy(QNetworkProxy::NoProxy);
        socket.connectToHost(port.address(), port.number());
        if (socket.waitForConnected(milliseconds))
            return true;
        // Refused, at once. The pause ends when the process does.
        m_process.waitForFinished(5);
    }
    return false;
}

QRegularExpressionMatch ServerProcess::waitForOutput(const QRegularExpression &pattern,
                                                     qsizetype from, int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    QRegularExpressionMatch match = pattern.match(output(), from);
    while (!match.hasMatch() && m_process.waitForReadyRead(int(deadline.remainingTime())))
        match = pattern.match(output(), from);
    return match;
}

QString ServerProcess::output()
{
    m_process.waitForReadyRead(0);
    m_output += QString::fromUtf8(m_process.readAll());
    return m_output;
}
