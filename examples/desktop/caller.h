#ifndef CALLER_H
#define CALLER_H

#include "service.h"

#include <corvane.h>

#include <QtCore/qobject.h>
#include <QtCore/qtimer.h>

// A part of the application that calls the service: one call at a time, on a client of its own,
// with a time-out.
//
// The library tells of a failure without saying of which call, keeps one version for all update
// checks and one path for all downloads, and never ends a call that gets no answer. A part that
// shares its client with no other, and makes no call before the last one has ended, always knows
// what a signal is about. A call is given up by destroying its client: whatever still comes of it
// comes to nobody.
class Caller : public QObject
{
    Q_OBJECT

public:
    const Service &service() const;
    bool isCalling() const;

Q_SIGNALS:
    // For whoever else wants to hear what the service says.
    void clientMade(Corvane *client);

protected:
    Caller(const Service &service, QObject *parent);

    // Begins a call, which is to be made on the client that this returns, and ends by end(), by
    // giveUp() or by handleFailure(). Keep in mind what it is for before you make it: it may be
    // refused at once.
    Corvane *begin(std::chrono::milliseconds timeout);
    // The call's result has come.
    void end();
    // The service may act on the call all the same.
    void giveUp();

    // Connects the result signals of a new client.
    virtual void connectResults(Corvane *client) = 0;
    // The call has failed or taken too long; it has ended.
    virtual void handleFailure(const QString &message) = 0;

private:
    void makeClient();

    const Service m_service;
    // None before the first call, and after one that was given up.
    Corvane *m_client = nullptr;
    // Runs during a call.
    QTimer m_timeout;
};

#endif // CALLER_H
