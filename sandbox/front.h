#ifndef FRONT_H
#define FRONT_H

#include <QtCore/qobject.h>

QT_BEGIN_NAMESPACE
class QTcpServer;
QT_END_NAMESPACE

class HttpConnection;
class Service;

// Leads every request from its connection to the service, and the reply back.
class Front : public QObject
{
    Q_OBJECT

public:
    // Borrows the service. The server is listening already; the front owns it from here on.
    Front(QTcpServer *server, Service &service);

private:
    void accept(HttpConnection *connection);

    Service &m_service;
};

#endif // FRONT_H
