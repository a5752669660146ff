#pragma once
// What the kill storm knows about each credential: the lease DN names it everywhere (the holder's
// ledger, the credential file, the agent's journal line), and carries the signature's number, as
// the journal line does not show the role.

#include <map>
#include <set>
#include <string>
#include <vector>

namespace soak {

inline constexpr int kSignatures = 4;

std::wstring SignatureUrl(int signature);
std::wstring SignatureService(int signature);
std::wstring SignatureRole(int signature);
std::wstring LeaseDn(int signature, unsigned long round, unsigned long holder, unsigned long sequence);
// The signature a lease DN was made for, or -1.
int SignatureOf(const std::string& leaseDn);

// The agent's journal: every check-in by lease DN, with where its line starts.
struct Journal {
    struct CheckIn {
        size_t offset;
        std::string leaseDn;
    };
    std::vector<CheckIn> checkIns;
    std::map<std::string, int> counts;

    static Journal Read(const std::wstring& path);
    bool Has(const std::string& leaseDn) const { return counts.count(leaseDn) != 0; }
    // A check-in of `signature` whose line starts at `offset` or later.
    bool HasSignatureFrom(int signature, size_t offset) const;
};

// What the holders wrote down: the credentials Tarrow answered for.
struct Ledger {
    // Accepted with a known lease DN (registration answered 0, then found by a query; or taken over).
    std::set<std::string> accepted;
    // Registrations answered 0 whose credential could not be asked for afterwards (the service
    // ended in between): the signature and the journal's size before the call.
    std::vector<std::pair<int, size_t>> unidentified;
    unsigned long registrations = 0, takeOvers = 0, releases = 0, unreached = 0;

    void Add(const std::wstring& file);
};

}  // namespace soak
