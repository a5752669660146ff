#include "common/LogWriter.h"

#include "common/Log.h"
#include "common/LogScramble.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace NS_Log {

namespace {
constexpr const wchar_t* kPlainExtension = L".log";
constexpr const wchar_t* kScrambledExtension = L".enl";
// Any process of the user can hold the mutex, and the registry logs under its own lock: an
// unbounded wait would let one stuck process hang every call into the service.
constexpr DWORD kMutexWaitMs = 3000;

NS_Utils::UniqueHandle CreateLogMutex(const std::wstring& fileName) {
    std::wstring name = L"Global\\" + fileName + L"_LogMutex";
    return NS_Utils::UniqueHandle(::CreateMutexW(nullptr, FALSE, name.c_str()));
}

std::wstring RotationStamp() {
    SYSTEMTIME t;
    ::GetLocalTime(&t);
    wchar_t stamp[32];
    std::swprintf(stamp, 32, L"%04d%02d%02d%02d%02d%02d.%03d", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond,
                  t.wMilliseconds);
    return stamp;
}

// Makes `folder`, and with `parents` every missing folder above it too: the user's own fallback
// folder is made whole, the installation's only its last level.
bool MakeFolder(const std::wstring& folder, bool parents) {
    for (size_t at = folder.find_first_of(L"\\/", 3); parents && at != std::wstring::npos;
         at = folder.find_first_of(L"\\/", at + 1))
        ::CreateDirectoryW(folder.substr(0, at).c_str(), nullptr);
    return ::CreateDirectoryW(folder.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS;
}

void DebugOutput(const wchar_t* format, const std::wstring& a, const std::wstring& b) {
    wchar_t text[1024];
    std::swprintf(text, 1024, format, a.c_str(), b.c_str());
    ::OutputDebugStringW(text);
}
}  // namespace

CLogWriter::CLogWriter(std::wstring folder, std::wstring component, std::wstring fallback)
    : m_folder(std::move(folder)),
      m_component(std::move(component)),
      m_fallback(std::move(fallback)),
      m_plainMutex(CreateLogMutex(m_component + kPlainExtension)),
      m_scrambledMutex(CreateLogMutex(m_component + kScrambledExtension)) {}

std::wstring CLogWriter::FilePath(const std::wstring& folder, bool scrambled) const {
    return folder + m_component + (scrambled ? kScrambledExtension : kPlainExtension);
}

LogSettings CLogWriter::CurrentSettings() const {
    NS_Utils::CritSecGuard guard(m_settingsLock);
    return m_settings;
}

void CLogWriter::RefreshSettingsIfDue() {
    // Every call counts, dropped or not: otherwise a log that drops everything at the default
    // level would never read the level that lets messages through.
    if (m_writeCount.fetch_add(1) % 10 != 0) return;
    LogSettings fresh = ReadLogSettings();
    NS_Utils::CritSecGuard guard(m_settingsLock);
    m_settings = fresh;
}

int CLogWriter::Log(unsigned short level, const std::wstring& text) {
    RefreshSettingsIfDue();
    LogSettings settings = CurrentSettings();
    if (level > settings.level) return -1;
    Append(FormatLogLine(level, CurrentLogTime(), ::GetCurrentProcessId(), ::GetCurrentThreadId(), ProcessSessionId(),
                         text),
           settings);
    return 0;
}

void CLogWriter::Append(const std::wstring& line, const LogSettings& settings) {
    HANDLE mutex = settings.scrambled ? m_scrambledMutex.get() : m_plainMutex.get();
    // Without a mutex the line is still written: an unserialised line beats a lost one.
    if (!mutex) return AppendLocked(line, settings);
    const NS_Utils::MutexOwnership owned = AcquireMutex(mutex);
    if (!owned.Owned()) return;
    AppendLocked(line, settings);
}

NS_Utils::MutexOwnership CLogWriter::AcquireMutex(HANDLE mutex) {
    // One stuck holder must not cost every line the full wait: a call that logs a dozen lines
    // would stall for half a minute.
    NS_Utils::MutexOwnership owned = NS_Utils::MutexOwnership::Acquire(mutex, m_mutexTimedOut ? 0 : kMutexWaitMs);
    if (owned.Owned()) {
        ReportDroppedLines();
        return owned;
    }
    if (!m_mutexTimedOut.exchange(true)) ::OutputDebugStringW(L"Timeout when waiting to acquire mutex");
    ++m_droppedLines;
    return owned;
}

void CLogWriter::ReportDroppedLines() {
    m_mutexTimedOut = false;
    const unsigned long dropped = m_droppedLines.exchange(0);
    if (dropped == 0) return;
    wchar_t text[96];
    std::swprintf(text, 96, L"%lu log lines dropped while the log mutex was held elsewhere", dropped);
    ::OutputDebugStringW(text);
}

NS_Utils::UniqueHandle CLogWriter::OpenForAppend(const std::wstring& folder, const std::wstring& path) const {
    auto open = [&] {
        return NS_Utils::UniqueHandle(::CreateFileW(path.c_str(), GENERIC_WRITE,
                                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    };
    NS_Utils::UniqueHandle file = open();
    // The folder is made when it is found missing, not on every line.
    if (!file && ::GetLastError() == ERROR_PATH_NOT_FOUND && MakeFolder(folder, &folder == &m_fallback)) file = open();
    return file;
}

NS_Utils::UniqueHandle CLogWriter::OpenLogFile(const LogSettings& settings, std::wstring& path, std::wstring& notice) {
    const bool onFallback = m_onFallback;
    const std::wstring& folder = onFallback ? m_fallback : m_folder;
    path = FilePath(folder, settings.scrambled);
    NS_Utils::UniqueHandle file = OpenForAppend(folder, path);
    const DWORD error = ::GetLastError();
    // Another process's handle without sharing is passing; anything else stays until a restart.
    if (file || onFallback || m_fallback.empty() || error == ERROR_SHARING_VIOLATION) return file;
    const std::wstring fallbackPath = FilePath(m_fallback, settings.scrambled);
    file = OpenForAppend(m_fallback, fallbackPath);
    if (!file) return file;
    m_onFallback = true;
    path = fallbackPath;
    notice = FormatLogLine(2, CurrentLogTime(), ::GetCurrentProcessId(), ::GetCurrentThreadId(), ProcessSessionId(),
                           L"[CLogWriter]\t The log folder " + m_folder + L" cannot be written (error " +
                               std::to_wstring(error) + L"); this process writes its log here instead.");
    return file;
}

void CLogWriter::AppendLocked(const std::wstring& text, const LogSettings& settings) {
    std::wstring path;
    std::wstring notice;
    NS_Utils::UniqueHandle file = OpenLogFile(settings, path, notice);
    if (!file) {
        ::OutputDebugStringW(L"Log File Handle could not be obtained");
        return;
    }
    const std::wstring line = notice.empty() ? text : notice + text;
    LARGE_INTEGER end{};
    LARGE_INTEGER zero{};
    ::SetFilePointerEx(file.get(), zero, &end, FILE_END);

    const void* data = line.data();
    const DWORD bytes = static_cast<DWORD>(line.size() * sizeof(wchar_t));
    std::vector<std::uint8_t> scrambled;
    if (settings.scrambled) {
        scrambled.assign(static_cast<const std::uint8_t*>(data), static_cast<const std::uint8_t*>(data) + bytes);
        ScrambleLogBytes(scrambled.data(), scrambled.size(), end.QuadPart);
        data = scrambled.data();
    }
    DWORD written = 0;
    ::WriteFile(file.get(), data, bytes, &written, nullptr);
    if (settings.sync > 1) ::FlushFileBuffers(file.get());

    LARGE_INTEGER size{};
    bool tooLarge = ::GetFileSizeEx(file.get(), &size) &&
                    static_cast<ULONGLONG>(size.QuadPart) > ULONGLONG{settings.fileSizeKiB} * 1024;
    file.reset();
    if (tooLarge) Rotate(path, settings);
}

void CLogWriter::Rotate(const std::wstring& path, const LogSettings& settings) {
    size_t dot = path.find_last_of(L'.');
    std::wstring base = path.substr(0, dot);
    std::wstring extension = path.substr(dot);
    wchar_t rotated[MAX_PATH * 2];
    std::swprintf(rotated, MAX_PATH * 2, L"%ls-%ls%ls", base.c_str(), RotationStamp().c_str(), extension.c_str());
    // A copy that fails (two rotations in one millisecond) leaves the file to grow a little more:
    // nothing is overwritten and the next write rotates again.
    if (::CopyFileW(path.c_str(), rotated, TRUE) && ::DeleteFileW(path.c_str())) {
        DebugOutput(L"Log file %ls renamed to %ls\n", path, rotated);
    } else {
        wchar_t text[1024];
        std::swprintf(text, 1024, L"Log file %ls rename to %ls failed, winerr %d", path.c_str(), rotated,
                      static_cast<int>(::GetLastError()));
        ::OutputDebugStringW(text);
    }
    PruneRotated(settings);
}

void CLogWriter::PruneRotated(const LogSettings& settings) {
    const std::wstring& folder = Folder();
    std::wstring pattern = folder + m_component + L"-*" + (settings.scrambled ? kScrambledExtension : kPlainExtension);
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    NS_Utils::UniqueFindHandle search(::FindFirstFileW(pattern.c_str(), &found));
    if (!search) return;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.emplace_back(found.cFileName);
    } while (::FindNextFileW(search.get(), &found));
    if (names.size() <= settings.fileCount) return;
    // The time stamp in the name sorts as text: the oldest go first.
    std::sort(names.begin(), names.end());
    size_t excess = names.size() - settings.fileCount;
    for (size_t i = 0; i < excess; ++i) ::DeleteFileW((folder + names[i]).c_str());
}

}  // namespace NS_Log
