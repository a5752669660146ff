#include "soak/CrashSweep.h"

#include "common/Registry.h"
#include "common/Settings.h"
#include "sharedid/HolderList.h"
#include "sharedid/SharedIdFile.h"
#include "soak/SoakService.h"
#include "soak/StormRecord.h"
#include "soak/Strace.h"
#include "testing/agent/StandInControl.h"
#include "tools/StatusReader.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <tuple>

using testsupport::ChildProcess;

namespace soak {
namespace {

// The service's own file calls under Wine: data writes and flushes are its own; opening,
// renaming and deleting are requests it writes to the Wine server (write, or writev with a path).
const std::string kFileSyscalls = "pwrite64,write,writev,fsync,fdatasync";
const std::wstring kTraceFile = std::wstring(kInstallFolder) + L"sweep.trace";
const std::wstring kStepTraceFile = std::wstring(kInstallFolder) + L"step.trace";
constexpr int kAimAttempts = 6;
constexpr DWORD kSettleMs = 60000;
constexpr DWORD kStatePollMs = 500;

// The service killed at the n-th call of `syscall` in the thread that was the `thread`-th oldest
// when strace attached (in any thread that far for -1: one started after the attach). The call is
// the `anchor`-th file call of `anchorCall` in that thread, or with `after` the first call of
// `syscall` after it; `anchorsAt` holds, for the recording, the count of `syscall` at each file
// call of `anchorCall` up to that one, to aim again when a run's counts drifted.
struct Step {
    std::string syscall;
    unsigned n = 0;  // 0: the recording run, nothing killed
    int thread = -1;
    std::string what;
    std::string anchorCall;
    unsigned anchor = 0;
    bool after = false;
    std::vector<unsigned> anchorsAt;
};

// What one run found wrong, with the workload's step where it was seen.
struct RunResult {
    std::vector<std::string> violations;
    unsigned restarts = 0;
    bool killed = false;               // the step was reached: some instance of the service was ended at it
    std::vector<Strace::Call> traced;  // the killed thread's file calls up to the kill
    double seconds = 0;
};

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// The workload against whichever instance of the service runs: every call and every wait starts
// the service again when it has gone (the start takes up what the dead instance left).
class Workload {
public:
    Workload(Service& service, unsigned run, RunResult& result) : m_service(service), m_run(run), m_result(result) {}

    void Run() {
        ChildProcess h1 = Holder(), h2 = Holder(), h3 = Holder();
        const std::wstring a = Dn(L"a"), b = Dn(L"b"), c = Dn(L"c"), d = Dn(L"d"), e = Dn(L"e");
        // A credential, a second holder of it, the first lets go, the second exits: checked in.
        Register(h1, 0, a, "register");
        Register(h2, 0, a, "second holder");
        Release(h1, 0, "release");
        End(h2, "holder exits");
        WaitCheckedIn({a}, "checked in after its last holder");
        // The same credential registered again is a new lease; and a credential of another
        // signature.
        ChildProcess h4 = Holder(), h5 = Holder();
        Register(h3, 0, b, "registered again");
        Register(h5, 1, e, "register another");
        // The agent goes away: its server is gone mid-call, and its objects cannot be made anew.
        // The check-in keeps the file for the agent's return.
        standin::SetScript(L"CheckInHResults", std::wstring(L"0x80010108"));
        standin::Unregister();
        End(h3, "holder exits, agent unreachable");
        WaitForState(b, L"on disk", 20000);
        // Meanwhile files that another instance left: one without holders, one whose holder still
        // runs (beside the registered one, two leases of one signature).
        Forge(L"sweepleft.dat", 1, c, nullptr);
        Forge(L"sweeplive.dat", 1, d, &h4);
        standin::SetScript(L"CheckInHResults", std::wstring(L"0"));
        standin::Register();
        WaitCheckedIn({b, c}, "the agent is back");
        End(h4, "forged file's holder exits");
        WaitCheckedIn({d}, "checked in after the forged file's holder");
        End(h5, "last holder exits");
        WaitCheckedIn({e}, "checked in after the last holder");
        h1.Kill();
        Finish();
    }

private:
    std::wstring Dn(const wchar_t* name) const { return L"cn=sweep.r" + std::to_wstring(m_run) + L"." + name; }

