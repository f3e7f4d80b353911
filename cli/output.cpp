#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

using namespace Qt::StringLiterals;

bool print(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stdout);
    // Whatever fwrite() could not write, a full disk for one, shows here at the latest.
    if (std::fflush(stdout) == 0 && !std::ferror(stdout))
        return true;

    printError(u"cannot write the result: "_s + qt_error_string(errno));
    return false;
}

void printError(const QString &message)
{
    const QByteArray bytes = "corvane-cli: " + message.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stderr);
}

QString labelled(const QList<std::pair<QString, QString>> &rows)
{
    qsizetype width = 0;
    for (const auto &[label, value] : rows) {
        if (!value.isEmpty())
            width = std::max(width, label.size() + 2);
    }

    QString text;
    for (const auto &[label, value] : rows) {
        if (value.isEmpty())
            continue;
        QString indented = value;
        // No line of a value can pass for a row of its own.
        indented.replace(u'\n', u'\n' + QString(width, u' '));
        text += (label + u':').leftJustified(width) + indented + u'\n';
    }
    return text;
}
