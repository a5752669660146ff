#include "soak/ParserRun.h"

#include "common/Registry.h"
#include "common/Settings.h"
#include "sharedid/PersistantStorage.h"
#include "sharedid/SharedIdFile.h"
#include "soak/GuardedHeap.h"
#include "testing/mutator/CredentialMutator.h"
#include "tests/support/TestSupport.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <random>
#include <set>

namespace soak {
namespace {

constexpr const wchar_t* kRoot = L"C:\\TarrowSoakParser\\";
constexpr DWORD kHangMs = 120000;

std::atomic<unsigned long long> g_case{0};
unsigned g_seed = 0;

std::vector<std::wstring> StoredLines(const CSharedId& r) {
    return {r.GetCorvinAuthSvcUrl(), r.GetCorvinAuthSrvId(), r.GetAuthSvcId(), r.GetSharedId(),   r.GetRoleId(),
            r.GetAuxText4(),         r.GetLeaseDN(),         r.GetAuxText1(),  r.GetLeaseExpiry()};
}

LONG WINAPI ReportCrash(EXCEPTION_POINTERS* info) {
    const EXCEPTION_RECORD& e = *info->ExceptionRecord;
    const void* address = e.NumberParameters >= 2 ? reinterpret_cast<const void*>(e.ExceptionInformation[1]) : nullptr;
    std::fprintf(stderr, "parser run: CRASH, exception 0x%08lx at %p (data %p%s), seed %u, file %llu\n",
                 static_cast<unsigned long>(e.ExceptionCode), e.ExceptionAddress, address,
                 address && guarded::IsGuardPage(address) ? ", a guard page: read past a buffer" : "", g_seed,
                 g_case.load());
    std::fflush(stderr);
    ::ExitProcess(3);
}

// Ends the run when no file has been finished for a long time.
DWORD WINAPI Watchdog(void*) {
    for (unsigned long long seen = ~0ull;; ::Sleep(kHangMs)) {
        const unsigned long long now = g_case.load();
        if (now == seen) {
            std::fprintf(stderr, "parser run: HANG at file %llu, seed %u\n", now, g_seed);
            std::fflush(stderr);
            ::ExitProcess(4);
        }
        seen = now;
    }
}

// Rewrites a batch slot's file in place: under Wine, creating, truncating or deleting a file costs
// several times as much as writing over one, and the run is made of little else.
bool Rewrite(const std::wstring& path, const std::wstring& text) {
    NS_Utils::UniqueHandle file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr));
    const DWORD bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    DWORD written = 0;
    return file && ::WriteFile(file.get(), text.data(), bytes, &written, nullptr) && written == bytes &&
           ::SetEndOfFile(file.get());
}

void DeleteAll(const std::wstring& folder) {
    for (const std::wstring& name : testsupport::ListFiles(folder, L"*.dat")) ::DeleteFileW((folder + name).c_str());
}

struct ParserFigures {
    unsigned long long files = 0, read = 0, refused = 0, enumerated = 0, leftOnDisk = 0, emptyRemoved = 0, wrong = 0;
};

void Wrong(ParserFigures& figures, unsigned long long file, const char* what) {
    if (figures.wrong++ < 10) std::printf("    wrong: file %llu (seed %u): %s\n", file, g_seed, what);
}

// One batch: each file through the reader, then all of them through the start-up enumeration. The
// batch's files are slots written over by the next batch.
void RunBatch(PersistantStorage& storage, std::mt19937& rng, const std::wstring& valid, unsigned long long first,
              unsigned long count, ParserFigures& figures) {
    std::map<std::wstring, std::pair<unsigned long long, std::vector<std::wstring>>> batch;  // path -> file, lines
    std::set<std::wstring> empty;  // start-up removes these: a crash left them before any write
    for (unsigned long long file = first; file < first + count; ++file) {
        g_case = file;
        const std::wstring text = mutator::Mutate(valid, rng);
        const std::wstring path = storage.Folder() + L"f" + std::to_wstring(file - first) + L".dat";
        std::vector<std::wstring> expected = mutator::ExpectedLines(text);
        if (!Rewrite(path, text)) Wrong(figures, file, "not written");
        if (text.empty()) empty.insert(path);
        CSharedId fromText, fromFile;
        std::list<DWORD> errors;
        const bool parsed = NS_SHAREDID_UTILS::ParseSharedIdText(text, fromText);
        const bool read = NS_SHAREDID_UTILS::readSharedIdFromFile(fromFile, path, errors);
        if (parsed != !expected.empty() || read != parsed)
            Wrong(figures, file, "read or refused against the rule");
        else if (read && (StoredLines(fromFile) != expected || StoredLines(fromText) != expected))
            Wrong(figures, file, "lines differ from the rule");
        ++(read ? figures.read : figures.refused);
        batch.emplace(path, std::make_pair(file, std::move(expected)));
    }
    std::list<CSharedId> found;
    if (storage.EnumCreds(found) != PersistantStorage::kOk) Wrong(figures, first, "the enumeration failed");
    for (const CSharedId& record : found) {
        auto it = batch.find(record.GetFileName());
        if (it == batch.end()) {
            Wrong(figures, first, "enumerated a file it was not given");
            continue;
        }
        if (it->second.second.empty() || StoredLines(record) != it->second.second)
            Wrong(figures, it->second.first, "enumerated against the rule");
        ++figures.enumerated;
        it->second.second.clear();
        it->second.first = ~0ull;  // taken up
    }
    found.clear();  // lets go of the files' claims
    for (const auto& [path, entry] : batch) {
        if (entry.first != ~0ull) {
            if (!entry.second.empty()) Wrong(figures, entry.first, "readable but not enumerated");
            const bool removed = !testsupport::FileExists(path);
            if (empty.count(path) != 0) {
                if (!removed) Wrong(figures, entry.first, "empty and not removed");
                ++figures.emptyRemoved;
                continue;
            }
            if (removed) Wrong(figures, entry.first, "refused and not left on disk");
            ++figures.leftOnDisk;
        }
    }
    figures.files += count;
}

}  // namespace

