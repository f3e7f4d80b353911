#include "plainnetwork.h"

#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

bool hasHeader(const LoopbackServer::Request &request, const QByteArray &name)
{
    return !request.header(name).isNull();
}

using ReplyPointer = std::unique_ptr<QNetworkReply>;

QNetworkReply *send(QNetworkAccessManager &network, const QUrl &url, bool get,
                    const QByteArray &body)
{
    QNetworkRequest request(url);
    if (get)
        return network.get(request);
    // Without a type the network layer would warn.
    request.setHeader(QNetworkRequest::ContentTypeHeader, "text/plain"_L1);
    return network.post(request, body);
}

void waitForEnd(QNetworkReply *reply)
{
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!finished.wait(10000))
        qFatal("The plain request did not finish");
}

} // namespace

PlainNetwork::Outcome PlainNetwork::outcomeOf(QNetworkReply *reply)
{
    return {reply->error(), reply->errorString(),
            reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
            reply->peek(reply->bytesAvailable())};
}

PlainNetwork::Outcome PlainNetwork::outcomeOf(const QUrl &url, const QByteArray &body)
{
    QNetworkAccessManager network;
    const ReplyPointer reply(send(network, url, body.isEmpty(), body));
    waitForEnd(reply.get());
    return outcomeOf(reply.get());
}

PlainNetwork::Answer PlainNetwork::ask(LoopbackServer &server, const LoopbackServer::Request &like,
                                       const QByteArray &response, LoopbackServer::After after)
{
    // A connection of its own, so that nothing depends on what went before.
    QNetworkAccessManager network;
    server.script(response, after);
    const QUrl url = server.url().resolved(QUrl::fromEncoded(like.target));
    const ReplyPointer reply(send(network, url, like.method == "GET", like.body));
    waitForEnd(reply.get());
    return {server.requests().constLast(), reply->errorString()};
}

bool PlainNetwork::isUncachedGet(const QNetworkRequest &request)
{
    constexpr auto attribute = QNetworkRequest::CacheLoadControlAttribute;
    QNetworkRequest expected(request.url());
    expected.setAttribute(attribute, QNetworkRequest::AlwaysNetwork);
    expected.setRawHeader("Cache-Control", "no-cache");
    expected.setRawHeader("Pragma", "no-cache");
    QNetworkAccessManager network;
    const QNetworkRequest plain = network.get(expected)->request();
    // The type by itself: a comparison of variants takes false for 0.
    return request == plain && request.rawHeaderList() == plain.rawHeaderList()
        && request.attribute(attribute).typeId() == QMetaType::Int;
}

QString PlainNetwork::errorString(const QUrl &url)
{
    const Outcome outcome = outcomeOf(url);
    return outcome.error == QNetworkReply::NoError ? QString() : outcome.errorString;
}

QByteArray PlainNetwork::ownPart(LoopbackServer &server, const LoopbackServer::Request &request)
{
    const LoopbackServer::Request plain = ask(server, request).request;
    QByteArray text = request.method + ' ' + request.target + '\n';
    for (const auto &[name, value] : request.headers) {
        if (!hasHeader(plain, name) || plain.header(name) != value)
            text += name.toLower() + ": " + value + '\n';
    }
    for (const auto &[name, value] : plain.headers) {
        if (!hasHeader(request, name))
            text += '-' + name.toLower() + '\n';
    }
    return text + '\n' + request.body;
}
