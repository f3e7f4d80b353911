// What a client makes of hostile bytes, over real sockets.
//
// <ending><calls>, a line end, then the bytes that the server sends. The ending is what the server
// does with the connection after each of its answers: 'a' closes it, 'b' resets it, 'c' leaves it
// open for a moment. The calls are letters, made one after the other. Byte 1D ends an answer, byte
// 1E a piece of one. Each request gets the next answer; after the last, connections are closed
// unanswered.
//
// Nothing but this server is ever talked to: any other address is sought at a proxy, names and
// all, and the proxy's port is closed.

#include "loopbackserver.h"
#include "model.h"
#include "operations.h"
#include "signallog.h"
#include "target.h"

#include <QtCore/qdeadlinetimer.h>
#include <QtCore/qtimer.h>
#include <QtNetwork/qhostaddress.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkproxy.h>
#include <QtNetwork/qtcpsocket.h>

#include <sys/socket.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype mostCalls = 3;
constexpr int openMilliseconds = 1;
constexpr int patienceMilliseconds = 500;

enum class Ending { Close, Reset, LeaveOpen };
constexpr Ending endings[] = {Ending::Close, Ending::Reset, Ending::LeaveOpen};

// The manager's own: Qt does not ask the application's for what it takes for local.
class Confinement : public QNetworkProxyFactory
{
public:
    explicit Confinement(int serverPort)
        : m_serverPort(serverPort)
    {
        Target::expect("a closed port", m_closed.bind(QHostAddress::LocalHost));
    }

    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery &query) override
    {
        if (query.peerHostName() == "127.0.0.1"_L1 && query.peerPort() == m_serverPort)
            return {QNetworkProxy(QNetworkProxy::NoProxy)};
        return {QNetworkProxy(QNetworkProxy::HttpProxy, u"127.0.0.1"_s, m_closed.localPort())};
    }

private:
    const int m_serverPort;
    QTcpSocket m_closed; // bound, never listening
};

// Answers the requests in their order with the input's answers.
class HostileServer : public LoopbackServer
{
public:
    HostileServer(const QList<QByteArray> &answers, Ending ending)
        : m_answers(answers)
        , m_ending(ending)
    {
        connect(this, &LoopbackServer::requestReceived, this, [this] { answer(); });
    }

private:
    void answer()
    {
        QTcpSocket *socket = m_connections.constLast();
        if (m_answers.isEmpty())
            socket->disconnectFromHost();
        else
            send(socket, m_answers.takeFirst().split('\x1e'));
    }

    // Each piece at a turn of the event loop of its own.
    void send(QTcpSocket *socket, QList<QByteArray> pieces)
    {
        socket->write(pieces.takeFirst());
        socket->flush();
        if (pieces.isEmpty())
            end(socket);
        else
            QTimer::singleShot(0, socket, [this, socket, pieces] { send(socket, pieces); });
    }

    void end(QTcpSocket *socket)
    {
        if (m_ending == Ending::Close)
            socket->disconnectFromHost();
        else if (m_ending == Ending::Reset)
            reset(socket);
        else
            QTimer::singleShot(openMilliseconds, socket, &QTcpSocket::disconnectFromHost);
    }

    static void reset(QTcpSocket *socket)
    {
        const linger now{1, 0};
        ::setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &now,
                     sizeof now);
        socket->abort();
    }

    QList<QByteArray> m_answers;
    const Ending m_ending;
};

// The whole body, left in place.
QByteArray peekAll(QNetworkReply *reply)
{
    qint64 maximum = 4096;
    QByteArray body = reply->peek(maximum);
    while (body.size() == maximum) {
        maximum *= 8;
        body = reply->peek(maximum);
    }
    return body;
}

// What the client's own reply says, told before the client is.
class Witness : public QObject
{
public:
    explicit Witness(QNetworkAccessManager *network)
    {
        connect(network, &QNetworkAccessManager::finished, this, &Witness::record);
    }

    const QList<Model::Answer> &answers() const { return m_answers; }

private:
    void record(QNetworkReply *reply)
    {
        Model::Answer answer;
        answer.body = peekAll(reply);
        answer.error = reply->error();
        answer.errorText = reply->errorString();
        answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        m_answers.append(answer);
    }

    QList<Model::Answer> m_answers;
};

// Waits until the call is over. False if its reply is not finished by then, which is Qt's doing:
// after a reset it now and then leaves the next request unsent, and some chunk sizes hold it for
// good. A reply that is finished has to be handled, and deleted.
bool isOver(const Corvane &client)
{
    const QDeadlineTimer deadline(patienceMilliseconds);
    // Wakes the loop up when nothing else does.
    QTimer alarm;
    alarm.start(patienceMilliseconds);
    while (const auto *reply = client.findChild<QNetworkReply *>()) {
        if (deadline.hasExpired()) {
            Target::expect("an end with the reply's", !reply->isFinished());
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    // Qt tells of malformed answers in words of its own.
    return Target::initialize(argc, argv,
                              [](QtMsgType, const QMessageLogContext &, const QString &) {});
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Places places;
    Target::Input input(data, size);
    Target::Input letters(input.until('\n'));
    const Ending ending = Target::choice(endings, letters.letter());
    const QByteArray calls = letters.rest().left(mostCalls);

    HostileServer server(input.rest().split('\x1d'), ending);
    Corvane client;
    client.m_network->setProxyFactory(new Confinement(server.url().port()));
    client.setServerUrl(server.url());
    client.setProductCode(u"DEMO"_s);
    SignalLog log(&client);
    const Witness witness(client.m_network);
    const Model::State state{u"x"_s, Places::OldFile};
    const QList<Operation> operationCalls =
        operations(server.url(u"/file"_s), places.path(state.place));

    QStringList lines;
    for (const char letter : calls) {
        const Corvane::Operation operation = Target::choice(Model::operations, letter);
        places.reset();
        operationCalls[operation].call(client);
        if (!isOver(client))
            break;
        Target::expect("one finished reply", witness.answers().size() == lines.size() + 1);
        const Model::Answer &answer = witness.answers().constLast();
        lines += Model::line(operation, answer, state, places);
        Target::expect("the signals", log.lines(), lines);
        Target::expect("the file", places.content(state.place),
                       Model::isSaved(operation, answer, state)
                           ? answer.body
                           : Places::initialContent(state.place));
    }
    return 0;
}
