#ifndef SIGNALLOG_H
#define SIGNALLOG_H

#include "corvanetypes.h"

#include <QtCore/qobject.h>
#include <QtCore/qstringlist.h>

class Corvane;

// One line for every signal of a client, in order, with all that it carries. Comparing the whole
// log shows a missing and an extra signal as surely as a wrong one.
class SignalLog : public QObject
{
    Q_OBJECT

public:
    explicit SignalLog(Corvane *client);

    // The lines so far.
    const QStringList &lines() const { return m_lines; }
    // Waits until there are so many lines; false if there are not in time.
    bool waitForLines(qsizetype count, int milliseconds = 10000);
    // The lines once every request of the client has been answered and its reply is gone, when no
    // more can come; with a line that says so if that takes longer than ten seconds.
    QStringList settled();

    // A signal's line, for what a test expects.
    static QString usageSent(bool accepted, const QString &message);
    static QString updateChecked(const UpdateInfo &update);
    static QString updateDownloaded(const QString &destinationPath);
    static QString purchasePlansReceived(const QJsonArray &plans);
    static QString purchaseStarted(const PurchaseStartInfo &purchase);
    static QString purchaseCaptured(const PurchaseCaptureInfo &capture);
    static QString networkError(const QString &message);

Q_SIGNALS:
    void lineAdded();

private:
    Corvane *m_client;
    QStringList m_lines;
};

#endif // SIGNALLOG_H
