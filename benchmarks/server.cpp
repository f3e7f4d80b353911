// The service, as far as a measurement needs it: answers at once and from memory, in a process of
// its own. Prints its port, and ends when its standard input does.
//
//   GET /<number>         a file of so many zero bytes
//   product DEMO          answers of an everyday length
//   product DEMO-<number> an answer of so many bytes: a release with long notes, or many plans
//   product HELD          no answer

#include <QtCore/qbytearray.h>
#include <QtCore/qcoreapplication.h>
#include <QtCore/qhash.h>
#include <QtCore/qsocketnotifier.h>
#include <QtNetwork/qhostaddress.h>
#include <QtNetwork/qtcpserver.h>
#include <QtNetwork/qtcpsocket.h>

#include <algorithm>
#include <cstdio>

namespace {

// What is written of a large file before the socket has taken what came before.
constexpr qint64 pieceSize = 256 * 1024;

const QByteArray release =
    R"({"success":true,"release":{"product_code":"DEMO","version":"1.5.0",)"
    R"("download_url":"http://127.0.0.1/releases/demo-1.5.0.bin",)"
    R"("stable_download_url":"http://127.0.0.1/releases/demo.bin",)"
    R"("sha256":"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",)"
    R"("notes":"Corregge un errore all'avvio."}})";
const QByteArray plan =
    R"({"code":"ANNUALE","name":"Licenza annuale","price":49.9,"currency":"EUR","days":365})";
const QByteArray purchase =
    R"({"success":true,"payment_id":17,"license_id":42,"license_key":"DEMO-0000-0000-0001",)"
    R"("paypal_order_id":"5O190127TN364715T",)"
    R"("approval_url":"https://127.0.0.1/checkoutnow?token=5O190127TN364715T"})";

// So many bytes, but for sizes in which nothing fits: then the shortest answer there is.
QByteArray releaseOf(qsizetype size)
{
    const QByteArray head = R"({"success":true,"release":{"version":"1.5.0","notes":")";
    const QByteArray tail = R"("}})";
    return head + QByteArray(std::max<qsizetype>(size - head.size() - tail.size(), 0), 'n') + tail;
}

QByteArray plansOf(qsizetype size)
{
    QByteArray body = R"({"plans":[)" + plan;
    while (body.size() + 1 + plan.size() + 2 <= size)
        body += ',' + plan;
    body += ']';
    // Spaces are as good as nothing to a parser.
    return body + QByteArray(std::max<qsizetype>(size - body.size() - 1, 0), ' ') + '}';
}

// The number after "DEMO-", if there is one.
qsizetype sizeIn(const QByteArray &target)
{
    const qsizetype at = target.indexOf("DEMO-");
    return at < 0 ? 0 : target.mid(at + 5).split('?').constFirst().toLongLong();
}

QByteArray headOf(qint64 length)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(length) + "\r\n\r\n";
}

QByteArray bodyOf(const QByteArray &target)
{
    const qsizetype size = sizeIn(target);
    if (target.startsWith("/api/v1/releases/"))
        return size > 0 ? releaseOf(size) : release;
    if (target.startsWith("/api/v1/purchase/plans"))
        return size > 0 ? plansOf(size) : R"({"plans":[)" + plan + ',' + plan + "]}";
    if (target.startsWith("/api/v1/purchase/capture"))
        return R"({"paid":true,"license_id":42})";
    if (target.startsWith("/api/v1/purchase/"))
        return purchase;
    return R"({"success":true})";
}

// In one piece, so that every client gets it so. Large ones are made once.
const QByteArray &answerTo(const QByteArray &target)
{
    static QHash<QByteArray, QByteArray> answers;
    // Without the time that makes every check another one.
    const qsizetype time = target.indexOf("&_=");
    QByteArray &answer = answers[time < 0 ? target : target.left(time)];
    if (answer.isEmpty()) {
        const QByteArray body = bodyOf(target);
        answer = headOf(body.size()) + body;
    }
    return answer;
}

class Connection : public QObject
{
public:
    explicit Connection(QTcpSocket *socket)
        : QObject(socket)
        , m_socket(socket)
    {
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        connect(socket, &QTcpSocket::readyRead, this, &Connection::read);
        connect(socket, &QTcpSocket::bytesWritten, this, &Connection::writeFile);
    }

private:
    void read()
    {
        m_received += m_socket->readAll();
        // A client that sends several requests at once gets their answers in turn.
        for (qsizetype end = requestEnd(); end > 0; end = requestEnd()) {
            const QByteArray request = m_received.left(end);
            m_received.remove(0, end);
            answer(request.split(' ').value(1));
        }
    }

    // Where the first request that is here ends, or -1 as long as it is not whole.
    qsizetype requestEnd() const
    {
        const qsizetype head = m_received.indexOf("\r\n\r\n");
        if (head < 0)
            return -1;
        const QByteArray lower = m_received.left(head + 2).toLower();
        const qsizetype length = lower.indexOf("content-length:");
        const qsizetype body = length < 0
            ? 0
            : lower.mid(length + 15, lower.indexOf('\r', length) - length - 15)
                  .trimmed()
                  .toLongLong();
        const qsizetype end = head + 4 + body;
        return end <= m_received.size() ? end : -1;
    }

    void answer(const QByteArray &target)
    {
        if (target.contains("HELD"))
            return;
        const qint64 fileSize = target.mid(1).toLongLong();
        if (fileSize == 0) {
            m_socket->write(answerTo(target));
            return;
        }
        m_socket->write(headOf(fileSize));
        m_fileLeft += fileSize;
        writeFile();
    }

    void writeFile()
    {
        static const QByteArray zeros(pieceSize, '\0');
        while (m_fileLeft > 0 && m_socket->bytesToWrite() < pieceSize)
            m_fileLeft -= m_socket->write(zeros.constData(), std::min(m_fileLeft, pieceSize));
    }

    QTcpSocket *m_socket;
    QByteArray m_received;
    qint64 m_fileLeft = 0;
};

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    QTcpServer server;
    QObject::connect(&server, &QTcpServer::newConnection, &server, [&server] {
        while (QTcpSocket *socket = server.nextPendingConnection()) {
            new Connection(socket);
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
    if (!server.listen(QHostAddress::LocalHost)) {
        std::fprintf(stderr, "%s: %s\n", argv[0], qPrintable(server.errorString()));
        return 1;
    }
    std::printf("%d\n", server.serverPort());
    std::fflush(stdout);

    QSocketNotifier input(fileno(stdin), QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &application, &QCoreApplication::quit);
    return QCoreApplication::exec();
}