    ChildProcess Holder() {
        ChildProcess holder = ChildProcess::Start(L"tarrow_soak.exe", L"idle");
        if (!holder.Valid()) Violation("setup", "a holder process could not be started");
        return holder;
    }

    void Violation(const std::string& step, const std::string& what) {
        m_result.violations.push_back(step + ": " + what);
    }

    // The service answers; started again when it has gone.
    bool Reach() {
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (!m_service.Running()) {
                ++m_result.restarts;
                m_tarrow = {};
                if (!StartAnswering(m_service)) continue;
            }
            if (!m_tarrow && FAILED(ConnectAndProbe(m_tarrow, 30000))) continue;
            return true;
        }
        return false;
    }

    // A call, made again after the service had to be started again.
    template <class Call>
    bool Answered(Call call, DWORD& result, const std::string& step) {
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (!Reach()) break;
            result = 99;
            if (SUCCEEDED(call(result))) return true;
            m_tarrow = {};
        }
        Violation(step, "the service did not answer");
        return false;
    }

    static NS_Utils::UniqueBstr Bstr(const std::wstring& text) { return NS_Utils::UniqueBstr(text); }

    // The service's status: its lease count, and its credentials' lease DNs and holders.
    // Asked again of the next instance when the step's kill falls in the call itself.
    bool Status(tarrowctl::StatusText& text) {
        for (int attempt = 0; attempt < 2; ++attempt) {
            NS_Utils::ComPtr<ITarrowStatus> status;
            NS_Utils::UniqueVariant snapshot;
            if (Reach() && SUCCEEDED(m_tarrow->QueryInterface(IID_ITarrowStatus, status.put_void())) &&
                SUCCEEDED(status->GetStatus(snapshot.get())) && tarrowctl::ReadStatus(*snapshot.get(), text))
                return true;
            m_tarrow = {};
        }
        return false;
    }

    long LeaseCount() {
        tarrowctl::StatusText text;
        if (!Status(text)) return -1;
        for (const auto& [name, value] : text.service)
            if (name == L"lease count") return std::wcstol(value.c_str(), nullptr, 10);
        return -1;
    }

    // The state the status shows for the lease `dn`; empty when it lists none.
    std::wstring StateOf(const std::wstring& dn) {
        tarrowctl::StatusText text;
        return Status(text) ? tarrowctl::CredentialField(text, dn, L"state") : std::wstring();
    }

    void Register(const ChildProcess& holder, int signature, const std::wstring& dn, const std::string& step) {
        CheckNoEarlyCheckIn(step);
        DWORD result = 99;
        const DWORD pid = holder.Id();
        const bool answered = Answered(
            [&](DWORD& out) {
                auto url = Bstr(SignatureUrl(signature)), srv = Bstr(L"srv-sweep"),
                     svc = Bstr(SignatureService(signature)), account = Bstr(L"acct-sweep"),
                     role = Bstr(SignatureRole(signature)), lease = Bstr(dn), expiry = Bstr(L"20301231T120000Z");
                return m_tarrow->RegisterSharedId(pid, url.get(), srv.get(), nullptr, svc.get(), account.get(), nullptr,
                                                  role.get(), nullptr, lease.get(), expiry.get(), nullptr, VARIANT_TRUE,
                                                  nullptr, &out);
            },
            result, step);
        if (!answered) return;
        if (result != 0) return Violation(step, "registration answered " + std::to_string(result));
        m_registered.insert(Narrow(dn));
        m_holding[Narrow(dn)].insert(pid);
    }

