#ifndef DESKTOPHOST_H
#define DESKTOPHOST_H

#include "keptstate.h"
#include "plans.h"
#include "purchase.h"
#include "updates.h"
#include "usage.h"

#include <QtCore/qthread.h>

class Diary;

// All of the application but its window.
class DesktopHost
{
public:
    // Keeps its state, and the diary, in the folder.
    DesktopHost(const Service &service, const QString &folder);
    ~DesktopHost();
    Q_DISABLE_COPY_MOVE(DesktopHost)

private:
    // Of the two, which it deletes when it ends. All of these outlive the parts below.
    QThread m_thread;
    Diary *m_diary;
    ReleaseFile *m_releaseFile;
    KeptState m_state;

public:
    // Each with a client of its own.
    Updates updates;
    Plans plans;
    Purchase purchase;
    Usage usage;
};

#endif // DESKTOPHOST_H
