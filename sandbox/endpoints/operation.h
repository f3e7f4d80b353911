#ifndef OPERATION_H
#define OPERATION_H

#include <QtCore/qstring.h>
#include <QtCore/qstringlist.h>

#include <optional>

// What a request asks of the service; Other is none of it.
enum class Operation {
    UpdateCheck,
    Download,
    Plans,
    Start,
    Resume,
    Capture,
    Usage,
    Approval,
    Other
};

// The names by which engineers know them: update-check, download, ...
QString nameOf(Operation operation);
std::optional<Operation> operationFrom(const QString &name);
QStringList operationNames();

#endif // OPERATION_H
