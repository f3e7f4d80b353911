// What a client asks for, step by step: each line is a step, of a letter and tab-separated fields.
//
//   s <URL>                           sets the server URL
//   p <code>                          sets the product code
//   u <key> <machine> <type> <JSON>   sendUsage()
//   c <version> <channel>             checkForUpdate()
//   d <URL> <place>                   downloadUpdate(); the place is a letter, none is no path
//   l                                 fetchPurchasePlans()
//   b <plan> <first> <last> <e-mail>  startPayPalPurchase()
//   r <key>                           resumePayPalPurchase()
//   k <order id>                      capturePayPalPurchase()
//   a <n><error><status><body>        answers a request; three letters
//
// A field is UTF-8, percent-encoded where it has to be; U+E000 to U+E7FF in it stand for the
// surrogates, which UTF-8 has no bytes for. Nothing reaches the network: the client's manager is
// replaced by one that records.

#include "scriptedreply.h"
#include "signallog.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qpointer.h>
#include <QtCore/qregularexpression.h>
#include <QtNetwork/qnetworkaccessmanager.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int mostSteps = 40;

struct Sent
{
    QNetworkAccessManager::Operation method;
    QNetworkRequest request;
    QByteArray body;
    QPointer<ScriptedReply> reply;
};

class RecordingNetwork : public QNetworkAccessManager
{
public:
    using QNetworkAccessManager::QNetworkAccessManager;

    QList<Sent> sent;

protected:
    QNetworkReply *createRequest(Operation method, const QNetworkRequest &request,
                                 QIODevice *body) override
    {
        auto *const reply = new ScriptedReply(this);
        sent.append({method, request, body ? body->readAll() : QByteArray(), reply});
        return reply;
    }
};

bool isHexadecimal(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Sequences that encode nothing stay as they are.
QByteArray percentDecoded(const QByteArray &text)
{
    QByteArray decoded;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const bool encoded = text[i] == '%' && i + 2 < text.size() && isHexadecimal(text[i + 1])
            && isHexadecimal(text[i + 2]);
        decoded += encoded ? QByteArray::fromHex(text.mid(i + 1, 2)) : text.mid(i, 1);
        i += encoded ? 2 : 0;
    }
    return decoded;
}

// Only what RFC 3986 calls unreserved stays.
QByteArray percentEncoded(const QByteArray &text)
{
    constexpr QByteArrayView alphabet =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~";
    QByteArray encoded;
    for (const char c : text)
        encoded +=
            alphabet.contains(c) ? QByteArray(1, c) : '%' + QByteArray(1, c).toHex().toUpper();
    return encoded;
}

QString trimmed(const QString &text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && text[begin].isSpace())
        ++begin;
    while (begin < end && text[end - 1].isSpace())
        --end;
    return text.mid(begin, end - begin);
}

// One percent sign that starts no sequence makes Qt take all of them as they stand.
bool isEncoded(const QString &text)
{
    static const QRegularExpression stray(u"%(?![0-9A-Fa-f]{2})"_s);
    return !text.contains(stray);
}

// Surrogates that are no pair, which have no bytes in UTF-8: Qt's own choice stands for them.
bool hasLoneSurrogate(const QString &text)
{
    return !text.isValidUtf16();
}

QString fieldOf(Target::Input &line)
{
    QString field = QString::fromUtf8(percentDecoded(line.until('\t')));
    for (QChar &c : field) {
        if (c >= u'\uE000' && c <= u'\uE7FF')
            c = QChar(c.unicode() - 0xE000 + 0xD800);
    }
    return field;
}

// A client, and what it has to say and to ask for.
class Session
{
public:
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    explicit Session(Places &places)
        : m_places(places)
    {
        delete m_client->m_network;
        m_client->m_network = m_network;
    }
    ~Session();

    void step(const QByteArray &line);

private:
    void call(char letter, Target::Input &fields);
    void setServerUrl(Target::Input &fields);
    void setProductCode(Target::Input &fields);
    void sendUsage(Target::Input &fields);
    void checkForUpdate(Target::Input &fields);
    void downloadUpdate(Target::Input &fields);
    void fetchPurchasePlans();
    void startPurchase(Target::Input &fields);
    void resumePurchase(Target::Input &fields);
    void capturePurchase(Target::Input &fields);
    void answer(Target::Input &fields);

    bool isConfigured() const { return m_serverUrl.isValid() && !m_productCode.isEmpty(); }
    bool isRefused();
    const Sent *sentTo(const QString &path, Corvane::Operation operation);
    void expectPost(const QString &path, const QJsonObject &body, Corvane::Operation operation);
    void expectUncachedGet(const QNetworkRequest &request);

    Places &m_places;
    std::unique_ptr<Corvane> m_client = std::make_unique<Corvane>();
    RecordingNetwork *m_network = new RecordingNetwork(m_client.get());
    SignalLog m_log{m_client.get()};

