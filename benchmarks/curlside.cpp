#include "constants.h"
#include "records.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qsocketnotifier.h>
#include <QtCore/qtimer.h>

#include <curl/curl.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// A socket that libcurl waits for.
struct Watch
{
    std::unique_ptr<QSocketNotifier> read;
    std::unique_ptr<QSocketNotifier> write;
};

struct Transfer
{
    Call call = Call::Check;
    CURL *easy = nullptr;
    curl_slist *headers = nullptr;
    QByteArray url;
    QByteArray sent;
    QByteArray received;
};

class CurlSide : public Side
{
public:
    CurlSide(const QUrl &server, QString product)
        : m_server(server)
        , m_product(std::move(product))
        , m_multi(curl_multi_init())
    {
        m_timer.setSingleShot(true);
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer,
                         [this] { act(CURL_SOCKET_TIMEOUT, 0); });
        curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &CurlSide::onSocket);
        curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
        curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &CurlSide::setTimer);
        curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
        // As QNetworkAccessManager does.
        curl_multi_setopt(m_multi, CURLMOPT_MAX_HOST_CONNECTIONS, 6L);
    }

    ~CurlSide() override { curl_multi_cleanup(m_multi); }
    Q_DISABLE_COPY_MOVE(CurlSide)

    void start(Call call) override
    {
        auto *transfer = new Transfer;
        transfer->call = call;
        transfer->easy = curl_easy_init();
        transfer->url = urlOf(call);
        curl_easy_setopt(transfer->easy, CURLOPT_URL, transfer->url.constData());
        curl_easy_setopt(transfer->easy, CURLOPT_PRIVATE, transfer);
        curl_easy_setopt(transfer->easy, CURLOPT_WRITEFUNCTION, &CurlSide::receive);
        curl_easy_setopt(transfer->easy, CURLOPT_WRITEDATA, transfer);
        curl_easy_setopt(transfer->easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(transfer->easy, CURLOPT_FAILONERROR, 1L);
        if (call == Call::Check || call == Call::Download) {
            transfer->headers = curl_slist_append(nullptr, "Cache-Control: no-cache");
            transfer->headers = curl_slist_append(transfer->headers, "Pragma: no-cache");
        } else if (call != Call::Plans) {
            transfer->sent = bodyOf(call, m_product);
            transfer->headers = curl_slist_append(nullptr, "Content-Type: application/json");
            curl_easy_setopt(transfer->easy, CURLOPT_POSTFIELDS, transfer->sent.constData());
            curl_easy_setopt(transfer->easy, CURLOPT_POSTFIELDSIZE, long(transfer->sent.size()));
        }
        curl_easy_setopt(transfer->easy, CURLOPT_HTTPHEADER, transfer->headers);
        curl_multi_add_handle(m_multi, transfer->easy);
    }

private:
    QByteArray urlOf(Call call) const
    {
        if (call == Call::Download)
            return file.toEncoded();
        QByteArray url = m_server.toEncoded(QUrl::RemovePath) + pathOf(call, m_product).toUtf8();
        if (call == Call::Check)
            url += "?channel=" + QUrl::toPercentEncoding(Constants::channel)
                + "&_=" + QByteArray::number(QDateTime::currentMSecsSinceEpoch());
        else if (call == Call::Plans)
            url += "?product_code=" + QUrl::toPercentEncoding(m_product);
        return url;
    }

    static size_t receive(char *data, size_t, size_t size, void *to)
    {
        auto *transfer = static_cast<Transfer *>(to);
        if (transfer->received.isNull()) {
            curl_off_t length = 0;
            curl_easy_getinfo(transfer->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
            transfer->received.reserve(std::max<curl_off_t>(length, 1));
        }
        transfer->received.append(data, qsizetype(size));
        return size;
    }

    static int onSocket(CURL *, curl_socket_t socket, int what, void *self, void *)
    {
        static_cast<CurlSide *>(self)->setWatch(socket, what);
        return 0;
    }

    void setWatch(curl_socket_t socket, int what)
    {
        if (what == CURL_POLL_REMOVE) {
            // It may be the one that is being heard of.
            Watch gone = std::move(m_watches[socket]);
            m_watches.erase(socket);
            for (auto *notifier : {gone.read.release(), gone.write.release()}) {
                if (notifier) {
                    notifier->setEnabled(false);
                    notifier->deleteLater();
                }
            }
            return;
        }
        Watch &watch = m_watches[socket];
        setNotifier(watch.read, socket, QSocketNotifier::Read, what & CURL_POLL_IN);
        setNotifier(watch.write, socket, QSocketNotifier::Write, what & CURL_POLL_OUT);
    }

    void setNotifier(std::unique_ptr<QSocketNotifier> &notifier, curl_socket_t socket,
                     QSocketNotifier::Type type, bool isWanted)
    {
        if (!notifier && isWanted) {
            notifier = std::make_unique<QSocketNotifier>(socket, type);
            const int event = type == QSocketNotifier::Read ? CURL_CSELECT_IN : CURL_CSELECT_OUT;
            QObject::connect(notifier.get(), &QSocketNotifier::activated, &m_timer,
                             [this, socket, event] { act(socket, event); });
        }
        if (notifier)
            notifier->setEnabled(isWanted);
    }

    static int setTimer(CURLM *, long milliseconds, void *self)
    {
        QTimer &timer = static_cast<CurlSide *>(self)->m_timer;
        if (milliseconds < 0)
            timer.stop();
        else
            timer.start(int(milliseconds));
        return 0;
    }

    void act(curl_socket_t socket, int event)
    {
        int running = 0;
        curl_multi_socket_action(m_multi, socket, event, &running);
        int left = 0;
        while (CURLMsg *message = curl_multi_info_read(m_multi, &left)) {
            if (message->msg == CURLMSG_DONE)
                finish(message->easy_handle, message->data.result);
        }
    }

    void finish(CURL *easy, CURLcode result)
    {
        Transfer *raw = nullptr;
        curl_easy_getinfo(easy, CURLINFO_PRIVATE, &raw);
        const std::unique_ptr<Transfer> transfer(raw);
        if (result != CURLE_OK)
            stop(QString::fromLatin1(curl_easy_strerror(result)));
        curl_multi_remove_handle(m_multi, easy);
        curl_easy_cleanup(easy);
        curl_slist_free_all(transfer->headers);
        if (transfer->call == Call::Download)
            save(transfer->received, destination);
        else
            m_records.read(transfer->call, transfer->received);
        onDone();
    }

    const QUrl m_server;
    const QString m_product;
    CURLM *m_multi;
    QTimer m_timer;
    std::unordered_map<curl_socket_t, Watch> m_watches;
    Records m_records;
};

} // namespace

std::unique_ptr<Side> makeLibcurl(const QUrl &server, const QString &product)
{
    return std::make_unique<CurlSide>(server, product);
}

QString libcurlVersion()
{
    return QString::fromLatin1(curl_version_info(CURLVERSION_NOW)->version);
}