    void Release(const ChildProcess& holder, int signature, const std::string& step) {
        CheckNoEarlyCheckIn(step);
        DWORD result = 99;
        const DWORD pid = holder.Id();
        if (!Answered(
                [&](DWORD& out) {
                    auto url = Bstr(SignatureUrl(signature)), svc = Bstr(SignatureService(signature)),
                         role = Bstr(SignatureRole(signature));
                    return m_tarrow->ReleaseSharedId(pid, url.get(), svc.get(), role.get(), &out);
                },
                result, step))
            return;
        // 7: the instance that let it go ended before answering, and the next one holds it no more.
        if (result != 0 && result != 7) return Violation(step, "release answered " + std::to_string(result));
        for (auto& [dn, pids] : m_holding) pids.erase(pid);
    }

    // The holder must still run (nothing ends a holder here), and nothing of it was checked in.
    void End(ChildProcess& holder, const std::string& step) {
        CheckNoEarlyCheckIn(step);
        if (holder.Wait(0) != WAIT_TIMEOUT)
            Violation(step, "holder " + std::to_string(holder.Id()) + " was ended by someone else, exit code " +
                                std::to_string(holder.ExitCode()));
        for (auto& [dn, pids] : m_holding) pids.erase(holder.Id());
        holder.Kill();
    }

    // A credential file and holder list as a dead instance leaves them, moved into place whole.
    void Forge(const std::wstring& name, int signature, const std::wstring& dn, const ChildProcess* holder) {
        CSharedId record(SignatureUrl(signature), L"srv-sweep", L"", SignatureService(signature), L"acct-sweep", L"",
                         SignatureRole(signature), L"", dn, L"20301231T120000Z", true, L"", L"");
        const std::wstring path = CredentialFolder() + name, pending = std::wstring(kInstallFolder) + name;
        if (holder) {
            const HolderProcess listed{holder->Id(), NS_SHAREDID_UTILS::ProcessCreationTime(holder->Handle())};
            if (!NS_SHAREDID_UTILS::WriteHolderList(path, {listed}))
                return Violation("setup", "a holder list could not be forged");
            m_holding[Narrow(dn)].insert(holder->Id());
        }
        const std::wstring text = NS_SHAREDID_UTILS::FormatSharedIdText(record);
        if (!testsupport::WriteFileBytes(pending, text.data(), text.size() * sizeof(wchar_t)) ||
            !::MoveFileExW(pending.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING))
            return Violation("setup", "a credential file could not be forged");
        m_registered.insert(Narrow(dn));
    }

    // Waits for the check-ins, keeping the service running meanwhile.
    void WaitCheckedIn(const std::vector<std::wstring>& dns, const std::string& step) {
        const bool done = testsupport::WaitUntil(
            [&] {
                CheckNoEarlyCheckIn(step);
                if (!m_service.Running()) Reach();
                const Journal journal = Journal::Read(standin::JournalPath());
                for (const std::wstring& dn : dns)
                    if (!journal.Has(Narrow(dn))) return false;
                return true;
            },
            kSettleMs);
        if (!done) Violation(step, "not checked in within " + std::to_string(kSettleMs / 1000) + " s");
    }

    // Waits until the status shows the lease `dn` in `state` (or the time runs out), keeping the
    // service running; asked twice a second, so that the service's own calls stay few.
    void WaitForState(const std::wstring& dn, const std::wstring& state, DWORD timeoutMs) {
        const ULONGLONG deadline = ::GetTickCount64() + timeoutMs;
        while (StateOf(dn) != state && ::GetTickCount64() < deadline) ::Sleep(kStatePollMs);
    }

    // No credential is checked in while a process that registered it (and did not let go) runs.
    void CheckNoEarlyCheckIn(const std::string& step) {
        const Journal journal = Journal::Read(standin::JournalPath());
        for (const auto& [dn, pids] : m_holding)
            if (!pids.empty() && journal.Has(dn) && m_reported.insert(dn).second)
                Violation(step, dn + " checked in while a holder runs");
    }

