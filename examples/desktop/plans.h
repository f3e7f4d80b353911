#ifndef PLANS_H
#define PLANS_H

#include "caller.h"

class QJsonArray;

// Asks for the plans on offer.
class Plans : public Caller
{
    Q_OBJECT

public:
    explicit Plans(const Service &service, QObject *parent = nullptr);

    void fetch();
    void cancel();

Q_SIGNALS:
    void begun();
    // One of these ends it.
    void received(const QJsonArray &plans);
    void failed(const QString &message);
    void cancelled();

protected:
    void connectResults(Corvane *client) override;
    void handleFailure(const QString &message) override;
};

#endif // PLANS_H
