#include "state/data.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qfile.h>
#include <QtCore/qhash.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qset.h>

#include <algorithm>
#include <initializer_list>

using namespace Qt::StringLiterals;

const QString demoData = u":/data/demo.json"_s;

namespace {

// Leaves room for the ids that follow: the library reads 32 bits.
constexpr double highestId = 999'999'999;

[[noreturn]] void fail(const QString &message)
{
    throw DataError(message.toStdString());
}

[[noreturn]] void fail(const QString &fileName, qsizetype line, const QString &path,
                       const QString &reason)
{
    const QString place = path.isEmpty() ? QString() : path + ": "_L1;
    fail(fileName + u':' + QString::number(line) + ": "_L1 + place + reason);
}

QString memberPath(const QString &path, const QString &member)
{
    return path.isEmpty() ? member : path + u'.' + member;
}

QString elementPath(const QString &path, qsizetype index)
{
    return path + u'[' + QString::number(index) + u']';
}

// The line of every value, by its path. Qt's parser has accepted the text and forgets the lines.
class Lines
{
public:
    Lines(const QString &fileName, const QByteArray &json)
        : m_fileName(fileName)
        , m_json(json)
    {
        value({});
    }

    qsizetype at(const QString &path) const { return m_lines.value(path); }

private:
    void value(const QString &path)
    {
        const char first = next();
        if (m_lines.contains(path))
            fail(m_fileName, m_line, path, u"stands twice"_s);
        m_lines.insert(path, m_line);
        if (first == '{')
            object(path);
        else if (first == '[')
            array(path);
        else if (first == '"')
            string();
        else
            skipUntil(",]} \t\r\n");
    }
    void object(const QString &path)
    {
        take();
        while (next() != '}') {
            const QByteArray name = '[' + string() + ']';
            next();
            take(); // the colon
            value(memberPath(path, QJsonDocument::fromJson(name).array().at(0).toString()));
            skipComma();
        }
        take();
    }
    void array(const QString &path)
    {
        take();
        for (qsizetype index = 0; next() != ']'; ++index) {
            value(elementPath(path, index));
            skipComma();
        }
        take();
    }
    // As it stands, quotes included.
    QByteArray string()
    {
        const qsizetype start = m_position;
        take();
        while (take() != '"') {
            if (m_json.at(m_position - 1) == '\\')
                take();
        }
        return m_json.sliced(start, m_position - start);
    }
    void skipComma()
    {
        if (next() == ',')
            take();
    }
    void skipUntil(QByteArrayView ends)
    {
        while (m_position < m_json.size() && !ends.contains(m_json.at(m_position)))
            take();
    }
    char next()
    {
        while (QByteArrayView(" \t\r\n").contains(m_json.at(m_position)))
            take();
        return m_json.at(m_position);
    }
    char take()
    {
        const char taken = m_json.at(m_position++);
        if (taken == '\n')
            ++m_line;
        return taken;
    }

    const QString &m_fileName;
    const QByteArray &m_json;
    QHash<QString, qsizetype> m_lines;
    qsizetype m_position = 0;
    qsizetype m_line = 1;
};

// What one file holds.
struct Source
{
    QString fileName;
    Lines lines;
};

// A value of the file. What it is asked for, it has, or it is refused.
class Value
{
public:
    Value(const Source *source, const QString &path, const QJsonValue &value)
        : m_source(source)
        , m_path(path)
        , m_value(value)
    {
    }

    [[noreturn]] void refuse(const QString &reason) const
    {
        fail(m_source->fileName, m_source->lines.at(m_path), m_path, reason);
    }
    void check(bool isRight, const QString &rule) const
    {
        if (!isRight)
            refuse(rule);
    }

    void isObjectOf(std::initializer_list<QLatin1StringView> names) const
    {
        check(m_value.isObject(), u"must be an object"_s);
        for (const QString &given : m_value.toObject().keys()) {
            if (std::find(names.begin(), names.end(), given) == names.end())
                Value(m_source, memberPath(m_path, given), {}).refuse(u"is unknown here"_s);
        }
    }
    bool has(QLatin1StringView name) const { return m_value.toObject().contains(name); }
    Value member(QLatin1StringView name) const
    {
        check(has(name), u"has no \"%1\""_s.arg(name));
        return {m_source, memberPath(m_path, name), m_value.toObject().value(name)};
    }
    QList<Value> elementsOf(QLatin1StringView name) const
    {
        QList<Value> values;
        if (!has(name))
            return values;
        const Value list = member(name);
        list.check(list.m_value.isArray(), u"must be an array"_s);
        const QJsonArray array = list.m_value.toArray();
        for (qsizetype i = 0; i < array.size(); ++i)
            values.append({m_source, elementPath(list.m_path, i), array.at(i)});
        return values;
    }

