#include "desktophost.h"
#include "mainwindow.h"

#include <QtCore/qcommandlineparser.h>
#include <QtCore/qlibraryinfo.h>
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
    // Of the arguments; empty if they are right.
    QString error;
};

// Seconds; the default if the option is not set, none if it makes no sense.
std::optional<std::chrono::milliseconds> secondsFrom(const QCommandLineParser &parser,
                                                     const QString &name,
                                                     std::chrono::milliseconds standard)
{
    if (!parser.isSet(name))
        return standard;
    bool isNumber = false;
    const int seconds = parser.value(name).toInt(&isNumber);
    if (!isNumber || seconds < 1 || seconds > 86400)
        return {};
    return std::chrono::seconds(seconds);
}

Arguments argumentsFrom(const QStringList &list)
{
    const QString downloads = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    const QString state = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
    QCommandLineParser parser;
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
        {u"timeout"_s, u"How long a call may take (20)."_s, u"SECONDS"_s},
        {u"download-timeout"_s, u"How long a download may take (1800)."_s, u"SECONDS"_s},
        {u"faults"_s, u"Show the panel that makes a sandbox go wrong."_s},
    });
    Arguments arguments;
    if (!parser.parse(list)) {
        arguments.error = parser.errorText();
        return arguments;
    }
    if (parser.isSet(u"help"_s))
        parser.showHelp();

    Service &service = arguments.service;
    const auto callTimeout = secondsFrom(parser, u"timeout"_s, service.callTimeout);
    const auto downloadTimeout =
        secondsFrom(parser, u"download-timeout"_s, service.downloadTimeout);
    service.url = QUrl(parser.value(u"server"_s), QUrl::StrictMode);
    if (!parser.positionalArguments().isEmpty())
        arguments.error = u"There are no arguments but options."_s;
    else if (!service.url.isValid() || service.url.host().isEmpty())
        arguments.error = u"--server needs the service's URL, like http://127.0.0.1:8080."_s;
    else if (!callTimeout || !downloadTimeout)
        arguments.error = u"A time-out is from 1 to 86400 seconds."_s;
    if (!arguments.error.isEmpty())
        return arguments;

    service.productCode = parser.value(u"product"_s).trimmed().toUpper();
    service.installedVersion = parser.value(u"installed"_s);
    service.channel = parser.value(u"channel"_s);
    service.downloadFolder = parser.value(u"downloads"_s);
    service.callTimeout = *callTimeout;
    service.downloadTimeout = *downloadTimeout;
    arguments.stateFolder = parser.value(u"state"_s);
    arguments.withFaults = parser.isSet(u"faults"_s);
    return arguments;
}

} // namespace

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(u"corvane-desktop"_s);
    const Arguments arguments = argumentsFrom(QCoreApplication::arguments());
    if (!arguments.error.isEmpty()) {
        std::fprintf(stderr, "corvane-desktop: %s\n", qPrintable(arguments.error));
        return 2;
    }

    // What Qt itself says, in the language of all the rest.
    QTranslator translator;
    if (translator.load(QLocale(QLocale::Italian), u"qtbase"_s, u"_"_s,
                        QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(&translator);

    DesktopHost host(arguments.service, arguments.stateFolder);
    MainWindow window(&host, arguments.withFaults);
    window.show();
    return QApplication::exec();
}