    QUrl m_serverUrl;
    QString m_productCode;
    Model::State m_state;
    bool m_downloadAsked = false;
    QList<Corvane::Operation> m_operations; // of each request
    QStringList m_lines; // that the log has to show
};

Session::~Session()
{
    m_client.reset();
    Target::expect("a destroyed client's signals", m_log.lines(), m_lines);
}

void Session::step(const QByteArray &line)
{
    Target::Input fields(line);
    const char letter = fields.letter();
    fields.letter();
    call(letter, fields);
    Target::expect("the signals", m_log.lines(), m_lines);
    Target::expect("as many requests as expected", m_network->sent.size() == m_operations.size());
    Target::expect("the URL as it was set", m_client->serverUrl() == m_serverUrl);
    Target::expect("the product code", m_client->productCode(), m_productCode);
    Target::expect("the version", m_client->m_currentVersion, m_state.currentVersion);
    Target::expect("the path", m_client->m_downloadPath,
                   m_downloadAsked ? m_places.path(m_state.place) : QString());
}

void Session::call(char letter, Target::Input &fields)
{
    switch (letter) {
    case 's':
        setServerUrl(fields);
        break;
    case 'p':
        setProductCode(fields);
        break;
    case 'u':
        sendUsage(fields);
        break;
    case 'c':
        checkForUpdate(fields);
        break;
    case 'd':
        downloadUpdate(fields);
        break;
    case 'l':
        fetchPurchasePlans();
        break;
    case 'b':
        startPurchase(fields);
        break;
    case 'r':
        resumePurchase(fields);
        break;
    case 'k':
        capturePurchase(fields);
        break;
    case 'a':
        answer(fields);
        break;
    default:
        break;
    }
}

void Session::setServerUrl(Target::Input &fields)
{
    m_serverUrl = QUrl(fieldOf(fields));
    m_client->setServerUrl(m_serverUrl);
}

void Session::setProductCode(Target::Input &fields)
{
    const QString code = fieldOf(fields);
    m_productCode = trimmed(code).toUpper();
    m_client->setProductCode(code);
}

void Session::sendUsage(Target::Input &fields)
{
    const QString key = fieldOf(fields);
    const QString machine = fieldOf(fields);
    const QString type = fieldOf(fields);
    const QJsonObject payload = QJsonDocument::fromJson(percentDecoded(fields.rest())).object();
    m_client->sendUsage(key, machine, type, payload);

    QJsonObject body = payload;
    body[u"product_code"_s] = m_productCode;
    body[u"license_key"_s] = trimmed(key);
    body[u"machine_fingerprint"_s] = machine;
    body[u"event_type"_s] = type;
    expectPost(u"/api/v1/client/usage"_s, body, Corvane::Usage);
}

void Session::checkForUpdate(Target::Input &fields)
{
    const QString version = fieldOf(fields);
    const QString channel = fieldOf(fields);
    const qint64 earliest = QDateTime::currentMSecsSinceEpoch();
    m_client->checkForUpdate(version, channel);
    const qint64 latest = QDateTime::currentMSecsSinceEpoch();
    const Sent *sent = sentTo(u"/api/v1/releases/latest/"_s + m_productCode, Corvane::UpdateCheck);
    if (!sent)
        return;

    m_state.currentVersion = version;
    expectUncachedGet(sent->request);
    static const QRegularExpression form(u"\\Achannel=([^&]*)&_=([1-9][0-9]*)\\z"_s);
    const QRegularExpressionMatch query = form.match(sent->request.url().query(QUrl::FullyEncoded));
    Target::expect("the query's form", query.hasMatch());
    const qint64 time = query.captured(2).toLongLong();
    Target::expect("the time", time >= earliest && time <= latest);
    if (!hasLoneSurrogate(channel))
        Target::expect("the channel", percentDecoded(query.captured(1).toLatin1()),
                       isEncoded(channel) ? percentDecoded(channel.toUtf8()) : channel.toUtf8());
}

void Session::downloadUpdate(Target::Input &fields)
{
    const QUrl url(fieldOf(fields));
    const bool hasPath = !fields.atEnd();
    const Places::Kind place = Target::choice(Places::kinds, fields.letter());
    m_client->downloadUpdate(url, hasPath ? m_places.path(place) : QString());
    if (!url.isValid() || !hasPath) {
        m_lines += SignalLog::networkError(u"URL o destinazione aggiornamento non validi."_s);
        return;
    }

    m_operations += Corvane::UpdateDownload;
    m_downloadAsked = true;
    m_state.place = place;
    Target::expect("one more request", m_network->sent.size() == m_operations.size());
    const QNetworkRequest &request = m_network->sent.constLast().request;
    Target::expect("the URL as it was given", request.url() == url);
    expectUncachedGet(request);
}

void Session::fetchPurchasePlans()
{
    m_client->fetchPurchasePlans();
    const Sent *sent = sentTo(u"/api/v1/purchase/plans"_s, Corvane::PurchasePlans);
    if (!sent)
        return;

    Target::expect("a GET", sent->method == QNetworkAccessManager::GetOperation);
    Target::expect("nothing set", sent->request == QNetworkRequest(sent->request.url()));
    Target::expect("the query", sent->request.url().query(QUrl::FullyEncoded).toUtf8(),
                   "product_code=" + percentEncoded(m_productCode.toUtf8()));
}