    QJsonObject object() const
    {
        check(m_value.isObject(), u"must be an object"_s);
        return m_value.toObject();
    }
    QString text() const
    {
        check(m_value.isString(), u"must be a text"_s);
        return m_value.toString();
    }
    QString name() const
    {
        check(!text().trimmed().isEmpty(), u"must not be empty"_s);
        return text();
    }
    // The library sends keys trimmed, and codes in upper case, too.
    QString key() const
    {
        check(name() == name().trimmed(), u"must have no blanks around it"_s);
        return text();
    }
    QString code() const
    {
        check(key() == key().toUpper(), u"must be in upper case"_s);
        return text();
    }
    QString price() const
    {
        static const QRegularExpression pattern(u"\\A[0-9]+\\.[0-9]{2}\\z"_s);
        check(pattern.match(text()).hasMatch(), u"must be an amount such as \"9.90\""_s);
        return text();
    }
    QString currency() const
    {
        static const QRegularExpression pattern(u"\\A[A-Z]{3}\\z"_s);
        check(pattern.match(text()).hasMatch(), u"must be a currency such as \"EUR\""_s);
        return text();
    }
    QString time() const
    {
        static const QRegularExpression pattern(
            u"\\A\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d(\\.\\d{3})?Z\\z"_s);
        const QDateTime time = QDateTime::fromString(text(), Qt::ISODateWithMs);
        check(time.isValid() && pattern.match(text()).hasMatch(),
              u"must be a time in UTC such as \"2026-01-31T09:00:00Z\""_s);
        return time.toString(Qt::ISODateWithMs);
    }
    int id() const
    {
        const double number = m_value.toDouble();
        check(number >= 1 && number <= highestId && double(int(number)) == number,
              u"must be a whole number from 1 to %1"_s.arg(QString::number(int(highestId))));
        return int(number);
    }
    Purchase::State state() const
    {
        const qsizetype state = purchaseStates.indexOf(text());
        check(state >= 0, "must be one of "_L1 + purchaseStates.join(", "_L1));
        return Purchase::State(state);
    }

private:
    const Source *m_source;
    QString m_path;
    QJsonValue m_value;
};

// Fills the data from the file's values, which may name what stands before them.
class Reader
{
public:
    Data read(const Value &root)
    {
        root.isObjectOf({"products"_L1, "plans"_L1, "orders"_L1, "usage_events"_L1});
        for (const Value &value : root.elementsOf("products"_L1))
            m_data.products.append(productFrom(value));
        for (const Value &value : root.elementsOf("plans"_L1))
            m_data.plans.append(planFrom(value));
        for (const Value &value : root.elementsOf("orders"_L1))
            m_data.purchases.append(purchaseFrom(value));
        for (const Value &value : root.elementsOf("usage_events"_L1))
            m_data.usageEvents.append(usageEventFrom(value));
        return m_data;
    }

private:
    Product productFrom(const Value &value)
    {
        value.isObjectOf({"product_code"_L1, "name"_L1});
        const Value code = value.member("product_code"_L1);
        takeOnce(code, "product_code"_L1, code.code());
        return {code.code(), value.member("name"_L1).name()};
    }
    Plan planFrom(const Value &value)
    {
        value.isObjectOf({"product_code"_L1, "plan_code"_L1, "name"_L1, "description"_L1,
                          "price"_L1, "currency"_L1});
        const QString product = productCode(value);
        const Value code = value.member("plan_code"_L1);
        takeOnce(code, "plan_code"_L1, product + u'\n' + code.code());
        return {product,
                code.code(),
                value.member("name"_L1).name(),
                value.has("description"_L1) ? value.member("description"_L1).text() : u""_s,
                value.member("price"_L1).price(),
                value.member("currency"_L1).currency()};
    }
    NewPurchase purchaseFrom(const Value &value)
    {
        value.isObjectOf({"product_code"_L1, "plan_code"_L1, "state"_L1, "first_name"_L1,
                          "last_name"_L1, "email"_L1, "license_key"_L1, "paypal_order_id"_L1,
                          "license_id"_L1, "payment_id"_L1, "created_at"_L1});
        NewPurchase purchase;
        purchase.plan = planOf(value, productCode(value));
        purchase.buyer = {value.member("first_name"_L1).name(), value.member("last_name"_L1).name(),
                          value.member("email"_L1).name()};
        purchase.state = value.member("state"_L1).state();
        if (value.has("license_key"_L1)) {
            purchase.licenseKey = value.member("license_key"_L1).key();
            takeOnce(value.member("license_key"_L1), "license_key"_L1, purchase.licenseKey);
        }
        if (value.has("paypal_order_id"_L1)) {
            purchase.orderId = value.member("paypal_order_id"_L1).key();
            takeOnce(value.member("paypal_order_id"_L1), "paypal_order_id"_L1, purchase.orderId);
        }
        // One without the other could take an id that a later order asks for.
        if (value.has("license_id"_L1) || value.has("payment_id"_L1)) {
            purchase.licenseId = value.member("license_id"_L1).id();
            purchase.paymentId = value.member("payment_id"_L1).id();
            takeOnce(value.member("license_id"_L1), "license_id"_L1,
                     QString::number(purchase.licenseId));
            takeOnce(value.member("payment_id"_L1), "payment_id"_L1,
                     QString::number(purchase.paymentId));
        }
        if (value.has("created_at"_L1))
            purchase.createdAt = value.member("created_at"_L1).time();
        return purchase;
    }
    UsageEvent usageEventFrom(const Value &value)
    {
        value.isObjectOf({"product_code"_L1, "license_key"_L1, "machine_fingerprint"_L1,
                          "event_type"_L1, "payload"_L1, "received_at"_L1});
        UsageEvent event;
        event.productCode = productCode(value);
        event.machineFingerprint = value.member("machine_fingerprint"_L1).text();
        event.eventType = value.member("event_type"_L1).name();
        if (value.has("license_key"_L1)) {
            event.licenseKey = value.member("license_key"_L1).key();
            value.member("license_key"_L1)
                .check(hasLicense(event), u"is no licence of this product"_s);
        }
        if (value.has("payload"_L1))
            event.payload = value.member("payload"_L1).object();
        if (value.has("received_at"_L1))
            event.receivedAt = value.member("received_at"_L1).time();
        return event;
    }

