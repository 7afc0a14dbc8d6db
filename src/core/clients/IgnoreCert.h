// The client's own server-trust rule for every HTTPS request it makes.
//
// The fallback roots reach API servers by bare address, whose certificates cannot match
// the address, and the static-file host must stay reachable whatever it presents. So when
// the platform's verification fails (QNetworkReply::sslErrors), the failure is overridden
// when either
//   - the request's host is one of the accepted names, or
//   - the server sent at least two certificates, the first one's subject summary is an
//     accepted name and the second one's is an accepted issuer ("RapidSSL CA").
// Otherwise the platform's verdict stands: a certificate valid for the host passes anyway
// (no sslErrors are raised for it), anything else fails the request.
//
// No chain is evaluated and no date is checked, and the comparisons are exact and
// case-sensitive: this mirrors the service's long-standing contract, not an oversight.
#pragma once

#include <QList>
#include <QSslCertificate>
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

    // The platform's one-line summary of a subject: its common name, else its e-mail
    // address, organisational unit or organisation, whichever comes first.
    static QString subjectSummary(const QSslCertificate &certificate);

    // Applies the rule to every request `manager` makes from now on.
    static void install(QNetworkAccessManager *manager, const QStringList &acceptedNames);
};
