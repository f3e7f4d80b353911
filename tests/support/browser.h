#ifndef BROWSER_H
#define BROWSER_H

#include "serverprocess.h"

#include <QtCore/qjsonarray.h>
#include <QtCore/qjsonobject.h>
#include <QtCore/qjsonvalue.h>
#include <QtCore/qstring.h>
#include <QtCore/qtemporarydir.h>
#include <QtCore/qurl.h>
#include <QtNetwork/qnetworkaccessmanager.h>

#include <memory>

// A headless Chromium with an empty profile and one tab, driven through chromedriver. Both end with
// the object. What the driver refuses fails the test.
//
// Elements are named by CSS selectors: the first that matches, which is waited for if there is none
// yet. After what leads to another page, wait for something that only that page has.
class Browser
{
public:
    // For press().
    static inline const QString tab = QStringLiteral("\uE004");
    static inline const QString enter = QStringLiteral("\uE007");
    static inline const QString shift = QStringLiteral("\uE008");
    static inline const QString escape = QStringLiteral("\uE00C");

    Browser();
    ~Browser();
    Q_DISABLE_COPY_MOVE(Browser)

    bool isRunning() const { return m_process >= 0; }
    // Of the browser itself; 0 if it does not run.
    qint64 processId() const { return m_processId; }

    // These return when the page has been loaded.
    void open(const QUrl &url);
    void reload();
    void back();

    QUrl url();
    QString title();
    // As it is seen, without what is hidden.
    QString text(const QString &selector);
    // Null if it is not there.
    QString attribute(const QString &selector, const QString &name);
    QJsonValue property(const QString &selector, const QString &name);
    // Of JavaScript.
    QJsonValue evaluate(const QString &expression);
    // Until the expression is true, over page loads. False if it does not become so in time.
    bool waitFor(const QString &expression, int milliseconds = 20000);

    // Of any text that is seen to what is behind it, as WCAG computes it: 4.5 is its minimum.
    double lowestContrast();

    // As the mouse does it: not what is hidden or covered.
    void click(const QString &selector);
    // Types into the element.
    void type(const QString &selector, const QString &text);
    // Presses the keys, all at once, where the focus is: press(Browser::shift + Browser::tab).
    void press(const QString &keys);

    // Of the page. Below 600 it is a phone, which asks the page how wide it wants to be.
    void setSize(int width, int height);
    void setDark(bool isDark);
    // Of what can be seen, as a PNG file.
    void screenshot(const QString &file);

private:
    struct Answer
    {
        bool isError = true;
        QJsonValue value;
    };

    void startSession();
    Answer ask(const QByteArray &method, const QString &path, const QJsonObject &body = {});
    QJsonValue command(const QByteArray &method, const QString &path, const QJsonObject &body = {});
    void devTools(const QString &name, const QJsonObject &parameters);
    QString element(const QString &selector);

    QTemporaryDir m_home;
    QNetworkAccessManager m_network;
    std::unique_ptr<ServerProcess> m_driver;
    QUrl m_session;
    qint64 m_processId = 0;
    // Stands for the browser's process, even when that has ended.
    int m_process = -1;
};

#endif // BROWSER_H
