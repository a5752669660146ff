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

    // A stored text the file could not give back is refused, and no file is made; the 511
    // characters that a line can hold are taken, and memory-only texts are not limited.
    const size_t files = ListFiles(CredentialFolder(), L"*.dat").size();
    CSharedId feed = Credential(L"feed"), zero = Credential(L"zero");
    feed.SetLeaseDN(L"cn=a\nb:c");
    zero.SetSharedId(std::wstring(L"ac\0ct", 5));
    for (const CSharedId& unfit : {feed, zero, Credential(std::wstring(512, L'r'))})
        EXPECT_EQ(Register(holder.Id(), unfit), 4u) << unfit.GetSignature().substr(0, 40);
    EXPECT_EQ(ListFiles(CredentialFolder(), L"*.dat").size(), files);
    const std::wstring huge = std::wstring(1 << 20, L'x') + std::wstring(L"\n\0:", 3);
    const CSharedId memoryOnly(kUrl, L"srv-1", L"aux-1", kService, L"acct", huge, std::wstring(511, L'r'), L"aux-4",
                               L"cn=memory-only", L"20301231T120000Z", true, huge, huge);
    ASSERT_EQ(Register(holder.Id(), memoryOnly), 0u);
    ASSERT_EQ(Query(holder.Id(), memoryOnly, false, out), S_OK);
    EXPECT_GT(out.ByteLength(), huge.size() * 2);
    EXPECT_EQ(Release(holder.Id(), memoryOnly), 0u);

    EXPECT_TRUE(s_service->Running());
    EXPECT_TRUE(Found(sentinel));
    EXPECT_EQ(Release(sentinelHolder.Id(), sentinel), 0u);
}

}  // namespace
