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

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype mostCalls = 3;
constexpr int momentMilliseconds = 1; // between the pieces of an answer
constexpr int patienceMilliseconds = 500;

struct Ending
{
    const char *more; // for the answer to end with
    LoopbackServer::After after;
};
// An empty piece more leaves the connection open for that moment.
constexpr Ending endings[] = {
    {"", LoopbackServer::Close},
    {"", LoopbackServer::Reset},
    {"\x1e", LoopbackServer::Close},
};

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
class HostileServer
{
public:
    HostileServer(const QList<QByteArray> &answers, Ending ending)
        : m_answers(answers)
        , m_ending(ending)
    {
        QObject::connect(&m_server, &LoopbackServer::requestReceived, &m_server,
                         [this] { answer(m_server.requests().size() - 1); });
    }

    QUrl url(const QString &path = u"/"_s) const { return m_server.url(path); }

private:
    void answer(qsizetype request)
    {
        if (m_answers.isEmpty())
            m_server.reply(request, {}, LoopbackServer::Close);
        else
            send(request, (m_answers.takeFirst() + m_ending.more).split('\x1e'));
    }

    void send(qsizetype request, QList<QByteArray> pieces)
    {
        const QByteArray piece = pieces.takeFirst();
        if (pieces.isEmpty()) {
            m_server.reply(request, piece, m_ending.after);
            return;
        }
        m_server.reply(request, piece);
        QTimer::singleShot(momentMilliseconds, &m_server,
                           [this, request, pieces] { send(request, pieces); });
    }

    QList<QByteArray> m_answers;
    const Ending m_ending;
    LoopbackServer m_server;
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
    const Ending &ending = Target::choice(endings, letters.letter());
    const QByteArray calls = letters.rest().left(mostCalls);

    // What the client's own replies say: their manager is told before the client is.
    QList<Model::Answer> answers;
    HostileServer server(input.rest().split('\x1d'), ending);
    Corvane client;
    client.m_network->setProxyFactory(new Confinement(server.url().port()));
    client.setServerUrl(server.url());
    client.setProductCode(u"DEMO"_s);
    SignalLog log(&client);
    QObject::connect(
        client.m_network, &QNetworkAccessManager::finished, client.m_network,
        [&answers](QNetworkReply *reply) { answers += PlainNetwork::outcomeOf(reply); });
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
        Target::expect("one finished reply", answers.size() == lines.size() + 1);
        const Model::Answer &answer = answers.constLast();
        lines += Model::line(operation, answer, state, places);
        Target::expect("the signals", log.lines(), lines);
        Target::expect("the file", places.content(state.place),
                       Model::isSaved(operation, answer, state)
                           ? answer.body
                           : Places::initialContent(state.place));
    }
    return 0;
}
