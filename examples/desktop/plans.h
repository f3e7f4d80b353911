#ifndef PLANS_H
#define PLANS_H

#include "caller.h"

// The plans on offer.
class Plans : public Caller
{
    Q_OBJECT

public:
    explicit Plans(const Service &service, QObject *parent = nullptr);

    // As they came last.
    const QJsonArray &plans() const;

    void fetch();

protected:
    void connectResults(Corvane *client) override;
    void handleFailure(const QString &message) override;

private:
    void takePlans(const QJsonArray &plans);

    QJsonArray m_plans;
};

#endif // PLANS_H
