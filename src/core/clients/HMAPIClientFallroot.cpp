// The health check of the API roots and the fallback to the addresses published on the
// static-file host, for networks that block the service's domain.
#include "HMAPIClient.h"

void HMAPIClient::checkAPIStatusWithCompletion(HMAPIErrorCompletion completion)
{
    getStatusWithCompletion([this, completion](const QVariantMap &reply,
                                               const HMMaybeError &error) {
        if (!error && reply.value(QStringLiteral("response")).toString() == QLatin1String("ok")) {
            completion(std::nullopt);
            return;
        }
        // Anything else (an error, a captive portal's page) sends us to the fallback file,
        // even though the network itself works.
        getConfigIpsWithCompletion(
            [this, completion](const QVariantMap &config, const HMMaybeError &configError) {
                if (configError) {
                    completion(configError);
                    return;
                }
                m_backupIPs.clear();
                for (const QVariant &address : config.value(QStringLiteral("ips")).toList()) {
                    if (address.typeId() == QMetaType::QString && !address.toString().isEmpty()) {
                        m_backupIPs.append(address.toString());
                    }
                }
                changeConfigAndTestWithCompletion(completion);
            });
    });
}

void HMAPIClient::changeConfigAndTestWithCompletion(HMAPIErrorCompletion completion)
{
    if (m_backupIPs.isEmpty()) {
        completion(
            HMError::errorWithDescription(QStringLiteral("Cannot reach the Hollowmere server")));
        return;
    }
    const QString address = m_backupIPs.first();
    // Both API roots move to HTTPS on the address, the plain-HTTP one included, and stay
    // there for the rest of the process.
    m_APIRoots[0] = QStringLiteral("https://") + address;
    m_APIRoots[1] = QStringLiteral("https://") + address;
    getStatusWithCompletion(
        [this, address, completion](const QVariantMap &, const HMMaybeError &error) {
            if (error) {
                m_backupIPs.removeAll(address);
                changeConfigAndTestWithCompletion(completion);
                return;
            }
            // Unlike the first probe, any answer at all counts here.
            completion(std::nullopt);
        });
}
