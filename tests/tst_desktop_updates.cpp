#include "desktop.h"
#include "files.h"

#include <QtCore/qdir.h>
#include <QtTest/qtest.h>
#include <QtWidgets/qapplication.h>

using namespace Qt::StringLiterals;

// The desktop example's page of updates, as a person uses it.
class tst_DesktopUpdates : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void offersWhatTheStartFinds();

private:
    std::unique_ptr<Desktop> m_desktop;
};

void tst_DesktopUpdates::init()
{
    QTest::failOnWarning(Desktop::warnings());
    m_desktop = std::make_unique<Desktop>(QStringLiteral(CORVANE_SANDBOX_PATH));
    QVERIFY(m_desktop->sandbox.isRunning());
}

void tst_DesktopUpdates::cleanup()
{
    QCOMPARE(m_desktop->sandbox.complaints(), QString());
    m_desktop.reset();
}

void tst_DesktopUpdates::offersWhatTheStartFinds()
{
    m_desktop->open();
    QVERIFY(m_desktop->waitForLine(u"È disponibile la versione 1.5.0."_s));
}

QTEST_MAIN(tst_DesktopUpdates)
#include "tst_desktop_updates.moc"
