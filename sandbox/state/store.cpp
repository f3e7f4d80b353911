#include "state/store.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qrandom.h>
#include <QtCore/qvariant.h>
#include <QtSql/qsqlerror.h>
#include <QtSql/qsqlquery.h>
#include <QtSql/qsqlrecord.h>

using namespace Qt::StringLiterals;

namespace {

// Marks a database file as the sandbox's: no other program's tables are ever touched.
constexpr int applicationId = 0x434f5256;
constexpr int schemaVersion = 1;

// A payment's id is its order's, and so an order is never paid twice. Licence ids start elsewhere,
// so that a host which mixes up the two ids notices.
const QStringList schema{
    u"CREATE TABLE products ("
    "  product_code TEXT PRIMARY KEY,"
    "  name TEXT NOT NULL)"_s,

    u"CREATE TABLE plans ("
    "  id INTEGER PRIMARY KEY,"
    "  product_code TEXT NOT NULL REFERENCES products,"
    "  plan_code TEXT NOT NULL,"
    "  name TEXT NOT NULL,"
    "  description TEXT NOT NULL,"
    "  price TEXT NOT NULL,"
    "  currency TEXT NOT NULL,"
    "  UNIQUE (product_code, plan_code))"_s,

    u"CREATE TABLE licenses ("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  license_key TEXT NOT NULL UNIQUE,"
    "  product_code TEXT NOT NULL,"
    "  plan_code TEXT NOT NULL,"
    "  first_name TEXT NOT NULL,"
    "  last_name TEXT NOT NULL,"
    "  email TEXT NOT NULL,"
    "  status TEXT NOT NULL DEFAULT 'pending' CHECK (status IN ('pending', 'active')),"
    "  created_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now')),"
    "  FOREIGN KEY (product_code, plan_code) REFERENCES plans (product_code, plan_code))"_s,

    u"CREATE TABLE orders ("
    "  id INTEGER PRIMARY KEY,"
    "  paypal_order_id TEXT NOT NULL UNIQUE,"
    "  license_id INTEGER NOT NULL UNIQUE REFERENCES licenses,"
    "  plan_name TEXT NOT NULL,"
    "  price TEXT NOT NULL,"
    "  currency TEXT NOT NULL,"
    "  created_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now')),"
    "  approved_at TEXT)"_s,

    u"CREATE TABLE payments ("
    "  id INTEGER PRIMARY KEY REFERENCES orders,"
    "  amount TEXT NOT NULL,"
    "  currency TEXT NOT NULL,"
    "  paid_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now')))"_s,

    u"CREATE TABLE usage_events ("
    "  id INTEGER PRIMARY KEY,"
    "  product_code TEXT NOT NULL REFERENCES products,"
    "  license_key TEXT NOT NULL,"
    "  machine_fingerprint TEXT NOT NULL,"
    "  event_type TEXT NOT NULL,"
    "  payload TEXT NOT NULL,"
    "  received_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now')))"_s,

};

const QStringList tables{u"products"_s, u"plans"_s,    u"licenses"_s,
                         u"orders"_s,   u"payments"_s, u"usage_events"_s};
constexpr int shownRows = 1000;

const QStringList demonstration{
    u"INSERT INTO sqlite_sequence (name, seq) VALUES ('licenses', 1000)"_s,
    u"INSERT INTO products VALUES ('DEMO', 'Prodotto dimostrativo')"_s,
    u"INSERT INTO plans (product_code, plan_code, name, description, price, currency) VALUES"
    " ('DEMO', 'MENSILE', 'Abbonamento mensile', 'Tutte le funzioni, rinnovo ogni mese.',"
    "  '9.90', 'EUR'),"
    " ('DEMO', 'ANNUALE', 'Abbonamento annuale', 'Tutte le funzioni, due mesi in regalo.',"
    "  '99.00', 'EUR'),"
    " ('DEMO', 'PERPETUA', 'Licenza perpetua', 'Un solo pagamento, un anno di aggiornamenti.',"
    "  '249.00', 'EUR')"_s,
};

[[noreturn]] void fail(const QSqlError &error)
{
    throw StoreError(error.text().toStdString());
}

QSqlQuery run(const QSqlDatabase &database, const QString &sql, const QVariantList &values = {})
{
    QSqlQuery query(database);
    query.setForwardOnly(true);
    if (!query.prepare(sql))
        fail(query.lastError());
    for (const QVariant &value : values)
        query.addBindValue(value);
    if (!query.exec())
        fail(query.lastError());
    return query;
}

int number(const QSqlDatabase &database, const QString &sql)
{
    QSqlQuery query = run(database, sql);
    return query.next() ? query.value(0).toInt() : 0;
}

// Rolls back unless committed. What it reads nobody else changes before it ends: other processes
// wait from its beginning on.
class Transaction
{
public:
    explicit Transaction(const QSqlDatabase &database)
        : m_database(database)
    {
        run(m_database, u"BEGIN IMMEDIATE"_s);
    }
    ~Transaction()
    {
        if (!m_committed)
            m_database.rollback();
    }
    Q_DISABLE_COPY_MOVE(Transaction)

