// Status dates in the local time of their own day. Run with TZ=Europe/Berlin (host_status_dates):
// a January date is one hour ahead of UTC and a July date two, whatever today's bias is. In any
// other zone the test is skipped.

#include "common/ComHandles.h"
#include "host/StatusVariant.h"

#include <gtest/gtest.h>

namespace {

// Element `index` of the VT_ARRAY | VT_VARIANT in `array`.
VARIANT At(const VARIANT& array, LONG index) {
    VARIANT element;
    ::VariantInit(&element);
    EXPECT_EQ(array.vt, VT_ARRAY | VT_VARIANT);
    EXPECT_EQ(::SafeArrayGetElement(array.parray, &index, &element), S_OK);
    return element;
}

// "hh:mm" of a VT_DATE.
std::wstring ClockOf(const VARIANT& date) {
    SYSTEMTIME parts{};
    EXPECT_EQ(date.vt, VT_DATE);
    ::VariantTimeToSystemTime(date.date, &parts);
    wchar_t text[8];
    std::swprintf(text, 8, L"%02u:%02u", parts.wHour, parts.wMinute);
    return text;
}

TEST(StatusDateTest, EachDateTakesTheDaylightSavingOfItsOwnDay) {
    wchar_t zone[64] = {};
    ::GetEnvironmentVariableW(L"TZ", zone, 64);
    if (std::wstring(zone) != L"Europe/Berlin") GTEST_SKIP() << "needs TZ=Europe/Berlin";
    StatusSnapshot snapshot;
    for (const wchar_t* expiry : {L"20300115T120000Z", L"20300715T120000Z"}) {
        CredentialStatus credential;
        credential.leaseExpiry = expiry;
        snapshot.credentials.push_back(credential);
    }
    // 2030-01-15 12:00 UTC as a FILETIME.
    ULARGE_INTEGER january{};
    january.QuadPart = (1894708800ULL + 11644473600ULL) * 10000000ULL;
    NS_Status::ServiceFacts facts{{january.LowPart, january.HighPart}, L"9.9.9"};
    VARIANT status;
    ::VariantInit(&status);
    NS_Status::ToVariant(snapshot, facts, &status);
    VARIANT service = At(status, 0), winter = At(status, 1), summer = At(status, 2);
    VARIANT started = At(service, 3), winterExpiry = At(winter, 4), summerExpiry = At(summer, 4);
    EXPECT_EQ(ClockOf(started), L"13:00");
    EXPECT_EQ(ClockOf(winterExpiry), L"13:00");
    EXPECT_EQ(ClockOf(summerExpiry), L"14:00");
    for (VARIANT* v : {&status, &service, &winter, &summer, &started, &winterExpiry, &summerExpiry}) ::VariantClear(v);
}

}  // namespace
