// tarrowctl: talks to the running Tarrow service of this session. `tarrowctl help` prints the
// commands, options and exit codes (kHelp below is the one description of them).

#include "common/ComHandles.h"
#include "common/ModulePath.h"
#include "common/WinHandles.h"
#include "tools/RecordDecoder.h"
#include "tools/StatusReader.h"
#include "tools/TarrowClient.h"

#include "TarrowVersion.h"

#include <cstdio>
#include <map>
#include <string>

namespace {
constexpr int kBadArguments = 100;
constexpr int kNotRunning = 101;
constexpr int kCallFailed = 102;

void Write(FILE* out, const std::wstring& text) {
    int needed = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                       nullptr);
    std::string utf8(static_cast<size_t>(needed), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), utf8.data(), needed, nullptr,
                          nullptr);
    std::fwrite(utf8.data(), 1, utf8.size(), out);
    std::fflush(out);
}

void Print(FILE* out, const std::wstring& text) { Write(out, text + L"\n"); }

int Fail(int code, const std::wstring& message) {
    Print(stderr, L"tarrowctl: " + message);
    return code;
}

struct Options {
    std::map<std::wstring, std::wstring> values;
    bool ownOnly = false;
    bool showAux2 = false;
    bool hold = false;
    bool csv = false;
    bool json = false;
    std::wstring error;

    std::wstring Get(const wchar_t* name) const {
        auto found = values.find(name);
        return found == values.end() ? std::wstring() : found->second;
    }
    bool Has(const wchar_t* name) const { return values.count(name) != 0; }
};

Options Parse(int argc, wchar_t** argv, int first) {
    static const wchar_t* const kValued[] = {L"--pid",          L"--url",  L"--srv-id", L"--aux1", L"--auth-svc-id",
                                             L"--shared-id",    L"--aux2", L"--role",   L"--aux4", L"--lease-dn",
                                             L"--lease-expiry", L"--aux3", L"--aux6",   L"--flag", L"--hold-for"};
    Options options;
    for (int i = first; i < argc; ++i) {
        std::wstring name = argv[i];
        if (name == L"--own-only") {
            options.ownOnly = true;
            continue;
        }
        if (name == L"--hold") {
            options.hold = true;
            continue;
        }
        if (name == L"--show-aux2") {
            options.showAux2 = true;
            continue;
        }
        if (name == L"--csv" || name == L"--json") {
            (name == L"--csv" ? options.csv : options.json) = true;
            if (options.csv && options.json) {
                options.error = L"--csv and --json exclude each other";
                return options;
            }
            continue;
        }
        bool valued = false;
        for (const wchar_t* known : kValued) valued = valued || name == known;
        if (!valued) {
            options.error = L"unknown option " + name;
            return options;
        }
        if (i + 1 >= argc) {
            options.error = name + L" needs a value";
            return options;
        }
        options.values[name] = argv[++i];
    }
    return options;
}

bool ParsePid(const Options& options, DWORD& pid) {
    std::wstring text = options.Get(L"--pid");
    if (text.empty()) return false;
    wchar_t* end = nullptr;
    unsigned long value = std::wcstoul(text.c_str(), &end, 10);
    if (*end != L'\0') return false;
    pid = static_cast<DWORD>(value);
    return true;
}

bool ParseFlag(const std::wstring& text, VARIANT_BOOL& flag) {
    if (text.empty() || ::_wcsicmp(text.c_str(), L"false") == 0) {
        flag = VARIANT_FALSE;
        return true;
    }
    if (::_wcsicmp(text.c_str(), L"true") == 0) {
        flag = VARIANT_TRUE;
        return true;
    }
    wchar_t* end = nullptr;
    long value = std::wcstol(text.c_str(), &end, 0);
    if (*end != L'\0') return false;
    flag = static_cast<VARIANT_BOOL>(value);
    return true;
}

// A process of ours that holds credentials until it is ended.
bool StartHolder(const std::wstring& lifetimeMs, DWORD& pid) {
    std::wstring commandLine = L"\"" + NS_Utils::ExecutablePath() + L"\" hold " + lifetimeMs;
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr, nullptr,
                          &startup, &info))
        return false;
    NS_Utils::UniqueHandle process(info.hProcess), thread(info.hThread);
    pid = info.dwProcessId;
    return true;
}

