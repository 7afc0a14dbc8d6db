#include "HMProxyOptions.h"

#include <arpa/inet.h>
#include <map>
#include <sstream>

std::optional<uint32_t> HMProxyOptions::parseAddress(const std::string &text)
{
    struct in_addr address
    {
    };
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return std::nullopt;
    }
    return address.s_addr;
}

std::string HMProxyOptions::formatAddress(uint32_t address)
{
    char text[INET_ADDRSTRLEN] = {};
    struct in_addr in
    {
        address
    };
    ::inet_ntop(AF_INET, &in, text, sizeof(text));
    return text;
}

std::vector<uint32_t> HMProxyOptions::resolversFromText(const std::string &text)
{
    std::vector<uint32_t> resolvers;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string keyword;
        std::string value;
        if (words >> keyword >> value && keyword == "nameserver") {
            if (const auto address = parseAddress(value)) {
                resolvers.push_back(*address);
            }
        }
    }
    return resolvers;
}

std::optional<HMProxyOptions> HMProxyOptions::parse(const std::vector<std::string> &arguments,
                                                    std::string *error)
{
    static const char *const known[] = {"-f",          "-s",         "-log",   "-server",
                                        "-tap",        "-wisproute", "-debug", "-originals",
                                        "-tunnel-dns", "-listen"};
    std::map<std::string, std::string> values;
    for (size_t i = 0; i < arguments.size(); i += 2) {
        const std::string &flag = arguments[i];
        bool isKnown = false;
        for (const char *name : known) {
            isKnown = isKnown || flag == name;
        }
        if (!isKnown) {
            *error = "unknown option '" + flag + "'";
            return std::nullopt;
        }
        if (i + 1 >= arguments.size()) {
            *error = "option " + flag + " needs a value";
            return std::nullopt;
        }
        if (!values.emplace(flag, arguments[i + 1]).second) {
            *error = "option " + flag + " is given twice";
            return std::nullopt;
        }
    }
    for (const char *required : {"-f", "-s", "-log", "-server", "-tap"}) {
        if (values.count(required) == 0) {
            *error = std::string("option ") + required + " is required";
            return std::nullopt;
        }
    }
    HMProxyOptions options;
    options.listenAddress = htonl(INADDR_LOOPBACK);
    options.domainFile = values["-f"] == "nothing" ? std::string() : values["-f"];
    options.resourceDir = values["-s"];
    options.logPath = values["-log"];
    options.tunnel = values["-tap"];
    const auto server = parseAddress(values["-server"]);
    if (!server) {
        *error = "-server must be an IPv4 address";
        return std::nullopt;
    }
    options.server = *server;
    const bool steering = values.count("-wisproute") != 0;
    if (steering != !options.domainFile.empty()) {
        *error = "-wisproute goes with a domain file, and only with one";
        return std::nullopt;
    }
    if (steering) {
        const std::string &mode = values["-wisproute"];
        if (mode != "wisproute" && mode != "wisprouteEx") {
            *error = "-wisproute must be wisproute or wisprouteEx";
            return std::nullopt;
        }
        options.mode = mode == "wisproute" ? HMDNSQueryHandler::Mode::Inclusion
                                           : HMDNSQueryHandler::Mode::Exclusion;
    }
    if (values.count("-debug")) {
        try {
            options.debug = std::stoi(values["-debug"]);
        } catch (...) {
            options.debug = 1;
        }
    }
    options.originalsFile = values["-originals"];
    std::string list = values.count("-tunnel-dns") ? values["-tunnel-dns"] : "8.8.8.8,8.8.4.4";
    std::istringstream entries(list);
    std::string entry;
    while (std::getline(entries, entry, ',')) {
        const auto address = parseAddress(entry);
        if (!address) {
            *error = "-tunnel-dns holds '" + entry + "', which is not an IPv4 address";
            return std::nullopt;
        }
        options.tunnelResolvers.push_back(*address);
    }
    if (options.tunnelResolvers.empty()) {
        *error = "-tunnel-dns names no resolver";
        return std::nullopt;
    }
    if (values.count("-listen")) {
        const std::string &listen = values["-listen"];
        const size_t colon = listen.rfind(':');
        const auto address =
            colon == std::string::npos ? std::nullopt : parseAddress(listen.substr(0, colon));
        const int port = colon == std::string::npos ? 0 : std::atoi(listen.c_str() + colon + 1);
        if (!address || port <= 0 || port > 65535) {
            *error = "-listen must be ADDRESS:PORT";
            return std::nullopt;
        }
        options.listenAddress = *address;
        options.listenPort = static_cast<uint16_t>(port);
    }
    return options;
}
