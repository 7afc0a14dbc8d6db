// The helper's check of an OpenVPN argument list as a client sends it: NUL-separated texts
// after a first byte that, when odd, puts the application's own list in front of them (its
// bit 2 choosing the selective form), so that mutations start from the accepted shapes.
// Whatever the check accepts, the list the helper then builds must keep its own head, its
// own single "--setenv" and no code loading.
#include "HMOpenVPNArgumentForms.h"
#include "HMOpenVPNArguments.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    static const HMHelperConfig config = HMHelperConfig::defaults();
    QStringList arguments;
    if (data[0] & 1) {
        arguments = HMOpenVPNArgumentForms::head(config.resourceDir) +
                    HMOpenVPNArgumentForms::body(
                        data[0] & 2 ? HMOpenVPNArgumentForms::Body::SelectiveRouting
                                    : HMOpenVPNArgumentForms::Body::FullTunnel);
    }
    const QByteArray input(reinterpret_cast<const char *>(data) + 1,
                           static_cast<qsizetype>(size - 1));
    for (const QByteArray &part : input.split('\0')) {
        arguments << QString::fromUtf8(part);
    }
    QString error;
    const auto launch = HMOpenVPNArguments::parse(arguments, config.resourceDir, &error);
    if (!launch) {
        if (error.isEmpty()) {
            std::abort(); // a refusal without a reason
        }
        return 0;
    }
    const HMOpenVPNArguments::Management management{QStringLiteral("/run/m/1000/management"),
                                                    QStringLiteral("someone")};
    const QStringList built =
        HMOpenVPNArguments::build(*launch, config, management, QStringLiteral("/run/x"));
    // The helper's own head, one "--setenv" (its own, last), no code loading, no daemon.
    if (built.size() < 2 || built.at(0) != QLatin1String("--cd") ||
        built.at(1) != config.resourceDir || built.count(QStringLiteral("--setenv")) != 1 ||
        built.contains(QStringLiteral("--plugin")) || built.contains(QStringLiteral("--daemon"))) {
        std::abort();
    }
    return 0;
}
