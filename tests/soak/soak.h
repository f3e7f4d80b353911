#ifndef SOAK_H
#define SOAK_H

#include "call.h"
#include "corvane.h"
#include "footprint.h"
#include "scriptedserver.h"

#include <QtCore/qhash.h>
#include <QtCore/qmap.h>
#include <QtCore/qset.h>
#include <QtCore/qstringlist.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qtimer.h>

#include <array>
#include <atomic>
#include <functional>

class QNetworkAccessManager;
class QNetworkReply;

// Makes calls of random clients, as their numbers decide, and checks for each that exactly the one
// signal came that its reply and the scripted answer call for. Between phases nothing is left of
// the calls before. The first thing that is wrong ends the program.
class Soak : public QObject
{
    Q_OBJECT

public:
    explicit Soak(quint64 seed);

    // Makes so many calls, waits for their ends, and takes the clients down.
    void runPhase(qint64 calls);
    [[noreturn]] void fail(const QString &what);

    qint64 callsMade() const { return m_next.number; }
    const std::atomic<qint64> &progress() const { return m_progress; }
    // What happened how often.
    const QMap<QString, qint64> &counts() const { return m_counts; }

Q_SIGNALS:
    void phaseEnded();

private:
    struct Client
    {
        Corvane *corvane;
        QNetworkAccessManager *network;
        // Signals that no call has accounted for yet.
        QStringList lines;
        // Of calls and replies under way, which alone may emit.
        int depth = 0;
        // What the most recent check and download gave.
        QString version;
        int destination = 0;
    };

    // A call whose reply is to come.
    struct Pending
    {
        Call call;
        Client *client = nullptr;
        // What the network layer got, and what the client is to say to it.
        QByteArray body;
        QString line;
    };

    void pump();
    void make();
    Client &clientOf(int index);
    void watch(Client &client);
    void configure(Client &client, const Call &call);
    void invoke(Client &client, const Call &call);
    void expectRefusal(Client &client, const Call &call);
    void expectReply(Client &client, const Call &call);
    void record(Client &client, const QString &line);
    void beginReply(QNetworkReply *reply);
    void endReply(QNetworkReply *reply);
    void destroy(int index, bool later);
    void forget(Client *client);
    QNetworkReply *newestReply(const Client &client) const;
    QString destination(int index) const;
    void judgeNetwork(const Pending &pending, const QNetworkReply *reply);
    QString expectedLine(const Pending &pending, const QNetworkReply *reply) const;
    void giveUpHeldCalls();
    void dropClients();
    void waitUntil(const std::function<bool()> &condition, const QString &otherwise);
    void count(const QString &what) { ++m_counts[what]; }

    const quint64 m_seed;
    const QTemporaryDir m_dir;
    ScriptedServer m_server;
    std::array<Client *, Call::clients> m_clients = {};
    // Also those that are to be deleted.
    QSet<Client *> m_living;
    QHash<QNetworkReply *, Pending> m_pending;
    QSet<QNetworkReply *> m_replies;
    Call m_next;
    qint64 m_phaseEnd = 0;
    qint64 m_current = -1;
    int m_nesting = 0;
    qint64 m_odd = 0; // answers that the network layer made something else of
    qint64 m_held = 0; // calls that it never ended
    QTimer m_pump;
    QTimer m_patience; // runs out when no call has ended for a while
    QMap<QString, qint64> m_counts;
    std::atomic<qint64> m_progress = 0;
};

#endif // SOAK_H
