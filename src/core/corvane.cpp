#include "corvane.h"

#include <QtCore/qmetatype.h>
#include <QtNetwork/qnetworkaccessmanager.h>

using namespace Qt::StringLiterals;

Corvane::Corvane(QObject *parent)
    : QObject(parent)
    , m_network(new QNetworkAccessManager(this))
{
    // By name: that is how queued connections and string-based lookups find the types.
    qRegisterMetaType<UpdateInfo>("UpdateInfo");
    qRegisterMetaType<PurchaseStartInfo>("PurchaseStartInfo");
    qRegisterMetaType<PurchaseCaptureInfo>("PurchaseCaptureInfo");
}

Corvane::~Corvane() = default;

void Corvane::setServerUrl(const QUrl &url)
{
    m_serverUrl = url;
}

QUrl Corvane::serverUrl() const
{
    return m_serverUrl;
}

void Corvane::setProductCode(const QString &code)
{
    m_productCode = code.trimmed().toUpper();
}

QString Corvane::productCode() const
{
    return m_productCode;
}

// Says whether requests can be addressed to the service; if not, tells the host.
bool Corvane::checkConfiguration()
{
    if (m_serverUrl.isValid() && !m_productCode.isEmpty())
        return true;

    Q_EMIT networkError(u"Server URL o product code non configurati."_s);
    return false;
}

// The path on the configured server. It is literal (a percent sign is no escape) and replaces the
// server URL's own; every other component stays.
QUrl Corvane::endpoint(const QString &path) const
{
    QUrl url = m_serverUrl;
    url.setPath(path, QUrl::DecodedMode);
    return url;
}
