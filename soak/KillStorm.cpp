#include "soak/KillStorm.h"

#include "sharedid/SharedIdFile.h"
#include "soak/SoakService.h"
#include "soak/StormRecord.h"
#include "testing/agent/StandInControl.h"
#include "tools/RecordDecoder.h"

#include <cstdio>
#include <random>

using testsupport::ChildProcess;

namespace soak {
namespace {

constexpr DWORD kCheckInDelayMs = 400;
constexpr DWORD kReachMs = 30000;
const std::wstring kLedgerFolder = std::wstring(kInstallFolder) + L"ledger\\";

size_t JournalSize() {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!::GetFileAttributesExW(standin::JournalPath().c_str(), GetFileExInfoStandard, &data)) return 0;
    return (static_cast<size_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

// Whether a check-in line was journaled after `offset`: the agent journals other calls too.
bool CheckInJournaledSince(size_t offset) {
    const std::vector<std::uint8_t> bytes = testsupport::ReadFileBytes(standin::JournalPath());
    if (bytes.size() <= offset) return false;
    const std::string text(bytes.begin() + static_cast<std::ptrdiff_t>(offset), bytes.end());
    return text.starts_with("CheckIn ") || text.find("\nCheckIn ") != std::string::npos;
}

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// One holder's life: a few random registrations, take-overs, releases and pauses against
// whichever instance of Tarrow runs, each answer written down before the next step.
class Holder {
public:
    Holder(unsigned seed, unsigned long round, unsigned long index, const std::wstring& ledger)
        : m_rng(seed * 2654435761u + static_cast<unsigned>(round) * 40503u + static_cast<unsigned>(index)),
          m_round(round),
          m_index(index),
          m_ledger(::CreateFileW(ledger.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0, nullptr)) {
    }

    void Run() {
        if (!Reach()) return;
        for (int steps = 1 + static_cast<int>(m_rng() % 8); steps > 0; --steps) {
            const unsigned what = m_rng() % 10;
            const int signature = static_cast<int>(m_rng() % kSignatures);
            HRESULT hr = what < 4 ? Register(signature) : what < 6 ? TakeOver(signature) : what < 8 ? Release() : S_OK;
            if (what >= 8) ::Sleep(m_rng() % 300);
            if (FAILED(hr) && !Reach()) return;
        }
        ::Sleep(m_rng() % 500);
    }

private:
    bool Reach() {
        if (SUCCEEDED(ConnectAndProbe(m_tarrow, kReachMs))) return true;
        Write("unreached");
        return false;
    }

    HRESULT Register(int signature) {
        const std::wstring dn = LeaseDn(signature, m_round, m_index, m_sequence++);
        NS_Utils::UniqueBstr url(SignatureUrl(signature)), srv(std::wstring(L"srv-soak")),
            svc(SignatureService(signature)), account(L"acct-" + std::to_wstring(signature)),
            role(SignatureRole(signature)), lease(dn), expiry(std::wstring(L"20301231T120000Z"));
        const size_t journalBefore = JournalSize();
        DWORD result = 99;
        HRESULT hr = m_tarrow->RegisterSharedId(::GetCurrentProcessId(), url.get(), srv.get(), nullptr, svc.get(),
                                                account.get(), nullptr, role.get(), nullptr, lease.get(), expiry.get(),
                                                nullptr, VARIANT_TRUE, nullptr, &result);
        if (FAILED(hr) || result != 0) return hr;
        m_held.push_back(signature);
        // The credential may be an earlier holder's: the service says which.
        std::string found;
        if (Query(signature, VARIANT_FALSE, found) == S_OK)
            Write("register " + found);
        else
            Write("register? " + std::to_string(signature) + " " + std::to_string(journalBefore));
        return S_OK;
    }

    HRESULT TakeOver(int signature) {
        std::string found;
        HRESULT hr = Query(signature, VARIANT_TRUE, found);
        if (hr == S_OK) {
            m_held.push_back(signature);
            Write("takeover " + found);
        }
        return hr;
    }

    HRESULT Release() {
        if (m_held.empty()) return S_OK;
        const size_t which = m_rng() % m_held.size();
        const int signature = m_held[which];
        NS_Utils::UniqueBstr url(SignatureUrl(signature)), svc(SignatureService(signature)),
            role(SignatureRole(signature));
        DWORD result = 99;
        HRESULT hr = m_tarrow->ReleaseSharedId(::GetCurrentProcessId(), url.get(), svc.get(), role.get(), &result);
        if (SUCCEEDED(hr) && result == 0) {
            m_held.erase(m_held.begin() + static_cast<std::ptrdiff_t>(which));
            Write("release");
        }
        return hr;
    }

    // S_OK with the credential's lease DN, S_FALSE, or the call's failure.
    HRESULT Query(int signature, VARIANT_BOOL ownOnly, std::string& leaseDn) {
        NS_Utils::UniqueBstr url(SignatureUrl(signature)), svc(SignatureService(signature)),
            role(SignatureRole(signature)), record;
        HRESULT hr = m_tarrow->GetRegisteredSharedId(::GetCurrentProcessId(), url.get(), svc.get(), role.get(), ownOnly,
                                                     record.put());
        if (hr != S_OK) return hr;
        tarrowctl::DecodedRecord fields;
        if (!tarrowctl::DecodeRecord(reinterpret_cast<const std::uint8_t*>(record.get()), record.ByteLength(), fields))
            return E_UNEXPECTED;
        for (const auto& [name, value] : fields)
            if (name == L"leaseDN") leaseDn = Narrow(value);
        return S_OK;
    }

    void Write(const std::string& line) {
        const std::string text = line + "\n";
        DWORD written = 0;
        ::WriteFile(m_ledger.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    }

    std::mt19937 m_rng;
    unsigned long m_round, m_index, m_sequence = 0;
    NS_Utils::UniqueHandle m_ledger;
    NS_Utils::ComPtr<ITarrow> m_tarrow;
    std::vector<int> m_held;
};

bool AllEnded(std::vector<ChildProcess>& processes, DWORD timeoutMs) {
    return testsupport::WaitUntil(
        [&] {
            for (const ChildProcess& p : processes)
                if (p.Wait(0) == WAIT_TIMEOUT) return false;
            return true;
        },
        timeoutMs);
}

// What the storm saw besides the records: kills, processes, and what the last instance left.
struct StormFacts {
    unsigned long holders = 0, holderFailures = 0, serviceEnded = 0, killsMidCheckIn = 0, caughtMidCheckIn = 0,
                  unreadableAtKill = 0, stalls = 0;
    std::set<std::string> onDiskAtKill;
    size_t filesLeft = 0;
    long leaseCount = -1;
    DWORD lastStop = 0;
};

enum class KillMoment { Any, MidCheckIn, HoldersGone };

// Ends the service at the round's moment: any time; right after a check-in reached the agent, within
// the agent's pause, before the service forgets the credential; or once the holders are gone.
void Kill(Service& service, KillMoment moment, std::mt19937& rng, std::vector<ChildProcess>& holders,
          size_t journalBefore, StormFacts& facts) {
    if (moment == KillMoment::Any) {
        ::Sleep(rng() % 2000);
    } else if (moment == KillMoment::HoldersGone) {
        AllEnded(holders, 10000);
        ::Sleep(rng() % 60);
    } else if (testsupport::WaitUntil([&] { return CheckInJournaledSince(journalBefore); }, 4000)) {
        ::Sleep(rng() % (kCheckInDelayMs / 2));
        ++facts.killsMidCheckIn;
    }
    if (!service.Running()) {
        ++facts.serviceEnded;
        std::printf("    Tarrow ended by itself with 0x%08lx\n", static_cast<unsigned long>(service.ExitCode()));
    }
    service.Kill();
    standin::SetScript(L"CheckInDelayMs", DWORD{0});
}

// The credentials the dead instance left on disk: each must be checked in by a later one.
void NoteFilesLeft(StormFacts& facts) {
    const Journal journal = Journal::Read(standin::JournalPath());
    for (const std::wstring& name : CredentialFiles()) {
        CSharedId record;
        if (NS_SHAREDID_UTILS::ParseSharedIdText(testsupport::ReadUtf16File(CredentialFolder() + name), record)) {
            // Already at the agent: the kill fell between the check-in and the file's deletion.
            facts.caughtMidCheckIn += journal.Has(Narrow(record.GetLeaseDN()));
            facts.onDiskAtKill.insert(Narrow(record.GetLeaseDN()));
        } else if (++facts.unreadableAtKill) {
            DescribeCredentialFiles("unreadable after a kill (of the files then)");
        }
    }
}

// A holder that did not end normally: Wine's marshaling or the soak itself, not the service, but
// worth a look.
void NoteHolderFailures(const std::vector<ChildProcess>& holders, unsigned long round, StormFacts& facts) {
    for (size_t i = 0; i < holders.size(); ++i)
        if (holders[i].Valid() && holders[i].ExitCode() != 0 && facts.holderFailures++ < 10)
            std::printf("    holder %zu of round %lu ended with 0x%08lx\n", i, round - 1,
                        static_cast<unsigned long>(holders[i].ExitCode()));
}

bool RunRounds(const Options& options, StormFacts& facts) {
    std::mt19937 rng(options.seed);
    Service service;
    std::vector<ChildProcess> holders;
    for (unsigned long round = 0; round <= options.rounds; ++round) {
        if (!StartAnswering(service))
            return std::fprintf(stderr, "kill storm: Tarrow did not start in round %lu\n", round), false;
        if (!AllEnded(holders, 120000))
            return std::fprintf(stderr, "kill storm: holders hang in round %lu\n", round), false;
        NoteHolderFailures(holders, round, facts);
        holders.clear();
        if (round == options.rounds) break;  // the last start only takes up what was left
        const auto moment = static_cast<KillMoment>(rng() % 3);
        // Only rounds that aim at a check-in pay for the agent's pause.
        if (moment == KillMoment::MidCheckIn) standin::SetScript(L"CheckInDelayMs", kCheckInDelayMs);
        const size_t journalBefore = JournalSize();
        for (unsigned long i = 0; i < options.holders; ++i) {
            holders.push_back(ChildProcess::Start(
                L"tarrow_soak.exe", L"holder " + std::to_wstring(options.seed) + L" " + std::to_wstring(round) + L" " +
                                        std::to_wstring(i) + L" \"" + kLedgerFolder + L"r" + std::to_wstring(round) +
                                        L"h" + std::to_wstring(i) + L".txt\""));
            facts.holders += holders.back().Valid();
        }
        Kill(service, moment, rng, holders, journalBefore, facts);
        NoteFilesLeft(facts);
    }
    // Every holder is gone: whatever is left must be checked in and its lease given back.
    const bool settled = testsupport::WaitUntil(
        [&] { return CredentialFiles().empty() && LastLeaseCount(LogText(), service.Pid()) <= 0; }, 120000);
    if (!settled) ++facts.stalls;
    facts.filesLeft = CredentialFiles().size();
    DescribeCredentialFiles("left at the end");
    facts.leaseCount = std::max(0L, LastLeaseCount(LogText(), service.Pid()));
    // A fault while the service ends (Wine prints "Unhandled page fault") shows only here.
    facts.lastStop = service.Stop();
    if (facts.lastStop != 0)
        std::printf("    Tarrow's last stop ended with 0x%08lx\n", static_cast<unsigned long>(facts.lastStop));
    return true;
}

}  // namespace

int RunHolder(const Options& options) {
    if (options.words.size() != 4) return 100;
    NS_Utils::ComApartment com;
    Holder(static_cast<unsigned>(std::wcstoul(options.words[0].c_str(), nullptr, 10)),
           std::wcstoul(options.words[1].c_str(), nullptr, 10), std::wcstoul(options.words[2].c_str(), nullptr, 10),
           options.words[3])
        .Run();
    return 0;
}

int RunKillStorm(const Options& options) {
    std::printf("kill storm: seed %u, %lu rounds of %lu holders\n", options.seed, options.rounds, options.holders);
    std::fflush(stdout);
    const ULONGLONG started = ::GetTickCount64();
    if (!PrepareService(3, 0)) return 2;
    ::CreateDirectoryW(kLedgerFolder.c_str(), nullptr);
    // A ledger of an earlier run in this prefix would name credentials the fresh journal never saw.
    for (const std::wstring& name : testsupport::ListFiles(kLedgerFolder, L"*.txt"))
        ::DeleteFileW((kLedgerFolder + name).c_str());
    NS_Utils::ComApartment com;
    StormFacts facts;
    const bool ran = RunRounds(options, facts);

    Ledger ledger;
    for (const std::wstring& name : testsupport::ListFiles(kLedgerFolder, L"*.txt")) ledger.Add(kLedgerFolder + name);
    const Journal journal = Journal::Read(standin::JournalPath());
    std::set<std::string> lost;
    for (const std::string& dn : ledger.accepted)
        if (!journal.Has(dn)) lost.insert(dn);
    for (const std::string& dn : facts.onDiskAtKill)
        if (!journal.Has(dn)) lost.insert(dn);
    for (const auto& [signature, offset] : ledger.unidentified)
        if (!journal.HasSignatureFrom(signature, offset))
            lost.insert("signature " + std::to_string(signature) + " registered at journal offset " +
                        std::to_string(offset));
    unsigned long duplicates = 0;
    for (const auto& [dn, count] : journal.counts) duplicates += static_cast<unsigned long>(count - 1);

    std::printf("kill storm: seed %u\n", options.seed);
    std::printf("  rounds                 %lu\n", options.rounds);
    std::printf("  holder processes       %lu (%lu never reached the service, %lu failed)\n", facts.holders,
                ledger.unreached, facts.holderFailures);
    std::printf("  Tarrow ended by itself %lu\n", facts.serviceEnded);
    std::printf("  registrations (0)      %lu (%zu without a known lease DN)\n", ledger.registrations,
                ledger.unidentified.size());
    std::printf("  take-overs             %lu\n", ledger.takeOvers);
    std::printf("  releases (0)           %lu\n", ledger.releases);
    std::printf("  accepted credentials   %zu\n", ledger.accepted.size());
    std::printf("  kills aimed at check-in %lu (caught one %lu times)\n", facts.killsMidCheckIn,
                facts.caughtMidCheckIn);
    std::printf("  left on disk at kills  %zu (unreadable %lu)\n", facts.onDiskAtKill.size(), facts.unreadableAtKill);
    std::printf("  check-ins              %zu (%zu credentials)\n", journal.checkIns.size(), journal.counts.size());
    std::printf("  duplicates             %lu\n", duplicates);
    std::printf("  files left             %zu\n", facts.filesLeft);
    std::printf("  lease count            %ld\n", facts.leaseCount);
    std::printf("  losses                 %zu\n", lost.size());
    for (const std::string& dn : lost) std::printf("    lost: %s\n", dn.c_str());
    std::printf("  time                   %.1f s\n", static_cast<double>(::GetTickCount64() - started) / 1000);
    const bool ok = ran && lost.empty() && facts.filesLeft == 0 && facts.leaseCount == 0 && facts.stalls == 0 &&
                    facts.serviceEnded == 0 && facts.lastStop == 0;
    std::printf("kill storm: %s\n", ok ? "passed" : "FAILED");
    return ok ? 0 : 1;
}

}  // namespace soak
