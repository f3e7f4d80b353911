#ifndef UPDATES_H
#define UPDATES_H

#include "caller.h"

#include <memory>

class QTemporaryDir;
class ReleaseFile;

// Looks for updates, and downloads one: beside its destination, to where it is moved once its
// SHA-256 has proved right.
class Updates : public Caller
{
    Q_OBJECT

public:
    enum class State {
        // The user has stopped the check.
        Unknown,
        Checking,
        CheckFailed,
        UpToDate,
        // In these, an update is on offer.
        Available,
        Downloading,
        Verifying,
        Downloaded,
        DownloadFailed
    };

    // Borrows the file, which may live in another thread.
    Updates(const Service &service, ReleaseFile *file, QObject *parent = nullptr);
    ~Updates() override;

    State state() const;
    bool isBusy() const;
    // What the last check found.
    const UpdateInfo &update() const;
    // Where a download is put.
    QString destination() const;

    void check();
    // Downloads what update() tells.
    void download();
    // The check or the download, not the verification.
    void cancel() override;

Q_SIGNALS:
    // To the thread of the file.
    void verificationNeeded(const QString &path, const QString &sha256, const QString &destination);

protected:
    void connectResults(Corvane *client) override;
    void handleFailure(const QString &message) override;

private:
    void setState(State state, Message::Kind kind, const QString &text);
    void setCheckFailed(const QString &problem);
    void setDownloadFailed(const QString &problem);
    void setAvailable();
    void takeCheck(const UpdateInfo &update);
    void takeDownload(const QString &path);
    void takeVerification(const QString &path, const QString &problem);
    QString defect() const;
    QString obstacle() const;
    QString temporaryFile() const;
    void dropTemporary();

    State m_state = State::Unknown;
    UpdateInfo m_update;
    // During a download. On the destination's file system, so that the file can be moved in one
    // step.
    std::unique_ptr<QTemporaryDir> m_temporary;
    // Of a download that was given up, while its client is not deleted yet.
    std::unique_ptr<QTemporaryDir> m_abandoned;
};

#endif // UPDATES_H
