#ifndef USAGE_H
#define USAGE_H

#include "caller.h"
#include "keptstate.h"

#include <QtCore/qjsonobject.h>

// Tells the service of each start of the application, if the user wants that. The machine's id says
// nothing of the machine: it is drawn, kept while the user agrees, and forgotten when he does not
// any more.
class Usage : public Caller
{
    Q_OBJECT

public:
    // Borrows the state.
    Usage(const Service &service, KeptState *state, QObject *parent = nullptr);

    // False until the user says otherwise.
    bool isWanted() const;
    void setWanted(bool isWanted);

    // All that is sent: the payload, and what the library puts over it.
    QJsonObject preview() const;
    // Only if it is wanted.
    void send();

protected:
    void connectResults(Corvane *client) override;
    void handleFailure(const QString &message) override;

private:
    QJsonObject payload() const;
    // Of the last purchase; empty before the first.
    QString licenseKey() const;
    void takeSent(bool isAccepted, const QString &message);

    KeptState *m_state;
    QString m_machineId;
};

#endif // USAGE_H
