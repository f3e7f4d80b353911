// Takes pictures of the desktop example, in light and in dark colours, into the folder that it is
// given: desktop-<page>-<colours>.png.

#include "desktop.h"

#include <QtCore/qtimer.h>
#include <QtTest/qtest.h>
#include <QtWidgets/qapplication.h>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

[[noreturn]] void fail(const QString &problem)
{
    std::fprintf(stderr, "corvane-screenshots: %s\n", qPrintable(problem));
    std::exit(1); // NOLINT(concurrency-mt-unsafe)
}

class Camera
{
public:
    Camera(QString folder, QString colours)
        : m_folder(std::move(folder))
        , m_colours(std::move(colours))
    {
        m_desktop.service.downloadFolder = u"/home/ada/Scaricati"_s;
    }

    void takeAll()
    {
        m_desktop.sandbox.setFaults(uR"({"operation": "update-check", "do": {"merge":
            {"release": {"notes": "Più veloce all'avvio.\nCorregge la stampa su due facciate."}}}})"_s);
        m_desktop.open();
        waitFor(u"Corregge"_s);
        take(u"updates"_s);

        m_desktop.showPage(u"Acquisto"_s);
        waitFor(u"| Abbonamento"_s);
        m_desktop.fillForm(u"Abbonamento annuale"_s);
        take(u"purchase"_s);
        m_desktop.click(u"Acquista con PayPal"_s);
        waitFor(u"Pagamento avviato."_s);
        take(u"pending"_s);

        m_desktop.showPage(u"Utilizzo"_s);
        take(u"usage"_s);

        m_desktop.open(true);
        m_desktop.startScenario(u"maintenance"_s);
        m_desktop.showPage(u"Acquisto"_s);
        m_desktop.click(u"Completa l'acquisto"_s);
        waitFor(u"Servizio in manutenzione"_s);
        take(u"faults"_s);
    }

private:
    void waitFor(const QString &line)
    {
        if (!m_desktop.waitForLine(line))
            fail(u"this was to be seen: %1"_s.arg(line));
    }
    void take(const QString &page)
    {
        QCoreApplication::processEvents();
        const QString file = u"%1/desktop-%2-%3.png"_s.arg(m_folder, page, m_colours);
        if (!m_desktop.window()->grab().save(file))
            fail(u"%1 cannot be written"_s.arg(file));
    }

    const QString m_folder;
    const QString m_colours;
    Desktop m_desktop{QStringLiteral(CORVANE_SANDBOX_PATH)};
};

} // namespace

int main(int argc, char *argv[])
{
    const QApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 2)
        fail(u"usage: corvane-screenshots FOLDER"_s);
    const QPalette light = QApplication::palette();
    for (const auto &[colours, palette] :
         {std::pair(u"light"_s, light), std::pair(u"dark"_s, QPalette(QColor(0x35, 0x35, 0x35)))})
    {
        QApplication::setPalette(palette);
        Camera(arguments.at(1), colours).takeAll();
    }
    return 0;
}
