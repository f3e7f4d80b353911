#ifndef ARGUMENTS_H
#define ARGUMENTS_H

#include "output.h"

#include <QtCore/qjsonobject.h>
#include <QtCore/qstringlist.h>
#include <QtCore/qurl.h>

#include <chrono>
#include <variant>

enum class Command { Check, Download, Plans, Start, Resume, Capture, Usage };

// What the command line and the environment ask for, checked as far as that takes no network.
struct Arguments
{
    Command command = Command::Check;
    // What stands after the command, as many as it takes.
    QStringList operands;
    // The service's URL; of a download, the file's.
    QUrl url;
    // Empty for a download, which needs none.
    QString product;
    // In lower-case hexadecimal digits; empty when the download is not to be verified.
    QString sha256;
    QJsonObject payload;
    // Zero waits for ever.
    std::chrono::milliseconds timeout{0};
    bool json = false;
};

// The arguments, or how to end when there is nothing to do: help and version are printed, and so is
// what is wrong with the arguments.
std::variant<Arguments, ExitStatus> readArguments(const QStringList &commandLine);

#endif // ARGUMENTS_H
