#include "journal/journal.h"

#include "journal/mask.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qjsonarray.h>
#include <QtCore/qtimezone.h>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

// Of an entry, beside its texts.
constexpr qsizetype fixedCost = 1024;

qsizetype costOf(const HttpHeaders &headers)
{
    qsizetype cost = 0;
    for (const auto &[name, value] : headers)
        cost += name.size() + value.size();
    return cost;
}

QJsonArray toJson(const HttpHeaders &headers)
{
    QJsonArray array;
    for (const auto &[name, value] : headers)
        array.append(QJsonArray{QString::fromLatin1(name), QString::fromLatin1(value)});
    return array;
}

QJsonObject joined(QJsonObject object, const QJsonObject &more)
{
    for (auto member = more.begin(); member != more.end(); ++member)
        object.insert(member.key(), *member);
    return object;
}

} // namespace

Journal::Journal(bool isMasked)
    : m_isMasked(isMasked)
{
}

quint64 Journal::begin(const QString &operation, const HttpRequest &request,
                       const QJsonObject &fault)
{
    Entry &entry = m_entries.emplace_back();
    entry.time = QDateTime::currentMSecsSinceEpoch();
    entry.timer.start();
    entry.operation = operation;
    entry.fault = fault;
    entry.request = request;
    entry.requestBody.add(std::exchange(entry.request.body, {}));
    const quint64 id = m_first + m_entries.size() - 1;
    note(entry);
    return id;
}

void Journal::add(quint64 id, const QByteArray &bytes)
{
    if (Entry *entry = find(id))
        entry->replyBody.add(bytes);
}

void Journal::end(quint64 id, const HttpReply &reply, const QString &ending)
{
    Entry *entry = find(id);
    if (!entry)
        return;
    entry->reply = {reply.status, reply.headers, {}};
    entry->duration = double(entry->timer.nsecsElapsed()) / 1e6;
    entry->ending = ending;
    note(*entry);
}

void Journal::clear()
{
    m_first += m_entries.size();
    m_entries.clear();
    m_cost = 0;
    m_dropped = 0;
    ++m_change;
    Q_EMIT changed();
}

QJsonObject Journal::since(quint64 change, qsizetype most) const
{
    std::size_t index = m_entries.size();
    for (qsizetype found = 0; index > 0 && found < most; --index) {
        if (m_entries[index - 1].change > change)
            ++found;
    }
    QJsonArray entries;
    for (; index < m_entries.size(); ++index) {
        if (m_entries[index].change > change)
            entries.append(toJson(m_first + index, m_entries[index]));
    }
    return {{u"entries"_s, m_isMasked ? masked(QJsonValue(entries)) : entries},
            {u"change"_s, qint64(m_change)},
            {u"first"_s, qint64(m_first)},
            {u"dropped"_s, m_dropped}};
}

Journal::Entry *Journal::find(quint64 id)
{
    const bool isKept = id >= m_first && id - m_first < m_entries.size();
    return isKept ? &m_entries[id - m_first] : nullptr;
}

// The entry has changed, and may have grown.
void Journal::note(Entry &entry)
{
    entry.change = ++m_change;
    const qsizetype cost = fixedCost + entry.request.target.size() + costOf(entry.request.headers)
        + costOf(entry.reply.headers) + entry.requestBody.cost() + entry.replyBody.cost();
    m_cost += cost - std::exchange(entry.cost, cost);
    while (m_entries.size() > mostEntries || m_cost > mostBytes)
        dropOldest();
    Q_EMIT changed();
}

void Journal::dropOldest()
{
    m_cost -= m_entries.front().cost;
    m_entries.pop_front();
    ++m_first;
    ++m_dropped;
}

QJsonObject Journal::toJson(quint64 id, const Entry &entry) const
{
    QJsonObject object{
        {u"id"_s, qint64(id)},
        {u"time"_s,
         QDateTime::fromMSecsSinceEpoch(entry.time, QTimeZone::utc()).toString(Qt::ISODateWithMs)},
        {u"operation"_s, entry.operation},
        {u"request"_s,
         joined({{u"method"_s, QString::fromLatin1(entry.request.method)},
                 {u"target"_s, QString::fromLatin1(entry.request.target)},
                 {u"headers"_s, ::toJson(entry.request.headers)}},
                entry.requestBody.toJson(m_isMasked))}};
    if (!entry.fault.isEmpty())
        object.insert("fault"_L1, entry.fault);
    if (entry.ending.isEmpty())
        return object;
    object.insert("duration_ms"_L1, entry.duration);
    object.insert("ending"_L1, entry.ending);
    object.insert(
        "reply"_L1,
        joined({{u"status"_s, entry.reply.status}, {u"headers"_s, ::toJson(entry.reply.headers)}},
               entry.replyBody.toJson(m_isMasked)));
    return object;
}
