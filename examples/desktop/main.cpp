#include "desktophost.h"
#include "mainwindow.h"

#include <QtCore/qcommandlineparser.h>
#include <QtCore/qdir.h>
#include <QtCore/qlibraryinfo.h>
#include <QtCore/qlockfile.h>
#include <QtCore/qstandardpaths.h>
#include <QtCore/qtranslator.h>
#include <QtWidgets/qapplication.h>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

struct Arguments
{
    Service service;
    QString stateFolder;
    bool withFaults = false;
};

void addOptions(QCommandLineParser &parser)
{
    const QString downloads = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    const QString state = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
    parser.setApplicationDescription(
        u"A window that does all that Corvane does: updates, a purchase, usage events."_s);
    parser.addHelpOption();
    parser.addOptions({
        {u"server"_s, u"The service. Needed."_s, u"URL"_s},
        {u"product"_s, u"The product code (DEMO)."_s, u"CODE"_s, u"DEMO"_s},
        {u"installed"_s, u"The version that is installed (1.4.0)."_s, u"VERSION"_s, u"1.4.0"_s},
        {u"channel"_s, u"The release channel (stable)."_s, u"NAME"_s, u"stable"_s},
        {u"downloads"_s, u"Where updates are put (%1)."_s.arg(downloads), u"DIR"_s, downloads},
        {u"state"_s, u"What is kept between two runs (%1)."_s.arg(state), u"DIR"_s, state},
        {u"timeout"_s, u"How long a call may take (20)."_s, u"SECONDS"_s, u"20"_s},
        {u"download-timeout"_s, u"How long a download may take (1800; with --faults, 30)."_s,
         u"SECONDS"_s},
        {u"faults"_s, u"Show the panel that makes a sandbox go wrong."_s},
    });
}

std::chrono::seconds secondsFrom(const QString &text)
{
    bool isNumber = false;
    const int seconds = text.toInt(&isNumber);
    if (!isNumber || seconds < 1 || seconds > 86400)
        throw u"A time-out is from 1 to 86400 seconds."_s;
    return std::chrono::seconds(seconds);
}

// Throws what is wrong with them.
Arguments argumentsFrom(const QStringList &list)
{
    QCommandLineParser parser;
    addOptions(parser);
    if (!parser.parse(list))
        throw parser.errorText();
    if (parser.isSet(u"help"_s))
        parser.showHelp();
    if (!parser.positionalArguments().isEmpty())
        throw u"There are no arguments but options."_s;

    Arguments arguments;
    arguments.withFaults = parser.isSet(u"faults"_s);
    arguments.stateFolder = parser.value(u"state"_s);
    Service &service = arguments.service;
    service.url = QUrl(parser.value(u"server"_s), QUrl::StrictMode);
    const bool isWeb = service.url.scheme() == "http"_L1 || service.url.scheme() == "https"_L1;
    if (!isWeb || service.url.host().isEmpty())
        throw u"--server needs the service's URL, like http://127.0.0.1:8080."_s;
    service.productCode = parser.value(u"product"_s);
    service.installedVersion = parser.value(u"installed"_s);
    service.channel = parser.value(u"channel"_s);
    service.downloadFolder = QDir(parser.value(u"downloads"_s)).absolutePath();
    service.callTimeout = secondsFrom(parser.value(u"timeout"_s));
    if (parser.isSet(u"download-timeout"_s))
        service.downloadTimeout = secondsFrom(parser.value(u"download-timeout"_s));
    else if (arguments.withFaults)
        service.downloadTimeout = std::chrono::seconds(30);
    return arguments;
}

int run(const Arguments &arguments)
{
    // Two of them would write over each other's purchase.
    QDir().mkpath(arguments.stateFolder);
    QLockFile lock(arguments.stateFolder + "/blocco"_L1);
    lock.setStaleLockTime(0);
    if (!lock.tryLock() && lock.error() == QLockFile::LockFailedError)
        throw u"Another one is running with the state in %1."_s.arg(arguments.stateFolder);

    DesktopHost host(arguments.service, arguments.stateFolder);
    MainWindow window(&host, arguments.withFaults);
    window.show();
    return QApplication::exec();
}

} // namespace

int main(int argc, char *argv[])
{
    const QApplication app(argc, argv);
    QCoreApplication::setApplicationName(u"corvane-desktop"_s);
    // Qt's own texts in Italian, as the window's.
    QTranslator translator;
    if (translator.load(QLocale(QLocale::Italian), u"qtbase"_s, u"_"_s,
                        QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(&translator);

    try {
        return run(argumentsFrom(QCoreApplication::arguments()));
    } catch (const QString &problem) {
        std::fprintf(stderr, "corvane-desktop: %s\n", qPrintable(problem));
        return 2;
    }
}
