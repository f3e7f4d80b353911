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
        // Nothing is known: nothing was asked yet, or the user has stopped it.
        Unknown,
        Checking,
        UpToDate,
        Available,
        CheckFailed,
        // From here on, too, an update is available.
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
    // The number of the release on offer is lower than that of the installed version.
    bool isDowngrade() const;
    // Why the last check or download failed.
    QString problem() const;
    // Where the downloaded file is.
    QString file() const;

    void check();
    // What the last check found.
    void download();
    void cancel();

Q_SIGNALS:
    void changed();
    // To the thread of the file.
    void verificationNeeded(const QString &path, const QString &sha256, const QString &destination);

protected:
    void connectResults(Corvane *client) override;
    void handleFailure(const QString &message) override;

private:
    void setState(State state, const QString &problem = {});
    void takeCheck(const UpdateInfo &update);
    void takeDownload(const QString &path);
    void takeVerification(const QString &path, const QString &problem);
    QString defect() const;
    QUrl downloadUrl() const;
    QString destination() const;

    State m_state = State::Unknown;
    QString m_problem;
    UpdateInfo m_update;
    // During a download. On the destination's file system, so that the file can be moved in one
    // step.
    std::unique_ptr<QTemporaryDir> m_temporary;
};

#endif // UPDATES_H
