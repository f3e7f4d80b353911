#ifndef FAULTS_H
#define FAULTS_H

#include "faults/faultrule.h"

#include <QtCore/qlist.h>
#include <QtCore/qrandom.h>

// The rules in force, in their order. A rule counts the requests of its operation that no rule
// before it has taken.
class Faults
{
public:
    // What is in force at the beginning, and again after a reset.
    explicit Faults(const QList<FaultRule> &initial);

    void add(const QList<FaultRule> &rules);
    void clear() { m_rules.clear(); }
    void reset();

    // What happens to the next request of the operation: the first rule that is due.
    std::optional<FaultRule> next(Operation operation);

    // Each as it was given, with its number of requests ("seen") and of faults ("done").
    QJsonArray toJson() const;

private:
    struct Counted
    {
        FaultRule rule;
        QRandomGenerator chance;
        qint64 seen = 0;
        qint64 done = 0;

        bool isDue();
    };

    QList<FaultRule> m_initial;
    QList<Counted> m_rules;
};

#endif // FAULTS_H
