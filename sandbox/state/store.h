#ifndef STORE_H
#define STORE_H

#include <QtCore/qjsonobject.h>
#include <QtCore/qlist.h>
#include <QtCore/qstring.h>
#include <QtCore/qstringlist.h>
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

struct Product
{
    QString code;
    QString name;
};

struct Plan
{
    QString productCode;
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
    enum State { Pending, Approved, Cancelled, Paid };

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

// The names of the states, in their order.
extern const QStringList purchaseStates;

struct NewPurchase
{
    Plan plan;
    Buyer buyer;
    Purchase::State state = Purchase::Pending;
    // Made up when empty.
    QString licenseKey;
    QString orderId;
    // The next ones when 0.
    int licenseId = 0;
    int paymentId = 0;
    // In ISO 8601 to the millisecond, UTC; now when empty.
    QString createdAt;
};

struct UsageEvent
{
    QString productCode;
    // Empty when the event came without one.
    QString licenseKey;
    QString machineFingerprint;
    QString eventType;
    QJsonObject payload;
    // As NewPurchase::createdAt.
    QString receivedAt = {};
};

// What a new database is filled with.
struct Data
{
    QList<Product> products;
    QList<Plan> plans;
    QList<NewPurchase> purchases;
    QList<UsageEvent> usageEvents;
};

// A release as it lies in its folder.
struct ReleaseRow
{
    QString productCode;
    QString channel;
    QString version;
    QString file;
    qint64 size = 0;
    // Empty when it has not been computed.
    QString sha256;
    bool isLatest = false;
};

// Everything the service remembers, in one SQLite database. Each call that changes something has
// committed it when it returns, or has changed nothing and throws a StoreError.
class Store
{
public:
    // Opens the database and fills a new one with the data. An empty path keeps everything in
    // memory.
    Store(const QString &path, const Data &data);

    // False if the database was filled before.
    bool isNew() const { return m_isNew; }

    bool hasProduct(const QString &productCode) const;
    QList<Plan> plans(const QString &productCode) const;
    std::optional<Plan> plan(const QString &productCode, const QString &planCode) const;

    Purchase startPurchase(const Plan &plan, const Buyer &buyer);
    std::optional<Purchase> purchaseByLicense(const QString &productCode,
                                              const QString &licenseKey) const;
    std::optional<Purchase> purchaseByOrder(const QString &orderId) const;
    // The buyer's decision: false if there is no such order, or if it was the other one before. To
    // take the same one twice changes nothing.
    bool approve(const QString &orderId);
    bool cancel(const QString &orderId);
    // To pay what is already paid changes nothing.
    void pay(const Purchase &purchase);

    void addUsageEvent(const UsageEvent &event);

    // The newest rows of every table, for engineers to look at.
    QJsonObject contents() const;
    // How many usage events came when, in the last so many seconds, or in all time if that is 0:
    //
    // {
    //     "from": text, "to": text,   the span, in at most 60 steps
    //     "step_s": number,           how long a step is
    //     "counts": [{"from": text, "event_type": text, "events": number}, ...]
    // }
    //
    // Types that are not among the five most frequent are counted together, as null.
    QJsonObject usageOverTime(qint64 seconds) const;
    // Back to what a new database holds.
    void reset();
    // Lists these and no others. What belongs to no product of the service is left out.
    void listReleases(const QList<ReleaseRow> &releases);
    // Lists one more, or anew.
    void listRelease(const ReleaseRow &release);

private:
    void createIfNew();
    void seed();
    Purchase insertPurchase(const NewPurchase &purchase);
    void insertPayment(const Purchase &purchase, const QString &time);
    void insertRelease(const ReleaseRow &release);

    QSqlDatabase m_database;
    Data m_data;
    bool m_isNew = false;
};

#endif // STORE_H
