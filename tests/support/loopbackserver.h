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

    enum After { KeepOpen, Close };

    explicit LoopbackServer(QObject *parent = nullptr);

    QUrl url(const QString &path = QStringLiteral("/")) const;

    // The bytes of a whole response with a Content-Length.
    static QByteArray response(int status, const QByteArray &body,
                               const QByteArray &contentType = "application/json");

    // Answers the next request that no earlier call is for. Requests without a script are held.
    void script(const QByteArray &bytes, After after = KeepOpen);
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
        After after;
    };

    void accept();
    void read(QTcpSocket *socket);
    bool takeRequest(QTcpSocket *socket);
    static void send(QTcpSocket *socket, const Answer &answer);

    QHash<QTcpSocket *, QByteArray> m_unread;
    QList<Request> m_requests;
    QList<QPointer<QTcpSocket>> m_connections; // one a request
    QList<Answer> m_script;
    int m_connectionCount = 0;
    // Last: it takes its sockets along while the members that they report to still exist.
    QTcpServer m_server;
};

#endif // LOOPBACKSERVER_H
