#include "soak/HostileCalls.h"

#include "soak/SoakService.h"
#include "tools/RecordDecoder.h"

#include <array>
#include <cstdio>
#include <random>
#include <sstream>

using testsupport::ChildProcess;

namespace soak {
namespace {

const std::wstring kResultFolder = std::wstring(kInstallFolder) + L"hostile\\";
constexpr size_t kHugeUnits = size_t{512} * 1024;  // 1 MB of text

// The sentinel: a signature that no random call can produce (random texts never hold '#').
const std::array<std::wstring, 12> kSentinel = {L"https://corvin/#sentinel",
                                                L"srv-#",
                                                L"aux1-#",
                                                L"svc-#",
                                                L"acct-#",
                                                L"aux2-#",
                                                L"role-#",
                                                L"aux4-#",
                                                L"cn=#sentinel",
                                                L"20301231T120000Z",
                                                L"aux3-#",
                                                L"aux6-#"};

bool OneOf(DWORD value, std::initializer_list<DWORD> documented) {
    for (DWORD d : documented)
        if (value == d) return true;
    return false;
}

struct ClientCounts {
    unsigned long registrations = 0, releases = 0, queries = 0, found = 0, accepted = 0, undocumented = 0, failed = 0;
    std::wstring firstProblem;
};

class HostileClient {
public:
    HostileClient(unsigned seed, DWORD tarrowPid, std::vector<DWORD> deadPids)
        : m_rng(seed), m_tarrowPid(tarrowPid), m_deadPids(std::move(deadPids)) {
        const wchar_t* pool[] = {L"a",
                                 L"b",
                                 L"https://corvin/a",
                                 L"svc",
                                 L"role",
                                 L"cn=x",
                                 L"20301231T120000Z",
                                 L"not a time",
                                 L"\x00e9\x4e2d\xd83d\xde00",
                                 L" ",
                                 L"a\nb",
                                 L"\n",
                                 L"line\nfeed\n"};
        for (const wchar_t* text : pool) m_texts.emplace_back(std::wstring(text));
        m_huge = NS_Utils::UniqueBstr(std::wstring(kHugeUnits, L'h'));
        m_empty = NS_Utils::UniqueBstr(std::wstring());
    }

    ClientCounts Run(NS_Utils::ComPtr<ITarrow>& tarrow, unsigned long calls) {
        ClientCounts counts;
        for (unsigned long i = 0; i < calls; ++i) {
            m_hugeSlot = m_rng() % 100 == 0 ? static_cast<int>(m_rng() % 12) : -1;
            const unsigned which = m_rng() % 10;
            if (which < 4)
                Register(tarrow.get(), counts);
            else if (which < 7)
                Release(tarrow.get(), counts);
            else
                Query(tarrow.get(), counts);
        }
        return counts;
    }

private:
    BSTR Text(int slot) {
        if (slot == m_hugeSlot) return m_huge.get();
        const unsigned kind = m_rng() % 10;
        if (kind == 0) return nullptr;
        if (kind == 1) return m_empty.get();
        return m_texts[m_rng() % m_texts.size()].get();
    }

    DWORD Pid() {
        switch (m_rng() % 7) {
        case 0: return 0;
        case 1: return m_tarrowPid;
        case 2: return m_deadPids.empty() ? 0 : m_deadPids[m_rng() % m_deadPids.size()];
        case 3: return 0x40000000u + (m_rng() & 0x3FFFFFFCu);
        default: return ::GetCurrentProcessId();
        }
    }

    void Register(ITarrow* tarrow, ClientCounts& counts) {
        ++counts.registrations;
        DWORD result = 0xDEAD;
        const DWORD pid = Pid();
        BSTR t[12];
        for (int i = 0; i < 12; ++i) t[i] = Text(i);
        HRESULT hr = tarrow->RegisterSharedId(pid, t[0], t[1], t[2], t[3], t[4], t[5], t[6], t[7], t[8], t[9], t[10],
                                              static_cast<VARIANT_BOOL>(m_rng()), t[11], &result);
        counts.accepted += SUCCEEDED(hr) && result == 0;
        Check(counts, hr, hr == S_OK && OneOf(result, {0, 1, 2, 4, 8}), L"RegisterSharedId", result);
    }

