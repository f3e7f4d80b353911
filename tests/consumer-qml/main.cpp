#include "updatechecker.h"

#include <QCoreApplication>
#include <QQmlApplicationEngine>

// Runs the QML file that it is given, whose server is the sandbox.
int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qmlRegisterType<UpdateChecker>("Host", 1, 0, "UpdateChecker");
    QQmlApplicationEngine engine;
    QObject::connect(
        &engine, &QQmlApplicationEngine::objectCreationFailed, &app,
        [] { QCoreApplication::exit(4); }, Qt::QueuedConnection);
    engine.setInitialProperties(
        {{QStringLiteral("server"), QUrl(qEnvironmentVariable("CORVANE_SANDBOX_URL"))}});
    engine.load(app.arguments().value(1));
    return app.exec();
}
