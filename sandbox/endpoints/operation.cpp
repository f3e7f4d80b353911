#include "endpoints/operation.h"

using namespace Qt::StringLiterals;

// In the order of the enumerators.
QStringList operationNames()
{
    return {u"update-check"_s, u"download"_s, u"plans"_s,    u"start"_s, u"resume"_s,
            u"capture"_s,      u"usage"_s,    u"approval"_s, u"other"_s};
}

QString nameOf(Operation operation)
{
    static const QStringList names = operationNames();
    return names.at(static_cast<int>(operation));
}

std::optional<Operation> operationFrom(const QString &name)
{
    const qsizetype index = operationNames().indexOf(name);
    return index < 0 ? std::nullopt : std::make_optional(static_cast<Operation>(index));
}