int RunParser(const Options& options) {
    g_seed = options.seed;
    std::printf("parser run: seed %u, %lu files in batches of %lu\n", options.seed, options.files, options.batch);
    std::fflush(stdout);
    const ULONGLONG started = ::GetTickCount64();
    // A folder of its own for the storage and for the log of the files it skips.
    ::CreateDirectoryW(kRoot, nullptr);
    ::SetEnvironmentVariableW(L"APPDATA", kRoot);
    NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_Settings::kProgramDir.key, NS_Settings::kProgramDir.valueName,
                                  kRoot);
    PersistantStorage storage;
    DeleteAll(storage.Folder());
    ::SetUnhandledExceptionFilter(ReportCrash);
    ::AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* info) -> LONG {
        // Seen first, before any handler on the way could swallow a read past a buffer.
        const EXCEPTION_RECORD& e = *info->ExceptionRecord;
        const bool guard = e.ExceptionCode == EXCEPTION_ACCESS_VIOLATION && e.NumberParameters >= 2 &&
                           guarded::IsGuardPage(reinterpret_cast<const void*>(e.ExceptionInformation[1]));
        return guard ? ReportCrash(info) : EXCEPTION_CONTINUE_SEARCH;
    });
    NS_Utils::UniqueHandle watchdog(::CreateThread(nullptr, 0, Watchdog, nullptr, 0, nullptr));

    const std::wstring valid = NS_SHAREDID_UTILS::FormatSharedIdText(
        CSharedId(L"https://corvin/auth", L"srv-1", L"aux-1", L"svc", L"acct", L"mem-2", L"role", L"aux-4", L"cn=role",
                  L"20301231T120000Z", true, L"mem-3", L"mem-6"));
    guarded::Enable();
    std::mt19937 rng(options.seed);
    ParserFigures figures;
    for (unsigned long long first = 0; first < options.files; first += options.batch) {
        const auto count = static_cast<unsigned long>(
            std::min<unsigned long long>(options.batch, options.files - first));
        if (count < options.batch) DeleteAll(storage.Folder());  // a short last batch leaves no stale slots
        RunBatch(storage, rng, valid, first, count, figures);
    }

    DeleteAll(storage.Folder());
    const double seconds = static_cast<double>(::GetTickCount64() - started) / 1000;
    std::printf("parser run: seed %u\n", options.seed);
    std::printf("  files                  %llu\n", figures.files);
    std::printf("  read                   %llu\n", figures.read);
    std::printf("  refused                %llu\n", figures.refused);
    std::printf("  taken up at start-up   %llu\n", figures.enumerated);
    std::printf("  left on disk           %llu\n", figures.leftOnDisk);
    std::printf("  empty, removed         %llu\n", figures.emptyRemoved);
    std::printf("  against the rule       %llu\n", figures.wrong);
    std::printf("  crashes, hangs         0, 0\n");
    std::printf("  guarded allocations    %zu\n", guarded::GuardedAllocations());
    std::printf("  time                   %.1f s (%.0f files/s)\n", seconds,
                static_cast<double>(figures.files) / seconds);
    const bool ok = figures.wrong == 0 && figures.files == options.files;
    std::printf("parser run: %s\n", ok ? "passed" : "FAILED");
    return ok ? 0 : 1;
}

}  // namespace soak
