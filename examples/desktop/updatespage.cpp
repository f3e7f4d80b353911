#include "updatespage.h"

#include "busyrow.h"
#include "notice.h"

#include <QtGui/qdesktopservices.h>
#include <QtGui/qshortcut.h>
#include <QtWidgets/qboxlayout.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qplaintextedit.h>
#include <QtWidgets/qpushbutton.h>

using namespace Qt::StringLiterals;

UpdatesPage::UpdatesPage(Updates *updates, QWidget *parent)
    : QWidget(parent)
    , m_updates(updates)
    , m_check(new QPushButton(u"&Cerca aggiornamenti"_s, this))
    , m_download(new QPushButton(u"&Scarica e verifica"_s, this))
    , m_openFolder(new QPushButton(u"Apri car&tella"_s, this))
    , m_busy(new BusyRow(u"Ricerca o scaricamento in corso"_s, this))
    , m_notice(new Notice(this))
    , m_notesLabel(makeLabel(this))
    , m_notes(new QPlainTextEdit(this))
{
    setObjectName(u"updates"_s);
    // Beside the button's own, which is underlined.
    auto *refresh = new QShortcut(QKeySequence::Refresh, this);
    connect(refresh, &QShortcut::activated, m_check, &QPushButton::click);
    m_notes->setReadOnly(true);
    m_notes->setTabChangesFocus(true);
    m_notes->setAccessibleName(u"Novità"_s);

    const Service &service = updates->service();
    auto *actions = new QHBoxLayout;
    actions->addWidget(m_check);
    actions->addWidget(m_download);
    actions->addWidget(m_openFolder);
    actions->addStretch();
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(makeLabel(
        this,
        u"Versione installata: %1. Canale: %2."_s.arg(service.installedVersion, service.channel)));
    layout->addLayout(actions);
    layout->addWidget(m_busy);
    layout->addWidget(m_notice);
    layout->addWidget(m_notesLabel);
    layout->addWidget(m_notes, 1);
    layout->addStretch();

    connect(m_check, &QPushButton::clicked, m_updates, &Updates::check);
    connect(m_download, &QPushButton::clicked, m_updates, &Updates::download);
    connect(m_openFolder, &QPushButton::clicked, this, &UpdatesPage::openFolder);
    connect(m_busy, &BusyRow::cancelled, m_updates, &Updates::cancel);
    connect(m_updates, &Updates::changed, this, &UpdatesPage::showState);
    showState();
}

void UpdatesPage::showState()
{
    const UpdateInfo &update = m_updates->update();
    const bool isBusy = m_updates->isBusy();
    m_busy->follow(isBusy, m_updates->isCalling(), [&] {
        m_check->setEnabled(!isBusy);
        m_download->setEnabled(!isBusy && update.updateAvailable);
        m_openFolder->setEnabled(m_updates->state() == Updates::State::Downloaded);
    });
    m_notice->tell(m_updates->message());

    const bool hasNotes = update.updateAvailable && !update.notes.isEmpty();
    m_notesLabel->setText(u"Novità della versione %1:"_s.arg(update.latestVersion));
    m_notesLabel->setVisible(hasNotes);
    m_notes->setPlainText(update.notes);
    m_notes->setVisible(hasNotes);
}

void UpdatesPage::openFolder()
{
    const QString folder = m_updates->service().downloadFolder;
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(folder)))
        m_notice->tell({Message::Warning, u"Impossibile aprire la cartella: "_s + folder});
}
