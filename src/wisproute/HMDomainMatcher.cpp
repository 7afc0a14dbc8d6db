#include "HMDomainMatcher.h"

#include <algorithm>
#include <sstream>
#include <string_view>

std::string HMDomainMatcher::normalised(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    });
    while (!name.empty() && name.back() == '.') {
        name.pop_back();
    }
    return name;
}

HMDomainMatcher HMDomainMatcher::fromText(const std::string &text)
{
    HMDomainMatcher matcher;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        matcher.add(line);
    }
    return matcher;
}

void HMDomainMatcher::add(std::string domain)
{
    domain = normalised(std::move(domain));
    if (!domain.empty()) {
        m_domains.insert(std::move(domain));
    }
}

bool HMDomainMatcher::matches(std::string name) const
{
    name = normalised(std::move(name));
    const std::string_view whole(name);
    size_t start = 0;
    while (start < name.size()) {
        if (m_domains.find(whole.substr(start)) != m_domains.end()) {
            return true;
        }
        const size_t dot = name.find('.', start);
        if (dot == std::string::npos) {
            break;
        }
        start = dot + 1;
    }
    return false;
}
