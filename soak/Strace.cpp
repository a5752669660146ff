#include "soak/Strace.h"

#include "common/WinHandles.h"
#include "tests/support/TestSupport.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>

namespace soak {
namespace {

std::string ReadWhole(const std::wstring& path) {
    // Files under /proc say they are empty: read until the end instead of by size.
    NS_Utils::UniqueHandle file(::CreateFileW(path.c_str(), GENERIC_READ,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, 0, nullptr));
    std::string text;
    if (!file) return text;
    char buffer[64 * 1024];
    for (DWORD read = 0; ::ReadFile(file.get(), buffer, sizeof(buffer), &read, nullptr) && read > 0;)
        text.append(buffer, read);
    return text;
}

std::wstring ProcPath(DWORD pid, const wchar_t* leaf) { return L"Z:\\proc\\" + std::to_wstring(pid) + L"\\" + leaf; }

std::string WinePrefix() {
    char value[MAX_PATH * 2] = {};
    const DWORD n = ::GetEnvironmentVariableA("WINEPREFIX", value, sizeof(value));
    return n > 0 && n < sizeof(value) ? std::string(value, n) : std::string();
}

// A Windows path in the prefix's C: drive as Linux sees it.
std::string LinuxPath(const std::wstring& windowsPath) {
    std::string path = WinePrefix() + "/drive_c";
    for (wchar_t c : windowsPath.substr(2)) path += c == L'\\' ? '/' : static_cast<char>(c);
    return path;
}

bool RunShell(const std::string& command) {
    std::wstring line = L"Z:\\bin\\sh -c \"" + std::wstring(command.begin(), command.end()) + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &info))
        return false;
    NS_Utils::UniqueHandle process(info.hProcess), thread(info.hThread);
    return true;
}

bool Exists(DWORD linuxPid) { return !ReadWhole(ProcPath(linuxPid, L"cmdline")).empty(); }

// The bytes of the C strings strace printed on a line (escaped as -xx prints them).
std::string QuotedBytes(const std::string& line) {
    std::string bytes;
    bool inside = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (!inside) {
            inside = c == '"';
            continue;
        }
        if (c == '"') {
            inside = false;
        } else if (c != '\\' || i + 1 >= line.size()) {
            bytes += c;
        } else if (line[i + 1] == 'x' && i + 3 < line.size()) {
            bytes += static_cast<char>(std::strtoul(line.substr(i + 2, 2).c_str(), nullptr, 16));
            i += 3;
        } else {
            static const std::string kFrom = "ntrvf", kTo = "\n\t\r\v\f";
            const size_t known = kFrom.find(line[i + 1]);
            bytes += known == std::string::npos ? line[i + 1] : kTo[known];
            ++i;
        }
    }
    return bytes;
}

DWORD TracerOf(const std::wstring& statusPath) {
    const std::string status = ReadWhole(statusPath), key = "TracerPid:";
    const size_t at = status.find(key);
    return at == std::string::npos ? 0 : std::strtoul(status.c_str() + at + key.size(), nullptr, 10);
}

bool AllThreadsTracedBy(DWORD linuxPid, DWORD tracer) {
    const std::wstring tasks = ProcPath(linuxPid, L"task\\");
    bool any = false;
    WIN32_FIND_DATAW found;
    NS_Utils::UniqueFindHandle search(::FindFirstFileW((tasks + L"*").c_str(), &found));
    if (!search) return false;
    do {
        if (found.cFileName[0] < L'0' || found.cFileName[0] > L'9') continue;
        if (TracerOf(tasks + found.cFileName + L"\\status") != tracer) return false;
        any = true;
    } while (::FindNextFileW(search.get(), &found));
    return any;
}

}  // namespace

DWORD Strace::LinuxPid(const std::wstring& exeName) {
    const std::string prefix = "WINEPREFIX=" + WinePrefix() + std::string(1, '\0');
    std::string wanted(exeName.begin(), exeName.end());
    for (char& c : wanted) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    WIN32_FIND_DATAW found;
    NS_Utils::UniqueFindHandle search(::FindFirstFileW(L"Z:\\proc\\*", &found));
    if (!search) return 0;
    do {
        if (found.cFileName[0] < L'0' || found.cFileName[0] > L'9') continue;
        const DWORD pid = std::wcstoul(found.cFileName, nullptr, 10);
        // Wine writes the Windows command line over the Linux one.
        std::string command = ReadWhole(ProcPath(pid, L"cmdline"));
        for (char& c : command) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (command.find(wanted) == std::string::npos || command.find("strace") != std::string::npos) continue;
        if (ReadWhole(ProcPath(pid, L"environ")).find(prefix) != std::string::npos) return pid;
    } while (::FindNextFileW(search.get(), &found));
    return 0;
}

