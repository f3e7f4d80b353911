#include "updatechecker.h"

UpdateChecker::UpdateChecker()
{
    connect(&m_client, &Corvane::updateChecked, this, [this](const UpdateInfo &update) {
        if (update.updateAvailable)
            Q_EMIT updateAvailable(update.latestVersion, QUrl(update.downloadUrl));
        else if (update.latestVersion.isEmpty())
            Q_EMIT failed(QStringLiteral("Il servizio non indica alcuna versione."));
        else
            Q_EMIT upToDate();
    });
    connect(&m_client, &Corvane::networkError, this, &UpdateChecker::failed);
}

void UpdateChecker::setServer(const QUrl &server)
{
    m_client.setServerUrl(server);
    Q_EMIT serverChanged();
}

void UpdateChecker::setProductCode(const QString &code)
{
    m_client.setProductCode(code);
    Q_EMIT productCodeChanged();
}

void UpdateChecker::check(const QString &currentVersion, const QString &channel)
{
    m_client.checkForUpdate(currentVersion, channel);
}
