#include "usagepage.h"

#include "busyrow.h"
#include "notice.h"
#include "usage.h"

#include <QtCore/qjsondocument.h>
#include <QtWidgets/qboxlayout.h>
#include <QtWidgets/qcheckbox.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qplaintextedit.h>
#include <QtWidgets/qpushbutton.h>

using namespace Qt::StringLiterals;

UsagePage::UsagePage(Usage *usage, QWidget *parent)
    : QWidget(parent)
    , m_usage(usage)
    , m_preview(new QPlainTextEdit(this))
    , m_wanted(new QCheckBox(u"&Invia questi dati a ogni avvio"_s, this))
    , m_send(new QPushButton(u"Invia adess&o"_s, this))
    , m_busy(new BusyRow(u"Invio in corso"_s, this))
    , m_notice(new Notice(this))
{
    setObjectName(u"usage"_s);
    m_preview->setReadOnly(true);
    m_preview->setTabChangesFocus(true);
    m_preview->setAccessibleName(u"Dati che vengono inviati"_s);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(makeLabel(this,
                                u"Se lo permetti, l'applicazione dice al servizio di essere stata "
                                u"avviata. Non viene inviato nulla "
                                "finché non lo permetti, e poi solo questi dati:"_s));
    layout->addWidget(m_preview, 1);
    layout->addWidget(m_wanted);
    layout->addWidget(m_send, 0, Qt::AlignLeft);
    layout->addWidget(m_busy);
    layout->addWidget(m_notice);

    connect(m_wanted, &QCheckBox::toggled, m_usage, &Usage::setWanted);
    connect(m_send, &QPushButton::clicked, m_usage, &Usage::send);
    connect(m_busy, &BusyRow::cancelled, m_usage, &Usage::cancel);
    connect(m_usage, &Usage::changed, this, &UsagePage::showState);
    showState();
}

void UsagePage::showState()
{
    const bool isBusy = m_usage->isCalling();
    m_busy->follow(isBusy, isBusy, [&] { m_send->setEnabled(m_usage->isWanted() && !isBusy); });
    m_wanted->setChecked(m_usage->isWanted());
    m_preview->setPlainText(QString::fromUtf8(QJsonDocument(m_usage->preview()).toJson()));
    m_notice->tell(m_usage->message());
}
