#ifndef LOOPBACKSERVER_H
#define LOOPBACKSERVER_H

#include <QtCore/qbytearray.h>
#include <QtCore/qhash.h>
#include <QtCore/qlist.h>
#include <QtCore/qobject.h>
#include <QtCore/qpair.h>
#include <QtCore/qpointer.h>
#include <QtCore/qurl.h>
#include <QtNetwork/qtcpserver.h>

#include <optional>

class QTcpSocket;

// An HTTP server on a free port of 127.0.0.1 that answers what a test scripts, to the byte, and
// records what it was asked, exactly. It knows just enough HTTP to find where a request ends: a
// head, then Content-Length bytes.
class LoopbackServer : public QObject
{
    Q_OBJECT

public:
    struct Request
    {
        QByteArray method;
        QByteArray target;
        QByteArray version;
        QList<QPair<QByteArray, QByteArray>> headers; // as they came, in their order
        QByteArray body;

        // The first header of that name, in any case; null if there is none.
        QByteArray header(const QByteArray &name) const;
    };

    // What becomes of the connection once the bytes are sent. Reset breaks it off as a crashing
    // server does: the client is told so by TCP.
    enum After { KeepOpen, Close, Reset };

    explicit LoopbackServer(QObject *parent = nullptr);

    QUrl url(const QString &path = QStringLiteral("/")) const;

    // The bytes of a whole response with a Content-Length.
    static QByteArray response(int status, const QByteArray &body,
                               const QByteArray &contentType = "application/json");

    // Answers the next request that no earlier call is for. Requests without a script are held.
    void script(const QByteArray &bytes, After after = KeepOpen);
    // Answers every request that no script is for; with a target, those for it alone.
    void always(const QByteArray &bytes, After after = KeepOpen, const QByteArray &target = {});
    // Does this with every connection as it is made, before any request.
    void greet(const QByteArray &bytes, After after = KeepOpen);
    // From now on sends one byte at a time.
    void sendBytewise();
    // Refuses all further connections and resets the open ones.
    void die();
    // Sends bytes on the connection that request came on: whole answers or parts of one.
    void reply(qsizetype request, const QByteArray &bytes, After after = KeepOpen);

    // In the order in which they were complete.
    const QList<Request> &requests() const { return m_requests; }
    // Waits until so many requests have arrived; false if they do not in time.
    bool waitForRequests(qsizetype count, int milliseconds = 10000);
    int connectionCount() const { return m_connectionCount; }

Q_SIGNALS:
    void requestReceived();

private:
    struct Answer
    {
        QByteArray bytes;
        After after = KeepOpen;
    };

    void accept();
    void read(QTcpSocket *socket);
    bool takeRequest(QTcpSocket *socket);
    void answer(QTcpSocket *socket, const QByteArray &target);
    void send(QTcpSocket *socket, const Answer &answer);

    QHash<QTcpSocket *, QByteArray> m_unread;
    QList<Request> m_requests;
    QList<QPointer<QTcpSocket>> m_connections; // one a request
    QList<Answer> m_script;
    QHash<QByteArray, Answer> m_always; // by target; empty for all others
    std::optional<Answer> m_greeting;
    bool m_bytewise = false;
    int m_connectionCount = 0;
    // Last: it takes its sockets along while the members that they report to still exist.
    QTcpServer m_server;
};

#endif // LOOPBACKSERVER_H
