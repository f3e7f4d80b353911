#ifndef CORVANEGLOBAL_H
#define CORVANEGLOBAL_H

// As hosts of 1.0 were compiled. Changes never.

#include <QtCore/qglobal.h>

#if defined(CORVANE_LIBRARY)
#define CORVANE_EXPORT Q_DECL_EXPORT
#else
#define CORVANE_EXPORT Q_DECL_IMPORT
#endif

#endif // CORVANEGLOBAL_H
