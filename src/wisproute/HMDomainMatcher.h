// The domain list the proxy steers by. A name matches an entry when it equals it or ends
// with "." followed by it, ignoring case: "example.com" covers "www.example.com" but not
// "badexample.com". Lookups walk the name's own suffixes, so the cost depends on the name's
// length, not on the list's.
#pragma once

#include <string>
#include <unordered_set>

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
    std::unordered_set<std::string> m_domains;
};
