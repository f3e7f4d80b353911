#include "session.h"

#include "arguments.h"

#include <QtCore/qcoreapplication.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qsocketnotifier.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// A signal handler may do next to nothing: it notes the signal, and wakes the event loop through
// the pipe.
volatile std::sig_atomic_t caughtSignal = 0;
int wakeUpPipe[2] = {-1, -1};

extern "C" void catchSignal(int number)
{
    const int savedErrno = errno;
    caughtSignal = number;
    // A pipe too full to be written to wakes the event loop as well.
    [[maybe_unused]] const ssize_t written = ::write(wakeUpPipe[1], "", 1);
    errno = savedErrno;
}

void catchUnlessIgnored(int number)
{
    struct sigaction action = {};
    // Ignored from the start, as nohup does: the user wants it so.
    if (::sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN)
        return;

    action = {};
    action.sa_handler = catchSignal;
    // Without SA_RESTART: the terminal may hold up whoever writes to it.
    ::sigaction(number, &action, nullptr);
}

} // namespace

Session::Session(const Arguments &arguments)
    : m_json(arguments.json)
{
    m_client.setServerUrl(arguments.url);
    m_client.setProductCode(arguments.product);
    connect(&m_client, &Corvane::networkError, this, &Session::handleNetworkError);

    if (arguments.timeout.count() > 0) {
        m_timeout.setSingleShot(true);
        // A coarse timer may come too early.
        m_timeout.setTimerType(Qt::PreciseTimer);
        connect(&m_timeout, &QTimer::timeout, this, &Session::handleTimeout);
        m_timeout.start(arguments.timeout);
    }
    if (!m_json && ::isatty(STDERR_FILENO)) {
        connect(&m_spinner, &QTimer::timeout, this, &Session::showWaiting);
        m_spinner.start(100ms);
    }
    watchSignals();
}

Corvane *Session::client()
{
    return &m_client;
}

bool Session::isOver() const
{
    return m_over || caughtSignal != 0;
}

void Session::finish(const Report &report)
{
    if (!close())
        return;
    end(printReport(report) ? Done : Unwritten);
}

void Session::refuse(const Report &report, const QString &reason)
{
    if (!close())
        return;
    printReport(report);
    printError(reason.isEmpty() ? u"the service said no and gave no reason"_s : reason,
               wakeUpPipe[0]);
    end(Refused);
}

void Session::fail(ExitStatus status, const QString &message)
{
    if (!close())
        return;
    printError(message, wakeUpPipe[0]);
    end(status);
}

// True once. The first end counts: the event loop may still deliver what was under way.
bool Session::close()
{
    m_spinner.stop();
    if (std::exchange(m_frame, 0) > 0)
        std::fputs("\r \r", stderr);
    return !std::exchange(m_over, true);
}

// A signal that came while the session printed is what ended it.
void Session::end(int status)
{
    QCoreApplication::exit(caughtSignal != 0 ? 128 + caughtSignal : status);
}

bool Session::printReport(const Report &report) const
{
    if (!m_json)
        return print(report.text, wakeUpPipe[0]);
    return print(QString::fromUtf8(QJsonDocument(report.json).toJson(QJsonDocument::Compact))
                     + u'\n',
                 wakeUpPipe[0]);
}

void Session::handleNetworkError(const QString &message)
{
    // The one failure that is not the network's. Nothing but its text tells it apart.
    const bool unsaved = message == "Impossibile salvare aggiornamento."_L1;
    fail(unsaved ? Unusable : NetworkFailure, message);
}

void Session::handleTimeout()
{
    fail(TimedOut,
         u"no answer within %1 s; the service may have acted all the same"_s.arg(
             m_timeout.interval() / 1000.0));
}

void Session::handleSignal()
{
    if (close())
        end(128 + caughtSignal);
}

void Session::watchSignals()
{
    // Neither output that nobody reads nor a file that grows too large must end the program before
    // it has cleaned up.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    if (::pipe2(wakeUpPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return; // Signals end the program as they do any other.

    auto *notifier = new QSocketNotifier(wakeUpPipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &Session::handleSignal);
    for (const int number : {SIGHUP, SIGINT, SIGTERM})
        catchUnlessIgnored(number);
}

void Session::showWaiting()
{
    constexpr char frames[] = {'|', '/', '-', '\\'};
    std::fprintf(stderr, "\r%c", frames[m_frame++ % 4]);
}
