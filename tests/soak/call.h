#ifndef CALL_H
#define CALL_H

#include <QtCore/qbytearray.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qlist.h>

#include <optional>

// What the soak decides about one call, from the seed and the call's number alone: the same seed
// decides the same, whatever the network did meanwhile. The client and the server each ask for it.
struct Call
{
    enum Operation { Usage, Check, Download, Plans, Start, Resume, Capture, OperationCount };

    enum Fault {
        Nothing,
        Slow, // in pieces
        Chunked,
        UntilClose, // without a length
        Refusal,
        NotJson,
        NoContent,
        RefusalStatus,
        NotJsonStatus,
        EmptyStatus,
        AcceptingStatus,
        Closed,
        Reset,
        Garbage,
        CutShort,
        CutByReset,
        NoListener,
        Redirect,
        RedirectNowhere, // without a location
        RedirectToNoListener,
        InvalidUrl, // refused by the client, like the next
        NoProductCode,
        FaultCount
    };

    enum Destruction { NoDestruction, DeleteBefore, DeleteAfter, DeleteLaterAfter };

    static constexpr int clients = 5;
    static constexpr int addresses = 8; // of the server, so that it does not run out of ports
    static constexpr int destinations = 4; // the last one cannot be opened

    static Call decide(quint64 seed, qint64 number);
    // The call that a request belongs to, in which the marker stands somewhere.
    static std::optional<Call> of(quint64 seed, const QByteArray &request);

    bool isRefused() const { return fault == InvalidUrl || fault == NoProductCode; }
    // Whether the network layer has to report a success; nothing if that is its choice.
    std::optional<bool> succeeds() const;
    // The call's own text, in every request.
    QByteArray marker() const;
    // Where a redirect leads.
    QByteArray againPath() const;

    qint64 number = 0;
    Operation operation = Usage;
    Fault fault = Nothing;
    int client = 0;
    int address = 0;
    int destination = 0;
    // Made by a slot, during the next signal, if one is to come.
    bool fromSlot = false;
    Destruction destruction = NoDestruction;
    // The client's configuration is broken while the call is in flight.
    bool breaksConfiguration = false;

    // The scripted answer.
    int status = 200;
    QByteArray body;
    QJsonObject object; // of the body; empty if it is none
};

const char *nameOf(Call::Operation operation);
const char *nameOf(Call::Fault fault);

// What the server sends for it, piece by piece, and how it goes on.
struct Answer
{
    enum Ending { KeepOpen, Close, Reset };

    static Answer to(const Call &call, bool isRedirected, const QByteArray &noListener);

    QList<QByteArray> pieces;
    Ending ending = KeepOpen;
};

#endif // CALL_H
