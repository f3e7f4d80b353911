#ifndef SIDES_H
#define SIDES_H

#include <QtCore/qstring.h>
#include <QtCore/qurl.h>

#include <functional>
#include <memory>

// What a host asks for.
enum class Call { Check, Download, Plans, Start, Resume, Capture, Usage };

// One way of doing the same work. All ask for the same, and keep the same records out of the
// replies; libcurl sends none of the headers that Qt adds. A figure of a call that failed would
// mean nothing, so a failure ends the program.
class Side
{
public:
    virtual ~Side() = default;

    virtual void start(Call call) = 0;

    // Called for each call when its result has come.
    std::function<void()> onDone;
    QUrl file;
    QString destination;

protected:
    Side() = default;
    Q_DISABLE_COPY_MOVE(Side)
};

// With which product the service is asked: it decides how long the replies are.
std::unique_ptr<Side> makeCorvane(const QUrl &server, const QString &product);
// By hand on QNetworkAccessManager.
std::unique_ptr<Side> makeByHand(const QUrl &server, const QString &product);
// On libcurl's multi interface, by the event loop and the JSON of Qt.
std::unique_ptr<Side> makeLibcurl(const QUrl &server, const QString &product);
QString libcurlVersion();

[[noreturn]] void stop(const QString &problem);

#endif // SIDES_H
