// corvane-cli: every operation of the library from a shell.
//
// arguments -> session, which waits -> command, or download -> the session's end

#include "arguments.h"
#include "commands.h"
#include "session.h"

#include <QtCore/qcoreapplication.h>

int main(int argc, char *argv[])
{
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
