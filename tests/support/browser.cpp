#include "browser.h"

#include "files.h"

#include <QtCore/qjsondocument.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtTest/qsignalspy.h>
#include <QtTest/qtest.h>

#include <csignal>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 20000;

// Without a sandbox, which root cannot have; the pages are the tests' own. No name leads anywhere,
// and over the pipe it learns that its driver is gone.
const QStringList arguments{u"--headless"_s,
                            u"--no-sandbox"_s,
                            u"--disable-gpu"_s,
                            u"--disable-dev-shm-usage"_s,
                            u"--disable-quic"_s,
                            u"--no-first-run"_s,
                            u"--disable-background-networking"_s,
                            u"--disable-component-update"_s,
                            u"--disable-sync"_s,
                            u"--no-proxy-server"_s,
                            u"--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1"_s,
                            u"--remote-debugging-pipe"_s};

void fail(const QString &message)
{
    QFAIL(qPrintable(message));
}

QJsonArray keyEvents(const QString &keys)
{
    QJsonArray events;
    for (const QChar key : keys)
        events.append(QJsonObject{{u"type"_s, u"keyDown"_s}, {u"value"_s, QString(key)}});
    for (const QChar key : keys)
        events.append(QJsonObject{{u"type"_s, u"keyUp"_s}, {u"value"_s, QString(key)}});
    return events;
}

const QString lowestContrast = uR"((() => {
    const colour = text => text.match(/[\d.]+/g).map(Number);
    const linear = c => (c /= 255) <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4;
    const luminance = ([r, g, b]) =>
        0.2126 * linear(r) + 0.7152 * linear(g) + 0.0722 * linear(b);
    const ground = element => {
        const background = getComputedStyle(element).backgroundColor;
        return background === 'rgba(0, 0, 0, 0)' ? ground(element.parentElement) : background;
    };
    const contrast = element => {
        const style = getComputedStyle(element);
        const ink = element.closest('svg') ? style.fill : style.color;
        const [dark, light] = [ink, ground(element)].map(text => luminance(colour(text)))
            .sort((a, b) => a - b);
        return (light + 0.05) / (dark + 0.05);
    };
    const holdsText = element => element.checkVisibility() && element.tagName !== 'title'
        && !element.disabled && [...element.childNodes].some(
            node => node.nodeType === Node.TEXT_NODE && node.data.trim());
    return Math.min(...[...document.body.querySelectorAll('*')].filter(holdsText).map(contrast));
})())"_s;

// False if it does not end in time.
bool waitForEnd(int process)
{
    pollfd end{process, POLLIN, 0};
    return ::poll(&end, 1, timeout) == 1;
}

} // namespace

Browser::Browser()
{
    // What it keeps for its user and for a while goes with the object, too.
    m_driver = std::make_unique<ServerProcess>(u"env"_s,
                                               QStringList{"HOME="_L1 + m_home.path(),
                                                           "TMPDIR="_L1 + m_home.path(),
                                                           u"chromedriver"_s, u"--port=0"_s});
    static const QRegularExpression started(u"started successfully on port (\\d+)"_s);
    const QString port = m_driver->waitForOutput(started).captured(1);
    if (port.isEmpty()) {
        fail("chromedriver does not start: "_L1 + m_driver->output());
        return;
    }
    m_session = QUrl("http://127.0.0.1:"_L1 + port + "/session"_L1);
    startSession();
}

// The driver takes the browser down, and if it cannot, the browser sees that the driver is gone.
Browser::~Browser()
{
    if (isRunning())
        ask("DELETE", {});
    m_driver.reset();
    if (!isRunning())
        return;
    if (!waitForEnd(m_process)) {
        ::syscall(SYS_pidfd_send_signal, m_process, SIGKILL, nullptr, 0);
        waitForEnd(m_process);
    }
    ::close(m_process);
}

void Browser::open(const QUrl &url)
{
    command("POST", u"/url"_s, {{u"url"_s, url.toString(QUrl::FullyEncoded)}});
}

void Browser::reload()
{
    command("POST", u"/refresh"_s);
}

void Browser::back()
{
    command("POST", u"/back"_s);
}

QUrl Browser::url()
{
    return QUrl(command("GET", u"/url"_s).toString());
}

QString Browser::title()
{
    return command("GET", u"/title"_s).toString();
}

QString Browser::text(const QString &selector)
{
    return command("GET", element(selector) + "/text"_L1).toString();
}

QString Browser::attribute(const QString &selector, const QString &name)
{
    return command("GET", element(selector) + "/attribute/"_L1 + name).toString();
}

QJsonValue Browser::property(const QString &selector, const QString &name)
{
    return command("GET", element(selector) + "/property/"_L1 + name);
}

QJsonValue Browser::evaluate(const QString &expression)
{
    return command("POST", u"/execute/sync"_s,
                   {{u"script"_s, u"return (%1)"_s.arg(expression)}, {u"args"_s, QJsonArray()}});
}