    void Finish() {
        const bool settled = testsupport::WaitUntil(
            [&] {
                if (!m_service.Running()) Reach();
                return CredentialFiles().empty() && LeaseCount() == 0;
            },
            kSettleMs);
        const Journal journal = Journal::Read(standin::JournalPath());
        for (const std::string& dn : m_registered)
            if (!journal.Has(dn)) Violation("end", dn + " never checked in");
        if (!settled || !CredentialFiles().empty()) {
            Violation("end", std::to_string(CredentialFiles().size()) + " credential files left");
            DescribeCredentialFiles("left");
        }
        const long count = LeaseCount();
        if (count != 0) Violation("end", "lease count " + std::to_string(count));
    }

    Service& m_service;
    unsigned m_run;
    RunResult& m_result;
    NS_Utils::ComPtr<ITarrow> m_tarrow;
    std::set<std::string> m_registered;                // answered 0, or left in a forged file
    std::map<std::string, std::set<DWORD>> m_holding;  // by lease DN: registered, not let go, running
    std::set<std::string> m_reported;
};

// One run of the workload; the service killed at `step` (none for the recording run, which gives
// the service's threads at the attach).
RunResult RunOnce(unsigned run, const Step& step, unsigned killAt, std::vector<DWORD>* threadsAtAttach = nullptr) {
    RunResult result;
    const ULONGLONG started = ::GetTickCount64();
    standin::ClearJournal();
    standin::SetScript(L"CheckInHResults", std::wstring(L"0"));
    standin::Register();
    Service service;
    if (!StartAnswering(service)) {
        result.violations.emplace_back("setup: Tarrow did not start");
        return result;
    }
    Strace strace;
    const DWORD linuxPid = Strace::LinuxPid(L"Tarrow.exe");
    const std::vector<DWORD> threads = Strace::Threads(linuxPid);
    DWORD onlyThread = 0;
    if (step.thread >= 0) {
        if (static_cast<size_t>(step.thread) < threads.size())
            onlyThread = threads[static_cast<size_t>(step.thread)];
        else
            result.violations.emplace_back("setup: Tarrow has fewer threads than when its steps were recorded");
    }
    const bool attached = linuxPid != 0 && (killAt == 0 ? strace.Attach(linuxPid, kFileSyscalls, kTraceFile)
                                                        : strace.Attach(linuxPid, kFileSyscalls, kStepTraceFile,
                                                                        step.syscall, killAt, onlyThread));
    if (!attached) result.violations.emplace_back("setup: strace could not attach to Tarrow");
    if (threadsAtAttach) *threadsAtAttach = threads;
    NS_Utils::ComApartment com;
    Workload(service, run, result).Run();
    result.killed = result.restarts > 0 || !service.Running();
    strace.Detach();
    if (killAt != 0) result.traced = Strace::ReadCalls(kStepTraceFile);
    if (const DWORD stopped = service.Stop(); stopped != 0)
        result.violations.push_back("end: Tarrow's stop ended with " + std::to_string(stopped));
    result.seconds = static_cast<double>(::GetTickCount64() - started) / 1000;
    return result;
}

// `limit` of `steps` spread evenly over them (all of them for 0).
std::vector<Step> Spread(const std::vector<Step>& steps, unsigned long limit) {
    if (limit == 0 || limit >= steps.size()) return steps;
    std::vector<Step> some;
    for (unsigned long i = 0; i < limit; ++i) some.push_back(steps[i * steps.size() / limit]);
    return some;
}

std::string Utf16(const std::string& text) {
    std::string bytes;
    for (char c : text) bytes += {c, '\0'};
    return bytes;
}

std::string Leaf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

constexpr wchar_t kCalibrateEvent[] = L"TarrowSoakCalibrate";

