#include "files.h"
#include "host.h"
#include "operations.h"
#include "plainnetwork.h"

#include <QtCore/qdiriterator.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qmap.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qscopeguard.h>
#include <QtCore/qtemporarydir.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <functional>

using namespace Qt::StringLiterals;
using PlainNetwork::Outcome;

namespace {

// A call's surroundings: its host with a server that misbehaves, and another server.
struct Scene
{
    void setUrl(const QUrl &newUrl)
    {
        url = newUrl;
        host.client.setServerUrl(url);
    }

    Host host;
    LoopbackServer other;
    QUrl url = host.server.url();
};

// What all versions of Qt make of a fault.
struct Expectation
{
    enum Kind {
        Success,
        Failure,
        Either // chance decides, or the version
    };

    Kind kind = Either;
    int status = 0;
    QByteArray body;
};

// Who says what the client's signal must be: a plain request or, where the same bytes have several
// outcomes, the client's own reply.
enum Oracle { PlainRequest, OwnReply };

struct Fault
{
    enum Methods { All, Gets, Posts };

    Expectation expectation;
    // Called once for the client and once more for the plain request.
    std::function<void(Scene &)> arrange;
    Oracle oracle = PlainRequest;
    // Printed by the network layer itself; null if it prints nothing.
    const char *warning = nullptr;
    Methods methods = All; // of the calls that meet it
    // The network layer may print a warning, as chance decides.
    bool mayWarn = false;
};

} // namespace

Q_DECLARE_METATYPE(Fault)

// Whatever the network and the service do, every call ends in exactly one signal, and a failed
// download writes nothing.
class tst_Faults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanupTestCase() const;
    void everyCallEndsInOneSignal_data();
    void everyCallEndsInOneSignal();
    void hugeAnswerGivesOneSignal_data();
    void hugeAnswerGivesOneSignal();
    void failureWithoutStatusIsANetworkError_data();
    void failureWithoutStatusIsANetworkError();
    void replyThatMayNeverFinishGivesItsSignalAtMost_data();
    void replyThatMayNeverFinishGivesItsSignalAtMost();
    void secondCallOutlivesItsConnection_data();
    void secondCallOutlivesItsConnection();
    void queuedCallsEndWhenTheServerDies();
    void destroyedClientSaysNothing_data();
    void destroyedClientSaysNothing();
    void clientDestroyedByASlotSaysNoMore_data();
    void clientDestroyedByASlotSaysNoMore();

private:
    void check(const Fault &fault, int operation, const QString &destination);

    int m_callCount = 0; // calls whose signals were compared
};

