// corvane-sandbox: the service on one's own machine.
//
// arguments -> front (HTTP, faults, journal) -> service -> store (SQLite), releases (folder)
//                                            -> control, for what is below /sandbox/

#include "control/control.h"
#include "endpoints/service.h"
#include "faults/faults.h"
#include "faults/scenarios.h"
#include "front.h"
#include "journal/journal.h"
#include "state/data.h"
#include "state/releases.h"
#include "state/store.h"
#include "json/jsoninput.h"

#include <QtCore/qcommandlineparser.h>
#include <QtCore/qcoreapplication.h>
#include <QtCore/qfileinfo.h>
#include <QtCore/qsocketnotifier.h>
#include <QtCore/qurl.h>
#include <QtNetwork/qhostaddress.h>
#include <QtNetwork/qtcpserver.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

enum ExitCode { Done = 0, StartFailed = 1, WrongUsage = 2 };

void note(const QString &message)
{
    std::fprintf(stderr, "corvane-sandbox: %s\n", qUtf8Printable(message));
}

int fail(ExitCode code, const QString &message)
{
    note(message);
    return code;
}

std::optional<quint16> portFrom(const QString &text)
{
    bool isNumber = false;
    const quint16 port = text.toUShort(&isNumber);
    return isNumber ? std::make_optional(port) : std::nullopt;
}

// Readable once the process has ended; -1 if there is no such process. The number alone may be
// given to another process.
int descriptorOf(pid_t process)
{
    return static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
}

int signalPipe[2];

// Nothing but write() is safe in a signal handler; the event loop does the rest.
void passSignalOn(int)
{
    const int savedError = errno;
    const char byte = 0;
    // A full pipe holds a byte to wake up for already.
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
    errno = savedError;
}

// From here on a signal waits in the pipe for the event loop. A reader of the output that goes
// away is an error of writing, not a signal.
bool catchSignals()
{
    return ::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) == 0
        && std::signal(SIGINT, passSignalOn) != SIG_ERR
        && std::signal(SIGTERM, passSignalOn) != SIG_ERR
        && std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
}

void quitWhenReadable(int descriptor, QCoreApplication *application)
{
    auto *notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, application);
    QObject::connect(notifier, &QSocketNotifier::activated, application, &QCoreApplication::quit);
}

bool print(const QString &line)
{
    return std::printf("%s\n", qUtf8Printable(line)) > 0 && std::fflush(stdout) == 0;
}

const QString cannotPrint =
    u"cannot print the address (%1): give it an output that can be written."_s;

struct Settings
{
    QHostAddress address;
    quint16 port = 0;
    QString data;
    QString database;
    QString folder;
    QList<FaultRule> faults;
    bool isMasked = false;
    std::optional<int> endWith; // readable when it is time
};

QString urlOf(const QHostAddress &host, quint16 port)
{
    QUrl url;
    url.setScheme(u"http"_s);
    url.setHost(host.toString());
    url.setPort(port);
    return url.toString();
}

// An address that stands for all of the machine's is none that a client could connect to.
bool isWildcard(const QHostAddress &host)
{
    return QList<QHostAddress>{QHostAddress::AnyIPv4, QHostAddress::AnyIPv6}.contains(host);
}

const QString notLoaded = u"\"%1\" was not loaded: \"%2\" holds data already."_s;

int serve(QCoreApplication &application, const Settings &settings)
{
    auto server = std::make_unique<QTcpServer>();
    if (!server->listen(settings.address, settings.port)) {
        return fail(
            StartFailed,
            u"cannot listen on port %1 (%2): choose another with --port, or leave it out "
            "for any free one."_s.arg(QString::number(settings.port), server->errorString()));
    }
    const QString address = urlOf(settings.address, server->serverPort());

    try {
        Store store(settings.database, readData(settings.data));
        Releases releases(settings.folder, store);
        Service service(store, releases, isWildcard(settings.address) ? QString() : address,
                        settings.isMasked);
        Faults faults(settings.faults);
        Journal journal(settings.isMasked);
        Control control(faults, journal, store, settings.isMasked);
        const Front front(server.release(), service, faults, journal, control);
        quitWhenReadable(signalPipe[0], &application);
        if (settings.endWith)
            quitWhenReadable(*settings.endWith, &application);
        if (!print(address))
            return fail(StartFailed, cannotPrint.arg(qt_error_string()));
        if (!store.isNew() && settings.data != demoData)
            note(notLoaded.arg(settings.data, settings.database));
        return QCoreApplication::exec();
    } catch (const DataError &error) {
        return fail(StartFailed, QString::fromUtf8(error.what()));
    } catch (const StoreError &error) {
        return fail(StartFailed,
                    u"cannot use the database \"%1\" (%2): name a file that you may write and that "
                    "corvane-sandbox made, or a new one, with --database."_s.arg(
                        settings.database, QString::fromUtf8(error.what())));
    }
}

// Those that are spelt out come first.
QList<FaultRule> faultsFrom(const QStringList &texts, const QStringList &names)
{
    QList<FaultRule> rules;
    for (const QString &text : texts) {
        const QString path = JsonInput::elementPath(u"faults"_s, rules.size());
        rules += faultRuleFrom(JsonInput::fromJson(text.toUtf8(), path));
    }
    for (const QString &name : names) {
        const std::optional<Scenario> scenario = scenarioNamed(name);
        if (!scenario)
            throw JsonError({}, u"\"%1\" is no scenario: see --list-scenarios"_s.arg(name));
        rules += scenario->rules;
    }
    return rules;
}

