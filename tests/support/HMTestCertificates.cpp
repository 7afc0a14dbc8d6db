#include "HMTestCertificates.h"

#include <QFile>
#include <QProcess>

namespace {

bool writeCaFiles(QFile &config, const QString &base)
{
    const QByteArray text =
        "[ca]\ndefault_ca = d\n[d]\ndatabase = " + QFile::encodeName(base) +
        ".index\nnew_certs_dir = " + QFile::encodeName(base.section(QLatin1Char('/'), 0, -2)) +
        "\nserial = " + QFile::encodeName(base) +
        ".serial\ndefault_md = sha256\npolicy = p\nunique_subject = no\n"
        "[p]\ncommonName = supplied\n";
    QFile index(base + QStringLiteral(".index"));
    QFile serial(base + QStringLiteral(".serial"));
    return config.write(text) == text.size() && index.open(QIODevice::WriteOnly) &&
           serial.open(QIODevice::WriteOnly) && serial.write("01\n") == 3;
}

} // namespace

HMTestCertificates::HMTestCertificates(const QString &directory) : m_directory(directory) {}

bool HMTestCertificates::openssl(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("openssl"), arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        m_error = QStringLiteral("openssl %1 failed: %2")
                      .arg(arguments.join(QLatin1Char(' ')),
                           QString::fromUtf8(process.readAllStandardError()));
        return false;
    }
    return true;
}

HMTestCertificates::Authority HMTestCertificates::makeAuthority(const QString &name,
                                                                const QString &commonName)
{
    const Authority authority{m_directory + QLatin1Char('/') + name + QStringLiteral(".pem"),
                              m_directory + QLatin1Char('/') + name + QStringLiteral(".key")};
    if (!openssl({QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                  QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                  QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
                  QStringLiteral("-keyout"), authority.key, QStringLiteral("-out"),
                  authority.certificate, QStringLiteral("-days"), QStringLiteral("30"),
                  QStringLiteral("-subj"), QStringLiteral("/CN=") + commonName})) {
        return {};
    }
    return authority;
}

HMTestCertificates::Leaf HMTestCertificates::makeLeaf(const QString &name,
                                                      const QString &commonName,
                                                      const Authority *issuer,
                                                      const QStringList &dnsNames,
                                                      bool chainIncludesIssuer, Dates dates)
{
    const QString base = m_directory + QLatin1Char('/') + name;
    Leaf leaf{base + QStringLiteral(".pem"), base + QStringLiteral(".key"),
              base + QStringLiteral("-chain.pem")};
    QFile extensions(base + QStringLiteral(".ext"));
    if (!extensions.open(QIODevice::WriteOnly)) {
        m_error = extensions.errorString();
        return {};
    }
    extensions.write("basicConstraints=CA:FALSE\n");
    if (!dnsNames.isEmpty()) {
        QStringList names;
        for (const QString &dns : dnsNames) {
            names.append(QStringLiteral("DNS:") + dns);
        }
        extensions.write("subjectAltName=" + names.join(QLatin1Char(',')).toUtf8() + "\n");
    }
    extensions.close();

    const QString request = base + QStringLiteral(".csr");
    if (!openssl({QStringLiteral("req"), QStringLiteral("-new"), QStringLiteral("-newkey"),
                  QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                  QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
                  QStringLiteral("-keyout"), leaf.key, QStringLiteral("-out"), request,
                  QStringLiteral("-subj"), QStringLiteral("/CN=") + commonName})) {
        return {};
    }
    QStringList signing{QStringLiteral("x509"),     QStringLiteral("-req"),
                        QStringLiteral("-in"),      request,
                        QStringLiteral("-out"),     leaf.certificate,
                        QStringLiteral("-days"),    QStringLiteral("30"),
                        QStringLiteral("-extfile"), extensions.fileName()};
    if (dates == Dates::Expired && issuer) {
        // Only "openssl ca" takes dates in the past; it wants a database of its own.
        QFile config(base + QStringLiteral(".ca"));
        if (!config.open(QIODevice::WriteOnly) || !writeCaFiles(config, base)) {
            m_error = QStringLiteral("cannot write the openssl ca files for ") + name;
            return {};
        }
        config.close();
        signing = {QStringLiteral("ca"),
                   QStringLiteral("-batch"),
                   QStringLiteral("-notext"),
                   QStringLiteral("-config"),
                   config.fileName(),
                   QStringLiteral("-cert"),
                   issuer->certificate,
                   QStringLiteral("-keyfile"),
                   issuer->key,
                   QStringLiteral("-in"),
                   request,
                   QStringLiteral("-out"),
                   leaf.certificate,
                   QStringLiteral("-extfile"),
                   extensions.fileName(),
                   QStringLiteral("-startdate"),
                   QStringLiteral("20200101000000Z"),
                   QStringLiteral("-enddate"),
                   QStringLiteral("20200102000000Z")};
    } else if (issuer) {
        signing << QStringLiteral("-CA") << issuer->certificate << QStringLiteral("-CAkey")
                << issuer->key << QStringLiteral("-CAcreateserial");
    } else {
        signing << QStringLiteral("-signkey") << leaf.key;
    }
    if (!openssl(signing)) {
        return {};
    }

    QByteArray chain;
    for (const QString &path : issuer &&chainIncludesIssuer
                                   ? QStringList{leaf.certificate, issuer->certificate}
                                   : QStringList{leaf.certificate}) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            m_error = file.errorString();
            return {};
        }
        chain += file.readAll();
    }
    QFile chainFile(leaf.chain);
    if (!chainFile.open(QIODevice::WriteOnly) || chainFile.write(chain) != chain.size()) {
        m_error = chainFile.errorString();
        return {};
    }
    return leaf;
}
