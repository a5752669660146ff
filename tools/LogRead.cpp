// Reads a log file, unscrambling it when it is an ".enl" file, and writes its text as UTF-16LE to
// the output file (or as UTF-8 to standard output when none is given).
//   tarrow_logread <log file> [output file]

#include "common/LogScramble.h"
#include "common/WinHandles.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {
bool EndsWith(const std::wstring& text, const std::wstring& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

bool ReadAll(const wchar_t* path, std::vector<std::uint8_t>& bytes) {
    NS_Utils::UniqueHandle file(
        ::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!file || !::GetFileSizeEx(file.get(), &size)) return false;
    bytes.resize(static_cast<size_t>(size.QuadPart));
    DWORD read = 0;
    return bytes.empty() || (::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) &&
                             read == bytes.size());
}

bool WriteAll(const wchar_t* path, const std::vector<std::uint8_t>& bytes) {
    NS_Utils::UniqueHandle file(
        ::CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    return file && ::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
           written == bytes.size();
}
}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2 || argc > 3) {
        std::fputs("usage: tarrow_logread <log file> [output file]\n", stderr);
        return 2;
    }
    std::vector<std::uint8_t> bytes;
    if (!ReadAll(argv[1], bytes)) {
        std::fprintf(stderr, "tarrow_logread: cannot read the log file (error %lu)\n", ::GetLastError());
        return 1;
    }
    if (EndsWith(argv[1], L".enl")) NS_Log::ScrambleLogBytes(bytes.data(), bytes.size(), 0);
    if (argc == 3) return WriteAll(argv[2], bytes) ? 0 : 1;

    std::wstring text(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
    int needed = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                       nullptr);
    std::string utf8(static_cast<size_t>(needed), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), utf8.data(), needed, nullptr,
                          nullptr);
    std::fwrite(utf8.data(), 1, utf8.size(), stdout);
    return 0;
}
