#include "faultpanel.h"

#include "notice.h"
#include "service.h"

#include <QtCore/qjsondocument.h>
#include <QtCore/qjsonobject.h>
#include <QtNetwork/qnetworkreply.h>
#include <QtWidgets/qboxlayout.h>
#include <QtWidgets/qcombobox.h>
#include <QtWidgets/qlabel.h>
#include <QtWidgets/qpushbutton.h>
#include <QtWidgets/qscrollarea.h>

using namespace Qt::StringLiterals;

FaultPanel::FaultPanel(const Service &sandbox, QWidget *parent)
    : QDockWidget(u"Guasti (per chi sviluppa)"_s, parent)
    , m_sandbox(sandbox.url)
    , m_names(new QComboBox(this))
    , m_sentence(makeLabel(this))
    , m_start(new QPushButton(u"&Metti in atto"_s, this))
    , m_stop(new QPushButton(u"&Fine del guasto"_s, this))
    , m_notice(new Notice(this))
{
    setObjectName(u"faults"_s);
    setFeatures(DockWidgetMovable | DockWidgetFloatable);
    m_network.setTransferTimeout(static_cast<int>(sandbox.callTimeout.count()));
    m_names->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    m_names->setAccessibleName(u"Guasto"_s);

    auto *content = new QWidget(this);
    auto *layout = new QVBoxLayout(content);
    layout->addWidget(m_names);
    layout->addWidget(m_sentence);
    layout->addWidget(m_start);
    layout->addWidget(m_stop);
    layout->addWidget(m_notice);
    layout->addStretch();
    auto *area = new QScrollArea(this);
    area->setFrameShape(QFrame::NoFrame);
    area->setWidgetResizable(true);
    area->setFocusPolicy(Qt::NoFocus);
    area->setWidget(content);
    setWidget(area);

    connect(m_names, &QComboBox::currentIndexChanged, this, &FaultPanel::showSentence);
    connect(m_start, &QPushButton::clicked, this, &FaultPanel::start);
    connect(m_stop, &QPushButton::clicked, this, &FaultPanel::stop);
    m_start->setEnabled(false);
    fetchScenarios();
}

void FaultPanel::fetchScenarios()
{
    ask("GET", u"/sandbox/scenarios"_s, {}, [this](const QJsonObject &answer) {
        m_scenarios = answer.value("scenarios"_L1).toArray();
        for (const auto &scenario : std::as_const(m_scenarios))
            m_names->addItem(scenario.toObject().value("name"_L1).toString());
        m_start->setEnabled(!m_scenarios.isEmpty());
        if (m_scenarios.isEmpty())
            m_notice->tell({Message::Warning, u"Il servizio non è una sandbox."_s});
    });
}

void FaultPanel::showSentence()
{
    m_sentence->setText(m_scenarios.at(m_names->currentIndex())["sentence"_L1].toString());
}

void FaultPanel::start()
{
    const QString name = m_names->currentText();
    const QJsonObject body = {{u"name"_s, name}};
    ask("POST", u"/sandbox/scenario"_s, QJsonDocument(body).toJson(),
        [this, name](const QJsonObject &) {
            m_notice->tell({Message::Warning, u"In atto: "_s + name});
        });
}

void FaultPanel::stop()
{
    ask("DELETE", u"/sandbox/faults"_s, {}, [this](const QJsonObject &) {
        m_notice->tell({Message::Success, u"Nessun guasto in atto."_s});
    });
}

void FaultPanel::ask(const QByteArray &method, const QString &path, const QByteArray &body,
                     const Receiver &receiver)
{
    QNetworkRequest request(m_sandbox.resolved(QUrl(path)));
    request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    QNetworkReply *reply = m_network.sendCustomRequest(request, method, body);
    connect(reply, &QNetworkReply::finished, this, [this, reply, receiver] {
        reply->deleteLater();
        if (reply->error() == QNetworkReply::NoError)
            receiver(QJsonDocument::fromJson(reply->readAll()).object());
        else
            m_notice->tell(
                {Message::Warning, u"La sandbox non risponde: %1"_s.arg(reply->errorString())});
    });
}