void Session::startPurchase(Target::Input &fields)
{
    const QString plan = fieldOf(fields);
    const QString first = fieldOf(fields);
    const QString last = fieldOf(fields);
    const QString email = fieldOf(fields);
    m_client->startPayPalPurchase(plan, first, last, email);
    expectPost(u"/api/v1/purchase/start"_s,
               {{u"product_code"_s, m_productCode},
                {u"plan_code"_s, trimmed(plan).toUpper()},
                {u"first_name"_s, trimmed(first)},
                {u"last_name"_s, trimmed(last)},
                {u"email"_s, trimmed(email).toLower()}},
               Corvane::PurchaseStart);
}

void Session::resumePurchase(Target::Input &fields)
{
    const QString key = fieldOf(fields);
    m_client->resumePayPalPurchase(key);
    expectPost(u"/api/v1/purchase/resume"_s,
               {{u"product_code"_s, m_productCode}, {u"license_key"_s, trimmed(key)}},
               Corvane::PurchaseResume);
}

void Session::capturePurchase(Target::Input &fields)
{
    const QString order = fieldOf(fields);
    m_client->capturePayPalPurchase(order);
    expectPost(u"/api/v1/purchase/capture"_s, {{u"paypal_order_id"_s, trimmed(order)}},
               Corvane::PurchaseCapture);
}

void Session::answer(Target::Input &fields)
{
    if (m_operations.isEmpty())
        return;
    const qsizetype number = static_cast<unsigned char>(fields.letter() - 'a');
    const qsizetype index = number % m_operations.size();
    const QPointer<ScriptedReply> reply = m_network->sent[index].reply;
    if (!reply)
        return;

    const Model::Answer answer = ScriptedReply::answerOf(fields);
    const Corvane::Operation operation = m_operations[index];
    m_places.reset();
    reply->finish(answer);
    Target::expect("the reply lives until the event loop", !reply.isNull());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    Target::expect("the reply is gone after the event loop", reply.isNull());
    m_lines += Model::line(operation, answer, m_state, m_places);
    Target::expect("the file", m_places.content(m_state.place),
                   Model::isSaved(operation, answer, m_state)
                       ? answer.body
                       : Places::initialContent(m_state.place));
}

// Whether the call just made had to be refused; then it has to have said so.
bool Session::isRefused()
{
    if (isConfigured())
        return false;
    m_lines += SignalLog::networkError(u"Server URL o product code non configurati."_s);
    return true;
}

// The request of the call just made, whose URL is the server's but for the path and, in a GET, the
// query; null if the call had to be refused.
const Sent *Session::sentTo(const QString &path, Corvane::Operation operation)
{
    if (isRefused())
        return nullptr;

    m_operations += operation;
    Target::expect("one more request", m_network->sent.size() == m_operations.size());
    const Sent &sent = m_network->sent.constLast();
    const QUrl url = sent.request.url();
    Target::expect("the scheme", url.scheme(), m_serverUrl.scheme());
    Target::expect("the authority", url.authority(QUrl::FullyEncoded),
                   m_serverUrl.authority(QUrl::FullyEncoded));
    Target::expect("the fragment", url.fragment(QUrl::FullyEncoded),
                   m_serverUrl.fragment(QUrl::FullyEncoded));
    if (!hasLoneSurrogate(path))
        Target::expect("the path", percentDecoded(url.path(QUrl::FullyEncoded).toLatin1()),
                       path.toUtf8());
    return &sent;
}

void Session::expectPost(const QString &path, const QJsonObject &body, Corvane::Operation operation)
{
    const Sent *sent = sentTo(path, operation);
    if (!sent)
        return;

    Target::expect("a POST", sent->method == QNetworkAccessManager::PostOperation);
    QNetworkRequest expected(sent->request.url());
    expected.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    Target::expect("the content type alone", sent->request == expected);
    Target::expect("the query", sent->request.url().query(QUrl::FullyEncoded),
                   m_serverUrl.query(QUrl::FullyEncoded));
    Target::expect("the body", sent->body, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

void Session::expectUncachedGet(const QNetworkRequest &request)
{
    Target::expect("a GET",
                   m_network->sent.constLast().method == QNetworkAccessManager::GetOperation);
    QNetworkRequest expected(request.url());
    expected.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                          QNetworkRequest::AlwaysNetwork);
    expected.setRawHeader("Cache-Control", "no-cache");
    expected.setRawHeader("Pragma", "no-cache");
    Target::expect("what keeps caches out, alone", request == expected);
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    return Target::initialize(argc, argv, Target::refuseMessage);
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Places places;
    Target::Input input(data, size);
    Session session(places);
    for (int step = 0; step < mostSteps && !input.atEnd(); ++step)
        session.step(input.until('\n'));
    return 0;
}