namespace {

using Server = LoopbackServer;

// An answer that every operation can make something of.
const QByteArray answer = R"({"success":true,"paid":true,"plans":[1],"release":{"version":"2"},)"
                          R"("error":{"message":"Testo"}})";
const QByteArray page = "<html><body>Gateway</body></html>";
const QByteArray binary = QByteArray::fromHex("00ff1f8b0d0a0d0a80c0fe7b22007d");
const QByteArray ok = "HTTP/1.1 200 OK\r\n";
const QByteArray chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";

Expectation success(const QByteArray &body, int status = 200)
{
    return {Expectation::Success, status, body};
}

// With status 0, the network layer found no answer in what it got.
Expectation failure(int status = 0, const QByteArray &body = {})
{
    return {Expectation::Failure, status, body};
}

// At most this status and this body, or less of them.
Expectation either(int status, const QByteArray &body)
{
    return {Expectation::Either, status, body};
}

void row(const QByteArray &name, const Fault &fault)
{
    QTest::newRow(name.constData()) << fault;
}

// The server answers every request like this.
void row(const QByteArray &name, const Expectation &expectation, const QByteArray &bytes,
         Server::After after = Server::Close, Oracle oracle = PlainRequest)
{
    row(name, {expectation, [=](Scene &scene) { scene.host.server.always(bytes, after); }, oracle});
}

QByteArray chunk(const QByteArray &bytes)
{
    return QByteArray::number(bytes.size(), 16) + "\r\n" + bytes + "\r\n";
}

void addConnectionFaults()
{
    row("refused", {failure(), [](Scene &scene) { scene.setUrl(QUrl(u"http://127.0.0.1:1/"_s)); }});
    // Longer than a name can be: the resolver finds out without asking the network.
    const QUrl unknown("http://"_L1 + QStringList(4, QString(63, u'a')).join(u'.'));
    row("unknown-host", {failure(), [unknown](Scene &scene) { scene.setUrl(unknown); }});
    row("closed-at-once",
        {failure(), [](Scene &scene) { scene.host.server.greet({}, Server::Close); }, OwnReply});
    row("answered-before-request",
        {either(200, answer),
         [](Scene &scene) {
             scene.host.server.greet(Server::response(200, answer), Server::Close);
         },
         OwnReply});

    const QByteArray length = "Content-Length: 999\r\n\r\n";
    const struct
    {
        QByteArray place;
        Expectation expectation;
        QByteArray bytes;
    } places[] = {
        {"before-answer", failure(), ""},
        {"in-status-line", either(200, ""), "HTTP/1.1 20"},
        {"after-status-line", either(200, ""), ok},
        {"in-headers", either(200, ""), ok + "Content-Type: text/html\r\nContent-Le"},
        {"after-headers", either(200, ""), ok + length},
        {"in-body", either(200, answer), ok + length + answer},
        {"in-object", either(200, answer.first(20)), ok + length + answer.first(20)},
        {"in-body-of-error", failure(500, answer), "HTTP/1.1 500 No\r\n" + length + answer},
        {"in-body-without-length", either(200, answer), ok + "\r\n" + answer},
        {"in-chunk", either(200, answer), chunked + "ff\r\n" + answer},
        {"before-last-chunk", either(200, answer), chunked + chunk(answer)},
        {"after-whole-answer", either(200, answer), Server::response(200, answer)},
    };
    for (const auto &[place, expectation, bytes] : places) {
        row("closed-" + place, expectation, bytes, Server::Close, OwnReply);
        row("reset-" + place, expectation, bytes, Server::Reset, OwnReply);
    }
    row("answered-twice", success(answer), Server::response(200, answer).repeated(2));
}

// What is left of a broken chunk counts as the end of the body, and its transfer as a success.
void addChunkFaults()
{
    const QByteArray end = "0\r\n\r\n";
    const QByteArray size = QByteArray::number(answer.size(), 16);
    const auto sized = [&end](const QByteArray &name, const QByteArray &body,
                              const QByteArray &line) {
        row("chunk-size-" + name, success(body), chunked + line + "\r\n" + answer + "\r\n" + end);
    };
    sized("not-hexadecimal", "", "xyz");
    sized("negative", "", "-5");
    sized("minus-one", "", "ffffffffffffffff");
    sized("overflow", "", "1" + QByteArray(30, '0'));
    sized("endless", "", QByteArray(1000, 'f'));
    sized("missing", "", "");
    sized("too-small", answer.first(5), "5");
    sized("right", answer, size);
    row("chunk-extension", success(answer), chunked + size + ";a=b\r\n" + answer + "\r\n" + end);
    row("chunk-trailers", success(answer), chunked + chunk(answer) + "0\r\nX: y\r\n\r\n");
    row("chunks", success(answer),
        chunked + chunk(answer.first(9)) + chunk(answer.sliced(9)) + end);
    row("chunk-size-huge", either(200, answer + "\r\n" + end),
        chunked + "7fffffffffffffff\r\n" + answer + "\r\n" + end, Server::Close, OwnReply);
    row("chunks-none", success(""), chunked + end);
}

void addLengthFaults()
{
    const auto length = [](const QByteArray &name, const Expectation &expectation,
                           const QByteArray &value) {
        row("length-" + name, expectation, ok + "Content-Length: " + value + "\r\n\r\n" + answer);
    };
    const QByteArray size = QByteArray::number(answer.size());
    length("right", success(answer), size);
    length("too-small", success(answer.first(10)), "10");
    length("zero", success(""), "0");
    for (const QByteArray &value :
         QByteArrayList{"-1", "-99999999999", "many", "", "0x10", "99999999999999999999"})
        length('"' + value + '"', success(answer), value);
    length("signed", success(answer), '+' + size);
    length("list", success(answer), size + ", " + size);
    length("twice", success(answer), size + "\r\nContent-Length: " + size);
    length("twice-different", success(answer), size + "\r\nContent-Length: 10");
    row("length-huge", either(200, answer),
        ok + "Content-Length: 9223372036854775807\r\n\r\n" + answer, Server::Close, OwnReply);
    row("length-and-chunks", success(answer),
        ok + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk(answer)
            + "0\r\n\r\n");
    row("transfer-coding-unknown", success(answer), ok + "Transfer-Encoding: x\r\n\r\n" + answer);
}

void addGarbage()
{
    row("binary", failure(), binary);
    row("binary-long", failure(), QByteArray(1 << 20, '\xAA'));
    row("zero-bytes", failure(), QByteArray(1000, '\0'));
    row("page-without-head", failure(), page);
    row("json-without-head", failure(), answer);
    row("ssh", failure(), "SSH-2.0-OpenSSH_9.2\r\n");
    row("tls-alert", failure(), QByteArray::fromHex("15030100020228"));
    row("blank", failure(), " ");
    row("empty-lines", failure(), "\r\n\r\n\r\n\r\n");
    row("empty-lines-first", success(answer), "\r\n\r\n" + Server::response(200, answer));
    for (const QByteArray &line :
         QByteArrayList{"HTTP/1.1", "HTTP/1.1  ", "HTTP/1.1 abc OK", "HTTP/2 200 OK",
                        "HTTP/x.y 200 OK", "http/1.1 200 OK", "ICY 200 OK", "200 OK"})
        row("status-line-\"" + line + '"', failure(), line + "\r\n\r\n" + answer);
    for (const QByteArray &line : QByteArrayList{"HTTP/1.1 200", "HTTP/1.1 200 \xE8\xFF",
                                                 "HTTP/0.9 200 OK", "HTTP/2.0 200 OK"})
        row("status-line-\"" + line.toPercentEncoding(" /") + '"', success(answer),
            line + "\r\n\r\n" + answer);
    const QByteArray whole = Server::response(200, answer);
    row("bare-line-feeds", success(answer), QByteArray(whole).replace("\r\n", "\n"));
    row("bare-carriage-returns", failure(), QByteArray(whole).replace("\r\n", "\r"));
}

void addOldVersions()
{
    const QByteArray old = "HTTP/1.0 200 OK\r\n";
    const QByteArray length = "Content-Length: " + QByteArray::number(answer.size()) + "\r\n";
    row("http-1.0", success(answer), old + "\r\n" + answer);
    row("http-1.0-length", success(answer), old + length + "\r\n" + answer);
    row("http-1.0-keep-alive", success(answer),
        old + length + "Connection: keep-alive\r\n\r\n" + answer, Server::KeepOpen);
    row("http-1.0-error", failure(503, answer), "HTTP/1.0 503 No\r\n\r\n" + answer);
    row("http-0.9", failure(), "<html>old</html>\r\n");
}

quint32 crc32(const QByteArray &bytes)
{
    quint32 crc = ~0U;
    for (const char byte : bytes) {
        crc ^= static_cast<quint8>(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (crc & 1 ? 0xEDB88320U : 0U);
    }
    return ~crc;
}

QByteArray littleEndian(quint32 value)
{
    QByteArray bytes;
    for (int i = 0; i < 4; ++i)
        bytes += static_cast<char>(value >> (8 * i));
    return bytes;
}

// Qt's compression puts a size of four bytes before HTTP's deflate, which is two bytes, raw
// deflate, and a checksum of four.
QByteArray deflated(const QByteArray &bytes)
{
    return qCompress(bytes).sliced(4);
}

QByteArray gzipped(const QByteArray &bytes)
{
    return QByteArray::fromHex("1f8b08000000000000ff") + deflated(bytes).sliced(2).chopped(4)
        + littleEndian(crc32(bytes)) + littleEndian(static_cast<quint32>(bytes.size()));
}

// A coded body that ends too soon is a success to the network layer, a broken one a failure.
void addCodings()
{
    const auto head = [](const QByteArray &coding, qsizetype size) {
        return "Content-Encoding: " + coding + "\r\nContent-Length: " + QByteArray::number(size)
            + "\r\n\r\n";
    };
    const auto coded = [&head](const QByteArray &name, const Expectation &expectation,
                               const QByteArray &coding, const QByteArray &body) {
        row(name, expectation, ok + head(coding, body.size()) + body);
    };
    const QByteArray gzip = gzipped(answer);
    const QByteArray deflate = deflated(answer);
    coded("gzip", success(answer), "gzip", gzip);
    coded("gzip-of-garbage", success(binary), "gzip", gzipped(binary));
    coded("gzip-empty", success(""), "gzip", "");
    coded("gzip-head-alone", success(""), "gzip", gzip.first(10));
    coded("gzip-truncated", either(200, answer), "gzip", gzip.chopped(20));
    coded("gzip-without-checksum", success(answer), "gzip", gzip.chopped(8));
    coded("gzip-wrong-checksum", failure(200), "gzip", gzip.chopped(8) + "12345678");
    coded("gzip-and-garbage", failure(200), "gzip", gzip + binary);
    coded("gzip-broken", failure(200), "gzip",
          QByteArray(gzip).replace(30, 8, QByteArray(8, '\xFF')));
    coded("gzip-that-is-none", failure(200), "gzip", answer);
    coded("gzip-twice", success(gzipped(gzip)), "gzip, gzip", gzipped(gzip));
    coded("deflate", success(answer), "deflate", deflate);
    coded("deflate-raw", success(answer), "deflate", deflate.sliced(2).chopped(4));
    coded("deflate-truncated", either(200, answer), "deflate", deflate.chopped(20));
    coded("deflate-that-is-none", failure(200), "deflate", answer);
    coded("br-empty", success(""), "br", "\x06");
    coded("br-truncated", success(""), "br", QByteArray::fromHex("1b5e00"));
    coded("br-that-is-none", failure(200), "br", answer);
    coded("zstd-that-is-none", failure(200), "zstd", answer);
    coded("coding-unknown", success(answer), "x-unknown", answer);
    coded("coding-identity", success(answer), "identity", answer);
    coded("coding-empty", success(answer), "", answer);
    row("gzip-in-chunks", success(answer),
        ok + "Content-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk(gzip.first(5))
            + chunk(gzip.sliced(5)) + "0\r\n\r\n");

    const QByteArray refused = "HTTP/1.1 403 No\r\n";
    row("gzip-in-error", failure(403, answer), refused + head("gzip", gzip.size()) + gzip);
    const QByteArray broken = refused + head("gzip", answer.size()) + answer;
    row("gzip-that-is-none-in-error",
        {failure(403), [broken](Scene &scene) { scene.host.server.always(broken); }, OwnReply,
         "QNetworkReplyImplPrivate::error: Internal problem, this method must only be called "
         "once."});
}

// Before Qt 6.8, an interim answer beside 100 counts as the answer.
void addInterimAnswers()
{
    constexpr bool countsInterim = QT_VERSION < QT_VERSION_CHECK(6, 8, 0);
    const QByteArray last = Server::response(200, answer);
    const QByteArray proceed = "HTTP/1.1 100 Continue\r\n\r\n";
    row("100", success(answer), proceed + last);
    row("100-often", success(answer), proceed.repeated(50) + last);
    row("100-alone", failure(), proceed);
    row("101", success("", 101), "HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\n");
    for (const QByteArray &line : QByteArrayList{"102 Processing", "103 Early Hints", "199 Odd"}) {
        const QByteArray interim = "HTTP/1.1 " + line + "\r\nLink: </x>\r\n\r\n";
        const Expectation nothing = success("", line.first(3).toInt());
        row(line.first(3), countsInterim ? nothing : success(answer), interim + last);
        row(line.first(3) + "-error", countsInterim ? nothing : failure(403, answer),
            interim + Server::response(403, answer));
    }
}

void addEmptyAnswers()
{
    for (const QByteArray &status : QByteArrayList{"204", "304"}) {
        const QByteArray head = "HTTP/1.1 " + status + " Empty\r\n";
        row(status, success("", status.toInt()), head + "\r\n");
        row(status + "-length", success("", status.toInt()), head + "Content-Length: 9\r\n\r\n");
        row(status + "-body", success("", status.toInt()), head + "Content-Length: 4\r\n\r\nbody");
    }
}

void addRedirects()
{
    const QByteArray other = "http://127.0.0.1:PORT/elsewhere"; // the other server's port
    const struct
    {
        QByteArray name;
        bool good;
        QByteArray location;
    } places[] = {
        {"path", true, "/elsewhere"},
        {"relative", true, "../../../../../elsewhere?x=%20#y"},
        {"other-port", true, other},
        {"other-port-without-scheme", true, other.sliced(5)},
        {"refused", false, "http://127.0.0.1:1/"},
        {"tls-refused", false, "https://127.0.0.1:1/"},
        {"unknown-scheme", false, "unknown://127.0.0.1/"},
        {"ftp", false, "ftp://127.0.0.1:1/"},
        {"file", false, "file:///dev/null"},
        {"data", false, "data:,text"},
        {"mail", false, "mailto:someone"},
        {"no-host", false, "http:///x"},
        {"invalid", false, "http://[bad"},
        {"blank", false, " "},
        {"empty", false, ""},
        {"missing", false, {}},
    };
    for (int status = 300; status <= 308; ++status) {
        const QByteArray tag = QByteArray::number(status);
        const bool followed = status != 300 && status != 304 && status != 306;
        const Expectation ignored = success(status == 304 ? "" : "Gone", status);
        // In every Qt, sending a body a second time now and then ends in an unknown error and a
        // warning.
        const bool sendsBodyAgain = status > 306;
        const auto add = [&](const QByteArray &name, const Expectation &expectation,
                             const Expectation &withBody,
                             const std::function<void(Scene &)> &arrange) {
            row(tag + name,
                {expectation, arrange, PlainRequest, nullptr,
                 sendsBodyAgain ? Fault::Gets : Fault::All});
            if (sendsBodyAgain)
                row(tag + name + "-post",
                    {withBody, arrange, OwnReply, nullptr, Fault::Posts, true});
        };
        const auto redirect = [tag](const QByteArray &location) {
            return "HTTP/1.1 " + tag + " Away\r\n"
                + (location.isNull() ? QByteArray() : "Location: " + location + "\r\n")
                + "Content-Length: 4\r\n\r\nGone";
        };
        for (const auto &[name, good, location] : places) {
            const auto outcome = [&, arrives = good](const Expectation &arrived) {
                return !followed ? ignored : arrives ? arrived : failure(status);
            };
            add('-' + name, outcome(success(answer)), outcome(either(200, answer)),
                [redirect, target = location](Scene &scene) {
                    const QByteArray port = QByteArray::number(scene.other.url().port());
                    QByteArray place = target;
                    scene.host.server.always(redirect(place.replace("PORT", port)));
                    const QByteArray there = Server::response(200, answer);
                    scene.host.server.always(there, Server::KeepOpen, "/elsewhere");
                    scene.host.server.always(there, Server::KeepOpen, "/elsewhere?x=%20");
                    scene.other.always(there);
                });
        }
        add("-loop", followed ? failure(status) : ignored, failure(status),
            [bytes = redirect("/again")](Scene &scene) { scene.host.server.always(bytes); });
        add("-to-error", followed ? failure(404, answer) : ignored, failure(404, answer),
            [bytes = redirect("/gone")](Scene &scene) {
                scene.host.server.always(bytes);
                scene.host.server.always(Server::response(404, answer), Server::KeepOpen, "/gone");
            });
    }
}

void addCredentials()
{
    const struct
    {
        QByteArray name;
        bool understood;
        QByteArray challenge;
    } challenges[] = {
        {"basic", true, R"(Basic realm="x")"},
        {"digest", true, R"(Digest realm="x", nonce="abc", qop="auth", algorithm=MD5)"},
        {"digest-broken", true, "Digest nonce"},
        {"unknown-scheme", false, R"(Unknown realm="x")"},
        {"empty", false, ""},
    };
    const auto identify = [](Scene &scene) {
        QUrl url = scene.url;
        url.setUserInfo(u"user:secret"_s);
        scene.setUrl(url);
    };
    for (const bool proxy : {false, true}) {
        const int status = proxy ? 407 : 401;
        const QByteArray field = proxy ? "Proxy-Authenticate: " : "WWW-Authenticate: ";
        for (const auto &[name, understood, challenge] : challenges) {
            const QByteArray tag = QByteArray::number(status) + '-' + name;
            const QByteArray bytes =
                Server::response(status, answer)
                    .replace("\r\n\r\n", "\r\n" + field + challenge + "\r\n\r\n");
            row(tag, failure(status, answer), bytes, Server::KeepOpen);
            row(tag + "-credentials-refused", {failure(status, answer), [=](Scene &scene) {
                                                   identify(scene);
                                                   scene.host.server.always(bytes);
                                               }});
            row(tag + "-credentials-accepted",
                {understood && !proxy ? success(answer) : failure(status, answer),
                 [=](Scene &scene) {
                     identify(scene);
                     scene.host.server.always(Server::response(200, answer));
                     scene.host.server.script(bytes);
                 }});
        }
    }
}

void addStatuses()
{
    // Odd ones, those of a success, and all others that are assigned.
    QList<int> statuses{-200, 0, 99, 299, 399, 499, 599, 600, 999, 1000, 2000000000};
    statuses += {200, 201, 202, 203, 205, 206, 207, 208, 226, 300, 428, 429, 431, 451};
    for (int status = 400; status <= 426; ++status)
        statuses += status;
    for (int status = 500; status <= 511; ++status)
        statuses += status;
    const struct
    {
        QByteArray name;
        QByteArray body;
        QByteArray type;
    } bodies[] = {
        {"json", answer, "application/json"},
        {"html", page, "text/html"},
        {"empty", "", "text/plain"},
        {"binary", binary, "application/octet-stream"},
    };
    for (const int status : std::as_const(statuses)) {
        for (const auto &[name, body, type] : bodies) {
            // The network layer fails on 400 and above alone.
            row("status-" + QByteArray::number(status) + '-' + name,
                status < 400 ? success(body, status) : failure(status, body),
                Server::response(status, body, type), Server::KeepOpen);
        }
    }
    row("status-099", success(answer, 99), "HTTP/1.1 099 Odd\r\n\r\n" + answer);
}

void addHeaders()
{
    const QByteArray much(10000, 'x');
    const QByteArray line = "X: y\r\n";
    const QByteArray lines[][2] = {
        {"long-value", "X: " + much + "\r\n"},
        {"long-name", much + ": x\r\n"},
        {"many", line.repeated(1000)},
        {"folded", "X: y\r\n z\r\n"},
        {"without-colon", "Nonsense\r\n"},
        {"without-name", ": x\r\n"},
        {"in-8-bit", "X: \xE8\xFF\r\n"},
        {"cookies-broken", "Set-Cookie: =;;;\r\nSet-Cookie: a=b; expires=never; domain=..\r\n"},
    };
    for (const auto &[name, text] : lines)
        row("headers-" + name, success(answer), ok + text + "\r\n" + answer);
    row("headers-endless", either(200, ""), ok + "X: " + much, Server::Close, OwnReply);
    row("status-line-endless", failure(), "HTTP/1.1 200 " + much);
}

void addSlowAnswers()
{
    const auto slow = [](const QByteArray &name, const Expectation &expectation,
                         const QByteArray &bytes, Server::After after = Server::KeepOpen,
                         Oracle oracle = PlainRequest) {
        row("slow-" + name,
            {expectation,
             [=](Scene &scene) {
                 scene.host.server.sendBytewise();
                 scene.host.server.always(bytes, after);
             },
             oracle});
    };
    const QByteArray whole = Server::response(200, answer);
    const QByteArray cut = ok + "Content-Length: 999\r\n\r\n" + answer;
    slow("success", success(answer), whole);
    slow("error", failure(500, answer), Server::response(500, answer));
    slow("interim", success(answer), "HTTP/1.1 100 Continue\r\n\r\n" + whole);
    slow("chunks", success(answer), chunked + chunk(answer) + "0\r\n\r\n");
    slow("until-closed", success(answer), ok + "\r\n" + answer, Server::Close);
    slow("gzip", success(answer), ok + "Content-Encoding: gzip\r\n\r\n" + gzipped(answer),
         Server::Close);
    slow("garbage", failure(), binary, Server::Close);
    slow("cut-short", either(200, answer), cut, Server::Close, OwnReply);
    slow("reset", either(200, answer), cut, Server::Reset, OwnReply);
}

const int operationCount = static_cast<int>(operations({}, {}).size());
constexpr int download = 2;

const char *nameOf(int operation)
{
    return operations({}, {}).at(operation).name;
}

bool isGet(const QByteArray &operation)
{
    return operation.startsWith("update") || operation == "purchase-plans";
}

// The one signal that this outcome of the operation must end in. No body in these tests is a JSON
// object but the one above.
QString lineFor(const QByteArray &operation, const Outcome &outcome, const QString &destination)
{
    const bool good = outcome.error == QNetworkReply::NoError;
    const bool readable = outcome.body == answer;
    if (!good && (isGet(operation) || outcome.status <= 0 || outcome.body.isEmpty()))
        return SignalLog::networkError(outcome.errorString);

    const QJsonObject object = readable ? QJsonDocument::fromJson(answer).object() : QJsonObject();
    if (operation == "usage")
        return SignalLog::usageSent(good && readable,
                                    readable   ? u"Testo"_s
                                        : good ? QString()
                                               : outcome.errorString);
    if (operation == "update-check") {
        const QString version = readable ? u"2"_s : QString();
        return SignalLog::updateChecked({readable, {}, u"x"_s, version, {}, {}, {}, {}, object});
    }
    if (operation == "update-download")
        return SignalLog::updateDownloaded(destination);
    if (operation == "purchase-plans")
        return SignalLog::purchasePlansReceived(readable ? QJsonArray{1} : QJsonArray());
    if (operation == "purchase-capture")
        return SignalLog::purchaseCaptured(
            {readable, 0, readable ? u"Pagamento completato."_s : u"Pagamento non completato."_s,
             object});
    return SignalLog::purchaseStarted(
        {readable,
         0,
         0,
         {},
         {},
         {},
         readable ? u"Pagamento avviato."_s : u"Pagamento non avviato."_s,
         object});
}

// Keeps what the client's replies say when they finish, in that order: the client itself reads
// their bodies a moment later.
void watch(const Corvane &client, QList<Outcome> *outcomes)
{
    for (QNetworkReply *reply : client.findChildren<QNetworkReply *>()) {
        QObject::connect(reply, &QNetworkReply::readChannelFinished, reply,
                         [reply, outcomes] { outcomes->append(PlainNetwork::outcomeOf(reply)); });
    }
}

bool fits(const Outcome &outcome, const Expectation &expectation)
{
    const bool success = outcome.error == QNetworkReply::NoError;
    switch (expectation.kind) {
    case Expectation::Success:
        return success && outcome.status == expectation.status && outcome.body == expectation.body;
    case Expectation::Failure:
        return !success && outcome.status == expectation.status && outcome.body == expectation.body;
    case Expectation::Either:
        break;
    }
    return (outcome.status == expectation.status || outcome.status == 0)
        && expectation.body.startsWith(outcome.body);
}

QByteArray describe(const QByteArray &operation, const Outcome &outcome)
{
    const bool success = outcome.error == QNetworkReply::NoError;
    return operation + ": " + (success ? "success" : outcome.errorString.toUtf8()) + ", status "
        + QByteArray::number(outcome.status) + ", " + QByteArray::number(outcome.body.size())
        + " bytes: " + outcome.body.first(qMin(outcome.body.size(), 200)).toPercentEncoding();
}

void expectWarning(const Fault &fault)
{
    if (fault.warning)
        QTest::ignoreMessage(QtWarningMsg, fault.warning);
}

// Stands for the content of a directory.
const QByteArray directory = "(directory)";

// Every directory and every file below the directory, the files with their content.
QMap<QString, QByteArray> contentsOf(const QString &root)
{
    QMap<QString, QByteArray> contents;
    QDirIterator entries(root, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QString path = entries.next();
        contents.insert(path.sliced(root.size() + 1),
                        entries.fileInfo().isDir() ? directory : Files::contentOf(path));
    }
    return contents;
}

Corvane *configured(Corvane *client, const LoopbackServer &server)
{
    client->setServerUrl(server.url());
    client->setProductCode(u"DEMO"_s);
    return client;
}

// Another client's round trip: whatever has been sent before has arrived.
void roundTrip()
{
    Host host;
    host.server.always(Server::response(200, answer));
    host.client.fetchPurchasePlans();
    QCOMPARE(host.log.settled().size(), 1);
}

} // namespace

void tst_Faults::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_Faults::cleanupTestCase() const
{
    qInfo("%d calls, each compared with the one signal that it must end in", m_callCount);
}

void tst_Faults::everyCallEndsInOneSignal_data()
{
    QTest::addColumn<Fault>("fault");

    addConnectionFaults();
    addChunkFaults();
    addLengthFaults();
    addGarbage();
    addOldVersions();
    addCodings();
    addInterimAnswers();
    addEmptyAnswers();
    addRedirects();
    addCredentials();
    addStatuses();
    addHeaders();
    addSlowAnswers();
}

void tst_Faults::everyCallEndsInOneSignal()
{
    QFETCH(Fault, fault);

    for (int operation = 0; operation < operationCount; ++operation) {
        if (fault.methods == (isGet(nameOf(operation)) ? Fault::Posts : Fault::Gets))
            continue;
        check(fault, operation, u"file"_s);
        if (operation == download)
            check(fault, operation, u"missing/file"_s);
        if (QTest::currentTestFailed())
            return;
    }
}

void tst_Faults::check(const Fault &fault, int operation, const QString &destination)
{
    const QTemporaryDir dir;
    Files::write(dir.filePath(u"file"_s), "old");
    QMap<QString, QByteArray> contents = contentsOf(dir.path());
    const QString path = dir.filePath(destination);

    const auto handler =
        fault.mayWarn ? qInstallMessageHandler([](auto, auto &, auto &) {}) : nullptr;
    const auto restore = qScopeGuard([handler] {
        if (handler)
            qInstallMessageHandler(handler);
    });
    Scene scene;
    fault.arrange(scene);
    expectWarning(fault);
    const auto [name, call] = operations(scene.url, path).at(operation);
    call(scene.host.client);
    const auto *reply = scene.host.client.findChild<QNetworkReply *>();
    const QUrl url = reply->request().url();
    const bool post = reply->operation() == QNetworkAccessManager::PostOperation;
    QList<Outcome> own;
    watch(scene.host.client, &own);
    const QStringList lines = scene.host.log.settled();
    QVERIFY2(own.size() == 1, name);

    Outcome oracle = own.constFirst();
    if (fault.oracle == PlainRequest) {
        fault.arrange(scene);
        expectWarning(fault);
        oracle = PlainNetwork::outcomeOf(url, post ? "{}" : "");
    }
    QVERIFY2(fits(oracle, fault.expectation), describe(name, oracle).constData());
    QCOMPARE(QString::fromLatin1(name) + lines.join(u'\n'),
             QString::fromLatin1(name) + lineFor(name, oracle, path));
    if (operation == download && oracle.error == QNetworkReply::NoError) {
        if (destination.startsWith("missing"_L1))
            contents.insert(u"missing"_s, directory);
        contents.insert(destination, oracle.body);
    }
    QCOMPARE(contentsOf(dir.path()), contents);
    ++m_callCount;
}

void tst_Faults::hugeAnswerGivesOneSignal_data()
{
    QTest::addColumn<Fault>("fault");

    const auto add = [](const QByteArray &name, const Expectation &expectation,
                        const QByteArray &bytes) {
        row(name, expectation, ok + bytes, Server::Close, OwnReply);
    };
    const QByteArray much(100000, 'x');
    add("header-value", success(answer), "X: " + much + "\r\n\r\n" + answer);
    add("header-value-enormous", success(answer),
        "X: " + QByteArray(1 << 18, 'x') + "\r\n\r\n" + answer);
    add("header-name", success(answer), much + ": x\r\n\r\n" + answer);
    add("headers", success(answer), QByteArray("X:\r\n").repeated(20000) + "\r\n" + answer);
    add("decompressed-body", failure(200),
        "Content-Encoding: deflate\r\n\r\n" + deflated(QByteArray(12 << 20, '\0')));
}

// One operation for all: the network layer reads heads byte by byte.
void tst_Faults::hugeAnswerGivesOneSignal()
{
    QFETCH(Fault, fault);

    check(fault, download, u"file"_s);
}

void tst_Faults::failureWithoutStatusIsANetworkError_data()
{
    QTest::addColumn<int>("operation");

    for (int operation = 0; operation < operationCount; ++operation)
        QTest::newRow(nameOf(operation)) << operation;
}

// Having failed to decode a body, the network layer hands over what comes later as it is: a
// failure with a body. Without a status, that body explains nothing.
void tst_Faults::failureWithoutStatusIsANetworkError()
{
    QFETCH(int, operation);

    const QTemporaryDir dir;
    Host host;
    operations(host.server.url(), dir.filePath(u"file"_s)).at(operation).call(host.client);
    auto *reply = host.client.findChild<QNetworkReply *>();
    QVERIFY(host.server.waitForRequests(1));
    QSignalSpy failed(reply, &QNetworkReply::errorOccurred);
    host.server.reply(0, "HTTP/1.1 000 No\r\nContent-Encoding: gzip\r\n\r\n" + answer);
    QVERIFY(failed.wait());
    const QString error = reply->errorString();
    host.server.reply(0, answer, Server::Close);
    QCOMPARE(host.log.settled(), QStringList{SignalLog::networkError(error)});
    QVERIFY(contentsOf(dir.path()).isEmpty());
    ++m_callCount;
}

void tst_Faults::replyThatMayNeverFinishGivesItsSignalAtMost_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<Server::After>("after");

