#include "state/store.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qfile.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qrandom.h>
#include <QtCore/qtimezone.h>
#include <QtCore/qvariant.h>
#include <QtSql/qsqlerror.h>
#include <QtSql/qsqlquery.h>
#include <QtSql/qsqlrecord.h>

#include <algorithm>

using namespace Qt::StringLiterals;

const QStringList purchaseStates{u"pending"_s, u"approved"_s, u"cancelled"_s, u"paid"_s};

namespace {

// Marks a database file as the sandbox's: no other program's tables are ever touched.
constexpr int applicationId = 0x434f5256;
constexpr int schemaVersion = 2;

const QStringList tables{u"products"_s, u"plans"_s,    u"licenses"_s,
                         u"orders"_s,   u"payments"_s, u"usage_events"_s};
constexpr int shownRows = 1000;
constexpr int shownTypes = 5;
constexpr qint64 mostSteps = 60;

[[noreturn]] void fail(const QSqlError &error)
{
    throw StoreError(error.databaseText().toStdString());
}

// Without values, the statement goes to SQLite as it is: Qt, looking for places to bind them, loses
// its way in comments.
QSqlQuery run(const QSqlDatabase &database, const QString &sql, const QVariantList &values = {})
{
    QSqlQuery query(database);
    query.setForwardOnly(true);
    if (!values.isEmpty() && !query.prepare(sql))
        fail(query.lastError());
    for (const QVariant &value : values)
        query.addBindValue(value);
    if (!(values.isEmpty() ? query.exec(sql) : query.exec()))
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

void checkOrigin(const QSqlDatabase &database)
{
    if (number(database, u"PRAGMA application_id"_s) != applicationId)
        throw StoreError("the database belongs to another program");
    const int version = number(database, u"PRAGMA user_version"_s);
    if (version != schemaVersion) {
        throw StoreError("the database was made by another version of corvane-sandbox: its schema "
                         "has number "
                         + std::to_string(version) + ", not " + std::to_string(schemaVersion));
    }
}

void checkHealth(const QSqlDatabase &database)
{
    QSqlQuery row = run(database, u"PRAGMA quick_check(1)"_s);
    const QString result = row.next() ? row.value(0).toString() : row.lastError().databaseText();
    // The last line is the finding.
    if (result != "ok"_L1)
        throw StoreError("the database is damaged: " + result.section(u'\n', -1).toStdString());
}

QStringList schema()
{
    QFile file(u":/state/schema.sql"_s);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("The schema was not built in.");
    QStringList statements = QString::fromUtf8(file.readAll()).split(u";\n"_s);
    statements.removeLast();
    return statements;
}

QString now()
{
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
}

QString isoTime(qint64 seconds)
{
    return QDateTime::fromSecsSinceEpoch(seconds, QTimeZone::utc()).toString(Qt::ISODate);
}

// What SQLite makes up itself when it is null.
QVariant idOrNull(int id)
{
    return id == 0 ? QVariant() : QVariant(id);
}

QVariant textOrNull(const QString &text)
{
    return text.isEmpty() ? QVariant() : QVariant(text);
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

// People read time in these, and it takes so many of the shortest to cover the span.
qint64 stepFor(qint64 span)
{
    constexpr qint64 day = 86'400;
    constexpr qint64 steps[] = {1,        2,         5,   10,      30,      60,
                                120,      300,       600, 1800,    3600,    2 * 3600,
                                6 * 3600, 12 * 3600, day, 7 * day, 30 * day};
    const auto *const step =
        std::find_if(std::begin(steps), std::end(steps),
                     [span](qint64 candidate) { return span / candidate + 1 < mostSteps; });
    return step == std::end(steps) ? span / (mostSteps - 1) + 1 : *step;
}

Plan planFrom(const QSqlQuery &row)
{
    return {row.value(0).toString(), row.value(1).toString(), row.value(2).toString(),
            row.value(3).toString(), row.value(4).toString(), row.value(5).toString()};
}

const QString selectPlans =
    u"SELECT product_code, plan_code, name, description, price, currency FROM plans "_s;

const QString selectPurchase =
    u"SELECT payment_id, license_id, license_key, paypal_order_id, plan_name, price, currency,"
    " first_name, last_name, email, state FROM order_overview "_s;

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
    purchase.state = Purchase::State(purchaseStates.indexOf(row.value(10).toString()));
    return purchase;
}

} // namespace

// A commit must be on the disk before its reply is sent: synchronous FULL. With the write-ahead log
// that costs one flush, and who looks into the file with sqlite3 holds nobody up.
Store::Store(const QString &path, const Data &data)
    : m_database(QSqlDatabase::addDatabase(u"QSQLITE"_s))
    , m_data(data)
{
    m_database.setDatabaseName(path.isEmpty() ? u":memory:"_s : path);
    if (!m_database.open())
        fail(m_database.lastError());

    run(m_database, u"PRAGMA foreign_keys = ON"_s);
    createIfNew();
    checkOrigin(m_database);
    checkHealth(m_database);
    run(m_database, u"PRAGMA journal_mode = WAL"_s);
    run(m_database, u"PRAGMA synchronous = FULL"_s);
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

Purchase Store::startPurchase(const Plan &plan, const Buyer &buyer)
{
    NewPurchase purchase;
    purchase.plan = plan;
    purchase.buyer = buyer;
    Transaction transaction(m_database);
    Purchase started = insertPurchase(purchase);
    transaction.commit();
    return started;
}

std::optional<Purchase> Store::purchaseByLicense(const QString &productCode,
                                                 const QString &licenseKey) const
{
    return purchaseFrom(run(m_database,
                            selectPurchase + "WHERE product_code = ? AND license_key = ?"_L1,
                            {productCode, licenseKey}));
}

std::optional<Purchase> Store::purchaseByOrder(const QString &orderId) const
{
    return purchaseFrom(
        run(m_database, selectPurchase + "WHERE paypal_order_id = ?"_L1, {orderId}));
}

bool Store::approve(const QString &orderId)
{
    return run(m_database,
               u"UPDATE orders SET approved_at = ifnull(approved_at, ?)"
               " WHERE paypal_order_id = ? AND cancelled_at IS NULL"_s,
               {now(), orderId})
               .numRowsAffected()
        > 0;
}

bool Store::cancel(const QString &orderId)
{
    return run(m_database,
               u"UPDATE orders SET cancelled_at = ifnull(cancelled_at, ?)"
               " WHERE paypal_order_id = ? AND approved_at IS NULL"_s,
               {now(), orderId})
               .numRowsAffected()
        > 0;
}

void Store::pay(const Purchase &purchase)
{
    if (purchase.state == Purchase::Paid)
        return;

    Transaction transaction(m_database);
    insertPayment(purchase, now());
    transaction.commit();
}

void Store::addUsageEvent(const UsageEvent &event)
{
    const QByteArray payload = QJsonDocument(event.payload).toJson(QJsonDocument::Compact);
    run(m_database,
        u"INSERT INTO usage_events"
        " (product_code, license_key, machine_fingerprint, event_type, payload, received_at)"
        " VALUES (?, ?, ?, ?, ?, ?)"_s,
        {event.productCode, textOrNull(event.licenseKey), event.machineFingerprint, event.eventType,
         QString::fromUtf8(payload), event.receivedAt.isEmpty() ? now() : event.receivedAt});
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

QJsonObject Store::usageOverTime(qint64 seconds) const
{
    const QString time = u"CAST(strftime('%s', received_at) AS INTEGER)"_s;
    qint64 last = QDateTime::currentSecsSinceEpoch();
    qint64 first = last - seconds + 1;
    if (seconds == 0) {
        QSqlQuery ends =
            run(m_database,
                u"SELECT ifnull(min(%1), 0), ifnull(max(%1), 0) FROM usage_events"_s.arg(time));
        ends.next();
        first = ends.value(0).toLongLong();
        last = ends.value(1).toLongLong();
    }
    const qint64 step = stepFor(last - first);

    QSqlQuery rows = run(m_database, uR"(
WITH shown AS (
    SELECT event_type, %1 / ? * ? AS step FROM usage_events WHERE %1 BETWEEN ? AND ?
), frequent AS (
    SELECT event_type FROM shown GROUP BY event_type ORDER BY count(*) DESC, event_type LIMIT ?
)
SELECT step, frequent.event_type, count(*) FROM shown LEFT JOIN frequent USING (event_type)
GROUP BY step, frequent.event_type ORDER BY step, frequent.event_type)"_s.arg(time),
                         {step, step, first, last, shownTypes});
    QJsonArray counts;
    while (rows.next()) {
        const QJsonValue type =
            rows.isNull(1) ? QJsonValue() : QJsonValue(rows.value(1).toString());
        counts.append(QJsonObject{{u"from"_s, isoTime(rows.value(0).toLongLong())},
                                  {u"event_type"_s, type},
                                  {u"events"_s, rows.value(2).toInt()}});
    }
    return {{u"from"_s, isoTime(first - first % step)},
            {u"to"_s, isoTime(last)},
            {u"step_s"_s, step},
            {u"counts"_s, counts}};
}

void Store::reset()
{
    Transaction transaction(m_database);
    run(m_database, u"PRAGMA defer_foreign_keys = ON"_s);
    for (const QString &table : tables)
        run(m_database, "DELETE FROM "_L1 + table);
    run(m_database, u"DELETE FROM sqlite_sequence"_s);
    seed();
    // The folder's releases stay listed, but for products that somebody else has added.
    run(m_database,
        u"DELETE FROM channels WHERE product_code NOT IN (SELECT product_code FROM products)"_s);
    transaction.commit();
}

void Store::listReleases(const QList<ReleaseRow> &releases)
{
    Transaction transaction(m_database);
    run(m_database, u"DELETE FROM channels"_s);
    for (const ReleaseRow &release : releases)
        insertRelease(release);
    transaction.commit();
}

void Store::listRelease(const ReleaseRow &release)
{
    Transaction transaction(m_database);
    insertRelease(release);
    transaction.commit();
}

// Another process may open the same new file at the same time: one fills it.
void Store::createIfNew()
{
    Transaction transaction(m_database);
    if (number(m_database, u"SELECT count(*) FROM sqlite_master"_s) > 0)
        return;

    for (const QString &statement : schema())
        run(m_database, statement);
    run(m_database, "PRAGMA application_id = "_L1 + QString::number(applicationId));
    run(m_database, "PRAGMA user_version = "_L1 + QString::number(schemaVersion));
    seed();
    transaction.commit();
    m_isNew = true;
}

void Store::seed()
{
    // The last licence's id, before there is any.
    run(m_database, u"INSERT INTO sqlite_sequence (name, seq) VALUES ('licenses', 1000)"_s);
    for (const Product &product : m_data.products)
        run(m_database, u"INSERT INTO products (product_code, name) VALUES (?, ?)"_s,
            {product.code, product.name});
    for (const Plan &plan : m_data.plans) {
        run(m_database,
            u"INSERT INTO plans (product_code, plan_code, name, description, price, currency)"
            " VALUES (?, ?, ?, ?, ?, ?)"_s,
            {plan.productCode, plan.code, plan.name, plan.description, plan.price, plan.currency});
    }

    // Who has no ids yet takes none that another asks for.
    QList<NewPurchase> purchases = m_data.purchases;
    std::stable_partition(purchases.begin(), purchases.end(),
                          [](const NewPurchase &purchase) { return purchase.licenseId != 0; });
    for (const NewPurchase &purchase : std::as_const(purchases))
        insertPurchase(purchase);
    for (const UsageEvent &event : m_data.usageEvents)
        addUsageEvent(event);
}

// The order keeps the plan's name and price as they were when the buyer chose.
Purchase Store::insertPurchase(const NewPurchase &purchase)
{
    const Plan &plan = purchase.plan;
    const Buyer &buyer = purchase.buyer;
    const QString licenseKey =
        purchase.licenseKey.isEmpty() ? newLicenseKey() : purchase.licenseKey;
    const QString orderId = purchase.orderId.isEmpty() ? randomText(17) : purchase.orderId;
    const QString time = purchase.createdAt.isEmpty() ? now() : purchase.createdAt;
    const bool isApproved =
        purchase.state == Purchase::Approved || purchase.state == Purchase::Paid;
    const bool isCancelled = purchase.state == Purchase::Cancelled;

    const QSqlQuery license =
        run(m_database,
            u"INSERT INTO licenses (id, license_key, product_code, plan_code, first_name,"
            " last_name, email, created_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?)"_s,
            {idOrNull(purchase.licenseId), licenseKey, plan.productCode, plan.code, buyer.firstName,
             buyer.lastName, buyer.email, time});
    run(m_database,
        u"INSERT INTO orders (id, paypal_order_id, license_id, plan_name, price, currency,"
        " created_at, approved_at, cancelled_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"_s,
        {idOrNull(purchase.paymentId), orderId, license.lastInsertId(), plan.name, plan.price,
         plan.currency, time, textOrNull(isApproved ? time : QString()),
         textOrNull(isCancelled ? time : QString())});
    Purchase inserted = purchaseByOrder(orderId).value();
    if (purchase.state == Purchase::Paid)
        insertPayment(inserted, time);
    return inserted;
}

void Store::insertPayment(const Purchase &purchase, const QString &time)
{
    run(m_database, u"UPDATE licenses SET status = 'active' WHERE id = ?"_s, {purchase.licenseId});
    // Another process may have taken the payment since the purchase was read.
    run(m_database,
        u"INSERT INTO payments (id, amount, currency, paid_at) VALUES (?, ?, ?, ?)"
        " ON CONFLICT (id) DO NOTHING"_s,
        {purchase.paymentId, purchase.price, purchase.currency, time});
}

void Store::insertRelease(const ReleaseRow &release)
{
    if (!hasProduct(release.productCode))
        return;
    run(m_database,
        u"INSERT INTO channels (product_code, channel) VALUES (?, ?) ON CONFLICT DO NOTHING"_s,
        {release.productCode, release.channel});
    if (release.isLatest) {
        run(m_database,
            u"UPDATE releases SET is_latest = 0 WHERE product_code = ? AND channel = ?"_s,
            {release.productCode, release.channel});
    }
    run(m_database,
        u"INSERT OR REPLACE INTO releases"
        " (product_code, channel, version, file, size, sha256, is_latest)"
        " VALUES (?, ?, ?, ?, ?, ?, ?)"_s,
        {release.productCode, release.channel, release.version, release.file, release.size,
         textOrNull(release.sha256), release.isLatest});
}
