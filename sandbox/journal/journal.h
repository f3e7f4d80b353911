#ifndef JOURNAL_H
#define JOURNAL_H

#include "http/message.h"
#include "journal/keptbody.h"

#include <QtCore/qelapsedtimer.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qobject.h>

#include <deque>

// Every request and its reply, in the order in which the requests came. When there are too many,
// the oldest go.
class Journal : public QObject
{
    Q_OBJECT

public:
    static constexpr std::size_t mostEntries = 10'000;
    static constexpr qsizetype mostBytes = 64 * 1024 * 1024;

    explicit Journal(bool isMasked);

    // A request has come, which gets the fault, if it is not empty. Returns the entry's id.
    quint64 begin(const QString &operation, const HttpRequest &request, const QJsonObject &fault);
    // Bytes of the reply's body are sent.
    void add(quint64 id, const QByteArray &bytes);
    // The reply is over; its body is what was added.
    void end(quint64 id, const HttpReply &reply, const QString &ending);
    // Ids and changes go on counting.
    void clear();

    // The number of the last change.
    quint64 change() const { return m_change; }
    // Entries that are new or have changed after that change, and of those the newest:
    //
    // {
    //     "entries": [entry, ...],
    //     "change": number,           to ask for what comes after these
    //     "first": number,            the id of the oldest entry that is kept
    //     "dropped": number           of entries that had to go
    // }
    //
    // An entry: {
    //     "id": number, "time": text, "operation": text,
    //     "fault": object,            the rule, if there was one
    //     "request": {"method": text, "target": text, "headers": [[name, value], ...], body},
    //     "reply": {"status": number, "headers": [[name, value], ...], body},
    //     "duration_ms": number,
    //     "ending": "sent" | "reset" | "closed" | "stalled" | "client-left"
    // }
    //
    // The last three come with the end. A reply that was reset has status 0. For the bodies, see
    // KeptBody.
    QJsonObject since(quint64 change, qsizetype most) const;

Q_SIGNALS:
    void changed();

private:
    struct Entry
    {
        quint64 change = 0;
        qint64 time = 0;
        QElapsedTimer timer;
        QString operation;
        QJsonObject fault;
        HttpRequest request; // without its body
        KeptBody requestBody;
        HttpReply reply; // without its body
        KeptBody replyBody;
        double duration = 0;
        QString ending; // empty before it
        qsizetype cost = 0;
    };

    Entry *find(quint64 id);
    void note(Entry &entry);
    void dropOldest();
    QJsonObject toJson(quint64 id, const Entry &entry) const;

    bool m_isMasked;
    std::deque<Entry> m_entries; // with consecutive ids
    quint64 m_first = 1;
    quint64 m_change = 0;
    qsizetype m_cost = 0;
    qint64 m_dropped = 0;
};

#endif // JOURNAL_H
