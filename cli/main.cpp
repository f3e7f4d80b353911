// corvane-cli: every operation of the library from a shell.
//
// arguments -> session, which waits -> command, or download -> the session's end

#include "arguments.h"
#include "commands.h"
#include "output.h"
#include "session.h"

#include <QtCore/qcoreapplication.h>
#include <QtCore/qutf8stringview.h>

using namespace Qt::StringLiterals;

namespace {

// Qt would read U+FFFD for each odd byte, and a file be saved under a name that nobody gave.
bool areUtf8(int argc, char *argv[])
{
    for (int i = 1; i < argc; ++i) {
        if (QUtf8StringView(argv[i]).isValidUtf8())
            continue;
        printError(u"argument %1, '%2', is not UTF-8"_s.arg(QString::number(i),
                                                            QString::fromUtf8(argv[i])));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    if (!areUtf8(argc, argv))
        return BadInput;
    // Qt speaks nothing but UTF-8, and complains in any other locale, cron's for one.
    qputenv("LC_ALL", "C.UTF-8");
    QCoreApplication app(argc, argv);
    const auto arguments = readArguments(QCoreApplication::arguments());
    if (const auto *status = std::get_if<ExitStatus>(&arguments))
        return *status;

    Session session(*std::get_if<Arguments>(&arguments));
    // From the event loop: a session that ended before it runs would not end it.
    QMetaObject::invokeMethod(
        &session, [&] { startCommand(*std::get_if<Arguments>(&arguments), session); },
        Qt::QueuedConnection);
    return QCoreApplication::exec();
}
