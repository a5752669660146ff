#include "tests/host/ServiceFixture.h"

using namespace testsupport;

namespace {

class InstanceTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(RunTarrow(L"/RegServerPerUser"), 0u); }
    NS_Utils::ComApartment com;
};

TEST_F(InstanceTest, OneInstancePerSessionOrPerDesktopWhenLuspIsEnabled) {
    {
        Service first;
        ASSERT_TRUE(first.Start());
        EXPECT_EQ(RunTarrow(L""), 3u);
        EXPECT_TRUE(first.Running());
        EXPECT_EQ(first.Stop(), 0u);
    }
    NS_Utils::UniqueHandle lusp(::CreateEventW(nullptr, TRUE, FALSE, L"Local\\LUSPEnabled"));
    ASSERT_TRUE(lusp.valid());
    Service service;
    ASSERT_TRUE(service.Start());
    wchar_t desktop[260] = {};
    DWORD needed = 0;
    ASSERT_TRUE(::GetUserObjectInformationW(::GetThreadDesktop(::GetCurrentThreadId()), UOI_NAME, desktop,
                                            sizeof(desktop), &needed));
    NS_Utils::UniqueHandle perDesktop(
        ::OpenMutexW(SYNCHRONIZE, FALSE, (std::wstring(L"KEL_Tarrow_Mutex_") + desktop).c_str()));
    NS_Utils::UniqueHandle perSession(::OpenMutexW(SYNCHRONIZE, FALSE, L"KEL_Tarrow_Mutex"));
    EXPECT_TRUE(perDesktop.valid());
    EXPECT_FALSE(perSession.valid());
    EXPECT_EQ(RunTarrow(L""), 3u) << "on the same desktop the second instance still finds the first";
    EXPECT_EQ(service.Stop(), 0u);
}

// A readable file left by an earlier run is checked in at the start; an unreadable one stays.
TEST_F(InstanceTest, StartsWithTheCredentialsLeftByAnEarlierRun) {
    wchar_t appData[MAX_PATH];
    ASSERT_GT(::GetEnvironmentVariableW(L"APPDATA", appData, MAX_PATH), 0u);
    const std::wstring folder = std::wstring(appData) + L"\\Kel\\Tarrow\\";
    ::CreateDirectoryW((std::wstring(appData) + L"\\Kel").c_str(), nullptr);
    ::CreateDirectoryW(folder.c_str(), nullptr);
    const std::wstring left = L"https://corvin\nsrv\nsvc\nacct\nrole\naux4\ncn=left\naux1\n20301231T120000Z\nuser\n1";
    ASSERT_TRUE(WriteFileBytes(folder + L"2017335742.dat", left.data(), left.size() * 2));
    ASSERT_TRUE(WriteFileBytes(folder + L"2017335743.dat", "\x41\x00", 2));
    Service service;
    ASSERT_TRUE(service.Start());
    EXPECT_TRUE(WaitUntil([&] { return !FileExists(folder + L"2017335742.dat"); }));
    EXPECT_TRUE(FileExists(folder + L"2017335743.dat"));
    EXPECT_EQ(service.Stop(), 0u);
}

}  // namespace
