// Certificates made with the openssl command inside a test: authorities, leaves signed by
// them or by themselves, and the PEM chain files a TLS server presents (leaf first).
#pragma once

#include <QString>
#include <QStringList>

class HMTestCertificates
{
public:
    struct Authority
    {
        QString certificate;
        QString key;
    };
    struct Leaf
    {
        QString certificate;
        QString key;
        // What the server sends: the leaf, then the issuer unless left out.
        QString chain;
    };

    enum class Dates
    {
        Current, // valid from now for 30 days
        Expired  // valid for one day in 2020 (needs an issuer)
    };

    // Files go into `directory`, which must exist.
    explicit HMTestCertificates(const QString &directory);

    // Empty paths when openssl fails; error() says why.
    Authority makeAuthority(const QString &name, const QString &commonName);
    // `issuer` null: self-signed. `dnsNames`: subject alternative names, none when empty.
    Leaf makeLeaf(const QString &name, const QString &commonName, const Authority *issuer,
                  const QStringList &dnsNames = {}, bool chainIncludesIssuer = true,
                  Dates dates = Dates::Current);

    QString error() const { return m_error; }

private:
    bool openssl(const QStringList &arguments);

    QString m_directory;
    QString m_error;
};