    void commit()
    {
        if (!m_database.commit())
            fail(m_database.lastError());
        m_committed = true;
    }

private:
    QSqlDatabase m_database;
    bool m_committed = false;
};

// Another process may open the same new file at the same time: one fills it.
void createIfNew(const QSqlDatabase &database)
{
    Transaction transaction(database);
    if (number(database, u"SELECT count(*) FROM sqlite_master"_s) > 0)
        return;

    for (const QString &statement : schema + demonstration)
        run(database, statement);
    run(database, "PRAGMA application_id = "_L1 + QString::number(applicationId));
    run(database, "PRAGMA user_version = "_L1 + QString::number(schemaVersion));
    transaction.commit();
}

void checkOrigin(const QSqlDatabase &database)
{
    if (number(database, u"PRAGMA application_id"_s) != applicationId)
        throw StoreError("the database belongs to another program");
    if (number(database, u"PRAGMA user_version"_s) != schemaVersion)
        throw StoreError("the database was made by another version of corvane-sandbox");
}

// Upper-case letters and digits that nobody mistakes for one another.
QString randomText(qsizetype length)
{
    constexpr auto alphabet = "23456789ABCDEFGHJKLMNPQRSTUVWXYZ"_L1;
    QString text;
    for (qsizetype i = 0; i < length; ++i)
        text += alphabet.at(QRandomGenerator::system()->bounded(int(alphabet.size())));
    return text;
}

QString newLicenseKey()
{
    return QStringList{randomText(4), randomText(4), randomText(4), randomText(4)}.join(u'-');
}

Plan planFrom(const QSqlQuery &row)
{
    return {row.value(0).toString(), row.value(1).toString(), row.value(2).toString(),
            row.value(3).toString(), row.value(4).toString()};
}

const QString selectPlans = u"SELECT plan_code, name, description, price, currency FROM plans "_s;

const QString selectPurchase =
    u"SELECT o.id, l.id, l.license_key, o.paypal_order_id, o.plan_name, o.price, o.currency,"
    " l.first_name, l.last_name, l.email, o.approved_at IS NOT NULL, p.id IS NOT NULL"
    " FROM orders o JOIN licenses l ON l.id = o.license_id LEFT JOIN payments p ON p.id = o.id "_s;

std::optional<Purchase> purchaseFrom(QSqlQuery row)
{
    if (!row.next())
        return std::nullopt;

    Purchase purchase;
    purchase.paymentId = row.value(0).toInt();
    purchase.licenseId = row.value(1).toInt();
    purchase.licenseKey = row.value(2).toString();
    purchase.orderId = row.value(3).toString();
    purchase.planName = row.value(4).toString();
    purchase.price = row.value(5).toString();
    purchase.currency = row.value(6).toString();
    purchase.buyer = {row.value(7).toString(), row.value(8).toString(), row.value(9).toString()};
    if (row.value(10).toBool())
        purchase.state = Purchase::Approved;
    if (row.value(11).toBool())
        purchase.state = Purchase::Paid;
    return purchase;
}

} // namespace

Store::Store(const QString &path)
    : m_database(QSqlDatabase::addDatabase(u"QSQLITE"_s))
{
    m_database.setDatabaseName(path.isEmpty() ? u":memory:"_s : path);
    if (!m_database.open())
        fail(m_database.lastError());

    createIfNew(m_database);
    checkOrigin(m_database);
}

bool Store::hasProduct(const QString &productCode) const
{
    return run(m_database, u"SELECT 1 FROM products WHERE product_code = ?"_s, {productCode})
        .next();
}

