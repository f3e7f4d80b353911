#ifndef HTTPSERVER_H
#define HTTPSERVER_H

#include <QtHttpServer/qabstracthttpserver.h>
#include <QtHttpServer/qhttpserverrequest.h>
#include <QtHttpServer/qhttpserverresponder.h>

#include <QtCore/qbytearray.h>
#include <QtCore/qfile.h>
#if QT_VERSION < QT_VERSION_CHECK(6, 8, 0)
#include <QtCore/qpointer.h>
#include <QtNetwork/qtcpsocket.h>
#endif

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

    // Piece by piece, at the receiver's pace. The responder opens, owns and closes the file.
    static void writeFile(QHttpServerResponder &responder, const QString &path,
                          const QByteArray &mimeType)
    {
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
        responder.write(new QFile(path), mimeType);
#else
        responder.write(new PacedFile(path, responder.socket()), mimeType);
#endif
    }

private:
#if QT_VERSION < QT_VERSION_CHECK(6, 8, 0)
    // Before 6.8 the responder reads as long as there is something to read, into memory if the
    // receiver does not keep up: to it, there is nothing while the socket holds enough.
    class PacedFile : public QFile
    {
    public:
        PacedFile(const QString &path, QTcpSocket *socket)
            : QFile(path)
            , m_socket(socket)
        {
            connect(
                socket, &QIODevice::bytesWritten, this,
                [this] {
                    if (bytesAvailable() > 0)
                        Q_EMIT readyRead();
                },
                Qt::QueuedConnection);
        }
        qint64 bytesAvailable() const override
        {
            constexpr qint64 enough = 1 << 20;
            const QTcpSocket *socket = m_socket;
            return socket && socket->bytesToWrite() < enough ? QFile::bytesAvailable() : 0;
        }
        // A pause is not the end.
        bool atEnd() const override { return QFile::bytesAvailable() == 0; }

    private:
        QPointer<QTcpSocket> m_socket;
    };
#endif

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
