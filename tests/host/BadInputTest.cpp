#include "tests/host/ServiceFixture.h"

using namespace testsupport;

namespace {

// Every text the same, so that any of them can be the bad one.
CSharedId Uniform(const std::wstring& t) { return CSharedId(t, t, t, t, t, t, t, t, t, t, true, t, t); }

class BadInputTest : public ServiceTest {};

TEST_F(BadInputTest, EveryBadInputIsAnsweredAndNothingRegisteredIsLost) {
    ChildProcess sentinelHolder = StartHolder(), holder = StartHolder();
    const CSharedId sentinel = Uniform(L"sentinel");
    ASSERT_EQ(Register(sentinelHolder.Id(), sentinel), 0u);

    // Null and empty texts count alike: an incomplete record.
    DWORD result = 99;
    EXPECT_EQ(tarrow->RegisterSharedId(holder.Id(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                       nullptr, nullptr, nullptr, nullptr, VARIANT_TRUE, nullptr, &result),
              S_OK);
    EXPECT_EQ(result, 4u);
    EXPECT_EQ(Register(holder.Id(), Uniform(L"")), 4u);
    EXPECT_EQ(tarrow->ReleaseSharedId(holder.Id(), nullptr, nullptr, nullptr, &result), S_OK);
    EXPECT_EQ(result, 4u);
    NS_Utils::UniqueBstr out;
    EXPECT_EQ(tarrow->GetRegisteredSharedId(holder.Id(), nullptr, nullptr, nullptr, VARIANT_TRUE, out.put()), S_FALSE);

    // Process ids that cannot hold anything.
    EXPECT_EQ(Register(0, Uniform(L"pid-zero")), 2u);
    EXPECT_EQ(Register(0x7FFFFFFC, Uniform(L"no-such-process")), 1u);
    EXPECT_EQ(Release(0, sentinel), 2u);

    // A process that exits while it registers: registered and then released, or refused.
    ChildProcess leaving = ChildProcess::StartHelper(L"--exit 0");
    DWORD leavingResult = Register(leaving.Id(), Uniform(L"leaving"));
    EXPECT_TRUE(leavingResult == 0u || leavingResult == 1u) << leavingResult;
    EXPECT_TRUE(WaitUntil([&] { return !Found(Uniform(L"leaving")); }));

    // Texts with line feeds and colons, and texts of a megabyte, are carried as they are.
    for (const std::wstring& odd : {std::wstring(L"a\nb:c\r\n:"), std::wstring(1 << 20, L'x') + L"\n:"}) {
        ASSERT_EQ(Register(holder.Id(), Uniform(odd)), 0u);
        ASSERT_EQ(Query(holder.Id(), Uniform(odd), false, out), S_OK);
        // Eight texts carry it; the lease expiry, not being a time, is rewritten at registration.
        EXPECT_GT(out.ByteLength(), odd.size() * 2 * 8);
        EXPECT_EQ(Release(holder.Id(), Uniform(odd)), 0u);
    }

    EXPECT_TRUE(s_service->Running());
    EXPECT_TRUE(Found(sentinel));
    EXPECT_EQ(Release(sentinelHolder.Id(), sentinel), 0u);
}

}  // namespace