    void Release(ITarrow* tarrow, ClientCounts& counts) {
        ++counts.releases;
        DWORD result = 0xDEAD;
        HRESULT hr = tarrow->ReleaseSharedId(Pid(), Text(0), Text(3), Text(6), &result);
        Check(counts, hr, hr == S_OK && OneOf(result, {0, 2, 4, 5, 7, 8}), L"ReleaseSharedId", result);
    }

    void Query(ITarrow* tarrow, ClientCounts& counts) {
        ++counts.queries;
        NS_Utils::UniqueBstr record;
        const VARIANT_BOOL ownOnly = m_rng() % 2 ? VARIANT_FALSE : static_cast<VARIANT_BOOL>(m_rng() | 1);
        HRESULT hr = tarrow->GetRegisteredSharedId(Pid(), Text(0), Text(3), Text(6), ownOnly, record.put());
        tarrowctl::DecodedRecord fields;
        const bool decoded = record.get() &&
                             tarrowctl::DecodeRecord(reinterpret_cast<const std::uint8_t*>(record.get()),
                                                     record.ByteLength(), fields);
        counts.found += hr == S_OK;
        Check(counts, hr, (hr == S_OK && decoded) || (hr == S_FALSE && !record.get()), L"GetRegisteredSharedId", 0);
    }

    void Check(ClientCounts& counts, HRESULT hr, bool documented, const wchar_t* call, DWORD result) {
        if (documented) return;
        ++(FAILED(hr) ? counts.failed : counts.undocumented);
        if (counts.firstProblem.empty()) {
            wchar_t text[160];
            std::swprintf(text, 160, L"%ls answered hr 0x%08lx result %lu", call, static_cast<unsigned long>(hr),
                          static_cast<unsigned long>(result));
            counts.firstProblem = text;
        }
    }

