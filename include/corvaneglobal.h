#ifndef CORVANEGLOBAL_H
#define CORVANEGLOBAL_H

#include <QtCore/qglobal.h>

// Set by the library's own build, never by a host.
#if defined(CORVANE_LIBRARY)
#define CORVANE_EXPORT Q_DECL_EXPORT
#else
#define CORVANE_EXPORT Q_DECL_IMPORT
#endif

#endif // CORVANEGLOBAL_H
