#include "host/TarrowModule.h"
#include "tests/host/ServiceFixture.h"
#include "tests/support/FailFastTest.h"

#include <thread>

using namespace testsupport;

namespace {

TEST(InstanceTest, OneInstancePerSessionOrPerDesktopWhenLuspIsEnabled) {
    ASSERT_EQ(RunTarrow(L"/RegServerPerUser"), 0u);
    {
        ServiceProcess first;
        ASSERT_TRUE(first.Start());
        EXPECT_EQ(RunTarrow(L""), 3u);
        EXPECT_TRUE(first.Running());
        EXPECT_EQ(first.Stop(), 0u);
    }
    NS_Utils::UniqueHandle lusp(::CreateEventW(nullptr, TRUE, FALSE, L"Local\\LUSPEnabled"));
    ASSERT_TRUE(lusp.valid());
    ServiceProcess service;
    ASSERT_TRUE(service.Start());
    wchar_t desktop[260] = {};
    ASSERT_TRUE(::GetUserObjectInformationW(::GetThreadDesktop(::GetCurrentThreadId()), UOI_NAME, desktop,
                                            sizeof(desktop), nullptr));
    NS_Utils::UniqueHandle perDesktop(
        ::OpenMutexW(SYNCHRONIZE, FALSE, (std::wstring(L"KEL_Tarrow_Mutex_") + desktop).c_str()));
    NS_Utils::UniqueHandle perSession(::OpenMutexW(SYNCHRONIZE, FALSE, L"KEL_Tarrow_Mutex"));
    EXPECT_TRUE(perDesktop.valid());
    EXPECT_FALSE(perSession.valid());
    EXPECT_EQ(RunTarrow(L""), 3u) << "on the same desktop the second instance still finds the first";
    EXPECT_EQ(service.Stop(), 0u);
}

}  // namespace

namespace {

// Every call on the object is served on the main thread; one from elsewhere ends the process.
TEST(ThreadRuleDeathTest, TheObjectOffTheMainThreadEndsTheProcess) {
    testsupport::ExpectFailFast(L"off the main thread, as a test", [] {
        CTarrowModule::Instance().MainThread().BindToCurrentThread();
        std::thread([] { CTarrowModule::Instance().MainThread().Check(L"off the main thread, as a test"); }).join();
    });
}

}  // namespace
