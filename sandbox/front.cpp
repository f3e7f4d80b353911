#include "front.h"

#include "control/control.h"
#include "endpoints/service.h"
#include "faults/faults.h"
#include "http/connection.h"
#include "journal/journal.h"

#include <QtNetwork/qtcpserver.h>
#include <QtNetwork/qtcpsocket.h>

using namespace Qt::StringLiterals;

namespace {

QString nameOf(HttpConnection::Ending ending)
{
    switch (ending) {
    case HttpConnection::Sent:
        return u"sent"_s;
    case HttpConnection::Reset:
        return u"reset"_s;
    case HttpConnection::Closed:
        return u"closed"_s;
    case HttpConnection::Stalled:
        return u"stalled"_s;
    case HttpConnection::ClientLeft:
        return u"client-left"_s;
    }
    Q_UNREACHABLE();
}

} // namespace

Front::Front(QTcpServer *server, Service &service, Faults &faults, Journal &journal,
             Control &control)
    : m_service(service)
    , m_faults(faults)
    , m_journal(journal)
    , m_control(control)
{
    server->setParent(this);
    connect(server, &QTcpServer::newConnection, this, [this, server] {
        while (QTcpSocket *socket = server->nextPendingConnection())
            accept(new HttpConnection(socket, this));
    });
}

void Front::accept(HttpConnection *connection)
{
    // The journal's entry of the exchange that is under way; 0 if it is none of the service's.
    const auto entry = std::make_shared<quint64>(0);
    connect(connection, &HttpConnection::requested, this,
            [this, connection, entry] { answer(connection, entry.get()); });
    connect(connection, &HttpConnection::sent, this,
            [this, entry](const QByteArray &bytes) { m_journal.add(*entry, bytes); });
    connect(connection, &HttpConnection::ended, this,
            [this, connection, entry](HttpConnection::Ending ending) {
                m_journal.end(*entry, connection->reply(), nameOf(ending));
            });
}

void Front::answer(HttpConnection *connection, quint64 *entry)
{
    const HttpRequest &request = connection->request();
    *entry = 0;
    if (Control::concerns(request))
        return m_control.answer(connection);

    const Operation operation = Service::operationOf(request);
    const FaultRule fault = m_faults.next(operation).value_or(FaultRule());
    *entry = m_journal.begin(::nameOf(operation), request, fault.json);
    const HttpReply reply = fault.reply ? *fault.reply : m_service.answer(request);
    connection->send(fault.changed(reply), fault.delivery);
}