    std::mt19937 m_rng;
    DWORD m_tarrowPid;
    std::vector<DWORD> m_deadPids;
    std::vector<NS_Utils::UniqueBstr> m_texts;
    NS_Utils::UniqueBstr m_huge, m_empty;
    int m_hugeSlot = -1;
};

std::vector<DWORD> DeadPids(size_t count) {
    std::vector<DWORD> pids;
    for (size_t i = 0; i < count; ++i) {
        ChildProcess child = ChildProcess::Start(L"tarrow_soak.exe", L"exit");
        child.Wait(30000);
        if (child.Valid()) pids.push_back(child.Id());
    }
    return pids;
}

std::wstring Join(const std::vector<DWORD>& pids) {
    std::wstring text = L"0";  // never an empty word
    for (DWORD pid : pids) text += L"," + std::to_wstring(pid);
    return text;
}

DWORD RegisterSentinel(ITarrow* tarrow, DWORD holder) {
    std::array<NS_Utils::UniqueBstr, 12> b;
    for (size_t i = 0; i < b.size(); ++i) b[i] = NS_Utils::UniqueBstr(kSentinel[i]);
    DWORD result = 0xDEAD;
    HRESULT hr = tarrow->RegisterSharedId(holder, b[0].get(), b[1].get(), b[2].get(), b[3].get(), b[4].get(),
                                          b[5].get(), b[6].get(), b[7].get(), b[8].get(), b[9].get(), b[10].get(),
                                          VARIANT_TRUE, b[11].get(), &result);
    return SUCCEEDED(hr) ? result : hr;
}

// The sentinel as the service returns it: every sent text as registered, its file still there.
bool SentinelIntact(ITarrow* tarrow) {
    NS_Utils::UniqueBstr url(kSentinel[0]), svc(kSentinel[3]), role(kSentinel[6]), record;
    if (tarrow->GetRegisteredSharedId(::GetCurrentProcessId(), url.get(), svc.get(), role.get(), VARIANT_FALSE,
                                      record.put()) != S_OK)
        return false;
    tarrowctl::DecodedRecord fields;
    if (!tarrowctl::DecodeRecord(reinterpret_cast<const std::uint8_t*>(record.get()), record.ByteLength(), fields))
        return false;
    const std::pair<const wchar_t*, size_t> expected[] = {
        {L"corvinAuthSvcUrl", 0}, {L"corvinAuthSrvId", 1}, {L"authSvcId", 3}, {L"sharedId", 4},   {L"auxText2", 5},
        {L"roleId", 6},           {L"auxText4", 7},        {L"leaseDN", 8},   {L"leaseExpiry", 9}};
    for (const auto& [name, slot] : expected)
        for (const auto& [field, value] : fields)
            if (field == name && value != kSentinel[slot]) return false;
    for (const auto& [field, value] : fields)
        if (field == L"fileName" && !testsupport::FileExists(value)) return false;
    return true;
}

ClientCounts ReadCounts(const std::wstring& path) {
    const std::wstring text = testsupport::ReadUtf16File(path);
    std::wistringstream in(text);
    ClientCounts c;
    in >> c.registrations >> c.releases >> c.queries >> c.found >> c.accepted >> c.undocumented >> c.failed;
    std::getline(in, c.firstProblem);
    if (!in && c.registrations + c.releases + c.queries == 0) c.failed = 1, c.firstProblem = L" no result file";
    return c;
}

void PrintResources(const char* when, DWORD handles, const MemoryFigures& memory) {
    std::printf("  %-7s handles %5lu, committed %8.1f MB, working set %8.1f MB\n", when,
                static_cast<unsigned long>(handles), static_cast<double>(memory.committed) / (1 << 20),
                static_cast<double>(memory.workingSet) / (1 << 20));
}

struct HostileFacts {
    DWORD sentinel = 0, handlesBefore = 0, handlesAfter = 0;
    MemoryFigures memoryBefore, memoryAfter;
    ClientCounts total;
    std::wstring problems;
    bool hung = false, up = false, settled = false, intact = false;
};

// Starts the clients, each with its share of the calls, and waits for them; false when one hangs.
bool RunClients(const Options& options, DWORD tarrowPid, const std::vector<DWORD>& dead) {
    std::vector<ChildProcess> clients;
    for (unsigned long i = 0; i < options.clients; ++i) {
        const unsigned long share = options.calls / options.clients + (i < options.calls % options.clients);
        clients.push_back(ChildProcess::Start(
            L"tarrow_soak.exe", L"hostile-client --seed " + std::to_wstring(options.seed) + L" " + std::to_wstring(i) +
                                    L" " + std::to_wstring(share) + L" " + std::to_wstring(tarrowPid) + L" \"" +
                                    kResultFolder + L"c" + std::to_wstring(i) + L".txt\" " + Join(dead)));
    }
    bool ended = true;
    for (ChildProcess& client : clients) ended &= client.Wait(3600000) == WAIT_OBJECT_0;
    return ended;
}

ClientCounts CollectCounts(unsigned long clients, std::wstring& problems) {
    ClientCounts total;
    for (unsigned long i = 0; i < clients; ++i) {
        const ClientCounts c = ReadCounts(kResultFolder + L"c" + std::to_wstring(i) + L".txt");
        total.registrations += c.registrations, total.releases += c.releases, total.queries += c.queries;
        total.found += c.found, total.accepted += c.accepted, total.undocumented += c.undocumented,
            total.failed += c.failed;
        if (c.firstProblem.size() > 1) problems += L"    client " + std::to_wstring(i) + L":" + c.firstProblem + L"\n";
    }
    return total;
}

int Report(const Options& options, const HostileFacts& f, ULONGLONG started) {
    const unsigned long calls = f.total.registrations + f.total.releases + f.total.queries;
    // A few handles and megabytes of slack: thread-pool threads and the heap do not shrink to the byte.
    const bool handlesBack = f.handlesAfter <= f.handlesBefore + 8;
    const bool memoryBack = f.memoryAfter.committed <= f.memoryBefore.committed + (16u << 20);
    std::printf("hostile calls: seed %u\n", options.seed);
    std::printf("  calls                  %lu (register %lu, release %lu, query %lu)\n", calls, f.total.registrations,
                f.total.releases, f.total.queries);
    std::printf("  registrations (0)      %lu, queries found %lu\n", f.total.accepted, f.total.found);
    std::printf("  undocumented answers   %lu\n", f.total.undocumented);
    std::printf("  failed calls           %lu\n", f.total.failed);
    if (!f.problems.empty()) std::printf("%ls", f.problems.c_str());
    std::printf("  Tarrow up              %s\n", f.up ? "yes" : "NO");
    std::printf("  credentials settled    %s\n", f.settled ? "yes" : "NO");
    PrintResources("before", f.handlesBefore, f.memoryBefore);
    PrintResources("after", f.handlesAfter, f.memoryAfter);
    std::printf("  sentinel registered    %lu, intact %s\n", static_cast<unsigned long>(f.sentinel),
                f.intact ? "yes" : "NO");
    std::printf("  time                   %.1f s\n", static_cast<double>(::GetTickCount64() - started) / 1000);
    const bool ok = !f.hung && calls == options.calls && f.total.undocumented == 0 && f.total.failed == 0 && f.up &&
                    f.settled && handlesBack && memoryBack && f.sentinel == 0 && f.intact;
    std::printf("hostile calls: %s\n", ok ? "passed" : "FAILED");
    return ok ? 0 : 1;
}

}  // namespace

int RunHostileClient(const Options& options) {
    if (options.words.size() != 5) return 100;
    const unsigned long index = std::wcstoul(options.words[0].c_str(), nullptr, 10);
    std::vector<DWORD> dead;
    std::wistringstream list(options.words[4]);
    for (std::wstring pid; std::getline(list, pid, L',');) dead.push_back(std::wcstoul(pid.c_str(), nullptr, 10));
    NS_Utils::ComApartment com;
    NS_Utils::ComPtr<ITarrow> tarrow;
    if (FAILED(ConnectAndProbe(tarrow, 30000))) return 101;
    HostileClient client(options.seed * 2654435761u + static_cast<unsigned>(index),
                         std::wcstoul(options.words[2].c_str(), nullptr, 10), dead);
    const ClientCounts c = client.Run(tarrow, std::wcstoul(options.words[1].c_str(), nullptr, 10));
    const std::wstring text = std::to_wstring(c.registrations) + L" " + std::to_wstring(c.releases) + L" " +
                              std::to_wstring(c.queries) + L" " + std::to_wstring(c.found) + L" " +
                              std::to_wstring(c.accepted) + L" " + std::to_wstring(c.undocumented) + L" " +
                              std::to_wstring(c.failed) + L" " + c.firstProblem;
    testsupport::WriteFileBytes(options.words[3], text.data(), text.size() * sizeof(wchar_t));
    return 0;
}

int RunHostileCalls(const Options& options) {
    std::printf("hostile calls: seed %u, %lu calls from %lu clients\n", options.seed, options.calls, options.clients);
    std::fflush(stdout);
    const ULONGLONG started = ::GetTickCount64();
    if (!PrepareService(1, 0)) return 2;
    ::CreateDirectoryW(kResultFolder.c_str(), nullptr);
    NS_Utils::ComApartment com;
    Service service;
    NS_Utils::ComPtr<ITarrow> tarrow;
    if (!StartAnswering(service) || FAILED(ConnectAndProbe(tarrow, 30000)))
        return std::fprintf(stderr, "Tarrow did not start\n"), 2;
    ChildProcess sentinelHolder = ChildProcess::Start(L"tarrow_soak.exe", L"idle");
    HostileFacts facts;
    facts.sentinel = RegisterSentinel(tarrow.get(), sentinelHolder.Id());
    // The sentinel's file, and any an earlier part left: the clients' files must go, these stay.
    const std::vector<std::wstring> filesBefore = CredentialFiles();
    const std::vector<DWORD> dead = DeadPids(8);
    ::Sleep(2000);
    facts.handlesBefore = HandleCount(service.Pid());
    facts.memoryBefore = Memory(service.Handle());

    facts.hung = !RunClients(options, service.Pid(), dead);
    facts.total = CollectCounts(options.clients, facts.problems);
    facts.up = service.Running();
    // The clients' credentials are checked in once they are gone; then the service should be back.
    facts.settled = facts.up && testsupport::WaitUntil([&] { return CredentialFiles() == filesBefore; }, 120000);
    if (!facts.settled) DescribeCredentialFiles("left");
    ::Sleep(3000);
    if (facts.up) {
        facts.handlesAfter = HandleCount(service.Pid());
        facts.memoryAfter = Memory(service.Handle());
        facts.intact = SentinelIntact(tarrow.get());
    }
    tarrow = {};
    sentinelHolder.Kill();
    service.Stop();
    return Report(options, facts, started);
}

}  // namespace soak
