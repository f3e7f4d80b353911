#ifndef CONTROL_H
#define CONTROL_H

#include "http/message.h"

#include <QtCore/qjsonobject.h>
#include <QtCore/qobject.h>

class Faults;
class HttpConnection;
class Journal;
class Store;

// The engineers' own interface to the sandbox, as JSON below /sandbox/:
//
// GET    (nothing)                   the dashboard, a page that shows all of this
// GET    state                       {"products": [row, ...], "plans": ..., ...}
// GET    usage?seconds=N             how many usage events came when, in the last N seconds or ever
// GET    faults                      {"faults": [rule, ...]}, with what each has counted
// POST   faults {"faults": [...]}    adds rules after those in force; answers all of them
// DELETE faults                      takes all rules out
// GET    scenarios                   {"scenarios": [{"name", "sentence", "rules"}, ...]}
// POST   scenario {"name": text}     puts the scenario in the place of all rules
// GET    journal?since=N&wait=S&most=M
//                                    what has changed after change N, which the last answer told;
//                                    waits up to S seconds if that is nothing; the newest M entries
// POST   reset                       faults, journal and state as they were at the start
//
// For rules, entries and usage, see FaultRule, Journal and Store. An error is the service's object.
//
// Everything that a browser can be made to send by a page of another site is refused: it names
// another origin, or has come by a name that is not this machine's, or its body is not called JSON.
class Control : public QObject
{
    Q_OBJECT

public:
    // Borrows what it controls.
    Control(Faults &faults, Journal &journal, Store &store, bool isMasked);

    static bool concerns(const HttpRequest &request);
    // Sends the answer over the connection, at once or when the wait is over.
    void answer(HttpConnection *connection);

private:
    // What is thrown to refuse.
    struct Refusal
    {
        int status;
        QString message;
        HttpHeaders headers = {};
    };
    struct Route
    {
        const char *method;
        const char *path;
        void (Control::*handler)(HttpConnection *connection);
    };
    static const Route routes[];

    static void checkOrigin(const HttpRequest &request);
    static const Route &routeOf(const HttpRequest &request);
    void showPage(HttpConnection *connection);
    void leadToPage(HttpConnection *connection);
    void showState(HttpConnection *connection);
    void showUsage(HttpConnection *connection);
    void showFaults(HttpConnection *connection);
    void addFaults(HttpConnection *connection);
    void clearFaults(HttpConnection *connection);
    void showScenarios(HttpConnection *connection);
    void startScenario(HttpConnection *connection);
    void showJournal(HttpConnection *connection);
    void reset(HttpConnection *connection);
    QJsonObject shown(const QJsonObject &object) const;
    static void send(HttpConnection *connection, const QJsonObject &object);

    Faults &m_faults;
    Journal &m_journal;
    Store &m_store;
    bool m_isMasked;
};

#endif // CONTROL_H
