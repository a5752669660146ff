// The real Tarrow.exe with the stand-in agent: a holder's exit leads to one check-in, secrets stay
// out of every file the run leaves, stopping mid-retry loses nothing, a restart takes up what is
// left but not what another live instance holds or what cannot be read, and the service refuses
// to hang or watch itself.

#include "common/Registry.h"
#include "host/CallerSecurity.h"
#include "host/RetryWhileUnavailable.h"
#include "sharedid/PersistantStorage.h"
#include "testing/agent/StandInControl.h"
#include "tests/host/ServiceFixture.h"

#include <aclapi.h>

namespace testsupport {
namespace {

void SetWex(const wchar_t* name, DWORD value) {
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, name, value);
}

// Credentials the agent was asked to check in: a row each, several to a call.
size_t CheckIns() { return standin::JournalLines("Row ").size(); }

// Whether `text` occurs, as UTF-16 or as UTF-8, in any file in `folder`.
bool AnyFileHolds(const std::wstring& folder, const std::string& text) {
    std::string wide;
    for (char c : text) wide += {c, '\0'};
    for (const std::wstring& name : ListFiles(folder, L"*")) {
        std::vector<std::uint8_t> bytes = ReadFileBytes(folder + name);
        std::string content(bytes.begin(), bytes.end());
        if (content.find(text) != std::string::npos || content.find(wide) != std::string::npos) return true;
    }
    return false;
}

class LifecycleTest : public ServiceTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall\\"));
        SetWex(L"FreeSharedIdWaitTime", 0);
        ServiceTest::SetUpTestSuite();
    }
    void SetUp() override {
        standin::ClearJournal();
        standin::SetScript(L"CheckInResults", std::wstring(L"0"));
        ServiceTest::SetUp();
    }
};

TEST_F(LifecycleTest, HolderExitChecksInOnceAndNoSecretReachesAFile) {
    standin::SetScript(L"WalletPassword", std::wstring(L"pw-7f3a9"));
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(holder.Id(), Credential(L"secret")), 0u);
    holder.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns() == 1; }));
    std::string line = standin::JournalLines("CheckIn ")[0];
    EXPECT_NE(line.find("user=corvin-user"), std::string::npos) << line;
    EXPECT_NE(line.find("row=cn=secret|aux-1|;svc;aux-4;acct;mem-3;{ERROR_CODE};;cn=secret|"), std::string::npos)
        << line;
    ASSERT_TRUE(WaitUntil([] { return ListFiles(CredentialFolder(), L"*.dat").empty(); }));
    for (const char* secret : {"pw-7f3a9", "mem-2", "mem-3"}) {
        EXPECT_FALSE(AnyFileHolds(L"C:\\TarrowTestInstall\\logs\\", secret)) << secret;
        EXPECT_FALSE(AnyFileHolds(CredentialFolder(), secret)) << secret;
    }
}

TEST_F(LifecycleTest, StopMidRetryLosesNothingAndRestartLeavesWhatAnotherInstanceHolds) {
    SetWex(L"FreeSharedIdWaitTime", 600000);
    standin::SetScript(L"CheckInResults", std::wstring(L"37"));
    ChildProcess first = StartHolder(), second = StartHolder();
    ASSERT_EQ(Register(first.Id(), Credential(L"one")), 0u);
    ASSERT_EQ(Register(second.Id(), Credential(L"two")), 0u);
    first.Kill();
    second.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns() >= 1; }));
    tarrow.reset();
    EXPECT_EQ(s_service->Stop(), 0u);
    EXPECT_EQ(ListFiles(CredentialFolder(), L"*.dat").size(), 2u);

    // This process stands for another live instance: it keeps its own credential's file open.
    PersistantStorage otherInstance;
    CSharedId held = Credential(L"held-elsewhere");
    ASSERT_EQ(otherInstance.Persist(held), 0);
    ASSERT_TRUE(WriteFileBytes(CredentialFolder() + L"unreadable.dat", "\x41\x00", 2));
    ASSERT_TRUE(WriteFileBytes(CredentialFolder() + L"empty.dat", "", 0));  // made, never written
    SetWex(L"FreeSharedIdWaitTime", 0);
    standin::SetScript(L"CheckInResults", std::wstring(L"0"));
    standin::ClearJournal();
    ASSERT_TRUE(s_service->Start());
    EXPECT_TRUE(WaitUntil([] { return CheckIns() == 2; }));
    EXPECT_TRUE(WaitUntil([] { return ListFiles(CredentialFolder(), L"*.dat").size() == 2; }));
    EXPECT_TRUE(FileExists(held.GetFileName()) && FileExists(CredentialFolder() + L"unreadable.dat"));
    EXPECT_FALSE(FileExists(CredentialFolder() + L"empty.dat"));
    held.ReleaseFileClaim();
    ::DeleteFileW(held.GetFileName().c_str());
    ::DeleteFileW((CredentialFolder() + L"unreadable.dat").c_str());
}

