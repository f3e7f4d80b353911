#include "host.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTest>

class tst_Host : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void updateIsFound();
    void outageIsTold();
    void oneRequestIsMadeForACheck();
    void purchaseIsPaid();
    void declinedPaymentIsTold();

private:
    // The line that the host shows next.
    QString shownBy(void (Host::*action)());
    QByteArray get(const QUrl &url);
    QByteArray post(const QUrl &url, const QByteArray &json = "{}");
    QByteArray bodyOf(QNetworkReply *reply);

    const QUrl m_sandbox{qEnvironmentVariable("CORVANE_SANDBOX_URL")};
    Host m_host{m_sandbox};
    QNetworkAccessManager m_network;
};

void tst_Host::updateIsFound()
{
    QCOMPARE(shownBy(&Host::checkForUpdate), "È disponibile la versione 1.5.0.");
}

void tst_Host::outageIsTold()
{
    post(m_sandbox.resolved(QUrl("/sandbox/scenario")), R"({"name": "service-down"})");
    QCOMPARE(shownBy(&Host::checkForUpdate), "Il servizio non è raggiungibile.");
    post(m_sandbox.resolved(QUrl("/sandbox/reset")));
    QCOMPARE(shownBy(&Host::checkForUpdate), "Nessun aggiornamento.");
}

void tst_Host::oneRequestIsMadeForACheck()
{
    shownBy(&Host::checkForUpdate);
    const QByteArray journal = get(m_sandbox.resolved(QUrl("/sandbox/journal")));
    const QJsonArray entries = QJsonDocument::fromJson(journal)["entries"].toArray();
    QCOMPARE(entries.size(), 1);
    QCOMPARE(entries[0]["operation"].toString(), "update-check");
    QCOMPARE(entries[0]["reply"]["status"].toInt(), 200);
}

void tst_Host::purchaseIsPaid()
{
    const QUrl approval(shownBy(&Host::buy));
    QCOMPARE(shownBy(&Host::finishPurchase), "Il pagamento non è ancora stato approvato.");
    // What the page's button does.
    post(approval);
    QCOMPARE(shownBy(&Host::finishPurchase), "Pagamento completato.");
}

void tst_Host::declinedPaymentIsTold()
{
    const QUrl approval(shownBy(&Host::buy));
    post(approval);
    QCOMPARE(shownBy(&Host::finishPurchase), "Il pagamento è stato rifiutato.");
}

QString tst_Host::shownBy(void (Host::*action)())
{
    QSignalSpy shown(&m_host, &Host::shown);
    (m_host.*action)();
    return shown.wait() ? shown.at(0).at(0).toString() : "(nothing)";
}

QByteArray tst_Host::get(const QUrl &url)
{
    return bodyOf(m_network.get(QNetworkRequest(url)));
}

QByteArray tst_Host::post(const QUrl &url, const QByteArray &json)
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
    return bodyOf(m_network.post(request, json));
}

QByteArray tst_Host::bodyOf(QNetworkReply *reply)
{
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!finished.wait() || reply->error() != QNetworkReply::NoError)
        qFatal("%s", qPrintable(reply->errorString()));
    reply->deleteLater();
    return reply->readAll();
}

QTEST_GUILESS_MAIN(tst_Host)
#include "tst_host.moc"