QList<Plan> Store::plans(const QString &productCode) const
{
    QSqlQuery rows =
        run(m_database, selectPlans + "WHERE product_code = ? ORDER BY id"_L1, {productCode});
    QList<Plan> plans;
    while (rows.next())
        plans.append(planFrom(rows));
    return plans;
}

std::optional<Plan> Store::plan(const QString &productCode, const QString &planCode) const
{
    QSqlQuery row = run(m_database, selectPlans + "WHERE product_code = ? AND plan_code = ?"_L1,
                        {productCode, planCode});
    return row.next() ? std::make_optional(planFrom(row)) : std::nullopt;
}

// The order keeps the plan's name and price as they were when the buyer chose.
Purchase Store::startPurchase(const QString &productCode, const Plan &plan, const Buyer &buyer)
{
    const QString licenseKey = newLicenseKey();
    Transaction transaction(m_database);
    const QSqlQuery license = run(
        m_database,
        u"INSERT INTO licenses (license_key, product_code, plan_code, first_name, last_name, email)"
        " VALUES (?, ?, ?, ?, ?, ?)"_s,
        {licenseKey, productCode, plan.code, buyer.firstName, buyer.lastName, buyer.email});
    run(m_database,
        u"INSERT INTO orders (paypal_order_id, license_id, plan_name, price, currency)"
        " VALUES (?, ?, ?, ?, ?)"_s,
        {randomText(17), license.lastInsertId(), plan.name, plan.price, plan.currency});
    Purchase purchase = purchaseByLicense(productCode, licenseKey).value();
    transaction.commit();
    return purchase;
}

std::optional<Purchase> Store::purchaseByLicense(const QString &productCode,
                                                 const QString &licenseKey) const
{
    return purchaseFrom(run(m_database,
                            selectPurchase + "WHERE l.product_code = ? AND l.license_key = ?"_L1,
                            {productCode, licenseKey}));
}

std::optional<Purchase> Store::purchaseByOrder(const QString &orderId) const
{
    return purchaseFrom(
        run(m_database, selectPurchase + "WHERE o.paypal_order_id = ?"_L1, {orderId}));
}

void Store::approve(const Purchase &purchase)
{
    run(m_database,
        u"UPDATE orders SET approved_at = strftime('%Y-%m-%dT%H:%M:%fZ', 'now')"
        " WHERE id = ? AND approved_at IS NULL"_s,
        {purchase.paymentId});
}

void Store::pay(const Purchase &purchase)
{
    if (purchase.state == Purchase::Paid)
        return;

    Transaction transaction(m_database);
    run(m_database, u"UPDATE licenses SET status = 'active' WHERE id = ?"_s, {purchase.licenseId});
    // Another process may have taken the payment since the purchase was read.
    run(m_database,
        u"INSERT INTO payments (id, amount, currency) VALUES (?, ?, ?)"
        " ON CONFLICT (id) DO NOTHING"_s,
        {purchase.paymentId, purchase.price, purchase.currency});
    transaction.commit();
}

void Store::addUsageEvent(const UsageEvent &event)
{
    const QByteArray payload = QJsonDocument(event.payload).toJson(QJsonDocument::Compact);
    run(m_database,
        u"INSERT INTO usage_events"
        " (product_code, license_key, machine_fingerprint, event_type, payload)"
        " VALUES (?, ?, ?, ?, ?)"_s,
        {event.productCode, event.licenseKey, event.machineFingerprint, event.eventType,
         QString::fromUtf8(payload)});
}

QJsonObject Store::contents() const
{
    QJsonObject contents;
    for (const QString &table : tables) {
        QSqlQuery rows = run(m_database,
                             u"SELECT * FROM (SELECT rowid AS row, * FROM %1 ORDER BY row DESC "
                             "LIMIT %2) ORDER BY row"_s.arg(table, QString::number(shownRows)));
        QJsonArray array;
        while (rows.next()) {
            const QSqlRecord record = rows.record();
            QJsonObject row;
            for (int column = 1; column < record.count(); ++column)
                row.insert(record.fieldName(column), QJsonValue::fromVariant(record.value(column)));
            array.append(row);
        }
        contents.insert(table, array);
    }
    return contents;
}

void Store::reset()
{
    Transaction transaction(m_database);
    for (const QString &table : tables)
        run(m_database, "DELETE FROM "_L1 + table);
    run(m_database, u"DELETE FROM sqlite_sequence"_s);
    for (const QString &statement : demonstration)
        run(m_database, statement);
    transaction.commit();
}
