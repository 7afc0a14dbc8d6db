#include "IgnoreCert.h"

#include "HMLog.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslConfiguration>
#include <algorithm>

const QString IgnoreCert::kAcceptedIssuer = QStringLiteral("RapidSSL CA");

QStringList IgnoreCert::acceptedNamesFor(const QString &serviceDomain, const QString &staticHost)
{
    return {QStringLiteral("*.") + serviceDomain, staticHost};
}

QString IgnoreCert::subjectSummary(const QSslCertificate &certificate)
{
    for (const auto attribute :
         {QSslCertificate::CommonName, QSslCertificate::EmailAddress,
          QSslCertificate::OrganizationalUnitName, QSslCertificate::Organization}) {
        const QStringList values = certificate.subjectInfo(attribute);
        if (!values.isEmpty() && !values.first().isEmpty()) {
            return values.first();
        }
    }
    return QString();
}

bool IgnoreCert::acceptsServerTrust(const QString &host, const QList<QSslCertificate> &chain,
                                    const QStringList &acceptedNames,
                                    const QStringList &acceptedIssuers)
{
    if (acceptedNames.contains(host, Qt::CaseSensitive)) {
        return true;
    }
    if (chain.size() < 2) {
        return false;
    }
    return acceptedNames.contains(subjectSummary(chain.at(0)), Qt::CaseSensitive) &&
           acceptedIssuers.contains(subjectSummary(chain.at(1)), Qt::CaseSensitive);
}

bool IgnoreCert::onlyHostNameMismatch(const QList<QSslError> &errors)
{
    return !errors.isEmpty() && std::all_of(errors.begin(), errors.end(), [](const QSslError &e) {
        return e.error() == QSslError::HostNameMismatch;
    });
}

void IgnoreCert::install(QNetworkAccessManager *manager, const QStringList &acceptedNames)
{
    QObject::connect(manager, &QNetworkAccessManager::sslErrors, manager,
                     [acceptedNames](QNetworkReply *reply, const QList<QSslError> &errors) {
                         const QString host = reply->url().host();
                         const QList<QSslCertificate> chain =
                             reply->sslConfiguration().peerCertificateChain();
                         if (!onlyHostNameMismatch(errors)) {
                             const auto why =
                                 std::find_if(errors.begin(), errors.end(), [](const QSslError &e) {
                                     return e.error() != QSslError::HostNameMismatch;
                                 });
                             HMLogError(QStringLiteral("Refused the certificate of %1: %2")
                                            .arg(host, why->errorString()));
                         } else if (acceptsServerTrust(host, chain, acceptedNames)) {
                             reply->ignoreSslErrors(errors);
                         }
                     });
}
