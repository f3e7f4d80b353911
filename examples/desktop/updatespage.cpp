#include "updatespage.h"

#include "busyrow.h"
#include "notice.h"

#include <QtCore/qfileinfo.h>
#include <QtGui/qdesktopservices.h>
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
    m_check->setShortcut(QKeySequence::Refresh);
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
    const bool isBusy = m_updates->isBusy();
    const bool isAvailable = m_updates->update().updateAvailable;
    if (isBusy)
        m_busy->begin();
    m_check->setEnabled(!isBusy);
    m_download->setEnabled(!isBusy && isAvailable);
    m_openFolder->setEnabled(m_updates->state() == Updates::State::Downloaded);
    if (!isBusy)
        m_busy->end();

    const QString notes = isAvailable ? m_updates->update().notes : QString();
    m_notesLabel->setText(u"Novità della versione %1:"_s.arg(m_updates->update().latestVersion));
    m_notesLabel->setVisible(!notes.isEmpty());
    m_notes->setPlainText(notes);
    m_notes->setVisible(!notes.isEmpty());
    tellState();
}

void UpdatesPage::tellState()
{
    const QString version = m_updates->update().latestVersion;
    switch (m_updates->state()) {
    case Updates::State::Unknown:
        m_notice->clear();
        break;
    case Updates::State::Checking:
        m_notice->tell(Notice::Information, u"Ricerca di aggiornamenti in corso…"_s);
        break;
    case Updates::State::UpToDate:
        m_notice->tell(Notice::Success, u"Nessun aggiornamento: la versione è quella offerta."_s);
        break;
    case Updates::State::Available:
        m_notice->tell(
            Notice::Information,
            m_updates->isDowngrade()
                ? u"Il servizio offre la versione %1, precedente a quella installata."_s.arg(
                    version)
                : u"È disponibile la versione %1."_s.arg(version));
        break;
    case Updates::State::CheckFailed:
        m_notice->tell(Notice::Warning,
                       u"Ricerca non riuscita: non si sa se ci sono aggiornamenti. "_s
                           + m_updates->problem());
        break;
    case Updates::State::Downloading:
        m_notice->tell(Notice::Information, u"Scaricamento della versione %1…"_s.arg(version));
        break;
    case Updates::State::Verifying:
        m_notice->tell(Notice::Information, u"Verifica della versione %1…"_s.arg(version));
        break;
    case Updates::State::Downloaded:
        m_notice->tell(Notice::Success,
                       u"Versione %1 scaricata e verificata: %2"_s.arg(version, m_updates->file()));
        break;
    case Updates::State::DownloadFailed:
        m_notice->tell(Notice::Warning, u"Scaricamento non riuscito. "_s + m_updates->problem());
        break;
    }
}

void UpdatesPage::openFolder()
{
    const QString folder = QFileInfo(m_updates->file()).path();
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(folder)))
        m_notice->tell(Notice::Warning, u"Impossibile aprire la cartella: "_s + folder);
}