// The Wine server request a write to its pipe carries: the first field of its header.
uint32_t RequestCode(const std::string& bytes) {
    uint32_t code = 0;
    if (bytes.size() >= sizeof(code)) std::memcpy(&code, bytes.data(), sizeof(code));
    return code;
}

// The Wine server's request code for deleting a file through a handle, which names no file: learnt
// from a deletion that a process of the sweep's makes between two marked writes under strace (the
// codes differ between Wine versions). 0 when it could not be learnt.
uint32_t DeleteRequestCode() {
    const std::wstring trace = std::wstring(kInstallFolder) + L"calibrate.trace";
    NS_Utils::UniqueHandle go(::CreateEventW(nullptr, TRUE, FALSE, kCalibrateEvent));
    ChildProcess child = ChildProcess::Start(L"tarrow_soak.exe", L"calibrate");
    const DWORD linuxPid = testsupport::WaitUntil([] { return Strace::LinuxPid(L"calibrate") != 0; }, 10000)
                               ? Strace::LinuxPid(L"calibrate")
                               : 0;
    Strace strace;
    const bool attached = go && child.Valid() && linuxPid != 0 && strace.Attach(linuxPid, kFileSyscalls, trace);
    if (go) ::SetEvent(go.get());
    if (child.Valid()) child.Wait(10000);
    strace.Detach();
    if (!attached) return 0;
    // The deletion asks the server more than one thing; its own request is the one that the
    // process makes nowhere else.
    std::map<uint32_t, unsigned> made, between;
    DWORD marker = 0;
    for (const Strace::Call& call : Strace::ReadCalls(trace)) {
        if (call.bytes == "before" || call.bytes == "after") {
            marker = call.bytes == "before" ? call.tid : 0;
            continue;
        }
        if (call.name != "write" && call.name != "writev") continue;
        ++made[RequestCode(call.bytes)];
        if (call.tid == marker) ++between[RequestCode(call.bytes)];
    }
    std::vector<uint32_t> own;
    for (const auto& [code, count] : between)
        if (made[code] == count) own.push_back(code);
    return own.size() == 1 ? own[0] : 0;
}

// What a call did to the credential files, or nothing: the service's own writes and flushes of
// them, and its requests to the Wine server that name one (open, create, rename, delete by name)
// or delete one through its handle.
std::string FileStep(const Strace::Call& call, uint32_t deleteCode) {
    if (call.path.find("/Kel/Tarrow/") != std::string::npos) return call.name + " " + Leaf(call.path);
    if (call.name != "write" && call.name != "writev") return {};
    static const std::string folder = Utf16(R"(\Kel\Tarrow\)");
    if (const size_t at = call.bytes.find(folder); at != std::string::npos) {
        std::string name;
        // The name runs on into whatever the request carries after it.
        for (size_t i = at + folder.size();
             i + 1 < call.bytes.size() && call.bytes[i + 1] == '\0' &&
             (std::isalnum(static_cast<unsigned char>(call.bytes[i])) || call.bytes[i] == '.' || call.bytes[i] == '*');
             i += 2)
            name += call.bytes[i];
        // The folder itself, or a listing of it (the status's, or a take-up's), changes nothing.
        return name.empty() || name.find('*') != std::string::npos ? std::string() : "request naming " + name;
    }
    return deleteCode != 0 && RequestCode(call.bytes) == deleteCode ? "request deleting through a handle"
                                                                    : std::string();
}

