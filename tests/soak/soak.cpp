#include "soak.h"

#include "signallog.h"

#include <QtCore/qdir.h>
#include <QtCore/qeventloop.h>
#include <QtCore/qfile.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qtestsupport_core.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkreply.h>

#include <cstdio>
#include <cstdlib>

using namespace Qt::StringLiterals;

namespace {

// How many calls may be in flight changes now and then: one after the other, or many at once.
int windowAt(qint64 number)
{
    constexpr std::array windows = {64, 1, 32, 6, 96};
    return windows.at(static_cast<std::size_t>(number / 500) % windows.size());
}

// Of the answer's texts, those that every operation's own signal carries.
struct Texts
{
    bool accepts;
    QString id;
    QString refusal; // null if there is none
};

Texts textsOf(const Call &call, const QJsonObject &object)
{
    const QString id = QString::number(call.number);
    const bool refuses = call.fault == Call::Refusal || call.fault == Call::RefusalStatus;
    return {!object.isEmpty() && !refuses, id, refuses ? u"Rifiuto "_s + id : QString()};
}

UpdateInfo updateOf(const Texts &texts, const QJsonObject &object, const QString &version)
{
    UpdateInfo update;
    update.currentVersion = version;
    update.raw = object;
    if (!texts.accepts)
        return update;
    update.productCode = u"P-"_s + texts.id;
    update.latestVersion = u"V-"_s + texts.id;
    update.downloadUrl = u"D-"_s + texts.id;
    update.stableDownloadUrl = u"S-"_s + texts.id;
    update.sha256 = u"H-"_s + texts.id;
    update.notes = object.value("release"_L1).toObject().value("notes"_L1).toString();
    update.updateAvailable = update.latestVersion != version;
    return update;
}

PurchaseStartInfo purchaseOf(const Texts &texts, const QJsonObject &object)
{
    PurchaseStartInfo purchase;
    purchase.raw = object;
    purchase.success = texts.accepts;
    purchase.message = texts.refusal.isNull() ? u"Pagamento non avviato."_s : texts.refusal;
    if (!texts.accepts)
        return purchase;
    purchase.paymentId = texts.id.toInt();
    purchase.licenseId = purchase.paymentId + 1;
    purchase.licenseKey = u"K-"_s + texts.id;
    purchase.paypalOrderId = u"O-"_s + texts.id;
    purchase.approvalUrl = u"https://example.com/"_s + texts.id;
    purchase.message = u"Pagamento avviato."_s;
    return purchase;
}

PurchaseCaptureInfo captureOf(const Texts &texts, const QJsonObject &object)
{
    PurchaseCaptureInfo capture;
    capture.raw = object;
    capture.paid = texts.accepts;
    capture.licenseId = texts.accepts ? texts.id.toInt() + 1 : 0;
    capture.message = texts.accepts ? u"Pagamento completato."_s
        : texts.refusal.isNull()    ? u"Pagamento non completato."_s
                                    : texts.refusal;
    return capture;
}

bool explainsFailures(Call::Operation operation)
{
    return operation != Call::Check && operation != Call::Download && operation != Call::Plans;
}

} // namespace