    const QByteArray last = chunked + chunk(answer) + "0\r\n";
    const QByteArray joined =
        chunked + QByteArray::number(answer.size(), 16) + "\r\n" + answer + "0\r\n\r\n";
    for (int operation = 0; operation < operationCount; ++operation) {
        const auto add = [operation](const char *fault, const QByteArray &bytes,
                                     Server::After after) {
            QTest::addRow("%s-%s", nameOf(operation), fault) << operation << bytes << after;
        };
        add("closed-in-last-chunk", last, Server::Close);
        add("reset-in-last-chunk", last, Server::Reset);
        add("reset-at-once", {}, Server::Reset);
        add("chunk-without-line-end", joined, Server::Close);
        add("chunk-size-no-number", chunked + "ffffffffffffffff\r-\r\n", Server::Close);
    }
}

// In all versions of Qt, the network layer mostly never finishes a reply whose connection closes
// between the last chunk and the end of the body or after certain chunk sizes, and now and then one
// whose connection is reset before the request is written. The call then ends with the client.
void tst_Faults::replyThatMayNeverFinishGivesItsSignalAtMost()
{
    QFETCH(int, operation);
    QFETCH(QByteArray, bytes);
    QFETCH(Server::After, after);

    const QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    LoopbackServer server;
    if (bytes.isEmpty())
        server.greet({}, after);
    server.always(bytes, after);
    QObject owner;
    auto *client = configured(new Corvane(&owner), server);
    SignalLog log(client);
    operations(server.url(), path).at(operation).call(*client);
    QList<Outcome> own;
    watch(*client, &own);
    QVERIFY(bytes.isEmpty() || server.waitForRequests(1));
    roundTrip();
    delete client;
    QStringList expected;
    for (const Outcome &outcome : std::as_const(own))
        expected += lineFor(nameOf(operation), outcome, path);
    QCOMPARE(log.lines(), expected);
    QCOMPARE(QFile::exists(path), expected.contains(SignalLog::updateDownloaded(path)));
    ++m_callCount;
}

