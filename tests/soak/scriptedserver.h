#ifndef SCRIPTEDSERVER_H
#define SCRIPTEDSERVER_H

#include "call.h"

#include <QtCore/qurl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <thread>

// An HTTP server in a thread of its own that answers every request as its call has decided. It
// listens on several addresses of the loopback interface: connections that it closed keep a port
// of theirs for a while. Without Qt's sockets, to be fast and to reset connections.
class ScriptedServer
{
public:
    explicit ScriptedServer(quint64 seed);
    ~ScriptedServer();
    Q_DISABLE_COPY_MOVE(ScriptedServer)

    QUrl url(int address) const;
    // Where connections are refused.
    QUrl noListener() const;
    int connectionCount() const { return m_connectionCount; }

private:
    using Clock = std::chrono::steady_clock;

    struct Connection
    {
        QByteArray unread;
        Answer answer;
        Clock::time_point due; // of the next piece
    };

    void run();
    void accept(int listener);
    void read(int socket);
    void answer(int socket, Connection &connection);
    void sendDuePieces();
    void send(int socket, Connection &connection, bool all);
    void drop(int socket, bool reset);

    const quint64 m_seed;
    std::array<int, Call::addresses> m_listeners = {};
    std::array<quint16, Call::addresses> m_ports = {};
    int m_deaf = -1;
    quint16 m_deafPort = 0;
    int m_events = -1;
    int m_end = -1;
    std::map<int, Connection> m_connections;
    std::atomic<int> m_connectionCount = 0;
    std::thread m_thread; // last: it uses the others
};

#endif // SCRIPTEDSERVER_H
