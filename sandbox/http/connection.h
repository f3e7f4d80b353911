#ifndef CONNECTION_H
#define CONNECTION_H

#include "http/delivery.h"
#include "http/message.h"
#include "http/requestreader.h"

#include <QtCore/qobject.h>
#include <QtCore/qtimer.h>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

// A client's connection, over which one exchange follows the other: requested(), send(), ended().
// Goes with its socket.
class HttpConnection : public QObject
{
    Q_OBJECT

public:
    // What became of a reply. Stalled goes on until the client leaves.
    enum Ending { Sent, Reset, Closed, Stalled, ClientLeft };

    // The connection owns the socket.
    HttpConnection(QTcpSocket *socket, QObject *parent);

    const HttpRequest &request() const { return m_reader.request(); }
    // As it is sent: with all headers, and in the body what was meant to be sent.
    const HttpReply &reply() const { return m_reply; }

    // Answers the request, later if that suits. Does nothing if it was answered or the client left.
    void send(const HttpReply &reply, const Delivery &delivery = {});

Q_SIGNALS:
    // There is a request to answer.
    void requested();
    // These bytes of the body, or instead of a reply, are on their way.
    void sent(const QByteArray &bytes);
    void ended(HttpConnection::Ending ending);

private:
    enum State { Reading, Answering, Sending, Over, Closing };

    void read();
    void compose();
    void breakUp();
    void start();
    void pump();
    bool writePart(qsizetype most);
    void finish();
    void end(Ending ending, State next);
    void close();
    void reset();
    void leave();

    QTcpSocket *m_socket;
    QTimer m_timer; // the next step of a delayed, slow or closing delivery
    State m_state = Reading;
    QByteArray m_unread;
    RequestReader m_reader;
    HttpReply m_reply;
    Delivery m_delivery;
    QByteArray m_head; // what is left of it
    qint64 m_position = 0; // in the body
    qint64 m_end = 0; // where the body is left off
    bool m_pumping = false;
};

#endif // CONNECTION_H
