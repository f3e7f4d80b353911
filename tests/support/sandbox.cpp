#include "sandbox.h"

#include "files.h"

#include <QtCore/qdir.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>

using namespace Qt::StringLiterals;

const QByteArray Sandbox::release = QByteArray("release\0\r\n", 10).repeated(1000);

QJsonObject Sandbox::Answer::json() const
{
    return QJsonDocument::fromJson(body).object();
}

QString Sandbox::Answer::error() const
{
    return json().value("error"_L1).toObject().value("message"_L1).toString();
}

Sandbox::Sandbox(const QString &program, const QStringList &arguments)
{
    const QString folder = m_releases.filePath(u"DEMO/stable/1.5.0"_s);
    QDir().mkpath(folder);
    Files::write(folder + "/demo.bin"_L1, release);
    m_process = std::make_unique<ServerProcess>(
        program, QStringList{u"--releases"_s, m_releases.path()} + arguments);
    static const QRegularExpression address(u"^(http://\\S+:\\d+)\\n"_s);
    m_url = QUrl(m_process->waitForOutput(address).captured(1));
}

QUrl Sandbox::url(const QString &path) const
{
    return m_url.resolved(QUrl(path));
}

QString Sandbox::complaints()
{
    const QString output = m_process->output();
    return output.sliced(output.indexOf(u'\n') + 1);
}

Sandbox::Answer Sandbox::get(const QString &path, const Headers &headers) const
{
    return ask("GET", path, {}, headers);
}

Sandbox::Answer Sandbox::post(const QString &path, const QJsonObject &body) const
{
    return ask("POST", path, QJsonDocument(body).toJson(QJsonDocument::Compact),
               {{"Content-Type", "application/json"}});
}

Sandbox::Answer Sandbox::ask(const QByteArray &method, const QString &path, const QByteArray &body,
                             const Headers &headers) const
{
    QNetworkAccessManager network;
    QNetworkRequest request(url(path));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    for (auto header = headers.begin(); header != headers.end(); ++header)
        request.setRawHeader(header.key(), header.value());
    const std::unique_ptr<QNetworkReply> reply(network.sendCustomRequest(request, method, body));
    QSignalSpy finished(reply.get(), &QNetworkReply::finished);
    if (!finished.wait(20000))
        return {};
    return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll(),
            reply->rawHeader("Allow"), reply->rawHeader("Cache-Control")};
}

QList<QJsonObject> Sandbox::journal(const QString &operation) const
{
    QList<QJsonObject> found;
    const QJsonArray entries = get(u"/sandbox/journal"_s).json().value("entries"_L1).toArray();
    for (const auto &entry : entries) {
        if (entry["operation"_L1] == operation)
            found += entry.toObject();
    }
    return found;
}

void Sandbox::setFaults(const QString &rules) const
{
    QCOMPARE(ask("DELETE", u"/sandbox/faults"_s).status, 200);
    const QByteArray json = R"({"faults": [)" + rules.toUtf8() + "]}";
    if (!rules.isEmpty())
        QCOMPARE(
            ask("POST", u"/sandbox/faults"_s, json, {{"Content-Type", "application/json"}}).status,
            200);
}

QJsonObject Sandbox::start() const
{
    return post(u"/api/v1/purchase/start"_s,
                {{u"product_code"_s, u"DEMO"_s},
                 {u"plan_code"_s, u"ANNUALE"_s},
                 {u"first_name"_s, u"Ada"_s},
                 {u"last_name"_s, u"Rossi"_s},
                 {u"email"_s, u"ada@example.org"_s}})
        .json();
}

void Sandbox::approve(const QJsonObject &started) const
{
    ask("POST", "/paypal/approve/"_L1 + started.value("paypal_order_id"_L1).toString());
}