void tst_Faults::secondCallOutlivesItsConnection_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<bool>("atOnce");
    QTest::addColumn<Server::After>("after");

    for (int operation = 0; operation < operationCount; ++operation) {
        const auto add = [operation](const char *fault, bool atOnce, Server::After after) {
            QTest::addRow("%s-%s", nameOf(operation), fault) << operation << atOnce << after;
        };
        add("closed-after-first", true, Server::Close);
        add("closed-on-second", false, Server::Close);
        add("reset-on-second", false, Server::Reset);
    }
}

// The network layer sends a request again when a connection that was kept turns out to be gone;
// newer versions of Qt (6.11 does, 6.8 does not yet) take care never to send a POST twice. Of a
// request whose kept connection is reset just before, no version makes an end every time.
void tst_Faults::secondCallOutlivesItsConnection()
{
    QFETCH(int, operation);
    QFETCH(bool, atOnce);
    QFETCH(Server::After, after);

    const QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Host host;
    host.server.script(Server::response(200, answer), atOnce ? after : Server::KeepOpen);
    if (!atOnce)
        host.server.script("", after);
    host.server.always(Server::response(200, answer));
    host.client.fetchPurchasePlans();
    QCOMPARE(host.log.settled(), QStringList{SignalLog::purchasePlansReceived({1})});
    operations(host.server.url(), path).at(operation).call(host.client);
    const bool sentAgain = QT_VERSION < QT_VERSION_CHECK(6, 9, 0) || isGet(nameOf(operation));
    QList<Outcome> own;
    watch(host.client, &own);
    const QStringList lines = host.log.settled().sliced(1);
    QCOMPARE(own.size(), 1);
    const Outcome outcome = own.constFirst();
    QVERIFY2(fits(outcome, sentAgain ? success(answer) : either(200, answer)),
             describe(nameOf(operation), outcome).constData());
    QCOMPARE(lines, QStringList{lineFor(nameOf(operation), outcome, path)});
    ++m_callCount;
}

