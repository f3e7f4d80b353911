#ifndef APPROVALPAGE_H
#define APPROVALPAGE_H

#include <QtCore/qbytearray.h>

struct Purchase;

// The pages on the buyer's way through the payment, in UTF-8.

// The order as it is. If it waits for the buyer, "Paga" posts to the page's own URL,
// /paypal/approve/<order id>, and "Annulla" to /paypal/cancel/<order id>.
QByteArray approvalPage(const Purchase &purchase);
QByteArray unknownOrderPage();
// Instead of doing what a page of another site has posted.
QByteArray otherSitePage();

#endif // APPROVALPAGE_H
