#include "faults/faults.h"

#include <QtCore/qjsonarray.h>

using namespace Qt::StringLiterals;

Faults::Faults(const QList<FaultRule> &initial)
    : m_initial(initial)
{
    reset();
}

void Faults::add(const QList<FaultRule> &rules)
{
    for (const FaultRule &rule : rules)
        m_rules.append({rule, QRandomGenerator(rule.seed)});
}

void Faults::reset()
{
    clear();
    add(m_initial);
}

std::optional<FaultRule> Faults::next(Operation operation)
{
    for (Counted &candidate : m_rules) {
        const bool concerns = !candidate.rule.operation || candidate.rule.operation == operation;
        if (concerns && candidate.isDue())
            return candidate.rule;
    }
    return std::nullopt;
}

QJsonArray Faults::toJson() const
{
    QJsonArray array;
    for (const Counted &counted : m_rules) {
        QJsonObject object = counted.rule.json;
        object.insert("seen"_L1, counted.seen);
        object.insert("done"_L1, counted.done);
        array.append(object);
    }
    return array;
}

bool Faults::Counted::isDue()
{
    ++seen;
    if (seen <= rule.skip || (seen - rule.skip) % rule.every != 0 || done == rule.times)
        return false;
    if (chance.generateDouble() >= rule.probability)
        return false;
    ++done;
    return true;
}
