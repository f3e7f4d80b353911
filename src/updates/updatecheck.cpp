// GET /api/v1/releases/latest/<product code>?channel=<channel>&_=<milliseconds since 1970>
// Cache-Control: no-cache
// Pragma: no-cache
//
// Reply: {
//     "success": true,
//     "release": {
//         "product_code": text, "version": text, "download_url": text,
//         "stable_download_url": text, "sha256": text, "notes": text
//     }
// }

#include "corvane.h"
#include "wire_p.h"

#include <QtCore/qdatetime.h>
#include <QtCore/qurlquery.h>
#include <QtNetwork/qnetworkaccessmanager.h>

using namespace Qt::StringLiterals;

void Corvane::checkForUpdate(const QString &currentVersion, const QString &channel)
{
    if (!checkConfiguration())
        return;

    m_currentVersion = currentVersion;

    QUrlQuery query;
    query.addQueryItem(u"channel"_s, channel);
    // Another URL every millisecond, for caches that heed no headers.
    query.addQueryItem(u"_"_s, QString::number(QDateTime::currentMSecsSinceEpoch()));
    QUrl url = endpoint("/api/v1/releases/latest/"_L1 + m_productCode);
    url.setQuery(query);
    connectReply(m_network->get(Wire::uncachedRequest(url)), UpdateCheck);
}

UpdateInfo Corvane::parseUpdate(const QJsonObject &reply, const QString &currentVersion) const
{
    UpdateInfo update;
    update.currentVersion = currentVersion;
    update.raw = reply;
    if (!reply.value("success"_L1).toBool())
        return update;

    const QJsonObject release = reply.value("release"_L1).toObject();
    update.productCode = release.value("product_code"_L1).toString();
    update.latestVersion = release.value("version"_L1).toString();
    update.downloadUrl = release.value("download_url"_L1).toString();
    update.stableDownloadUrl = release.value("stable_download_url"_L1).toString();
    update.sha256 = release.value("sha256"_L1).toString();
    update.notes = release.value("notes"_L1).toString();
    // Any difference is an update: the service may offer an older release on purpose.
    update.updateAvailable =
        !update.latestVersion.isEmpty() && update.latestVersion != currentVersion;
    return update;
}
