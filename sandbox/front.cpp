#include "front.h"

#include "endpoints/service.h"
#include "http/connection.h"

#include <QtNetwork/qtcpserver.h>
#include <QtNetwork/qtcpsocket.h>

Front::Front(QTcpServer *server, Service &service)
    : m_service(service)
{
    server->setParent(this);
    connect(server, &QTcpServer::newConnection, this, [this, server] {
        while (QTcpSocket *socket = server->nextPendingConnection())
            accept(new HttpConnection(socket, this));
    });
}

void Front::accept(HttpConnection *connection)
{
    connect(connection, &HttpConnection::requested, this,
            [this, connection] { connection->send(m_service.answer(connection->request())); });
}