Soak::Soak(quint64 seed)
    : m_seed(seed)
    , m_server(seed)
    , m_next(Call::decide(seed, 0))
{
    m_pump.setSingleShot(true);
    connect(&m_pump, &QTimer::timeout, this, &Soak::pump);
    m_patience.setSingleShot(true);
    m_patience.setInterval(10'000);
    connect(&m_patience, &QTimer::timeout, this, &Soak::giveUpHeldCalls);
}

void Soak::runPhase(qint64 calls)
{
    const Footprint before = Footprint::now();
    m_phaseEnd = m_next.number + calls;
    QEventLoop loop;
    connect(this, &Soak::phaseEnded, &loop, &QEventLoop::quit);
    m_pump.start(0);
    m_patience.start();
    loop.exec();
    m_patience.stop();

    waitUntil([this] { return m_replies.isEmpty(); }, u"replies are left that nobody deletes"_s);
    for (const Client *client : std::as_const(m_living)) {
        if (!client->lines.isEmpty())
            fail(u"signals of no call: "_s + client->lines.join(u", "_s));
        if (client->corvane->children() != QObjectList{client->network})
            fail(u"objects are left with a client"_s);
    }
    dropClients();

    waitUntil([this] { return m_server.connectionCount() == 0; }, u"connections are left"_s);
    waitUntil([&before] { return Footprint::now().threads == before.threads; },
              u"threads are left"_s);
    if (Footprint::now().descriptors != before.descriptors)
        fail(u"files are left open"_s);
}

void Soak::fail(const QString &what)
{
    std::fprintf(stderr, "\nFAILED: seed %llu, call %lld: %s\n", m_seed, m_current,
                 qPrintable(what));
    QDir(m_dir.path()).removeRecursively();
    std::_Exit(1);
}

void Soak::pump()
{
    while (m_next.number < m_phaseEnd && m_pending.size() < windowAt(m_next.number)) {
        if (m_next.fromSlot && !m_pending.isEmpty())
            return;
        make();
    }
    if (m_next.number == m_phaseEnd && m_pending.isEmpty())
        Q_EMIT phaseEnded();
}

void Soak::make()
{
    const Call call = m_next;
    m_next = Call::decide(m_seed, call.number + 1);
    m_current = call.number;
    count(u"call "_s + QLatin1StringView(nameOf(call.operation)));
    count(u"fault "_s + QLatin1StringView(nameOf(call.fault)));
    if (m_nesting > 0)
        count(u"made by a slot"_s);

    if (call.destruction == Call::DeleteBefore)
        destroy(call.client, false);
    Client &client = clientOf(call.client);
    configure(client, call);
    const qsizetype before = client.lines.size();
    ++client.depth;
    invoke(client, call);
    --client.depth;
    if (client.lines.size() != before + (call.isRefused() ? 1 : 0))
        fail(u"signals during the call: "_s + client.lines.mid(before).join(u", "_s));
    if (call.isRefused())
        expectRefusal(client, call);
    else
        expectReply(client, call);

    if (call.breaksConfiguration) {
        client.corvane->setServerUrl(QUrl(u"http://["_s));
        client.corvane->setProductCode(QString());
    }
    if (call.destruction == Call::DeleteAfter || call.destruction == Call::DeleteLaterAfter)
        destroy(call.client, call.destruction == Call::DeleteLaterAfter);
}

Soak::Client &Soak::clientOf(int index)
{
    Client *&client = m_clients.at(static_cast<std::size_t>(index));
    if (client)
        return *client;

    auto *corvane = new Corvane;
    client = new Client{corvane, corvane->findChild<QNetworkAccessManager *>(), {}, 0, {}, 0};
    m_living.insert(client);
    watch(*client);
    count(u"clients"_s);
    return *client;
}

void Soak::watch(Client &client)
{
    const auto on = [this, &client](auto signal, auto describe) {
        connect(client.corvane, signal, this, [this, &client, describe](const auto &...arguments) {
            record(client, describe(arguments...));
        });
    };
    on(&Corvane::usageSent, &SignalLog::usageSent);
    on(&Corvane::updateChecked, &SignalLog::updateChecked);
    on(&Corvane::updateDownloaded, &SignalLog::updateDownloaded);
    on(&Corvane::purchasePlansReceived, &SignalLog::purchasePlansReceived);
    on(&Corvane::purchaseStarted, &SignalLog::purchaseStarted);
    on(&Corvane::purchaseCaptured, &SignalLog::purchaseCaptured);
    on(&Corvane::networkError, &SignalLog::networkError);
    // The manager learns of a finished reply before whoever got it from the manager.
    connect(client.network, &QNetworkAccessManager::finished, this, &Soak::beginReply);
    connect(client.corvane, &QObject::destroyed, this, [this, &client] { forget(&client); });
}

void Soak::configure(Client &client, const Call &call)
{
    const bool isDeaf = call.fault == Call::NoListener;
    client.corvane->setServerUrl(call.fault == Call::InvalidUrl ? QUrl()
                                     : isDeaf                   ? m_server.noListener()
                                                                : m_server.url(call.address));
    client.corvane->setProductCode(
        call.fault == Call::NoProductCode ? QString() : QString::fromLatin1(call.marker()));
}

void Soak::invoke(Client &client, const Call &call)
{
    const QString marker = QString::fromLatin1(call.marker());
    switch (call.operation) {
    case Call::Usage:
        client.corvane->sendUsage(u"key"_s, u"machine"_s, u"event"_s, {{u"more"_s, 1}});
        break;
    case Call::Check: {
        // Every other is what the answer will offer.
        const QString version = u"V-"_s + QString::number(call.number & ~1LL);
        if (!call.isRefused())
            client.version = version;
        client.corvane->checkForUpdate(version, u"stable"_s);
        break;
    }
    case Call::Download: {
        QUrl url = client.corvane->serverUrl();
        if (url.isValid())
            url.setPath(u'/' + marker);
        // It needs no product code: it is refused for another reason.
        const bool hasPath = call.fault != Call::NoProductCode;
        if (!call.isRefused())
            client.destination = call.destination;
        client.corvane->downloadUpdate(url, hasPath ? destination(call.destination) : QString());
        break;
    }
    case Call::Plans:
        client.corvane->fetchPurchasePlans();
        break;
    case Call::Start:
        client.corvane->startPayPalPurchase(u"plan"_s, u"Ada"_s, u"Rossi"_s, u"a@example.com"_s);
        break;
    case Call::Resume:
        client.corvane->resumePayPalPurchase(u"key"_s);
        break;
    case Call::Capture:
        client.corvane->capturePayPalPurchase(marker);
        break;
    case Call::OperationCount:
        break;
    }
}

void Soak::expectRefusal(Client &client, const Call &call)
{
    const QString expected = SignalLog::networkError(
        call.operation == Call::Download ? u"URL o destinazione aggiornamento non validi."_s
                                         : u"Server URL o product code non configurati."_s);
    const QString line = client.lines.takeLast();
    if (line != expected)
        fail(u"a refused call emits "_s + line);
    if (newestReply(client))
        fail(u"a refused call sends a request"_s);
    m_progress = call.number;
}

void Soak::expectReply(Client &client, const Call &call)
{
    QNetworkReply *reply = newestReply(client);
    if (!reply)
        fail(u"nothing was sent"_s);
    m_replies.insert(reply);
    m_pending.insert(reply, {call, &client, {}, {}});
    connect(reply, &QNetworkReply::finished, this, [this, reply] { endReply(reply); });
    connect(reply, &QObject::destroyed, this, [this, reply] { m_replies.remove(reply); });
}

void Soak::record(Client &client, const QString &line)
{
    if (client.depth == 0)
        fail(u"a signal of no call: "_s + line);
    client.lines.append(line);
    count(u"signal "_s + line.section(u' ', 0, 0));
    if (!m_next.fromSlot || m_next.number >= m_phaseEnd)
        return;
    ++m_nesting;
    make();
    --m_nesting;
}

void Soak::beginReply(QNetworkReply *reply)
{
    const auto it = m_pending.find(reply);
    if (it == m_pending.end())
        fail(u"a reply that belongs to no call, or ends twice"_s);
    m_current = it->call.number;
    if (!it->client->lines.isEmpty())
        fail(u"a signal too many: "_s + it->client->lines.join(u", "_s));
    it->body = reply->peek(reply->bytesAvailable());
    judgeNetwork(*it, reply);
    it->line = expectedLine(*it, reply);
    ++it->client->depth;
}

void Soak::endReply(QNetworkReply *reply)
{
    if (!m_pending.contains(reply))
        fail(u"a reply ends that no client waits for"_s);
    const Pending pending = m_pending.take(reply);
    Client &client = *pending.client;
    m_current = pending.call.number;
    --client.depth;
    if (client.lines != QStringList{pending.line})
        fail(u"expected: "_s + pending.line + u"\nemitted: "_s + client.lines.join(u", "_s));
    client.lines.clear();
    if (pending.line.startsWith("updateDownloaded"_L1)) {
        QFile file(pending.line.section(u'"', 1, 1));
        if (!file.open(QIODevice::ReadOnly) || file.readAll() != pending.body)
            fail(u"the file does not hold the body"_s);
    }
    m_progress = pending.call.number;
    m_pump.start(0);
    m_patience.start();
}

void Soak::destroy(int index, bool later)
{
    Client *client = std::exchange(m_clients.at(static_cast<std::size_t>(index)), nullptr);
    if (!client)
        return;
    // Within its own signals a client must not be deleted at once.
    later |= client->depth > 0;
    count(later ? u"clients deleted later"_s : u"clients deleted at once"_s);
    if (later)
        client->corvane->deleteLater();
    else
        delete client->corvane;
}

void Soak::forget(Client *client)
{
    if (!client->lines.isEmpty())
        fail(u"signals of no call: "_s + client->lines.join(u", "_s));
    const auto abandoned = m_pending.removeIf(
        [client](QHash<QNetworkReply *, Pending>::iterator it) { return it->client == client; });
    m_counts[u"abandoned with their client"_s] += abandoned;
    m_living.remove(client);
    delete client;
    m_pump.start(0);
}

// The reply to the call that was just made; null if that made none.
QNetworkReply *Soak::newestReply(const Client &client) const
{
    const QObjectList &children = client.network->children();
    for (auto it = children.crbegin(); it != children.crend(); ++it) {
        if (auto *reply = qobject_cast<QNetworkReply *>(*it))
            return m_replies.contains(reply) ? nullptr : reply;
    }
    return nullptr;
}

QString Soak::destination(int index) const
{
    return index == Call::destinations - 1 ? m_dir.path()
                                           : m_dir.filePath(u"file"_s + QString::number(index));
}

// The script worked, or the check of the client would prove nothing. Two things the network layer
// does by itself, rarely: it loses a good answer, when it reuses a connection that is about to
// close and has no attempt left; and Qt 6.8 calls an error status a success. The client goes by its
// word.
void Soak::judgeNetwork(const Pending &pending, const QNetworkReply *reply)
{
    const Call &call = pending.call;
    const bool success = reply->error() == QNetworkReply::NoError;
    const std::optional<bool> expected = call.succeeds();
    const QLatin1StringView fault(nameOf(call.fault));
    if (!expected || *expected != success)
        count(u"network "_s + (success ? u"success"_s : u"failure"_s) + u" of "_s + fault);

    const bool isOdd = expected.value_or(success) != success;
    const bool isKnown = success ? QT_VERSION >= QT_VERSION_CHECK(6, 8, 0) && call.status >= 400
                                 : reply->error() == QNetworkReply::RemoteHostClosedError;
    m_odd += isOdd ? 1 : 0;
    if (isOdd && (!isKnown || m_odd > 10 + m_next.number / 100))
        fail(u"the network layer says: "_s + reply->errorString() + u", to "_s + fault);
    const bool isWhole = pending.body == call.body;
    const bool mayBePart = !success || !expected;
    if (!isWhole && (!mayBePart || !call.body.startsWith(pending.body)))
        fail(u"the network layer got another body: "_s + QString::fromLatin1(pending.body));
}

QString Soak::expectedLine(const Pending &pending, const QNetworkReply *reply) const
{
    const Call &call = pending.call;
    const bool success = reply->error() == QNetworkReply::NoError;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const bool isExplained =
        status > 0 && !pending.body.isEmpty() && explainsFailures(call.operation);
    if (!success && !isExplained)
        return SignalLog::networkError(reply->errorString());

    const QJsonObject object = pending.body == call.body ? call.object : QJsonObject();
    const Texts texts = textsOf(call, object);
    switch (call.operation) {
    case Call::Usage:
        return SignalLog::usageSent(success && texts.accepts,
                                    texts.refusal.isNull() && !success ? reply->errorString()
                                                                       : texts.refusal);
    case Call::Check:
        return SignalLog::updateChecked(updateOf(texts, object, pending.client->version));
    case Call::Download:
        if (pending.client->destination == Call::destinations - 1)
            return SignalLog::networkError(u"Impossibile salvare aggiornamento."_s);
        return SignalLog::updateDownloaded(destination(pending.client->destination));
    case Call::Plans:
        return SignalLog::purchasePlansReceived(texts.accepts ? QJsonArray{texts.id, call.number}
                                                              : QJsonArray());
    case Call::Start:
    case Call::Resume:
        return SignalLog::purchaseStarted(purchaseOf(texts, object));
    case Call::Capture:
        return SignalLog::purchaseCaptured(captureOf(texts, object));
    case Call::OperationCount:
        break;
    }
    return {};
}

// Now and then the network layer never sends a request that follows one whose connection was reset,
// and never ends its reply: a plain one does so too. Only the end of the client frees such a call.
void Soak::giveUpHeldCalls()
{
    for (const Pending &pending : std::as_const(m_pending))
        count(u"network never ends "_s + QLatin1StringView(nameOf(pending.call.fault)));
    m_held += m_pending.size();
    if (m_held > 10 + m_next.number / 10'000)
        fail(u"too many calls never end"_s);
    dropClients();
    m_patience.start();
}

void Soak::dropClients()
{
    for (int i = 0; i < Call::clients; ++i)
        destroy(i, false);
    waitUntil([this] { return m_living.isEmpty(); }, u"clients are left"_s);
}

void Soak::waitUntil(const std::function<bool()> &condition, const QString &otherwise)
{
    if (!QTest::qWaitFor(condition, 10000))
        fail(otherwise);
}