DWORD Strace::CurrentLinuxThread() {
    return std::strtoul(ReadWhole(L"Z:\\proc\\thread-self\\stat").c_str(), nullptr, 10);
}

std::vector<DWORD> Strace::Threads(DWORD linuxPid) {
    std::vector<DWORD> threads;
    WIN32_FIND_DATAW found;
    NS_Utils::UniqueFindHandle search(::FindFirstFileW((ProcPath(linuxPid, L"task\\") + L"*").c_str(), &found));
    if (!search) return threads;
    do {
        if (found.cFileName[0] >= L'0' && found.cFileName[0] <= L'9')
            threads.push_back(std::wcstoul(found.cFileName, nullptr, 10));
    } while (::FindNextFileW(search.get(), &found));
    // Linux hands out ids in rising order: the oldest thread has the lowest.
    std::sort(threads.begin(), threads.end());
    return threads;
}

bool Strace::Attach(DWORD linuxPid, const std::string& syscalls, const std::wstring& traceFile,
                    const std::string& killSyscall, unsigned killAt, DWORD onlyThread) {
    Detach();
    const std::wstring pidFile = L"C:\\TarrowSoak\\strace.pid";
    ::DeleteFileW(pidFile.c_str());
    std::string command = std::string(onlyThread ? "strace" : "strace -f") + " -qq -y -xx -s 4096 -p " +
                          std::to_string(onlyThread ? onlyThread : linuxPid) + " -e trace=" + syscalls;
    if (killAt > 0) command += " -e inject=" + killSyscall + ":signal=SIGKILL:when=" + std::to_string(killAt);
    command += " -o " + (traceFile.empty() ? std::string("/dev/null") : LinuxPath(traceFile));
    command += " 2>/dev/null & echo $! > " + LinuxPath(pidFile);
    if (!RunShell(command)) return false;
    if (!testsupport::WaitUntil([&] { return std::atoi(ReadWhole(pidFile).c_str()) > 0; }, 10000)) return false;
    m_stracePid = static_cast<DWORD>(std::atoi(ReadWhole(pidFile).c_str()));
    if (onlyThread)
        return testsupport::WaitUntil([&] { return TracerOf(ProcPath(onlyThread, L"status")) == m_stracePid; }, 10000);
    return testsupport::WaitUntil([&] { return AllThreadsTracedBy(linuxPid, m_stracePid); }, 10000);
}

void Strace::Detach() {
    if (m_stracePid == 0) return;
    // strace lets its tracees go on when it is asked to end.
    if (Exists(m_stracePid)) RunShell("kill -TERM " + std::to_string(m_stracePid));
    testsupport::WaitUntil([&] { return !Exists(m_stracePid); }, 10000);
    m_stracePid = 0;
}

std::vector<Strace::Call> Strace::ReadCalls(const std::wstring& traceFile) {
    std::vector<Call> calls;
    std::map<std::pair<DWORD, std::string>, unsigned> counts;
    std::istringstream lines(ReadWhole(traceFile));
    for (std::string line; std::getline(lines, line);) {
        // "<tid> name(..." when strace follows threads, "name(..." when it traces one.
        const bool perThread = !line.empty() && std::isdigit(static_cast<unsigned char>(line[0]));
        const size_t space = perThread ? line.find(' ') : 0;
        if (space == std::string::npos) continue;
        const size_t name = line.find_first_not_of(' ', space), paren = line.find('(', name);
        if (name == std::string::npos || paren == std::string::npos || line[name] == '<' || line[name] == '+' ||
            line[name] == '-')
            continue;
        Call call;
        call.tid = perThread ? std::strtoul(line.c_str(), nullptr, 10) : 0;
        call.name = line.substr(name, paren - name);
        call.n = ++counts[{call.tid, call.name}];
        // "name(13</path/of/the/file>, ..." with -y.
        const size_t open = line.find('<', paren), close = line.find('>', open == std::string::npos ? paren : open);
        if (open != std::string::npos && close != std::string::npos &&
            line.find_first_not_of("0123456789", paren + 1) == open)
            call.path = QuotedBytes("\"" + line.substr(open + 1, close - open - 1) + "\"");
        call.bytes = QuotedBytes(line.substr(paren));
        calls.push_back(std::move(call));
    }
    return calls;
}


}  // namespace soak
