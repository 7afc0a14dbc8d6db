// The client's own server-trust rule for every HTTPS request it makes.
//
// The fallback roots reach API servers by bare address, whose certificates cannot match
// the address, and the static-file host must stay reachable under whatever name it
// serves. So when the platform's verification fails (QNetworkReply::sslErrors) only
// because the certificate names another host, that mismatch is overlooked when either
//   - the request's host is one of the accepted names, or
//   - the server sent at least two certificates, the first one's subject summary is an
//     accepted name and the second one's is an accepted issuer ("RapidSSL CA").
// Any other failure stands, whatever the names say: the chain must verify against the
// trust store and be within its dates, so a self-made issuer that merely carries the
// accepted issuer's name, or a self-signed certificate on the static-file host, is refused.
// The names alone cannot be trusted (anyone can write them into a certificate); the
// mismatch alone is what reaching a server by address makes unavoidable. A certificate
// valid for the host passes anyway (no sslErrors are raised for it).
//
// The name comparisons are exact and case-sensitive: this mirrors the service's
// long-standing contract, not an oversight. Tests add their own authority to the trust
// store (QSslConfiguration::defaultConfiguration); there is no switch to turn checks off.
#pragma once

#include <QList>
#include <QSslCertificate>
#include <QSslError>
#include <QStringList>

class QNetworkAccessManager;

class IgnoreCert
{
public:
    static const QString kAcceptedIssuer; // "RapidSSL CA"

    // "*." + the service domain, and the static-file host.
    static QStringList acceptedNamesFor(const QString &serviceDomain, const QString &staticHost);

    // The decision itself, for a host and the chain the server presented (leaf first).
    static bool acceptsServerTrust(const QString &host, const QList<QSslCertificate> &chain,
                                   const QStringList &acceptedNames,
                                   const QStringList &acceptedIssuers = {kAcceptedIssuer});

    // True when errors is not empty and says nothing but that the certificate names
    // another host: the one failure the rule may overlook.
    static bool onlyHostNameMismatch(const QList<QSslError> &errors);

    // The platform's one-line summary of a subject: its common name, else its e-mail
    // address, organisational unit or organisation, whichever comes first.
    static QString subjectSummary(const QSslCertificate &certificate);

    // Applies the rule to every request `manager` makes from now on.
    static void install(QNetworkAccessManager *manager, const QStringList &acceptedNames);
};
