// The domain list the proxy steers by. A name matches an entry when it equals it or ends
// with "." followed by it, ignoring case: "example.com" covers "www.example.com" but not
// "badexample.com". Lookups walk the name's own suffixes, each found without a copy (an
// ordered set takes a string_view), so the cost grows with the name's length and only
// logarithmically with the list's.
#pragma once

#include <set>
#include <string>

class HMDomainMatcher
{
public:
    // One entry per line as the helper's checked copy holds them; blank lines are skipped.
    static HMDomainMatcher fromText(const std::string &text);

    void add(std::string domain);
    bool matches(std::string name) const;
    size_t size() const { return m_domains.size(); }

    // Lower-cased, without a final ".".
    static std::string normalised(std::string name);

private:
    std::set<std::string, std::less<>> m_domains;
};
