// A holder the service may watch but not end (as Windows treats an elevated one) at the expiry of
// its lease and at logoff: the others are ended, it is named in the log and on the window, and its
// credential is checked in once it exits by itself.

#include "common/HolderProcessHandle.h"
#include "common/Registry.h"
#include "lease/LeaseMonitor.h"
#include "sharedid/ExpiryTime.h"
#include "testing/agent/StandInControl.h"
#include "tests/monitor/MonitorFixture.h"
#include "ui/LMMainUIRes.h"

#include <thread>

using namespace testsupport;

namespace {

constexpr const wchar_t* kCannotBeEnded = L"cannot be ended: it runs elevated or as another user";

// The texts of this process's lease-expiry window's rows.
std::vector<std::wstring> WindowRowTexts() {
    HWND dialog = nullptr;
    ::EnumWindows(
        [](HWND window, LPARAM found) -> BOOL {
            DWORD pid = 0;
            ::GetWindowThreadProcessId(window, &pid);
            wchar_t name[16] = {};
            ::GetClassNameW(window, name, 16);
            if (pid != ::GetCurrentProcessId() || std::wstring(name) != L"#32770") return TRUE;
            *reinterpret_cast<HWND*>(found) = window;
            return FALSE;
        },
        reinterpret_cast<LPARAM>(&dialog));
    std::vector<std::wstring> texts;
    HWND list = dialog ? ::GetDlgItem(dialog, IDC_LEASE_EXPIRY_LIST) : nullptr;
    DWORD_PTR count = 0;
    if (!list || !::SendMessageTimeoutW(list, LB_GETCOUNT, 0, 0, SMTO_BLOCK, 5000, &count)) return texts;
    for (DWORD_PTR i = 0; i < count; ++i) {
        wchar_t text[512] = {};
        DWORD_PTR length = 0;
        if (::SendMessageTimeoutW(list, LB_GETTEXTLEN, i, 0, SMTO_BLOCK, 5000, &length) && length < 512 &&
            ::SendMessageTimeoutW(list, LB_GETTEXT, i, reinterpret_cast<LPARAM>(text), SMTO_BLOCK, 5000, &length))
            texts.emplace_back(text);
    }
    return texts;
}

class UnendableHolderTest : public MonitorTest {
protected:
    void SetUp() override {
        standin::ClearScript();
        MonitorTest::SetUp();
    }
    void TearDown() override {
        NS_Utils::HolderProcessHandle::SetAnswerForTesting(NS_Utils::HolderProcessHandle::Answer::AsAsked);
        EXPECT_TRUE(monitor->Shutdown());
        lease.reset();
        MonitorTest::TearDown();
    }
    // Started and registered as Windows would open an elevated process.
    ChildProcess ElevatedHolder(const CSharedId& credential) {
        ChildProcess holder = StartHolder();
        NS_Utils::HolderProcessHandle::SetAnswerForTesting(NS_Utils::HolderProcessHandle::Answer::AsToElevated);
        EXPECT_EQ(Register(credential, holder.Id()), SharedIdMonitor::kOk);
        NS_Utils::HolderProcessHandle::SetAnswerForTesting(NS_Utils::HolderProcessHandle::Answer::AsAsked);
        return holder;
    }
    std::shared_ptr<CLeaseMonitor> lease;
};

// On the real clock, without grace: the window's own tick finds the lease run out.
TEST_F(UnendableHolderTest, AtExpiryTheOthersAreEndedAndTheElevatedHolderIsNamedOnce) {
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess", 0);
    lease = CLeaseMonitor::Create();
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess");
    lease->WatchFor(*monitor);
    CSharedId credential = Credential(L"expiring");
    credential.SetLeaseExpiry(NS_LEASE_UTILS::TimeToExpiryText(::_time64(nullptr) - 10));
    ChildProcess elevated = ElevatedHolder(credential), plain = StartHolder();
    ASSERT_EQ(Register(credential, plain.Id()), SharedIdMonitor::kOk);
    const size_t namedBefore = CountInServiceLog(kCannotBeEnded);

    lease->Poll(1);
    ASSERT_EQ(plain.Wait(60000), WAIT_OBJECT_0);
    EXPECT_EQ(plain.ExitCode(), SharedIdMonitor::kTerminatedExitCode);
    ASSERT_TRUE(WaitUntil([&] {
        const std::vector<std::wstring> rows = WindowRowTexts();
        return rows.size() == 1 && rows[0].find(L"cannot be ended by Tarrow") != std::wstring::npos &&
               rows[0].find(L"tarrow_testchild.exe") != std::wstring::npos;
    })) << "the row of the holder that runs on names it, from its handle, and says why";
    // Two more of the window's ticks, each of which calls back for the credential.
    ::Sleep(11000);
    EXPECT_EQ(elevated.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(CountInServiceLog(kCannotBeEnded), namedBefore + 1);
    EXPECT_TRUE(Registered(credential)) << "the running holder still holds it";

    elevated.Kill();
    EXPECT_TRUE(WaitUntil([&] { return Settled() && WindowRowTexts().empty(); }));
}

// Windows ends the holder itself as the session goes: the handler names it, and returns once its
// credential is checked in.
TEST_F(UnendableHolderTest, AtLogoffTheElevatedHolderIsNamedAndItsCredentialGoesWhenItExits) {
    lease = CLeaseMonitor::Create();
    lease->WatchFor(*monitor);
    ChildProcess elevated = ElevatedHolder(Credential(L"elevated")), plain = StartHolder();
    ASSERT_EQ(Register(Credential(L"plain"), plain.Id()), SharedIdMonitor::kOk);
    const size_t namedBefore = CountInServiceLog(std::wstring(L"[SharedIdMonitor::OnWndSessionEnd]\t the process "));

    std::thread windows([&] {
        if (WaitUntil(
                [&] { return CountInServiceLog(L"[SharedIdMonitor::OnWndSessionEnd]\t the process ") > namedBefore; }))
            elevated.Kill();
    });
    const ULONGLONG start = ::GetTickCount64();
    monitor->OnWndSessionEnd();
    windows.join();
    EXPECT_LT(::GetTickCount64() - start, 60000u);
    EXPECT_EQ(plain.ExitCode(), SharedIdMonitor::kTerminatedExitCode);
    EXPECT_NE(elevated.ExitCode(), SharedIdMonitor::kTerminatedExitCode);
    EXPECT_EQ(monitor->LeaseCount(), 0);
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
}

}  // namespace
