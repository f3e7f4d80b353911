#ifndef MESSAGE_H
#define MESSAGE_H

#include <QtCore/qbytearray.h>
#include <QtCore/qlist.h>
#include <QtCore/qpair.h>
#include <QtCore/qstring.h>
#include <QtCore/qurlquery.h>

#include <memory>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

// In their order, names as they came.
using HttpHeaders = QList<QPair<QByteArray, QByteArray>>;

// The first header of that name, in any case; null if there is none.
QByteArray headerValue(const HttpHeaders &headers, QByteArrayView name);

struct HttpRequest
{
    QByteArray method;
    QByteArray target;
    HttpHeaders headers;
    QByteArray body;
    // The client cannot do more than one exchange with HTTP/1.0, or does not want to.
    bool isLast = false;
    // The status to refuse it with, when it could not be read to its end; 0 if it could.
    int refusal = 0;

    // The target's path, as it came, and its query.
    QByteArray path() const;
    QUrlQuery query() const;
    QByteArray header(QByteArrayView name) const { return headerValue(headers, name); }
    // A browser has sent it for a page that is not from here, or hides where it is from.
    bool isOfAnotherSite() const;
};

struct HttpReply
{
    int status = 200;
    HttpHeaders headers;
    QByteArray body;
    // Open, and sent instead of the body, if there is one.
    std::shared_ptr<QIODevice> file = {};

    qint64 size() const;
};

QByteArray reasonPhrase(int status);

#endif // MESSAGE_H
