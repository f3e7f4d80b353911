#ifndef FAULTRULE_H
#define FAULTRULE_H

#include "endpoints/operation.h"
#include "http/delivery.h"
#include "http/message.h"

#include <QtCore/qjsonobject.h>
#include <QtCore/qlist.h>

#include <optional>

class JsonInput;

// What goes wrong, and when. As JSON, with all members but "do" optional:
//
// {
//     "operation": "update-check" | "download" | "plans" | "start" | "resume" | "capture" |
//                  "usage" | "approval" | "any",            default "any"
//     "when": {
//         "skip": number,             so many requests pass first; default 0
//         "times": number,            it happens so often and no more
//         "every": number,            to every second, third, ... request; default 1
//         "probability": number,      to so many of them by chance, from 0 to 1; default 1
//         "seed": number              of the chance: the same one draws the same; default 1
//     },
//     "do": {
//         "delay": number,            milliseconds before the reply
//
//         "status": number,           answers in the service's place: an empty body, or one of
//         "error": text,                  the service's error object; status 500
//         "page": text,                   HTML; status 200
//         "body": text or object,         as it is, or as JSON; status 200
//         "redirect": text,               a Location header; status 302
//
//         "headers": {name: text},    puts headers into the reply; null takes one out
//         "merge": object,            the same with members, if the reply is an object
//
//         "bytes": "reset" | "close" | "stall" | "garbage" | "wrong-length" | "corrupt" |
//                  "one-at-a-time",
//         "after": number,            bytes of the body before "close" or "stall"; default half
//         "rate": number              bytes a second
//     }
// }
//
// The service acts on a request unless the rule answers in its place: with "bytes" alone a payment
// is taken, and only the reply is lost.
struct FaultRule
{
    // As it was given, and with the name of its scenario if it is of one.
    QJsonObject json;

    // None is any.
    std::optional<Operation> operation;

    qint64 skip = 0;
    std::optional<qint64> times;
    qint64 every = 1;
    double probability = 1;
    quint32 seed = 1;

    // What is answered in the service's place, if anything.
    std::optional<HttpReply> reply;
    QJsonObject headers;
    QJsonObject merge;
    Delivery delivery;

    // A reply with its headers and members put in and taken out.
    HttpReply changed(HttpReply original) const;
};

// Throw a JsonError.
FaultRule faultRuleFrom(const JsonInput &input);
QList<FaultRule> faultRulesFrom(const JsonInput &input);

#endif // FAULTRULE_H
