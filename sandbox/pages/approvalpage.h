#ifndef APPROVALPAGE_H
#define APPROVALPAGE_H

#include <QtCore/qbytearray.h>

struct Purchase;

// The pages where the buyer approves a payment, in UTF-8. The form posts to the page's own URL.
QByteArray approvalPage(const Purchase &purchase);
QByteArray approvedPage(const Purchase &purchase);
QByteArray cancelledPage(const Purchase &purchase);
QByteArray unknownOrderPage();

#endif // APPROVALPAGE_H
