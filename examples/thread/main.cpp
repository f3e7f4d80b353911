#include <Corvane>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDebug>
#include <QFile>
#include <QThread>

namespace {

void say(const QString &line)
{
    qInfo().noquote() << QThread::currentThread()->objectName() + u':' << line;
}

// Empty if the file cannot be read.
QString sha256Of(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return {};
    return QString::fromLatin1(hash.result().toHex());
}

} // namespace

// Downloads the URL that is the first argument to the path that is the second, and reads the file
// back, in a thread of its own.
int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QThread::currentThread()->setObjectName(QStringLiteral("main"));
    QThread thread;
    thread.setObjectName(QStringLiteral("files"));

    // An object takes its children along to another thread, and cannot leave its parent behind.
    auto *worker = new QObject;
    auto *client = new Corvane(worker);
    worker->moveToThread(&thread);
    // Deleted in that thread, when it ends.
    QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);

    // To a receiver in the client's thread, and queued: the file is still open during the signal.
    QObject::connect(
        client, &Corvane::updateDownloaded, worker,
        [](const QString &path) {
            say(QStringLiteral("saved %1").arg(path));
            const QString sha256 = sha256Of(path);
            QMetaObject::invokeMethod(QCoreApplication::instance(), [sha256] {
                say(QStringLiteral("SHA-256 %1").arg(sha256));
                QCoreApplication::exit(sha256.isEmpty() ? 1 : 0);
            });
        },
        Qt::QueuedConnection);
    // To a receiver in another thread: queued by itself.
    QObject::connect(client, &Corvane::networkError, &app, [](const QString &message) {
        say(message);
        QCoreApplication::exit(1);
    });

    // Calls, too, are made in the client's thread.
    const QStringList arguments = app.arguments();
    QMetaObject::invokeMethod(client, [client, arguments] {
        client->downloadUpdate(QUrl(arguments.value(1)), arguments.value(2));
    });
    thread.start();
    const int status = app.exec();
    // Whatever is still under way ends without a signal.
    thread.quit();
    thread.wait();
    return status;
}
