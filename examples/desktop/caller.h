#ifndef CALLER_H
#define CALLER_H

#include "service.h"

#include <corvane.h>

#include <QtCore/qobject.h>
#include <QtCore/qtimer.h>

// Something to tell the user.
struct Message
{
    enum Kind { Information, Success, Warning };

    Kind kind = Information;
    QString text;
};

// A part of the application that calls the service: one call at a time, on a client of its own,
// with a time-out.
//
// The library tells of a failure without saying of which call, keeps one version for all update
// checks and one path for all downloads, and never ends a call that gets no answer. A part that
// shares its client with no other, and makes no call before the last one has ended, always knows
// what a signal is about. A call is given up by destroying its client: no signal of it comes any
// more. What a queued connection has taken from it already does, so a slot that is connected so has
// to look whether it still matters.
class Caller : public QObject
{
    Q_OBJECT

public:
    const Service &service() const;
    bool isCalling() const;
    // The last thing to tell; without a text if there is nothing.
    const Message &message() const;

    // Gives up the call under way, if there is one. The service may act on it all the same.
    virtual void cancel();

Q_SIGNALS:
    // Whatever there is to be asked of this part.
    void changed();
    // For whoever else wants to hear what the service says, and what became of other calls.
    void clientMade(Corvane *client);
    void failed(const QString &message);

protected:
    Caller(const Service &service, QObject *parent);

    // Begins a call, which is to be made on the client that this returns, and ends by end() or by
    // handleFailure(). Keep in mind what it is for before you make it: it may be refused at once.
    Corvane *begin(std::chrono::milliseconds timeout);
    // The call's result has come.
    void end();
    // Its signals do not come any more, and it is deleted once the event loop is back; until then
    // the library may still save a download.
    void giveUp();
    bool hasGivenUp() const;
    void tell(Message::Kind kind, const QString &text);

    // Connects the result signals of a new client.
    virtual void connectResults(Corvane *client) = 0;
    // The call has failed, or taken too long, or the user has stopped it; it has ended.
    virtual void handleFailure(const QString &message) = 0;

    // Of what the service sends: invalid if it is no address of the web. The library would download
    // a local file as well, and the system would open anything.
    static QUrl webUrl(const QString &text);
    // What the service has to say beside its answer; empty if that is nothing.
    static QString remarkIn(const QJsonObject &answer);

private:
    void fail(const QString &message);
    void makeClient();

    const Service m_service;
    Message m_message;
    // None before the first call, and after one that was given up.
    Corvane *m_client = nullptr;
    // Runs during a call.
    QTimer m_timeout;
};

#endif // CALLER_H
