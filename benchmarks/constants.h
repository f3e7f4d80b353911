#ifndef CONSTANTS_H
#define CONSTANTS_H

#include <QtCore/qjsonobject.h>
#include <QtCore/qstring.h>

// What every side's host asks with.
namespace Constants {

using namespace Qt::StringLiterals;

inline const QString version = u"1.4.0"_s;
inline const QString channel = u"stable"_s;
inline const QString plan = u"ANNUALE"_s;
inline const QString firstName = u"Ada"_s;
inline const QString lastName = u"Rossi"_s;
inline const QString email = u"ada@example.org"_s;
inline const QString licenseKey = u"DEMO-0000-0000-0001"_s;
inline const QString order = u"5O190127TN364715T"_s;
inline const QString machine = u"pc-1"_s;
inline const QString event = u"session-end"_s;
inline const QJsonObject payload = {{u"duration_s"_s, 42}, {u"documents"_s, 3}};

} // namespace Constants

#endif // CONSTANTS_H