// A user who never logs on to the agent: the stop ends the wait and nothing is sent.
TEST_F(LifecycleTest, StopDuringTheLogonWaitSendsNothingAndKeepsTheFile) {
    tarrow.reset();
    s_service->Stop();  // a fresh service has no account cached from earlier tests
    standin::SetScript(L"WalletUser", std::wstring());
    standin::SetScript(L"EnterpriseIdEmptyReads", 1000000);
    ASSERT_TRUE(s_service->Start());
    ASSERT_EQ(tarrowctl::ConnectToTarrow(tarrow), S_OK);
    const std::wstring waiting = L"Waiting for the user to log on to the agent.";
    const size_t waitsBefore = CountInServiceLog(waiting);
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(holder.Id(), Credential(L"never-logged-on")), 0u);
    holder.Kill();
    ASSERT_TRUE(WaitUntil([&] { return CountInServiceLog(waiting) > waitsBefore; }));
    tarrow.reset();
    EXPECT_EQ(s_service->Stop(), 0u);
    EXPECT_EQ(CheckIns(), 0u);
    EXPECT_EQ(ListFiles(CredentialFolder(), L"*.dat").size(), 1u);
    standin::ClearScript();
    standin::SetScript(L"CheckInResults", std::wstring(L"0"));
    ASSERT_TRUE(s_service->Start());
    EXPECT_TRUE(WaitUntil([] { return CheckIns() == 1 && ListFiles(CredentialFolder(), L"*.dat").empty(); }));
}

TEST_F(LifecycleTest, TheServiceNeverWatchesItsOwnProcess) {
    DWORD own = s_service->Pid();
    EXPECT_EQ(Register(own, Credential(L"own")), 1u);
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(holder.Id(), Credential(L"taken-over")), 0u);
    NS_Utils::UniqueBstr out;
    EXPECT_EQ(Query(own, Credential(L"taken-over"), true, out), S_FALSE);
}

TEST_F(LifecycleTest, CallsAreAnsweredWhileAnotherProcessHoldsTheLogMutex) {
    NS_Utils::UniqueHandle held(::CreateEventW(nullptr, TRUE, FALSE, L"TarrowTestLogMutexHeld"));
    ChildProcess blocker = ChildProcess::StartHelper(
        L"--hold-mutex Global\\brisk_observer.log_LogMutex --signal-event TarrowTestLogMutexHeld --sleep 600000");
    ASSERT_EQ(::WaitForSingleObject(held.get(), 30000), WAIT_OBJECT_0);
    CSharedId incomplete = Credential(L"while-blocked");
    incomplete.SetLeaseDN(L"");
    EXPECT_EQ(Register(::GetCurrentProcessId(), incomplete), 4u);
    // Every line on: a registration logs several, and only the first may wait for the mutex.
    ChildProcess holder = StartHolder();
    const ULONGLONG asked = ::GetTickCount64();
    EXPECT_EQ(Register(holder.Id(), Credential(L"while-blocked")), 0u);
    EXPECT_LT(::GetTickCount64() - asked, 4000u);
    EXPECT_TRUE(s_service->Running());
}

TEST(CallerSecurityTest, OnlyTheUserAndSystemMayCall) {
    CCallerSecurity security;
    ASSERT_EQ(security.Build(), S_OK);
    BOOL present = FALSE, defaulted = FALSE;
    PACL acl = nullptr;
    ASSERT_TRUE(::GetSecurityDescriptorDacl(security.Descriptor(), &present, &acl, &defaulted) && present && acl);
    ASSERT_EQ(acl->AceCount, 2);
    PSID owner = nullptr;
    ASSERT_TRUE(::GetSecurityDescriptorOwner(security.Descriptor(), &owner, &defaulted));
    BYTE system[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(system);
    ASSERT_TRUE(::CreateWellKnownSid(WinLocalSystemSid, nullptr, system, &size));
    for (DWORD i = 0; i < 2; ++i) {
        ACCESS_ALLOWED_ACE* ace = nullptr;
        ASSERT_TRUE(::GetAce(acl, i, reinterpret_cast<void**>(&ace)));
        EXPECT_EQ(ace->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
        EXPECT_EQ(ace->Mask, DWORD{COM_RIGHTS_EXECUTE | COM_RIGHTS_EXECUTE_LOCAL});
        EXPECT_TRUE(::EqualSid(&ace->SidStart, i == 0 ? owner : system));
    }
}

TEST(PublishingTest, UnavailableTableIsTriedAgainForAMinute) {
    std::vector<DWORD> pauses;
    int attempts = 0;
    auto pause = [&](DWORD ms) { pauses.push_back(ms); };
    EXPECT_EQ(
        NS_Host::RetryWhileUnavailable([&] { return ++attempts < 3 ? NS_Host::kServerUnavailable : S_OK; }, pause),
        S_OK);
    EXPECT_EQ(pauses, (std::vector<DWORD>{100, 200}));
    pauses.clear();
    EXPECT_EQ(NS_Host::RetryWhileUnavailable([] { return NS_Host::kServerUnavailable; }, pause),
              NS_Host::kServerUnavailable);
    DWORD total = 0;
    for (DWORD ms : pauses) total += ms;
    EXPECT_EQ(total, 60000u);
}

}  // namespace
}  // namespace testsupport
