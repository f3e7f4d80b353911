#ifndef FAULTPANEL_H
#define FAULTPANEL_H

#include <QtCore/qjsonarray.h>
#include <QtCore/qurl.h>
#include <QtNetwork/qnetworkaccessmanager.h>
#include <QtWidgets/qdockwidget.h>

#include <functional>

class Notice;
class QComboBox;
class QLabel;
class QPushButton;
struct Service;

// For developers: lets the sandbox make go wrong what the window is to cope with.
class FaultPanel : public QDockWidget
{
    Q_OBJECT

public:
    explicit FaultPanel(const Service &sandbox, QWidget *parent = nullptr);

private:
    void fetchScenarios();
    void showSentence();
    void start();
    void stop();
    using Receiver = std::function<void(const QJsonObject &answer)>;
    // Hands the answer to the receiver if the sandbox gives one, and says so if it does not.
    void ask(const QByteArray &method, const QString &path, const QByteArray &body,
             const Receiver &receiver);

    const QUrl m_sandbox;
    QNetworkAccessManager m_network;
    QJsonArray m_scenarios;
    QComboBox *m_names;
    QLabel *m_sentence;
    QPushButton *m_start;
    QPushButton *m_stop;
    Notice *m_notice;
};

#endif // FAULTPANEL_H
