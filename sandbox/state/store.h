#ifndef STORE_H
#define STORE_H

#include <QtCore/qjsonobject.h>
#include <QtCore/qlist.h>
#include <QtCore/qstring.h>
#include <QtSql/qsqldatabase.h>

#include <optional>
#include <stdexcept>

// The database refused. The text is for the engineer, not for the end user.
// Copied when it is thrown.
class StoreError : public std::runtime_error // clazy:exclude=copyable-polymorphic
{
public:
    using std::runtime_error::runtime_error;
};

struct Plan
{
    QString code;
    QString name;
    QString description;
    // A decimal number as text: money is never a double.
    QString price;
    QString currency;
};

struct Buyer
{
    QString firstName;
    QString lastName;
    QString email;
};

// One buyer's way from start to payment: a licence and its order.
struct Purchase
{
    enum State { Pending, Approved, Paid };

    int paymentId = 0;
    int licenseId = 0;
    QString licenseKey;
    QString orderId;
    QString planName;
    QString price;
    QString currency;
    Buyer buyer;
    State state = Pending;
};

struct UsageEvent
{
    QString productCode;
    QString licenseKey;
    QString machineFingerprint;
    QString eventType;
    QJsonObject payload;
};

// Everything the service remembers, in one SQLite database. Each call that changes something has
// committed it when it returns, or has changed nothing and throws a StoreError.
class Store
{
public:
    // Opens the database and fills a new one. An empty path keeps everything in memory.
    explicit Store(const QString &path);

    bool hasProduct(const QString &productCode) const;
    QList<Plan> plans(const QString &productCode) const;
    std::optional<Plan> plan(const QString &productCode, const QString &planCode) const;

    Purchase startPurchase(const QString &productCode, const Plan &plan, const Buyer &buyer);
    std::optional<Purchase> purchaseByLicense(const QString &productCode,
                                              const QString &licenseKey) const;
    std::optional<Purchase> purchaseByOrder(const QString &orderId) const;
    // Approving or paying what is already approved or paid changes nothing.
    void approve(const Purchase &purchase);
    void pay(const Purchase &purchase);

    void addUsageEvent(const UsageEvent &event);

    // The newest rows of every table, for engineers to look at.
    QJsonObject contents() const;
    // Back to what a new database holds.
    void reset();

private:
    QSqlDatabase m_database;
};

#endif // STORE_H