// Every file step of the recording, and the call of the same thread right after each (the step
// done, its answer not yet used), each once.
std::vector<Step> PlanFileSteps(const std::vector<Strace::Call>& calls, const std::vector<DWORD>& threads,
                                uint32_t deleteCode) {
    std::vector<std::string> did(calls.size());
    for (size_t i = 0; i < calls.size(); ++i) did[i] = FileStep(calls[i], deleteCode);
    std::vector<Step> steps;
    std::set<std::tuple<std::string, unsigned, int>> planned;
    std::map<std::pair<DWORD, std::string>, unsigned> fileCalls;
    auto plan = [&](const Strace::Call& call, const Strace::Call& anchor, const std::string& what) {
        const auto found = std::find(threads.begin(), threads.end(), call.tid);
        const int thread = found == threads.end() ? -1 : static_cast<int>(found - threads.begin());
        if (!planned.insert({call.name, call.n, thread}).second) return;
        Step step{call.name,        call.n, thread, what, anchor.name, fileCalls[{anchor.tid, anchor.name}],
                  &call != &anchor, {}};
        unsigned count = 0;
        for (size_t i = 0; i < calls.size(); ++i) {
            const Strace::Call& earlier = calls[i];
            if (earlier.tid != anchor.tid) continue;
            if (earlier.name == call.name) count = earlier.n;
            if (earlier.name == anchor.name && !did[i].empty()) step.anchorsAt.push_back(count);
            if (&earlier == &anchor) break;
        }
        steps.push_back(std::move(step));
    };
    for (size_t i = 0; i < calls.size(); ++i) {
        const std::string& what = did[i];
        if (what.empty()) continue;
        ++fileCalls[{calls[i].tid, calls[i].name}];
        plan(calls[i], calls[i], what);
        for (size_t next = i + 1; next < calls.size(); ++next)
            if (calls[next].tid == calls[i].tid) {
                plan(calls[next], calls[i], "after " + what);
                break;
            }
    }
    return steps;
}

// Where a run put the step's call: found, with its count of the step's system call in that run;
// or not reached before the kill, with the file calls of its kind seen and the count at the last.
struct Aim {
    bool found = false;
    unsigned n = 0;
    unsigned anchorsSeen = 0;
    unsigned atLastAnchor = 0;
};

Aim Locate(const std::vector<Strace::Call>& traced, const Step& step, uint32_t deleteCode) {
    Aim aim;
    unsigned count = 0;
    bool anchored = false;
    for (const Strace::Call& call : traced) {
        if (call.name == step.syscall) count = call.n;
        if (anchored && call.name == step.syscall) return {true, count, aim.anchorsSeen, aim.atLastAnchor};
        if (call.name != step.anchorCall || FileStep(call, deleteCode).empty()) continue;
        ++aim.anchorsSeen;
        aim.atLastAnchor = count;
        if (aim.anchorsSeen != step.anchor) continue;
        if (!step.after) return {true, count, aim.anchorsSeen, aim.atLastAnchor};
        anchored = true;
    }
    return aim;
}

// The count to kill at next, from where the last run killed (`killAt`) and what it saw.
unsigned AimAgain(const Step& step, const Aim& aim, unsigned killAt) {
    if (aim.found) return aim.n;
    // Not reached: as far past the last file call seen as the recording had it.
    const unsigned recordedAtLast = aim.anchorsSeen == 0 ? 0 : step.anchorsAt[aim.anchorsSeen - 1];
    const unsigned next = aim.atLastAnchor + (step.n - recordedAtLast);
    return next > killAt ? next : killAt + 1;
}

}  // namespace