NS_Utils::UniqueBstr Bstr(const Options& options, const wchar_t* name) {
    return NS_Utils::UniqueBstr(options.Get(name));
}

int Register(ITarrow* tarrow, const Options& options) {
    DWORD pid = 0;
    if (options.hold || options.Has(L"--hold-for")) {
        if (!StartHolder(options.Get(L"--hold-for"), pid))
            return Fail(kCallFailed, L"could not start a holder process");
        Print(stdout, L"holder pid " + std::to_wstring(pid));
    } else if (!ParsePid(options, pid)) {
        return Fail(kBadArguments, L"register needs --pid N or --hold");
    }
    VARIANT_BOOL flag = VARIANT_FALSE;
    if (!ParseFlag(options.Get(L"--flag"), flag)) return Fail(kBadArguments, L"--flag takes true, false or a number");
    DWORD result = 0;
    HRESULT hr = tarrow->RegisterSharedId(
        pid, Bstr(options, L"--url").get(), Bstr(options, L"--srv-id").get(), Bstr(options, L"--aux1").get(),
        Bstr(options, L"--auth-svc-id").get(), Bstr(options, L"--shared-id").get(), Bstr(options, L"--aux2").get(),
        Bstr(options, L"--role").get(), Bstr(options, L"--aux4").get(), Bstr(options, L"--lease-dn").get(),
        Bstr(options, L"--lease-expiry").get(), Bstr(options, L"--aux3").get(), flag, Bstr(options, L"--aux6").get(),
        &result);
    if (FAILED(hr)) return Fail(kCallFailed, L"RegisterSharedId failed");
    Print(stdout, L"result " + std::to_wstring(result));
    return static_cast<int>(result);
}

int Release(ITarrow* tarrow, const Options& options) {
    DWORD pid = 0;
    if (!ParsePid(options, pid)) return Fail(kBadArguments, L"release needs --pid N");
    DWORD result = 0;
    HRESULT hr = tarrow->ReleaseSharedId(pid, Bstr(options, L"--url").get(), Bstr(options, L"--auth-svc-id").get(),
                                         Bstr(options, L"--role").get(), &result);
    if (FAILED(hr)) return Fail(kCallFailed, L"ReleaseSharedId failed");
    Print(stdout, L"result " + std::to_wstring(result));
    return static_cast<int>(result);
}

int Query(ITarrow* tarrow, const Options& options) {
    DWORD pid = ::GetCurrentProcessId();
    if (options.Has(L"--pid") && !ParsePid(options, pid)) return Fail(kBadArguments, L"--pid takes a number");
    NS_Utils::UniqueBstr serialized;
    HRESULT hr = tarrow->GetRegisteredSharedId(pid, Bstr(options, L"--url").get(),
                                               Bstr(options, L"--auth-svc-id").get(), Bstr(options, L"--role").get(),
                                               options.ownOnly ? VARIANT_TRUE : VARIANT_FALSE, serialized.put());
    if (hr == S_FALSE) {
        Print(stdout, L"not registered");
        return 1;
    }
    if (FAILED(hr)) return Fail(kCallFailed, L"GetRegisteredSharedId failed");
    tarrowctl::DecodedRecord fields;
    if (!tarrowctl::DecodeRecord(reinterpret_cast<const std::uint8_t*>(serialized.get()), serialized.ByteLength(),
                                 fields))
        return Fail(kCallFailed, L"the service answered with a malformed record");
    for (const auto& [name, value] : fields)
        if (name != L"auxText2" || options.showAux2) Print(stdout, std::wstring(name).append(L" = ").append(value));
    return 0;
}

int Status(ITarrow* tarrow, const Options& options) {
    NS_Utils::ComPtr<ITarrowStatus> status;
    NS_Utils::UniqueVariant snapshot;
    HRESULT hr = tarrow->QueryInterface(IID_ITarrowStatus, status.put_void());
    if (SUCCEEDED(hr)) hr = status->GetStatus(snapshot.put());
    if (FAILED(hr)) return Fail(kCallFailed, L"GetStatus failed");
    tarrowctl::StatusText text;
    if (!tarrowctl::ReadStatus(*snapshot.get(), text))
        return Fail(kCallFailed, L"the service answered with a malformed status");
    Write(stdout, options.csv    ? tarrowctl::StatusCsv(text)
                  : options.json ? tarrowctl::StatusJson(text)
                                 : tarrowctl::StatusTable(text));
    return 0;
}

