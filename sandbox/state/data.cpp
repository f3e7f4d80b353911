#include "state/data.h"

#include "json/jsoninput.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qfile.h>
#include <QtCore/qhash.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qjsondocument.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qset.h>

#include <algorithm>

using namespace Qt::StringLiterals;

const QString demoData = u":/data/demo.json"_s;

namespace {

// Leaves room for the ids that follow: the library reads 32 bits.
constexpr int highestId = 999'999'999;

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
            value(JsonInput::memberPath(path,
                                        QJsonDocument::fromJson(name).array().at(0).toString()));
            skipComma();
        }
        take();
    }
    void array(const QString &path)
    {
        take();
        for (qsizetype index = 0; next() != ']'; ++index) {
            value(JsonInput::elementPath(path, index));
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

QString nameFrom(const JsonInput &input)
{
    input.check(!input.text().trimmed().isEmpty(), u"must not be empty"_s);
    return input.text();
}

// The library sends keys trimmed, and codes in upper case, too.
QString keyFrom(const JsonInput &input)
{
    input.check(nameFrom(input) == input.text().trimmed(), u"must have no blanks around it"_s);
    return input.text();
}

QString codeFrom(const JsonInput &input)
{
    input.check(keyFrom(input) == input.text().toUpper(), u"must be in upper case"_s);
    return input.text();
}

QString priceFrom(const JsonInput &input)
{
    static const QRegularExpression pattern(u"\\A[0-9]+\\.[0-9]{2}\\z"_s);
    input.check(pattern.match(input.text()).hasMatch(), u"must be an amount such as \"9.90\""_s);
    return input.text();
}

QString currencyFrom(const JsonInput &input)
{
    static const QRegularExpression pattern(u"\\A[A-Z]{3}\\z"_s);
    input.check(pattern.match(input.text()).hasMatch(), u"must be a currency such as \"EUR\""_s);
    return input.text();
}

QString timeFrom(const JsonInput &input)
{
    static const QRegularExpression pattern(
        u"\\A\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d(\\.\\d{3})?Z\\z"_s);
    const QDateTime time = QDateTime::fromString(input.text(), Qt::ISODateWithMs);
    input.check(time.isValid() && pattern.match(input.text()).hasMatch(),
                u"must be a time in UTC such as \"2026-01-31T09:00:00Z\""_s);
    return time.toString(Qt::ISODateWithMs);
}

int idFrom(const JsonInput &input)
{
    return static_cast<int>(input.wholeNumber(1, highestId));
}

QList<JsonInput> elementsOf(const JsonInput &input, const QString &name)
{
    return input.has(name) ? input.member(name).elements() : QList<JsonInput>();
}

// Fills the data from the file's values, which may name what stands before them.
class Reader
{
public:
    Data read(const JsonInput &root)
    {
        root.isObjectOf({u"products"_s, u"plans"_s, u"orders"_s, u"usage_events"_s});
        for (const JsonInput &value : elementsOf(root, u"products"_s))
            m_data.products.append(productFrom(value));
        for (const JsonInput &value : elementsOf(root, u"plans"_s))
            m_data.plans.append(planFrom(value));
        for (const JsonInput &value : elementsOf(root, u"orders"_s))
            m_data.purchases.append(purchaseFrom(value));
        for (const JsonInput &value : elementsOf(root, u"usage_events"_s))
            m_data.usageEvents.append(usageEventFrom(value));
        return m_data;
    }

private:
    Product productFrom(const JsonInput &value)
    {
        value.isObjectOf({u"product_code"_s, u"name"_s});
        const JsonInput code = value.member(u"product_code"_s);
        takeOnce(code, u"product_code"_s, codeFrom(code));
        return {codeFrom(code), nameFrom(value.member(u"name"_s))};
    }
    Plan planFrom(const JsonInput &value)
    {
        value.isObjectOf({u"product_code"_s, u"plan_code"_s, u"name"_s, u"description"_s,
                          u"price"_s, u"currency"_s});
        const QString product = productCode(value);
        const JsonInput code = value.member(u"plan_code"_s);
        takeOnce(code, u"plan_code"_s, product + u'\n' + codeFrom(code));
        return {product,
                codeFrom(code),
                nameFrom(value.member(u"name"_s)),
                value.has(u"description"_s) ? value.member(u"description"_s).text() : u""_s,
                priceFrom(value.member(u"price"_s)),
                currencyFrom(value.member(u"currency"_s))};
    }
    NewPurchase purchaseFrom(const JsonInput &value)
    {
        value.isObjectOf({u"product_code"_s, u"plan_code"_s, u"state"_s, u"first_name"_s,
                          u"last_name"_s, u"email"_s, u"license_key"_s, u"paypal_order_id"_s,
                          u"license_id"_s, u"payment_id"_s, u"created_at"_s});
        NewPurchase purchase;
        purchase.plan = planOf(value, productCode(value));
        purchase.buyer = {nameFrom(value.member(u"first_name"_s)),
                          nameFrom(value.member(u"last_name"_s)),
                          nameFrom(value.member(u"email"_s))};
        purchase.state =
            Purchase::State(purchaseStates.indexOf(value.member(u"state"_s).oneOf(purchaseStates)));
        if (value.has(u"license_key"_s)) {
            purchase.licenseKey = keyFrom(value.member(u"license_key"_s));
            takeOnce(value.member(u"license_key"_s), u"license_key"_s, purchase.licenseKey);
        }
        if (value.has(u"paypal_order_id"_s)) {
            purchase.orderId = keyFrom(value.member(u"paypal_order_id"_s));
            takeOnce(value.member(u"paypal_order_id"_s), u"paypal_order_id"_s, purchase.orderId);
        }
        // One without the other could take an id that a later order asks for.
        if (value.has(u"license_id"_s) || value.has(u"payment_id"_s)) {
            purchase.licenseId = idFrom(value.member(u"license_id"_s));
            purchase.paymentId = idFrom(value.member(u"payment_id"_s));
            takeOnce(value.member(u"license_id"_s), u"license_id"_s,
                     QString::number(purchase.licenseId));
            takeOnce(value.member(u"payment_id"_s), u"payment_id"_s,
                     QString::number(purchase.paymentId));
        }
        if (value.has(u"created_at"_s))
            purchase.createdAt = timeFrom(value.member(u"created_at"_s));
        return purchase;
    }
    UsageEvent usageEventFrom(const JsonInput &value)
    {
        value.isObjectOf({u"product_code"_s, u"license_key"_s, u"machine_fingerprint"_s,
                          u"event_type"_s, u"payload"_s, u"received_at"_s});
        UsageEvent event;
        event.productCode = productCode(value);
        event.machineFingerprint = value.member(u"machine_fingerprint"_s).text();
        event.eventType = nameFrom(value.member(u"event_type"_s));
        if (value.has(u"license_key"_s)) {
            event.licenseKey = keyFrom(value.member(u"license_key"_s));
            value.member(u"license_key"_s)
                .check(hasLicense(event), u"is no licence of this product"_s);
        }
        if (value.has(u"payload"_s))
            event.payload = value.member(u"payload"_s).object();
        if (value.has(u"received_at"_s))
            event.receivedAt = timeFrom(value.member(u"received_at"_s));
        return event;
    }

    QString productCode(const JsonInput &value) const
    {
        const JsonInput code = value.member(u"product_code"_s);
        code.check(m_taken.value(u"product_code"_s).contains(code.text()),
                   u"is no product of this file"_s);
        return code.text();
    }
    Plan planOf(const JsonInput &value, const QString &product) const
    {
        const JsonInput code = value.member(u"plan_code"_s);
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
    void takeOnce(const JsonInput &value, const QString &kind, const QString &taken)
    {
        value.check(!m_taken[kind].contains(taken), u"is taken already"_s);
        m_taken[kind].insert(taken);
    }

    Data m_data;
    QHash<QString, QSet<QString>> m_taken;
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

    const Lines lines(fileName, json);
    try {
        const QJsonValue root = document.isObject() ? QJsonValue(document.object()) : QJsonValue();
        return Reader().read(JsonInput(root));
    } catch (const JsonError &refused) {
        fail(fileName, lines.at(refused.path()), refused.path(), refused.reason());
    }
}