    QString productCode(const Value &value) const
    {
        const Value code = value.member("product_code"_L1);
        code.check(m_taken.value("product_code"_L1).contains(code.text()),
                   u"is no product of this file"_s);
        return code.text();
    }
    Plan planOf(const Value &value, const QString &product) const
    {
        const Value code = value.member("plan_code"_L1);
        const QString text = code.text();
        const auto plan =
            std::find_if(m_data.plans.begin(), m_data.plans.end(), [&](const Plan &candidate) {
                return candidate.productCode == product && candidate.code == text;
            });
        code.check(plan != m_data.plans.end(), u"is no plan of this product"_s);
        return *plan;
    }
    bool hasLicense(const UsageEvent &event) const
    {
        return std::any_of(m_data.purchases.begin(), m_data.purchases.end(),
                           [&](const NewPurchase &purchase) {
                               return purchase.licenseKey == event.licenseKey
                                   && purchase.plan.productCode == event.productCode;
                           });
    }
    void takeOnce(const Value &value, QLatin1StringView kind, const QString &taken)
    {
        value.check(!m_taken[kind].contains(taken), u"is taken already"_s);
        m_taken[kind].insert(taken);
    }

    Data m_data;
    QHash<QLatin1StringView, QSet<QString>> m_taken;
};

} // namespace

Data readData(const QString &fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly))
        fail(u"cannot read the data \"%1\" (%2): name a file with --data."_s.arg(
            fileName, file.errorString()));
    QByteArray json = file.readAll();
    if (json.startsWith("\xef\xbb\xbf"))
        json.remove(0, 3);

    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError)
        fail(fileName, json.left(error.offset).count('\n') + 1, {},
             u"is not JSON (%1)"_s.arg(error.errorString()));

    const Source source{fileName, Lines(fileName, json)};
    const QJsonValue root = document.isObject() ? QJsonValue(document.object()) : QJsonValue();
    return Reader().read(Value(&source, {}, root));
}
