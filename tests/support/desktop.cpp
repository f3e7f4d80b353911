#include "desktop.h"

#include "desktophost.h"

#include <QtGui/qdesktopservices.h>
#include <QtTest/qtest.h>
#include <QtWidgets/qcheckbox.h>
#include <QtWidgets/qcombobox.h>
#include <QtWidgets/qdockwidget.h>
#include <QtWidgets/qgroupbox.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qlineedit.h>
#include <QtWidgets/qplaintextedit.h>
#include <QtWidgets/qprogressbar.h>
#include <QtWidgets/qpushbutton.h>
#include <QtWidgets/qtableview.h>
#include <QtWidgets/qtabwidget.h>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 20000;

QString withoutAmpersand(QString text)
{
    return text.remove(u'&');
}

QString rowsOf(const QTableView *table)
{
    const QAbstractItemModel *model = table->model();
    QStringList rows;
    for (int row = 0; row < model->rowCount(); ++row) {
        QStringList cells;
        for (int column = 0; column < model->columnCount(); ++column)
            cells += model->index(row, column).data().toString();
        const bool isEnabled = model->index(row, 0).flags().testFlag(Qt::ItemIsEnabled);
        rows += (isEnabled ? u"| "_s : u"- "_s) + cells.join(u" | "_s);
    }
    return rows.join(u'\n');
}

// Empty for what shows nothing of its own.
QString textOf(const QWidget *widget)
{
    if (const auto *label = qobject_cast<const QLabel *>(widget))
        return label->buddy() ? withoutAmpersand(label->text()) : label->text();
    if (const auto *box = qobject_cast<const QCheckBox *>(widget))
        return (box->isChecked() ? u"[x] "_s : u"[ ] "_s) + withoutAmpersand(box->text());
    if (const auto *button = qobject_cast<const QPushButton *>(widget)) {
        const QString text = withoutAmpersand(button->text());
        return button->isEnabled() ? u'[' + text + u']' : u'(' + text + u')';
    }
    if (const auto *field = qobject_cast<const QLineEdit *>(widget))
        return u'<' + field->text() + u'>';
    if (const auto *field = qobject_cast<const QPlainTextEdit *>(widget))
        return field->toPlainText();
    if (const auto *table = qobject_cast<const QTableView *>(widget))
        return rowsOf(table);
    if (qobject_cast<const QProgressBar *>(widget))
        return u"*"_s;
    return {};
}

} // namespace

QRegularExpression Desktop::warnings()
{
    return QRegularExpression(u"^(?!This plugin does not support propagateSizeHints\\(\\)$)"_s);
}

Desktop::Desktop(const QString &sandboxProgram, const QStringList &sandboxArguments)
    : sandbox(sandboxProgram, sandboxArguments)
{
    service.url = sandbox.url();
    service.productCode = u"DEMO"_s;
    service.installedVersion = u"1.4.0"_s;
    service.channel = u"stable"_s;
    service.downloadFolder = downloads();
    for (const QString &scheme : {u"http"_s, u"https"_s, u"file"_s})
        QDesktopServices::setUrlHandler(scheme, this, "note");
}

Desktop::~Desktop()
{
    for (const QString &scheme : {u"http"_s, u"https"_s, u"file"_s})
        QDesktopServices::unsetUrlHandler(scheme);
}

void Desktop::open(bool withFaults)
{
    close();
    m_host = std::make_unique<DesktopHost>(service, stateFolder());
    m_window = std::make_unique<MainWindow>(m_host.get(), withFaults);
    m_window->show();
    m_window->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
}

void Desktop::close()
{
    m_window.reset();
    m_host.reset();
}

void Desktop::leave()
{
    m_elsewhere = std::make_unique<QWidget>();
    m_elsewhere->show();
    m_elsewhere->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(m_elsewhere.get()));
}

void Desktop::comeBack()
{
    m_window->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
}

QString Desktop::page() const
{
    return seen(currentPage());
}

QString Desktop::seen(const QWidget *part)
{
    struct Piece
    {
        QPoint position;
        QString text;
    };
    QList<Piece> pieces;
    const QList<QWidget *> widgets = part->findChildren<QWidget *>();
    for (const QWidget *widget : widgets) {
        const QString text = widget->isVisible() ? textOf(widget) : QString();
        if (!text.isEmpty())
            pieces.append({widget->mapTo(part, QPoint()), text});
    }
    std::stable_sort(pieces.begin(), pieces.end(), [](const Piece &left, const Piece &right) {
        return std::pair(left.position.y(), left.position.x())
            < std::pair(right.position.y(), right.position.x());
    });
    QStringList texts;
    for (const Piece &piece : std::as_const(pieces))
        texts += piece.text;
    return texts.join(u'\n');
}

bool Desktop::waitForPage(const QString &text) const
{
    return QTest::qWaitFor([&] { return page() == text; }, timeout);
}