int RunDeleteCalibration() {
    NS_Utils::UniqueHandle go(::OpenEventW(SYNCHRONIZE, FALSE, kCalibrateEvent));
    if (!go || ::WaitForSingleObject(go.get(), 15000) != WAIT_OBJECT_0) return 1;
    NS_Utils::UniqueHandle file(::CreateFileW((std::wstring(kInstallFolder) + L"calibrate.tmp").c_str(),
                                              GENERIC_WRITE | DELETE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    auto mark = [&](const char* text) {
        OVERLAPPED at0{};
        DWORD written = 0;
        return ::WriteFile(file.get(), text, static_cast<DWORD>(std::strlen(text)), &written, &at0) != FALSE;
    };
    return file && mark("before") && NS_SHAREDID_UTILS::DeleteThroughHandle(file.get()) && mark("after") ? 0 : 1;
}

int RunCrashSweep(const Options& options) {
    std::printf("crash sweep: %lu steps at most (0: all), shard %lu of %lu\n", options.steps, options.shard + 1,
                options.shards);
    std::fflush(stdout);
    const ULONGLONG started = ::GetTickCount64();
    // Level 1: every line costs a write and the Wine server requests of the log's mutex, in
    // numbers that vary with timing (the agent's absence is logged at each probe) and would shift
    // every later step of the thread; what the workload waits for it reads from the status.
    if (!PrepareService(1, 0)) return 2;
    // The agent's return is noticed within a second instead of ten.
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Settings::kFreeSharedIdWaitTime.key,
                                 NS_Settings::kFreeSharedIdWaitTime.valueName, 1000);

    const uint32_t deleteCode = DeleteRequestCode();
    if (deleteCode == 0)
        std::printf("  the Wine server's delete request could not be learnt: deletes through a handle are not swept\n");
    std::vector<DWORD> threads;
    const RunResult recording = RunOnce(0, {}, 0, &threads);
    const std::vector<Strace::Call> calls = Strace::ReadCalls(kTraceFile);
    const std::vector<Step> plan = PlanFileSteps(calls, threads, deleteCode);
    const auto late = std::count_if(plan.begin(), plan.end(), [](const Step& s) { return s.thread < 0; });
    std::printf("  recording run          %.1f s, %u violations, %zu calls traced, %zu threads at the attach\n",
                recording.seconds, static_cast<unsigned>(recording.violations.size()), calls.size(), threads.size());
    std::printf(
        "  file steps, each with the call right after it: %zu (%ld in threads started later, killed at\n"
        "  that call of whichever thread reaches it first)\n",
        plan.size(), static_cast<long>(late));
    for (const std::string& v : recording.violations) std::printf("    violation: %s\n", v.c_str());

    std::vector<Step> steps;
    const std::vector<Step> limited = Spread(plan, options.steps);
    for (size_t i = options.shard; i < limited.size(); i += options.shards) steps.push_back(limited[i]);
    unsigned long violations = recording.violations.size(), killed = 0, hits = 0;
    unsigned run = 1;
    for (const Step& step : steps) {
        // Counts in a thread drift between runs (waits and log lines vary with timing): a run that
        // missed the step's call is aimed again where that run put it, a few times.
        unsigned killAt = step.n;
        RunResult result;
        bool hit = false;
        int attempts = 0;
        while (!hit && attempts < kAimAttempts) {
            ++attempts;
            result = RunOnce(run++, step, killAt);
            violations += result.violations.size();
            for (const std::string& v : result.violations) std::printf("    violation: %s\n", v.c_str());
            const Aim aim = Locate(result.traced, step, deleteCode);
            hit = result.killed && aim.found && aim.n == killAt;
            if (!hit && attempts < kAimAttempts) killAt = AimAgain(step, aim, killAt);
        }
        killed += result.killed;
        hits += hit;
        std::printf("  %-8s %4u thread %2d  %5.1f s  %-13s %s\n", step.syscall.c_str(), killAt, step.thread,
                    result.seconds, hit ? (attempts > 1 ? "killed, aimed" : "killed") : "missed", step.what.c_str());
        std::fflush(stdout);
    }
    std::printf("crash sweep:\n");
    std::printf("  steps swept            %zu (the service killed in %lu)\n", steps.size(), killed);
    std::printf("  steps hit exactly      %lu of %zu\n", hits, steps.size());
    std::printf("  violations             %lu\n", violations);
    std::printf("  time                   %.1f s\n", static_cast<double>(::GetTickCount64() - started) / 1000);
    const bool ok = violations == 0 && !plan.empty();
    std::printf("crash sweep: %s\n", ok ? "passed" : "FAILED");
    return ok ? 0 : 1;
}

}  // namespace soak
