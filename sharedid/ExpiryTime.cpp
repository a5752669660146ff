#include "sharedid/ExpiryTime.h"

#include <algorithm>
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

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
    constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Days from 1970-01-01 to the date in the proleptic Gregorian calendar, for any four-digit year:
// the C runtime's own conversion refuses years after 3000, which clients write for "no end".
long long DaysFromEpoch(int year, int month, int day) {
    const int shifted = month <= 2 ? year - 1 : year;
    const long long era = shifted / 400;
    const long long yearOfEra = shifted - era * 400;
    const long long dayOfYear = (153LL * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const long long dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}
}  // namespace

bool ExpiryTextToTime(const std::wstring& text, __time64_t& time) {
    if (!HasExpiryShape(text)) return false;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (std::swscanf(text.c_str(), L"%4d%2d%2dT%2d%2d%2dZ", &year, &month, &day, &hour, &minute, &second) != 6)
        return false;
    // A month 13 or a 31st of April is no date at all, not another one.
    if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month) || hour > 23 || minute > 59 || second > 59)
        return false;
    const long long seconds = DaysFromEpoch(year, month, day) * 86400 + hour * 3600LL + minute * 60LL + second;
    time = std::clamp<long long>(seconds, 0, kLatestTime);
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
