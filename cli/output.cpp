#include "output.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>

#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

bool isUnprintable(QChar c)
{
    if (c == u'\n' || c == u'\t')
        return false;
    return c.category() == QChar::Other_Control || c == QChar::LineSeparator
        || c == QChar::ParagraphSeparator;
}

QString printableLabel(const QString &label)
{
    return printable(label, 0).replace(u'\n', u' ');
}

// 0, or the errno that says why not all was written; EINTR for an interruption.
int writeAll(int output, const QByteArray &bytes, int interruption)
{
    // What poll() finds room for, a pipe takes without blocking.
    constexpr qsizetype most = PIPE_BUF;
    for (qsizetype at = 0; at < bytes.size();) {
        pollfd waiting[] = {{output, POLLOUT, 0}, {interruption, POLLIN, 0}};
        if (::poll(waiting, std::size(waiting), -1) < 0 && errno != EINTR)
            return errno;
        if (waiting[1].revents != 0)
            return EINTR;
        if (waiting[0].revents == 0)
            continue;

        const ssize_t written =
            ::write(output, bytes.constData() + at, std::size_t(std::min(most, bytes.size() - at)));
        if (written >= 0)
            at += written;
        else if (errno != EINTR && errno != EAGAIN)
            return errno;
    }
    return 0;
}

} // namespace

QString printable(QString text, qsizetype indentation)
{
    text.replace("\r\n"_L1, "\n"_L1);
    std::replace_if(text.begin(), text.end(), isUnprintable, QChar(QChar::ReplacementCharacter));
    return text.replace(u'\n', u'\n' + QString(indentation, u' '));
}

bool print(const QString &text, int interruption)
{
    const int error = writeAll(STDOUT_FILENO, text.toUtf8(), interruption);
    if (error != 0 && error != EINTR)
        printError(u"cannot write the result: "_s + qt_error_string(error), interruption);
    return error == 0;
}

void printError(const QString &message, int interruption)
{
    const QString prefix = u"corvane-cli: "_s;
    const QString text = prefix + printable(message, prefix.size()) + u'\n';
    writeAll(STDERR_FILENO, text.toUtf8(), interruption);
}

QString labelled(const QList<std::pair<QString, QString>> &rows)
{
    qsizetype width = 0;
    for (const auto &[label, value] : rows) {
        if (!value.isEmpty())
            width = std::max(width, printableLabel(label).size() + 2);
    }

    QString text;
    for (const auto &[label, value] : rows) {
        if (value.isEmpty())
            continue;
        text +=
            (printableLabel(label) + u':').leftJustified(width) + printable(value, width) + u'\n';
    }
    return text;
}
