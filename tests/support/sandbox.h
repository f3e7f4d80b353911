#ifndef SANDBOX_H
#define SANDBOX_H

#include "serverprocess.h"

#include <QtCore/qjsonobject.h>
#include <QtCore/qmap.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qurl.h>

#include <memory>

// A running corvane-sandbox with an empty database in memory and one release of DEMO on the channel
// "stable". Ends with the object.
class Sandbox
{
public:
    struct Answer
    {
        int status = 0;
        QByteArray body;
        QByteArray allow = {};
        QByteArray cacheControl = {};

        QJsonObject json() const;
        // Of the service's error object.
        QString error() const;
    };
    using Headers = QMap<QByteArray, QByteArray>;

    // What the release's file holds.
    static const QByteArray release;

    explicit Sandbox(const QString &program, const QStringList &arguments = {});

    bool isRunning() const { return m_url.isValid(); }
    QUrl url(const QString &path = QStringLiteral("/")) const;
    quint16 port() const { return static_cast<quint16>(m_url.port()); }
    // All that it has printed beside its address.
    QString complaints();

    // Asks once, over a new connection each time, and follows no redirect.
    Answer get(const QString &path, const Headers &headers = {}) const;
    Answer post(const QString &path, const QJsonObject &body) const;
    Answer ask(const QByteArray &method, const QString &path, const QByteArray &body = {},
               const Headers &headers = {}) const;
    // The journal's entries of an operation.
    QList<QJsonObject> journal(const QString &operation) const;

    // The rules, as JSON objects with commas between them, in the place of all in force. Fails the
    // test if they are refused.
    void setFaults(const QString &rules) const;

    // A purchase that waits for approval, as the service answers its start.
    QJsonObject start() const;
    // The page's button.
    void approve(const QJsonObject &started) const;

private:
    QTemporaryDir m_releases;
    std::unique_ptr<ServerProcess> m_process;
    QUrl m_url;
};

#endif // SANDBOX_H
