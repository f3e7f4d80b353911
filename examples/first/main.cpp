#include <Corvane>
#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Corvane client;
    client.setServerUrl(QUrl(app.arguments().value(1)));
    client.setProductCode(QStringLiteral("DEMO"));

    const auto end = [](int status, const QString &line) {
        QTextStream(stdout) << line << '\n';
        QCoreApplication::exit(status);
    };
    QObject::connect(&client, &Corvane::updateChecked, &app, [end](const UpdateInfo &update) {
        if (update.latestVersion.isEmpty())
            end(1, QStringLiteral("Il servizio non indica alcuna versione."));
        else if (update.updateAvailable)
            end(0, QStringLiteral("È disponibile la versione %1.").arg(update.latestVersion));
        else
            end(0, QStringLiteral("Nessun aggiornamento."));
    });
    // Queued, because a call that cannot be sent is refused before it returns.
    QObject::connect(
        &client, &Corvane::networkError, &app, [end](const QString &message) { end(1, message); },
        Qt::QueuedConnection);
    // The library itself waits for as long as the network lets it.
    QTimer::singleShot(std::chrono::seconds(10), &app,
                       [end] { end(1, QStringLiteral("Il servizio non risponde.")); });

    client.checkForUpdate(QStringLiteral("1.4.0"), QStringLiteral("stable"));
    return app.exec();
}
