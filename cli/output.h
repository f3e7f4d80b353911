#ifndef OUTPUT_H
#define OUTPUT_H

#include <QtCore/qlist.h>
#include <QtCore/qstring.h>

#include <utility>

// How the program ends. Scripts rely on these numbers, and --help lists them. A signal ends it with
// 128 and the signal's number.
enum ExitStatus {
    Done = 0,
    Refused = 1,
    BadInput = 2,
    NetworkFailure = 3,
    TimedOut = 4,
    Unusable = 5,
    Unwritten = 6
};

// The text with U+FFFD for what could control a terminal, and with its lines after the first
// indented so far that none passes for one of the program's own.
QString printable(QString text, qsizetype indentation);

// Writes the text to standard output, as UTF-8 in any locale. Says so on standard error and returns
// false when it cannot be written whole. Gives up in silence when the descriptor of an interruption
// becomes readable: a reader that stalls would hold the program for ever.
bool print(const QString &text, int interruption = -1);

// Writes one message to standard error, made printable, and gives up in the same way.
void printError(const QString &message, int interruption = -1);

// One "Label: value" a line, with the values in one column, all made printable. Rows without a
// value are left out.
QString labelled(const QList<std::pair<QString, QString>> &rows);

#endif // OUTPUT_H