bool Browser::waitFor(const QString &expression, int milliseconds)
{
    // An error is the page's that goes or the next one's that is not there yet.
    const QJsonObject body{{u"script"_s, u"return !!(%1)"_s.arg(expression)},
                           {u"args"_s, QJsonArray()}};
    return QTest::qWaitFor(
        [&] {
            const Answer answer = ask("POST", u"/execute/sync"_s, body);
            return !answer.isError && answer.value.toBool();
        },
        milliseconds);
}

double Browser::lowestContrast()
{
    return evaluate(::lowestContrast).toDouble();
}

void Browser::click(const QString &selector)
{
    command("POST", element(selector) + "/click"_L1);
}

void Browser::type(const QString &selector, const QString &text)
{
    command("POST", element(selector) + "/value"_L1, {{u"text"_s, text}});
}

void Browser::press(const QString &keys)
{
    const QJsonObject keyboard{
        {u"type"_s, u"key"_s}, {u"id"_s, u"keyboard"_s}, {u"actions"_s, keyEvents(keys)}};
    command("POST", u"/actions"_s, {{u"actions"_s, QJsonArray{keyboard}}});
}

// A window is never as narrow as a phone, but its page can be.
void Browser::setSize(int width, int height)
{
    devTools(u"Emulation.setDeviceMetricsOverride"_s,
             {{u"width"_s, width},
              {u"height"_s, height},
              {u"deviceScaleFactor"_s, 1},
              {u"mobile"_s, width < 600}});
}

void Browser::setDark(bool isDark)
{
    devTools(u"Emulation.setEmulatedMedia"_s,
             {{u"features"_s,
               QJsonArray{QJsonObject{{u"name"_s, u"prefers-color-scheme"_s},
                                      {u"value"_s, isDark ? u"dark"_s : u"light"_s}}}}});
}

void Browser::screenshot(const QString &file)
{
    const QByteArray image = command("GET", u"/screenshot"_s).toString().toLatin1();
    Files::write(file, QByteArray::fromBase64(image));
}

void Browser::startSession()
{
    const QStringList all =
        arguments + QStringList{"--user-data-dir="_L1 + m_home.filePath(u"profile"_s)};
    const QJsonObject capabilities{
        {u"timeouts"_s,
         QJsonObject{{u"implicit"_s, timeout}, {u"pageLoad"_s, timeout}, {u"script"_s, timeout}}},
        {u"goog:chromeOptions"_s, QJsonObject{{u"args"_s, QJsonArray::fromStringList(all)}}}};
    const Answer answer =
        ask("POST", {}, {{u"capabilities"_s, QJsonObject{{u"alwaysMatch"_s, capabilities}}}});
    if (answer.isError) {
        fail("Chromium does not start: "_L1 + answer.value["message"_L1].toString());
        return;
    }
    m_session.setPath("/session/"_L1 + answer.value["sessionId"_L1].toString());
    m_processId = answer.value["capabilities"_L1]["goog:processID"_L1].toInteger();
    m_process = int(::syscall(SYS_pidfd_open, pid_t(m_processId), 0));
}

// The path goes on after the session's.
Browser::Answer Browser::ask(const QByteArray &method, const QString &path, const QJsonObject &body)
{
    QUrl url = m_session;
    url.setPath(url.path() + path);
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    const QByteArray content =
        method == "POST" ? QJsonDocument(body).toJson(QJsonDocument::Compact) : QByteArray();
    const std::unique_ptr<QNetworkReply> reply(
        m_network.sendCustomRequest(request, method, content));
    QSignalSpy finished(reply.get(), &QNetworkReply::finished);
    // The driver has time-outs of its own, and answers before.
    if (!finished.wait(2 * timeout))
        return {true, QJsonObject{{u"message"_s, u"the driver does not answer"_s}}};
    return {reply->error() != QNetworkReply::NoError,
            QJsonDocument::fromJson(reply->readAll())["value"_L1]};
}

QJsonValue Browser::command(const QByteArray &method, const QString &path, const QJsonObject &body)
{
    const Answer answer = ask(method, path, body);
    if (answer.isError) {
        fail(path + ' '_L1 + QString::fromUtf8(QJsonDocument(body).toJson(QJsonDocument::Compact))
             + ": "_L1 + answer.value["message"_L1].toString());
        return {};
    }
    return answer.value;
}

// What no WebDriver command is for.
void Browser::devTools(const QString &name, const QJsonObject &parameters)
{
    command("POST", u"/goog/cdp/execute"_s, {{u"cmd"_s, name}, {u"params"_s, parameters}});
}

// The path of its commands.
QString Browser::element(const QString &selector)
{
    const QJsonObject found =
        command("POST", u"/element"_s, {{u"using"_s, u"css selector"_s}, {u"value"_s, selector}})
            .toObject();
    // Its one member has a name that stands for all elements.
    return "/element/"_L1 + (found.isEmpty() ? QString() : found.begin()->toString());
}