constexpr wchar_t kHelp[] =
    L"usage: tarrowctl COMMAND [options]\n"
    L"\n"
    L"Talks to the Tarrow service running in this session.\n"
    L"\n"
    L"Commands:\n"
    L"  register (--pid N | --hold | --hold-for MS) [text options] [--flag true|false|N]\n"
    L"      registers a credential for process N. --hold starts a holder process that stays until\n"
    L"      it is ended and prints its id; --hold-for starts one that exits after MS milliseconds.\n"
    L"      Text options: --url --srv-id --aux1 --auth-svc-id --shared-id --aux2 --role --aux4\n"
    L"      --lease-dn --lease-expiry (UTC, YYYYMMDDThhmmssZ) --aux3 --aux6.\n"
    L"  release --pid N --url U --auth-svc-id A --role R\n"
    L"      process N lets go of the credential.\n"
    L"  query [--pid N] --url U --auth-svc-id A --role R [--own-only] [--show-aux2]\n"
    L"      prints the credential's record; with --own-only only when process N (this process\n"
    L"      without --pid) holds it. The memory-only text (auxText2) is printed only with\n"
    L"      --show-aux2: it is not for a shared screen.\n"
    L"  status [--csv | --json]\n"
    L"      prints what the service holds and what waits for check-in, as a table; with --csv\n"
    L"      as one line per credential under a header; with --json as one object (UTF-8):\n"
    L"        {\"service\": {\"lease_count\", \"queued_work_items\", \"started\", \"version\",\n"
    L"                     \"agent_reachable\", \"check_in_worker_running\"},\n"
    L"         \"credentials\": [{\"credential\", \"account\", \"lease_dn\", \"lease_expiry\",\n"
    L"                          \"holders\", \"file\", \"state\", \"last_result\", \"attempts\",\n"
    L"                          \"next_attempt\", \"holders_end\", \"checking_in_since\"}]}\n"
    L"      Every value is a string with the table's text; the names do not change between\n"
    L"      versions (PowerShell: tarrowctl status --json | ConvertFrom-Json).\n"
    L"  --version\n"
    L"      prints the version.\n"
    L"  help, --help, -h, /?\n"
    L"      prints this text.\n"
    L"\n"
    L"Exit codes:\n"
    L"  register, release: the service's result (0 success, 1 process entry failed, 2 process id 0,\n"
    L"      4 record incomplete, 5 no live credential, 7 process not registered, 8 empty signature,\n"
    L"      9 the credential could not be stored)\n"
    L"  query: 0 found, 1 not found\n"
    L"  status, --version, help: 0\n"
    L"  100 bad arguments\n"
    L"  101 the service is not running in this session\n"
    L"  102 the call to the service failed\n";

bool IsHelp(const std::wstring& command) {
    return command == L"help" || command == L"--help" || command == L"-h" || command == L"/?";
}

int Usage() {
    return Fail(kBadArguments, L"usage: tarrowctl register|release|query|status [options]; tarrowctl help explains");
}
}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) return Usage();
    std::wstring command = argv[1];
    if (command == L"hold") {
        ::Sleep(argc > 2 ? static_cast<DWORD>(std::wcstoul(argv[2], nullptr, 10)) : INFINITE);
        return 0;
    }
    if (IsHelp(command)) {
        Write(stdout, kHelp);
        return 0;
    }
    if (command == L"--version") {
        Print(stdout, L"tarrowctl " TARROW_VERSION_TEXT);
        return 0;
    }
    if (command != L"register" && command != L"release" && command != L"query" && command != L"status") return Usage();
    Options options = Parse(argc, argv, 2);
    if (!options.error.empty()) return Fail(kBadArguments, options.error);

    NS_Utils::ComApartment com;
    NS_Utils::ComPtr<ITarrow> tarrow;
    HRESULT hr = tarrowctl::ConnectToTarrow(tarrow);
    if (FAILED(hr)) return Fail(kNotRunning, L"Tarrow is not running in this session (no KELTARROW object)");
    if (command == L"register") return Register(tarrow.get(), options);
    if (command == L"release") return Release(tarrow.get(), options);
    if (command == L"status") return Status(tarrow.get(), options);
    return Query(tarrow.get(), options);
}
