#ifndef USAGE_H
#define USAGE_H

#include "caller.h"
#include "keptstate.h"
#include "notice.h"

#include <QtCore/qjsonobject.h>

// Tells the service of each start of the application, if the user wants that. The machine's id is
// drawn when the user agrees, says nothing of the machine, and is forgotten when he does not any
// more.
class Usage : public Caller
{
    Q_OBJECT

public:
    // Borrows the state.
    Usage(const Service &service, KeptState *state, QObject *parent = nullptr);

    // False until the user says otherwise.
    bool isWanted() const;
    void setWanted(bool isWanted);

    // All that is sent, as it is sent.
    QJsonObject preview() const;
    // Only if it is wanted.
    void send();
    void cancel();

Q_SIGNALS:
    // What would be sent, or whether it is being sent.
    void changed();
    void told(Notice::Kind kind, const QString &text);

protected:
    void connectResults(Corvane *client) override;
    void handleFailure(const QString &message) override;

private:
    QJsonObject payload() const;

    KeptState *m_state;
    QString m_machineId;
};

#endif // USAGE_H
