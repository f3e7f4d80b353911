#include <Corvane>
#include <QCoreApplication>
#include <QDebug>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Corvane client;
    client.setServerUrl(QUrl(app.arguments().value(1)));
    client.setProductCode(QStringLiteral("DEMO"));
    QObject::connect(&client, &Corvane::updateChecked, &app, [](const UpdateInfo &update) {
        qInfo() << (update.updateAvailable ? "On offer:" : "Nothing to install.")
                << update.latestVersion;
        QCoreApplication::quit();
    });
    // Queued, because a call that cannot be sent is refused before it returns.
    const auto fail = [](const QString &message) {
        qCritical() << message;
        QCoreApplication::exit(1);
    };
    QObject::connect(&client, &Corvane::networkError, &app, fail, Qt::QueuedConnection);
    client.checkForUpdate(QStringLiteral("1.4.0"), QStringLiteral("stable"));
    return app.exec();
}
