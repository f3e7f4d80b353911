#ifndef SCENARIOS_H
#define SCENARIOS_H

#include "faults/faultrule.h"

#include <QtCore/qlist.h>

// Something that goes wrong in the world outside, as rules that are ready to use.
struct Scenario
{
    QString name;
    // What a host meets.
    QString sentence;
    QList<FaultRule> rules;
};

const QList<Scenario> &scenarios();

// None if there is no scenario of that name.
std::optional<Scenario> scenarioNamed(const QString &name);
QStringList scenarioNames();

#endif // SCENARIOS_H