int listScenarios()
{
    for (const Scenario &scenario : scenarios()) {
        if (!print(u"%1 %2"_s.arg(scenario.name, -20).arg(scenario.sentence)))
            return fail(StartFailed, u"cannot print (%1)."_s.arg(qt_error_string()));
    }
    return Done;
}

const QString description =
    uR"(The service on your own machine, for trying out a host. Prints its address and
serves until SIGINT or SIGTERM. A new database holds DEMO, with three plans. The
page /sandbox/ shows in a browser what goes on, and makes things go wrong.
A folder named after a product holds that product's releases, one file each,
with notes.txt in UTF-8 if you like: DIR/DEMO/stable/1.4.0/demo-1.4.0.zip.
Replace a release by moving a new file into place, never by writing over it.
Exit status: 0 after a signal, 1 if it cannot start, 2 for wrong arguments.)"_s;

} // namespace

int main(int argc, char *argv[])
{
    // Asked first: the next descriptor that is opened takes the place of a closed one.
    if (::fcntl(STDOUT_FILENO, F_GETFD) < 0)
        return fail(StartFailed, cannotPrint.arg(qt_error_string()));
    if (!catchSignals())
        return fail(StartFailed, u"cannot handle signals: %1."_s.arg(qt_error_string()));

    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"corvane-sandbox"_s);
    QCoreApplication::setApplicationVersion(QStringLiteral(CORVANE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(description);
    const QCommandLineOption portOption(u"port"_s, u"Listen on port N; 0 is any free one."_s,
                                        u"N"_s, u"0"_s);
    const QCommandLineOption listenOption(
        u"listen"_s, u"Listen on this IP address; 0.0.0.0 is all."_s, u"ADDRESS"_s, u"127.0.0.1"_s);
    const QCommandLineOption dataOption(
        u"data"_s, u"Fill a new database from FILE (JSON) instead."_s, u"FILE"_s, demoData);
    const QCommandLineOption databaseOption(
        u"database"_s, u"Keep the state in FILE (SQLite) instead of in memory."_s, u"FILE"_s);
    const QCommandLineOption releasesOption(u"releases"_s, u"Offer the releases in DIR."_s,
                                            u"DIR"_s);
    const QCommandLineOption faultOption(u"fault"_s, u"Make this go wrong. Repeatable."_s,
                                         u"JSON"_s);
    const QCommandLineOption scenarioOption(u"scenario"_s,
                                            u"Play a ready-made fault. Repeatable."_s, u"NAME"_s);
    const QCommandLineOption listOption(u"list-scenarios"_s, u"Say what NAME can be, and leave."_s);
    const QCommandLineOption maskOption(u"mask"_s,
                                        u"Hide licence keys and e-mail addresses from pages."_s);
    const QCommandLineOption endOption(u"end-with"_s, u"End when the process with this id does."_s,
                                       u"PID"_s);
    parser.addOptions({portOption, listenOption, dataOption, databaseOption, releasesOption,
                       faultOption, scenarioOption, listOption, maskOption, endOption});
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();

    const QString seeHelp = u" See corvane-sandbox --help."_s;
    if (!parser.parse(QCoreApplication::arguments()))
        return fail(WrongUsage, parser.errorText() + seeHelp);
    if (parser.isSet(versionOption))
        parser.showVersion();
    if (parser.isSet(helpOption))
        parser.showHelp();
    if (parser.isSet(listOption))
        return listScenarios();
    if (!parser.positionalArguments().isEmpty()) {
        return fail(WrongUsage,
                    u"unexpected argument \"%1\"."_s.arg(parser.positionalArguments().constFirst())
                        + seeHelp);
    }
    const std::optional<quint16> port = portFrom(parser.value(portOption));
    if (!port) {
        return fail(WrongUsage,
                    u"\"%1\" is not a port: give a number from 0 to 65535."_s.arg(
                        parser.value(portOption)));
    }
    const QHostAddress address(parser.value(listenOption));
    if (address.isNull()) {
        return fail(WrongUsage,
                    u"\"%1\" is not an IP address: give one of this machine's, such as 127.0.0.1, "
                    "::1 or 0.0.0.0."_s.arg(parser.value(listenOption)));
    }

    Settings settings{address,
                      *port,
                      parser.value(dataOption),
                      parser.value(databaseOption),
                      parser.value(releasesOption),
                      {},
                      parser.isSet(maskOption),
                      {}};
    try {
        settings.faults = faultsFrom(parser.values(faultOption), parser.values(scenarioOption));
    } catch (const JsonError &error) {
        return fail(WrongUsage, QString::fromUtf8(error.what()) + u'.' + seeHelp);
    }
    if (parser.isSet(databaseOption) && settings.database.isEmpty()) {
        return fail(WrongUsage,
                    u"the database has no name: name a file, or leave --database out to keep the "
                    "state in memory."_s);
    }
    if (parser.isSet(releasesOption) && !QFileInfo(settings.folder).isDir()) {
        return fail(StartFailed,
                    u"the releases folder \"%1\" does not exist: create it, or name another with "
                    "--releases."_s.arg(settings.folder));
    }
    if (parser.isSet(endOption)) {
        const QString id = parser.value(endOption);
        settings.endWith = descriptorOf(id.toInt());
        if (*settings.endWith < 0)
            return fail(StartFailed,
                        u"cannot watch process \"%1\" (%2)."_s.arg(id, qt_error_string()));
    }
    return serve(application, settings);
}
