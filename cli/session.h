#ifndef SESSION_H
#define SESSION_H

#include "output.h"

#include <corvane.h>

#include <QtCore/qjsonobject.h>
#include <QtCore/qobject.h>
#include <QtCore/qtimer.h>

struct Arguments;

// What a command found out, for people and for machines.
struct Report
{
    QString text;
    QJsonObject json;
};

// One command's waiting: the client, and whatever can end the waiting. The application's event loop
// ends with it. Only one session at a time, as it handles the process's signals.
class Session : public QObject
{
public:
    explicit Session(const Arguments &arguments);

    Corvane *client();

    // True from the end on, and as soon as a signal has come that will be the end.
    bool isOver() const;

    // Prints the result and ends the session.
    void finish(const Report &report);
    // The same for a service that said no. Its reason may be empty.
    void refuse(const Report &report, const QString &reason);
    // Ends the session without a result.
    void fail(ExitStatus status, const QString &message);

private:
    bool close();
    static void end(int status);
    bool printReport(const Report &report) const;
    void handleNetworkError(const QString &message);
    void handleTimeout();
    void handleSignal();
    void watchSignals();
    void showWaiting();

    // Goes with the session: nothing but its end cancels a call.
    Corvane m_client;
    QTimer m_timeout;
    QTimer m_spinner;
    int m_frame = 0;
    bool m_json;
    bool m_over = false;
};

#endif // SESSION_H
