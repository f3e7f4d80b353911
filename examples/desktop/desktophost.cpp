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
    for (QObject *object : std::initializer_list<QObject *>{m_diary, m_releaseFile}) {
        object->moveToThread(&m_thread);
        QObject::connect(&m_thread, &QThread::finished, object, &QObject::deleteLater);
    }
    for (Caller *caller : std::initializer_list<Caller *>{&updates, &plans, &purchase, &usage})
        m_diary->follow(caller);
    // The licence is a part of what is sent.
    QObject::connect(&purchase, &Purchase::changed, &usage, &Usage::changed);
    m_thread.setObjectName(u"files"_s);
    m_thread.start();
}

DesktopHost::~DesktopHost()
{
    m_thread.requestInterruption();
    m_thread.quit();
    m_thread.wait();
}
