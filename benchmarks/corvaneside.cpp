#include "constants.h"
#include "records.h"

#include <corvane.h>

namespace {

class CorvaneSide : public Side
{
public:
    explicit CorvaneSide(const QUrl &server, const QString &product)
    {
        m_client.setServerUrl(server);
        m_client.setProductCode(product);
        connectTo(&Corvane::updateChecked,
                  [this](const UpdateInfo &update) { m_records.update = update; });
        connectTo(&Corvane::updateDownloaded, [](const QString &) {});
        connectTo(&Corvane::purchasePlansReceived,
                  [this](const QJsonArray &plans) { m_records.plans = plans; });
        connectTo(&Corvane::purchaseStarted,
                  [this](const PurchaseStartInfo &start) { m_records.start = start; });
        connectTo(&Corvane::purchaseCaptured,
                  [this](const PurchaseCaptureInfo &capture) { m_records.capture = capture; });
        connectTo(&Corvane::usageSent, [this](bool accepted, const QString &message) {
            m_records.usage = {accepted, message};
        });
        QObject::connect(&m_client, &Corvane::networkError, &m_client, &stop);
    }

    void start(Call call) override
    {
        using namespace Constants;
        switch (call) {
        case Call::Check:
            m_client.checkForUpdate(version, channel);
            break;
        case Call::Download:
            m_client.downloadUpdate(file, destination);
            break;
        case Call::Plans:
            m_client.fetchPurchasePlans();
            break;
        case Call::Start:
            m_client.startPayPalPurchase(plan, firstName, lastName, email);
            break;
        case Call::Resume:
            m_client.resumePayPalPurchase(licenseKey);
            break;
        case Call::Capture:
            m_client.capturePayPalPurchase(order);
            break;
        case Call::Usage:
            m_client.sendUsage(licenseKey, machine, event, payload);
            break;
        }
    }

private:
    template <typename... Arguments, typename Keep>
    void connectTo(void (Corvane::*signal)(Arguments...), Keep keep)
    {
        QObject::connect(&m_client, signal, &m_client, [this, keep](Arguments... arguments) {
            keep(arguments...);
            onDone();
        });
    }

    Corvane m_client;
    Records m_records;
};

} // namespace

std::unique_ptr<Side> makeCorvane(const QUrl &server, const QString &product)
{
    return std::make_unique<CorvaneSide>(server, product);
}
