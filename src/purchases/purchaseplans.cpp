// GET /api/v1/purchase/plans?product_code=<product code>
//
// Reply: {"plans": [plan, ...]}. What a plan holds is between the service and the host.

#include "corvane.h"

#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtNetwork/qnetworkrequest.h>

using namespace Qt::StringLiterals;

void Corvane::fetchPurchasePlans()
{
    if (!checkConfiguration())
        return;

    QUrl url = endpoint(u"/api/v1/purchase/plans"_s);
    // Encoded down to the unreserved characters: no product code can add a second query item.
    url.setQuery(QString::fromUtf8("product_code="_ba + QUrl::toPercentEncoding(m_productCode)),
                 QUrl::TolerantMode);
    connectReply(m_network->get(QNetworkRequest(url)), PurchasePlans);
}
