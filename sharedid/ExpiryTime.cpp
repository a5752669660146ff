#include "sharedid/ExpiryTime.h"

#include <cwchar>

namespace NS_LEASE_UTILS {

namespace {
constexpr size_t kTextLength = 16;

bool HasExpiryShape(const std::wstring& text) {
    if (text.size() != kTextLength || text[8] != L'T' || text[15] != L'Z') return false;
    for (size_t i = 0; i < kTextLength; ++i)
        if (i != 8 && i != 15 && (text[i] < L'0' || text[i] > L'9')) return false;
    return true;
}
}  // namespace

bool ExpiryTextToTime(const std::wstring& text, __time64_t& time) {
    if (!HasExpiryShape(text)) return false;
    tm parts{};
    if (std::swscanf(text.c_str(), L"%4d%2d%2dT%2d%2d%2dZ", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                     &parts.tm_hour, &parts.tm_min, &parts.tm_sec) != 6)
        return false;
    const tm asWritten = parts;
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    __time64_t result = ::_mkgmtime64(&parts);
    if (result == -1) return false;
    // _mkgmtime64 normalises: a month 13 or a 31st of April would silently become another date.
    if (parts.tm_year + 1900 != asWritten.tm_year || parts.tm_mon + 1 != asWritten.tm_mon ||
        parts.tm_mday != asWritten.tm_mday || parts.tm_hour != asWritten.tm_hour || parts.tm_min != asWritten.tm_min ||
        parts.tm_sec != asWritten.tm_sec)
        return false;
    time = result;
    return true;
}

std::wstring TimeToExpiryText(__time64_t time) {
    tm parts{};
    if (::_gmtime64_s(&parts, &time) != 0) return {};
    wchar_t text[32] = {};
    std::swprintf(text, sizeof(text) / sizeof(text[0]), L"%04d%02d%02dT%02d%02d%02dZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

}  // namespace NS_LEASE_UTILS
