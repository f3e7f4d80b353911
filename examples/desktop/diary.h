#ifndef DIARY_H
#define DIARY_H

#include <QtCore/qfile.h>
#include <QtCore/qobject.h>

class Caller;
class Corvane;
struct PurchaseCaptureInfo;
struct PurchaseStartInfo;
struct UpdateInfo;

// Writes down what the service said in this session, for whoever helps the user: a line each,
// without secrets that can be told by their form. It lives in a thread of its own, so that a slow disk holds up
// nobody, and gets the results by queued connections.
class Diary : public QObject
{
    Q_OBJECT

public:
    explicit Diary(const QString &file);

    // To be called in the caller's thread.
    void follow(Caller *caller);

private:
    void connectResults(Corvane *client);
    void writeCheck(const UpdateInfo &update);
    void writeDownload(const QString &path);
    void writePlans(const QJsonArray &plans);
    void writeStarted(const PurchaseStartInfo &purchase);
    void writeCaptured(const PurchaseCaptureInfo &capture);
    void writeUsage(bool isAccepted, const QString &message);
    void writeFailure(const QString &message);
    void write(const QString &line);

    // A child, so that it changes threads with this object.
    QFile m_file;
};

#endif // DIARY_H
