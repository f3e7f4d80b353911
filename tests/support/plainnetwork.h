#ifndef PLAINNETWORK_H
#define PLAINNETWORK_H

#include "loopbackserver.h"

#include <QtCore/qstring.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtNetwork/qnetworkrequest.h>

// What a plain QNetworkAccessManager, told nothing, makes of things. The network layer decides
// default headers and error texts, and they differ between its versions: tests ask it.
namespace PlainNetwork {

struct Answer
{
    LoopbackServer::Request request; // as it arrived
    QString errorString;
};

// All that a client can learn from a reply that has finished.
struct Outcome
{
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QString errorString;
    int status = 0; // none
    QByteArray body;
};

// Leaves the body in the reply.
Outcome outcomeOf(QNetworkReply *reply);

// What becomes of a GET of the URL, or of a POST to it if there is a body.
Outcome outcomeOf(const QUrl &url, const QByteArray &body = {});

// Sends the method, target and body of a recorded request once more to the server, which answers
// with these bytes.
Answer ask(LoopbackServer &server, const LoopbackServer::Request &like,
           const QByteArray &response = LoopbackServer::response(200, "{}"),
           LoopbackServer::After after = LoopbackServer::KeepOpen);

// Whether a sent request sets what keeps caches from answering a GET, and nothing else beyond what
// a plain manager adds by itself.
bool isUncachedGet(const QNetworkRequest &request);

// The error text of a plain GET of the URL; null if it succeeds.
QString errorString(const QUrl &url);

// What the client itself put into a recorded request: method and target, the headers that a plain
// request to the same place does not have or has with another value (and "-name" for those that
// it alone has), an empty line, the body. Header names are in lower case, as Qt 6.8 sends them.
QByteArray ownPart(LoopbackServer &server, const LoopbackServer::Request &request);

} // namespace PlainNetwork

#endif // PLAINNETWORK_H
