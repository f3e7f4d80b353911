#ifndef DESKTOP_H
#define DESKTOP_H

#include "mainwindow.h"
#include "sandbox.h"
#include "service.h"

#include <QtCore/qobject.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qurl.h>

#include <memory>

class DesktopHost;

class QAbstractButton;
class QWidget;

// The desktop example on a sandbox of its own, used as a person uses it: only what can be seen is
// read, clicked and typed into. It opens no other program; what it would open is noted.
class Desktop : public QObject
{
    Q_OBJECT

public:
    // For QTest::failOnWarning(): all but what Qt's platform without a screen says of itself.
    static QRegularExpression warnings();

    explicit Desktop(const QString &sandboxProgram, const QStringList &sandboxArguments = {});
    ~Desktop() override;

    Sandbox sandbox;
    // For the next open().
    Service service;

    // The application's start and end. What it keeps stays for the next one.
    void open(bool withFaults = false);
    void close();
    // To another window, a browser's say, and from there.
    void leave();
    void comeBack();
    MainWindow *window() const { return m_window.get(); }
    DesktopHost *host() const { return m_host.get(); }
    // Where it keeps what it needs, and where it puts downloads.
    QString stateFolder() const { return m_home.filePath(QStringLiteral("state")); }
    QString downloads() const { return m_home.filePath(QStringLiteral("downloads")); }
    QString stateFile() const { return stateFolder() + QStringLiteral("/stato.ini"); }

    // What was handed to the browser or the file manager.
    QList<QUrl> opened;

    // All that is seen of a page, from top to bottom: texts, [button], (disabled button), <field>,
    // [x] checked, "| " and "- " before rows that can be chosen and that cannot, * for the sign
    // that something is under way.
    QString page() const;
    // Of a part of the window.
    static QString seen(const QWidget *part);
    // Whether a page comes to show all of this, and nothing else.
    bool waitForPage(const QString &text) const;
    // Whether a page comes to show a line that begins with this, and is not busy any more.
    bool waitForLine(const QString &beginning) const;
    // What is seen of a purchase that waits to be completed, with its buttons.
    QString pendingPurchase(const QString &plan, const QString &order, const QString &licenceKey,
                            const QUrl &approvalPage, bool mayBePaid = false) const;

    // Of faults; null if there is none.
    QWidget *panel() const;
    // By its visible text, without the ampersand; null if there is none.
    QAbstractButton *button(const QString &text) const;
    // What follows goes by visible texts, too, and fails the test if there is nothing to be used.
    void showPage(const QString &title);
    void click(const QString &text);
    void type(const QString &field, const QString &text);
    void selectPlan(const QString &name);
    // The plan, and Ada Rossi, ada@example.org, as its buyer.
    void fillForm(const QString &plan);
    // By the panel of faults, until the sandbox has taken it.
    void startScenario(const QString &name);

public Q_SLOTS:
    void note(const QUrl &url);

private:
    QWidget *currentPage() const;

    QTemporaryDir m_home;
    std::unique_ptr<DesktopHost> m_host;
    std::unique_ptr<MainWindow> m_window;
    std::unique_ptr<QWidget> m_elsewhere;
};

#endif // DESKTOP_H