// Six are under way, the others wait for their turn.
void tst_Faults::queuedCallsEndWhenTheServerDies()
{
    const QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Host host;
    constexpr int rounds = 10;
    for (int i = 0; i < rounds; ++i) {
        for (const Operation &operation : operations(host.server.url(), path))
            operation.call(host.client);
    }
    QList<Outcome> own;
    watch(host.client, &own);
    QVERIFY(host.server.waitForRequests(6));
    host.server.die();
    const QStringList lines = host.log.settled();
    QStringList expected;
    for (const Outcome &outcome : std::as_const(own)) {
        QVERIFY2(fits(outcome, failure()), describe("queued", outcome).constData());
        expected += SignalLog::networkError(outcome.errorString);
    }
    QCOMPARE(lines, expected);
    QCOMPARE(lines.size(), rounds * operationCount);
    QVERIFY(!QFile::exists(path));
    m_callCount += rounds * operationCount;
}

void tst_Faults::destroyedClientSaysNothing_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<QByteArray>("before"); // of the answer
    QTest::addColumn<QByteArray>("after");

    const QByteArray whole = Server::response(200, answer);
    const QByteArray inChunks = chunked + chunk(answer) + "0\r\n\r\n";
    const struct
    {
        const char *place;
        QByteArray bytes;
        qsizetype size;
    } cuts[] = {
        {"before-answer", whole, 0},
        {"in-status-line", whole, 5},
        {"in-headers", whole, whole.indexOf("\r\n\r\n")},
        {"after-headers", whole, whole.indexOf("\r\n\r\n") + 4},
        {"in-body", whole, whole.size() - 1},
        {"in-body-of-error", Server::response(500, answer), whole.size() - 1},
        {"before-last-chunk", inChunks, inChunks.size() - 5},
    };
    for (int operation = 0; operation < operationCount; ++operation) {
        for (const auto &[place, bytes, size] : cuts)
            QTest::addRow("%s-%s", nameOf(operation), place)
                << operation << bytes.first(size) << bytes.sliced(size);
    }
}

