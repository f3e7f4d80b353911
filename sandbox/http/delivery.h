#ifndef DELIVERY_H
#define DELIVERY_H

#include <QtCore/qglobal.h>

#include <chrono>

// How a reply is brought to the client: whole and at once, unless told otherwise.
struct Delivery
{
    enum Flaw {
        None,
        Reset, // the connection is broken off instead of a reply
        Close, // closed in the middle of the reply
        Stall, // nothing comes after the middle, and the connection stays open
        Garbage, // bytes that are no HTTP instead of a reply
        WrongLength, // half of the body's length is announced
        Corrupt, // one byte of the body is another
    };

    Flaw flaw = None;
    // So many bytes of the body come before Close and Stall; half of them if negative.
    qint64 after = -1;
    std::chrono::milliseconds delay{0};
    // Each byte is sent by itself.
    bool bytewise = false;
    // In bytes a second; 0 is as fast as they are taken.
    qint64 rate = 0;
};

#endif // DELIVERY_H
