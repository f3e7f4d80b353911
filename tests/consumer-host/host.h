#ifndef HOST_H
#define HOST_H

#include <Corvane>
#include <QObject>

// A small host: whatever comes of what the user asks for, it shows one line.
class Host : public QObject
{
    Q_OBJECT

public:
    explicit Host(const QUrl &service);

    void checkForUpdate();
    // Shows the address where the user approves the payment.
    void buy();
    void finishPurchase();

Q_SIGNALS:
    void shown(const QString &line);

private:
    Corvane m_client;
    QString m_orderId;
};

#endif // HOST_H
