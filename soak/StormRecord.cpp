#include "soak/StormRecord.h"

#include "tests/support/TestSupport.h"

#include <sstream>

namespace soak {

std::wstring SignatureUrl(int signature) { return L"https://corvin.soak/s" + std::to_wstring(signature); }
std::wstring SignatureService(int signature) { return L"svc-" + std::to_wstring(signature); }
std::wstring SignatureRole(int signature) { return L"role-" + std::to_wstring(signature); }

std::wstring LeaseDn(int signature, unsigned long round, unsigned long holder, unsigned long sequence) {
    return L"cn=s" + std::to_wstring(signature) + L".r" + std::to_wstring(round) + L".h" + std::to_wstring(holder) +
           L".n" + std::to_wstring(sequence);
}

int SignatureOf(const std::string& leaseDn) {
    if (leaseDn.size() < 5 || leaseDn.compare(0, 4, "cn=s") != 0 || leaseDn[4] < '0' || leaseDn[4] >= '0' + kSignatures)
        return -1;
    return leaseDn[4] - '0';
}

Journal Journal::Read(const std::wstring& path) {
    const std::vector<std::uint8_t> bytes = testsupport::ReadFileBytes(path);
    // A line per row checked in, several rows to a call: "Row <lease DN>|...".
    const std::string text(bytes.begin(), bytes.end()), row = "Row ";
    Journal journal;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        if ((end = text.find('\n', start)) == std::string::npos) end = text.size();
        if (text.compare(start, row.size(), row) != 0) continue;
        const size_t from = start + row.size(), bar = std::min(text.find('|', from), end);
        journal.checkIns.push_back({start, text.substr(from, bar - from)});
        ++journal.counts[journal.checkIns.back().leaseDn];
    }
    return journal;
}

bool Journal::HasSignatureFrom(int signature, size_t offset) const {
    for (const CheckIn& checkIn : checkIns)
        if (checkIn.offset >= offset && SignatureOf(checkIn.leaseDn) == signature) return true;
    return false;
}

void Ledger::Add(const std::wstring& file) {
    const std::vector<std::uint8_t> bytes = testsupport::ReadFileBytes(file);
    std::istringstream lines(std::string(bytes.begin(), bytes.end()));
    for (std::string word, value; lines >> word;) {
        if (word == "register" && lines >> value) {
            ++registrations;
            accepted.insert(value);
        } else if (word == "takeover" && lines >> value) {
            ++takeOvers;
            accepted.insert(value);
        } else if (word == "register?") {
            int signature = -1;
            size_t offset = 0;
            lines >> signature >> offset;
            ++registrations;
            unidentified.emplace_back(signature, offset);
        } else if (word == "release") {
            ++releases;
        } else if (word == "unreached") {
            ++unreached;
        }
    }
}

}  // namespace soak
