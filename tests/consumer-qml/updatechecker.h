#ifndef UPDATECHECKER_H
#define UPDATECHECKER_H

#include <Corvane>
#include <QObject>
#include <QQmlParserStatus>
#include <QUrl>

// Corvane's update check, in words that QML has.
class UpdateChecker : public QObject, public QQmlParserStatus
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    Q_PROPERTY(QUrl server READ server WRITE setServer NOTIFY serverChanged)
    Q_PROPERTY(QString productCode READ productCode WRITE setProductCode NOTIFY productCodeChanged)

public:
    UpdateChecker();

    QUrl server() const { return m_client.serverUrl(); }
    void setServer(const QUrl &server);
    QString productCode() const { return m_client.productCode(); }
    void setProductCode(const QString &code);

    Q_INVOKABLE void check(const QString &currentVersion, const QString &channel);

    void classBegin() override { }
    void componentComplete() override { Q_EMIT ready(); }

Q_SIGNALS:
    // All properties have the values that QML gives them.
    void ready();
    void serverChanged();
    void productCodeChanged();
    void updateAvailable(const QString &version, const QUrl &url);
    void upToDate();
    void failed(const QString &message);

private:
    Corvane m_client;
};

#endif // UPDATECHECKER_H