bool Desktop::waitForLine(const QString &beginning) const
{
    return QTest::qWaitFor(
        [&] {
            const QStringList lines = page().split(u'\n');
            return !lines.contains(u"*"_s)
                && std::any_of(lines.begin(), lines.end(),
                               [&](const QString &line) { return line.startsWith(beginning); });
        },
        timeout);
}

QString Desktop::pendingPurchase(const QString &plan, const QString &order,
                                 const QString &licenceKey, const QUrl &approvalPage,
                                 bool mayBePaid) const
{
    const QString next = mayBePaid
        ? u"Il pagamento potrebbe essere avvenuto: premi «Completa l'acquisto»."_s
        : u"Approva il pagamento nel browser e torna qui; se l'acquisto non si completa da sé, "
          u"premi "
          "«Completa l'acquisto»."_s;
    const QString buttons = mayBePaid
        ? u"(Apri la pagina di pagamento)\n[Completa l'acquisto]\n(Riprendi)\n[Abbandona]"_s
        : u"[Apri la pagina di pagamento]\n[Completa l'acquisto]\n[Riprendi]\n[Abbandona]"_s;
    return u"Piano %1, ordine %2, chiave di licenza %3. %4 Questi dati restano in %5, anche dopo "
           u"la "
           "chiusura.\n<%6>\n%7"_s.arg(plan, order, licenceKey, next, stateFile(),
                                       approvalPage.toString(), buttons);
}

void Desktop::showPage(const QString &title)
{
    auto *tabs = m_window->findChild<QTabWidget *>();
    for (int i = 0; i < tabs->count(); ++i) {
        if (withoutAmpersand(tabs->tabText(i)) == title) {
            tabs->setCurrentIndex(i);
            return;
        }
    }
    QFAIL(qPrintable(u"There is no page \"%1\""_s.arg(title)));
}

QWidget *Desktop::panel() const
{
    return m_window->findChild<QDockWidget *>();
}

QAbstractButton *Desktop::button(const QString &text) const
{
    const QList<QAbstractButton *> buttons = m_window->findChildren<QAbstractButton *>();
    const auto found =
        std::find_if(buttons.begin(), buttons.end(), [&](const QAbstractButton *candidate) {
            return candidate->isVisible() && withoutAmpersand(candidate->text()) == text;
        });
    return found == buttons.end() ? nullptr : *found;
}

void Desktop::click(const QString &text)
{
    QAbstractButton *found = button(text);
    QVERIFY2(found && found->isEnabled(),
             qPrintable(u"There is no \"%1\" to be clicked on:\n%2"_s.arg(text, page())));
    // On the text of a check box, too.
    QTest::mouseClick(found, Qt::LeftButton, {}, QPoint(10, found->height() / 2));
}

void Desktop::type(const QString &field, const QString &text)
{
    const QList<QLabel *> labels = currentPage()->findChildren<QLabel *>();
    const auto label = std::find_if(labels.begin(), labels.end(), [&](const QLabel *candidate) {
        return candidate->isVisible() && withoutAmpersand(candidate->text()) == field;
    });
    QVERIFY2(label != labels.end() && (*label)->buddy(), qPrintable(page()));
    auto *edit = qobject_cast<QLineEdit *>((*label)->buddy());
    edit->selectAll();
    QTest::keyClick(edit, Qt::Key_Delete);
    QTest::keyClicks(edit, text);
}

void Desktop::selectPlan(const QString &name)
{
    auto *table = currentPage()->findChild<QTableView *>();
    const QModelIndexList found =
        table->model()->match(table->model()->index(0, 0), Qt::DisplayRole, name);
    QVERIFY2(!found.isEmpty(), qPrintable(page()));
    table->scrollTo(found.first());
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {},
                      table->visualRect(found.first()).center());
    QCOMPARE(table->selectionModel()->selectedRows().value(0), found.first());
}

void Desktop::fillForm(const QString &plan)
{
    selectPlan(plan);
    type(u"Nome"_s, u"Ada"_s);
    type(u"Cognome"_s, u"Rossi"_s);
    type(u"E-mail"_s, u"ada@example.org"_s);
}

void Desktop::startScenario(const QString &name)
{
    auto *names = panel()->findChild<QComboBox *>();
    QVERIFY(QTest::qWaitFor([&] { return names->findText(name) >= 0; }, timeout));
    names->setCurrentText(name);
    click(u"Metti in atto"_s);
    QVERIFY(QTest::qWaitFor(
        [&] { return seen(panel()).split(u'\n').contains("In atto: "_L1 + name); }, timeout));
}

void Desktop::note(const QUrl &url)
{
    opened.append(url);
}

QWidget *Desktop::currentPage() const
{
    return m_window->findChild<QTabWidget *>()->currentWidget();
}