void tst_Faults::destroyedClientSaysNothing()
{
    QFETCH(int, operation);
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);

    const QTemporaryDir dir;
    LoopbackServer server;
    QObject owner;
    auto *client = configured(new Corvane(&owner), server);
    const SignalLog log(client);
    operations(server.url(), dir.filePath(u"file"_s)).at(operation).call(*client);
    QVERIFY(server.waitForRequests(1));
    server.reply(0, before);
    roundTrip();
    delete client;
    server.reply(0, after, Server::Close);
    roundTrip();
    QCOMPARE(log.lines(), QStringList());
    QVERIFY(contentsOf(dir.path()).isEmpty());
    ++m_callCount;
}

void tst_Faults::clientDestroyedByASlotSaysNoMore_data()
{
    QTest::addColumn<int>("operation");

    for (int operation = 0; operation < operationCount; ++operation)
        QTest::newRow(nameOf(operation)) << operation;
}

void tst_Faults::clientDestroyedByASlotSaysNoMore()
{
    QFETCH(int, operation);

    const QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    LoopbackServer server;
    QObject owner;
    auto *client = configured(new Corvane(&owner), server);
    SignalLog log(client);
    connect(&log, &SignalLog::lineAdded, client, &QObject::deleteLater);
    const QSignalSpy destroyed(client, &QObject::destroyed);
    operations(server.url(), path).at(operation).call(*client);
    QVERIFY(server.waitForRequests(1));
    // These wait, some for an answer, the others for their turn.
    for (const Operation &other : operations(server.url(), path))
        other.call(*client);
    QVERIFY(server.waitForRequests(6));
    server.reply(0, Server::response(200, answer));
    QVERIFY(QTest::qWaitFor([&destroyed] { return !destroyed.isEmpty(); }));
    for (int i = 1; i < 6; ++i)
        server.reply(i, Server::response(200, answer));
    roundTrip();
    const Outcome good{QNetworkReply::NoError, {}, 200, answer};
    QCOMPARE(log.lines(), QStringList{lineFor(nameOf(operation), good, path)});
    QCOMPARE(QFile::exists(path), operation == download);
    ++m_callCount;
}

QTEST_GUILESS_MAIN(tst_Faults)
#include "tst_faults.moc"
