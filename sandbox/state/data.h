#ifndef DATA_H
#define DATA_H

#include "state/store.h"

#include <QtCore/qstring.h>

#include <stdexcept>

// A file of data that cannot be loaded. The text names the file and, of what is wrong in it, the
// line, the path and the reason: data.json:14: plans[1].price: must be ...
// Copied when it is thrown.
class DataError : public std::runtime_error // clazy:exclude=copyable-polymorphic
{
public:
    using std::runtime_error::runtime_error;
};

// What the product DEMO is made of.
extern const QString demoData;

// Reads what fills a new database, as docs/sandbox-data.md describes it, and checks all of it.
// Throws a DataError.
Data readData(const QString &fileName);

#endif // DATA_H
