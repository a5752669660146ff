#include "tests/host/ServiceFixture.h"

#include <array>

using namespace testsupport;

namespace {

class BadInputTest : public ServiceTest {
protected:
    DWORD Register(DWORD pid, const std::array<BSTR, 12>& b, VARIANT_BOOL flag = VARIANT_TRUE) {
        DWORD result = 99;
        EXPECT_EQ(tarrow->RegisterSharedId(pid, b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], flag,
                                           b[11], &result),
                  S_OK);
        return result;
    }
    DWORD RegisterTexts(DWORD pid, const std::array<std::wstring, 12>& t) {
        std::array<NS_Utils::UniqueBstr, 12> owned;
        std::array<BSTR, 12> raw;
        for (size_t i = 0; i < t.size(); ++i) {
            owned[i] = NS_Utils::UniqueBstr(t[i]);
            raw[i] = owned[i].get();
        }
        return Register(pid, raw);
    }
    static std::array<std::wstring, 12> Texts(const std::wstring& all) {
        std::array<std::wstring, 12> t;
        t.fill(all);
        return t;
    }
    HRESULT Query(const std::wstring& url, const std::wstring& svc, const std::wstring& role, NS_Utils::UniqueBstr& out) {
        NS_Utils::UniqueBstr u(url), s(svc), r(role);
        return tarrow->GetRegisteredSharedId(::GetCurrentProcessId(), u.get(), s.get(), r.get(), VARIANT_FALSE, out.put());
    }
    DWORD Release(DWORD pid, const std::wstring& all) {
        NS_Utils::UniqueBstr u(all), s(all), r(all);
        DWORD result = 99;
        EXPECT_EQ(tarrow->ReleaseSharedId(pid, u.get(), s.get(), r.get(), &result), S_OK);
        return result;
    }
};

TEST_F(BadInputTest, EveryBadInputIsAnsweredAndNothingRegisteredIsLost) {
    ChildProcess sentinelHolder = ChildProcess::StartHelper(L"--sleep 600000");
    ASSERT_EQ(RegisterTexts(sentinelHolder.Id(), Texts(L"sentinel")), 0u);
    ChildProcess holder = ChildProcess::StartHelper(L"--sleep 600000");

    // Null and empty texts count alike: an incomplete record.
    std::array<BSTR, 12> nulls{};
    EXPECT_EQ(Register(holder.Id(), nulls), 4u);
    EXPECT_EQ(RegisterTexts(holder.Id(), Texts(L"")), 4u);
    DWORD result = 99;
    EXPECT_EQ(tarrow->ReleaseSharedId(holder.Id(), nullptr, nullptr, nullptr, &result), S_OK);
    EXPECT_EQ(result, 4u);
    NS_Utils::UniqueBstr out;
    EXPECT_EQ(tarrow->GetRegisteredSharedId(holder.Id(), nullptr, nullptr, nullptr, VARIANT_TRUE, out.put()), S_FALSE);

    // Process ids that cannot hold anything.
    EXPECT_EQ(RegisterTexts(0, Texts(L"pid-zero")), 2u);
    EXPECT_EQ(RegisterTexts(0x7FFFFFFC, Texts(L"no-such-process")), 1u);
    EXPECT_EQ(Release(0, L"sentinel"), 2u);

    // A process that exits while it registers: registered and then released, or refused.
    ChildProcess leaving = ChildProcess::StartHelper(L"--exit 0");
    DWORD leavingResult = RegisterTexts(leaving.Id(), Texts(L"leaving"));
    EXPECT_TRUE(leavingResult == 0u || leavingResult == 1u) << leavingResult;
    EXPECT_TRUE(WaitUntil([&] {
        NS_Utils::UniqueBstr gone;
        return Query(L"leaving", L"leaving", L"leaving", gone) == S_FALSE;
    }));

    // Texts with line feeds and colons, and texts of a megabyte, are carried as they are.
    for (const std::wstring& odd : {std::wstring(L"a\nb:c\r\n:"), std::wstring(1 << 20, L'x') + L"\n:"}) {
        ASSERT_EQ(RegisterTexts(holder.Id(), Texts(odd)), 0u);
        NS_Utils::UniqueBstr found;
        ASSERT_EQ(Query(odd, odd, odd, found), S_OK);
        EXPECT_GT(found.ByteLength(), odd.size() * 2 * 9);
        EXPECT_EQ(Release(holder.Id(), odd), 0u);
    }

    EXPECT_TRUE(s_service->Running());
    NS_Utils::UniqueBstr sentinel;
    EXPECT_EQ(Query(L"sentinel", L"sentinel", L"sentinel", sentinel), S_OK);
    EXPECT_EQ(Release(sentinelHolder.Id(), L"sentinel"), 0u);
}

}  // namespace
