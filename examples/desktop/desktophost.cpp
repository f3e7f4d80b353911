#include "desktophost.h"

#include "diary.h"
#include "releasefile.h"

#include <QtCore/qdir.h>

using namespace Qt::StringLiterals;

DesktopHost::DesktopHost(const Service &service, const QString &folder)
    : m_diary(new Diary(folder + "/registro.txt"_L1))
    , m_releaseFile(new ReleaseFile)
    , m_state(folder + "/stato.ini"_L1)
    , updates(service, m_releaseFile)
    , plans(service)
    , purchase(service, &m_state)
    , usage(service, &m_state)
{
    QDir().mkpath(folder);
    for (QObject *object : {static_cast<QObject *>(m_diary), static_cast<QObject *>(m_releaseFile)})
    {
        object->moveToThread(&m_thread);
        QObject::connect(&m_thread, &QThread::finished, object, &QObject::deleteLater);
    }
    for (const Caller *caller : {static_cast<Caller *>(&updates), static_cast<Caller *>(&plans),
                                 static_cast<Caller *>(&purchase), static_cast<Caller *>(&usage)})
        // In the caller's thread, where clients live.
        QObject::connect(caller, &Caller::clientMade, caller,
                         [this](Corvane *client) { m_diary->follow(client); });
    m_thread.setObjectName(u"files"_s);
    m_thread.start();
}

DesktopHost::~DesktopHost()
{
    m_thread.requestInterruption();
    m_thread.quit();
    m_thread.wait();
}
