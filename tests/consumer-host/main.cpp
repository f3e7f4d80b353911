#include "host.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Host host(QUrl(app.arguments().value(1)));
    // Queued, because a call that cannot be sent is refused before it returns.
    QObject::connect(
        &host, &Host::shown, &app,
        [](const QString &line) {
            QTextStream(stdout) << line << '\n';
            QCoreApplication::quit();
        },
        Qt::QueuedConnection);
    host.checkForUpdate();
    return app.exec();
}
