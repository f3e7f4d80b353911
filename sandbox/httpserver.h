#ifndef HTTPSERVER_H
#define HTTPSERVER_H

#include <QtHttpServer/qabstracthttpserver.h>
#include <QtHttpServer/qhttpserverrequest.h>
#include <QtHttpServer/qhttpserverresponder.h>

#include <QtCore/qbytearray.h>

// Qt's HTTP server as it was before 6.8 and as it is since: one handler, whatever the version.
class HttpServer : public QAbstractHttpServer
{
protected:
    virtual void answer(const QHttpServerRequest &request, QHttpServerResponder &responder) = 0;

    // A 405 must name the methods that would have been allowed.
    static void writeNotAllowed(QHttpServerResponder &responder, const QByteArray &body,
                                const QByteArray &mimeType, const QByteArray &allowed)
    {
        const auto status = QHttpServerResponder::StatusCode::MethodNotAllowed;
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
        QHttpHeaders headers;
        headers.append(QHttpHeaders::WellKnownHeader::ContentType, mimeType);
        headers.append(QHttpHeaders::WellKnownHeader::Allow, allowed);
        responder.write(body, headers, status);
#else
        responder.write(body, {{"Content-Type", mimeType}, {"Allow", allowed}}, status);
#endif
    }

private:
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    bool handleRequest(const QHttpServerRequest &request, QHttpServerResponder &responder) final
    {
        answer(request, responder);
        return true;
    }
    void missingHandler(const QHttpServerRequest &, QHttpServerResponder &) final { }
#else
    bool handleRequest(const QHttpServerRequest &request, QTcpSocket *socket) final
    {
        QHttpServerResponder responder = makeResponder(request, socket);
        answer(request, responder);
        return true;
    }
    void missingHandler(const QHttpServerRequest &, QTcpSocket *) final { }
#endif
};

#endif // HTTPSERVER_H
