#ifndef FRONT_H
#define FRONT_H

#include <QtCore/qobject.h>

QT_BEGIN_NAMESPACE
class QTcpServer;
QT_END_NAMESPACE

class Control;
class Faults;
class HttpConnection;
class Journal;
class Service;

// Leads every request from its connection to the service, and the reply back, past the faults and
// under the eyes of the journal. What is for the control interface goes there instead.
class Front : public QObject
{
    Q_OBJECT

public:
    // Borrows the rooms. The server is listening already; the front owns it from here on.
    Front(QTcpServer *server, Service &service, Faults &faults, Journal &journal, Control &control);

private:
    void accept(HttpConnection *connection);
    void answer(HttpConnection *connection, quint64 *entry);

    Service &m_service;
    Faults &m_faults;
    Journal &m_journal;
    Control &m_control;
};

#endif // FRONT_H
