#ifndef SERVERPROCESS_H
#define SERVERPROCESS_H

#include <QtCore/qbytearray.h>
#include <QtCore/qprocess.h>
#include <QtCore/qregularexpression.h>
#include <QtNetwork/qhostaddress.h>

// A port of the loopback for a program to listen on, held by a socket that is bound to it and never
// listens. Nobody else is given the port; a program that asks for it may share it, since servers
// set SO_REUSEADDR. Until one does, connections are refused.
class ReservedPort
{
public:
    explicit ReservedPort(QHostAddress::SpecialAddress address = QHostAddress::LocalHost);
    ~ReservedPort();
    Q_DISABLE_COPY_MOVE(ReservedPort)

    // False if the machine does not have the address.
    bool isValid() const { return m_number != 0; }
    quint16 number() const { return m_number; }
    QHostAddress address() const { return m_address; }

private:
    QHostAddress m_address;
    int m_socket;
    quint16 m_number = 0;
};

// One running server, killed with the object, or with the test program if that is killed first.
class ServerProcess
{
public:
    // The full name of a program, also from where only root looks; empty if it is not installed.
    static QString find(const QString &name);

    ServerProcess(const QString &program, const QStringList &arguments);
    ~ServerProcess();
    Q_DISABLE_COPY_MOVE(ServerProcess)

    // Waits until it accepts connections; false if it ends first or does not in time.
    bool waitForPort(const ReservedPort &port, int milliseconds = 10000);
    // Waits until it has printed, from the position on, what the pattern matches. No match if it
    // ends first or does not in time.
    QRegularExpressionMatch waitForOutput(const QRegularExpression &pattern, qsizetype from = 0,
                                          int milliseconds = 10000);

    // All that it has printed so far, to either output.
    QString output();

private:
    QProcess m_process;
    QString m_output;
};

#endif // SERVERPROCESS_H
