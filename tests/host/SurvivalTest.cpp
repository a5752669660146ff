// The edges of a desktop's life with the real Tarrow.exe and the stand-in agent: a crash of the
// service and an installer's request to close it end no holder and check nothing in under a
// holder; a file left while the agent is away waits on the disk, shown as such, until the agent
// is back; an agent whose server went away mid-call is made anew and asked again; one that never
// answers is shown as such and does not hold up the stop. Credential files as crashes leave them
// (two leases of one credential, a replaced file that could not be deleted, an expiry that cannot
// be read) are never checked in under a running holder, dropped unchecked or given a fresh deadline.
// An answer of 0 means the credential is on the disk: a folder that went is made again, one that
// cannot be written refuses the registration. A file that another program holds open at the
// start is taken up once it lets go, and a holder list of any length is read.

#include "common/Registry.h"
#include "monitor/SharedIdMonitor.h"
#include "sharedid/ExpiryTime.h"
#include "sharedid/HolderList.h"
#include "sharedid/PersistantStorage.h"
#include "sharedid/SharedIdFile.h"
#include "testing/agent/StandInControl.h"
#include "testing/installer/CloseRequest.h"
#include "tests/host/ServiceFixture.h"
#include "tools/StatusReader.h"

#include <algorithm>

namespace testsupport {
namespace {

size_t JournalCount(const std::string& prefix, const std::string& text = {}) {
    const std::vector<std::string> lines = standin::JournalLines(prefix);
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(text) != l.npos; });
}
// Rows the agent was sent, several to a call.
size_t CheckIns(const std::string& text = {}) { return JournalCount("Row ", text); }
size_t Files() { return ListFiles(CredentialFolder(), L"*.dat").size(); }

HolderProcess Listed(const ChildProcess& holder) {
    return {holder.Id(), NS_SHAREDID_UTILS::ProcessCreationTime(holder.Handle())};
}

// The file of the lease `leaseDN`, read as the next start would read it; empty when there is none.
CSharedId OnDisk(const std::wstring& leaseDN) {
    for (const std::wstring& name : ListFiles(CredentialFolder(), L"*.dat")) {
        CSharedId record;
        if (NS_SHAREDID_UTILS::ParseSharedIdText(ReadUtf16File(CredentialFolder() + name), record) &&
            record.GetLeaseDN() == leaseDN) {
            record.SetFileName(CredentialFolder() + name);
            return record;
        }
    }
    return {};
}

class SurvivalTest : public ServiceTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall\\"));
        NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"FreeSharedIdWaitTime", 0);
        ServiceTest::SetUpTestSuite();
    }
    void SetUp() override {
        standin::ClearScript();
        standin::ClearJournal();
        ServiceTest::SetUp();
    }
    // The next suite's service counts the stand-in's calls from 0 again.
    void TearDown() override { standin::ClearScript(); }
    // A fresh service: the stand-in's answers count from its first call again.
    void Restart() {
        tarrow.reset();
        if (s_service->Running()) s_service->Stop();
        ASSERT_TRUE(s_service->Start());
        ASSERT_EQ(tarrowctl::ConnectToTarrow(tarrow), S_OK);
    }
    // Ended as a crash ends it: the files stay as they are until the next start.
    void Crash() {
        tarrow.reset();
        s_service->Kill();
    }
    // What a dead instance leaves: the file and its list, unclaimed.
    static void Leave(CSharedId record, const std::vector<HolderProcess>& holders) {
        PersistantStorage storage;
        ASSERT_EQ(storage.Persist(record, &holders), PersistantStorage::kOk);
    }
    // The status's state of the credential or file whose lease DN is `leaseDN`; empty when none.
    bool Status(tarrowctl::StatusText& text) {
        NS_Utils::ComPtr<ITarrowStatus> status;
        NS_Utils::UniqueVariant snapshot;
        return SUCCEEDED(tarrow->QueryInterface(IID_ITarrowStatus, status.put_void())) &&
               SUCCEEDED(status->GetStatus(snapshot.get())) && tarrowctl::ReadStatus(*snapshot.get(), text);
    }
    std::wstring LeaseCount() {
        tarrowctl::StatusText text;
        if (!Status(text)) return L"unreadable";
        for (const auto& [name, value] : text.service)
            if (name == L"lease count") return value;
        return {};
    }
    std::wstring StateOf(const std::wstring& leaseDN) {
        tarrowctl::StatusText text;
        if (!Status(text)) return L"unreadable";
        const std::wstring state = tarrowctl::CredentialField(text, leaseDN, L"state");
        const std::wstring since = tarrowctl::CredentialField(text, leaseDN, L"checking_in_since");
        return since.empty() ? state : state + L" since " + since;
    }
};

TEST_F(SurvivalTest, ACrashOrACloseRequestEndsNoHolderAndChecksNothingInUnderOne) {
    ChildProcess first = StartHolder(), second = StartHolder();
    ASSERT_EQ(Register(first.Id(), Credential(L"first")), 0u);
    ASSERT_EQ(Register(second.Id(), Credential(L"second")), 0u);
    tarrow.reset();
    s_service->Kill();
    Restart();
    EXPECT_TRUE(Found(Credential(L"first")) && Found(Credential(L"second")));
    EXPECT_EQ(StateOf(L"cn=first"), L"held");

    tarrow.reset();
    EXPECT_GE(SendCloseRequest(s_service->Pid()), 1u);
    ASSERT_EQ(::WaitForSingleObject(s_service->Handle(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(s_service->ExitCode(), 0u);
    EXPECT_EQ(first.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(second.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
    Restart();
    EXPECT_TRUE(Found(Credential(L"first")) && Found(Credential(L"second")));
    EXPECT_EQ(CheckIns(), 0u);

    first.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns() == 1; }));
    EXPECT_EQ(CheckIns("cn=first"), 1u);
    EXPECT_TRUE(Found(Credential(L"second")));
    second.Kill();
    EXPECT_TRUE(WaitUntil([] { return CheckIns() == 2 && Files() == 0; }));
    EXPECT_EQ(CheckIns("cn=second"), 1u);
}

// A holder held again from its list after a crash registers again, as a client does whose answer
// the crash lost: it holds the credential once, so its one release lets go.
TEST_F(SurvivalTest, AHolderThatRegistersAgainAfterACrashHoldsItOnce) {
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(holder.Id(), Credential(L"again")), 0u);
    Crash();
    Restart();
    ASSERT_EQ(StateOf(L"cn=again"), L"held");
    ASSERT_EQ(Register(holder.Id(), Credential(L"again")), 0u);
    ASSERT_EQ(Release(holder.Id(), Credential(L"again")), 0u);
    EXPECT_TRUE(WaitUntil([] { return CheckIns("cn=again") == 1 && Files() == 0; }));
    EXPECT_EQ(holder.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(SurvivalTest, AFileLeftWhileTheAgentIsAwayWaitsOnTheDiskUntilItIsBack) {
    CSharedId left = Credential(L"left");
    {
        PersistantStorage storage;
        ASSERT_EQ(storage.Persist(left), 0);
        left.ReleaseFileClaim();
    }
    ASSERT_TRUE(standin::Unregister());
    Restart();
    // Taken up, tried, and let go again: the lease is counted no more.
    ASSERT_TRUE(WaitUntil([&] { return StateOf(L"cn=left") == L"on disk"; }));
    EXPECT_TRUE(FileExists(left.GetFileName()));
    ASSERT_TRUE(standin::Register());
    // The file goes before the status row does: both are waited for.
    EXPECT_TRUE(WaitUntil(
        [&] { return CheckIns("cn=left") == 1 && !FileExists(left.GetFileName()) && StateOf(L"cn=left").empty(); }));
}

// A single-result agent meets a disconnect on the first of three rows of one holder: its objects
// are made anew, and all three go again, each in a call of its own; none is taken as answered.
TEST_F(SurvivalTest, AnAgentWhoseServerWentAwayIsMadeAnewAndEveryRowIsSentAgain) {
    Restart();
    standin::SetScript(L"CheckInOutputCount", 1);
    standin::SetScript(L"CheckInDelayMs", 1000);  // the worker is busy while the three are let go
    standin::SetScript(L"CheckInHResults", std::wstring(L"0,0,0x80010108,0"));
    ChildProcess first = StartHolder(), holder = StartHolder();
    ASSERT_EQ(Register(first.Id(), Credential(L"first")), 0u);
    for (const wchar_t* role : {L"gone-a", L"gone-b", L"gone-c"})
        ASSERT_EQ(Register(holder.Id(), Credential(role)), 0u);
    first.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns("cn=first") == 1; }));
    holder.Kill();
    EXPECT_TRUE(WaitUntil([] { return JournalCount("CheckIn ", " rows=1 ") == 5 && Files() == 0; }));
    EXPECT_EQ(JournalCount("CheckIn ", " rows=3 "), 1u);
    for (const char* role : {"row=cn=gone-a", "row=cn=gone-b", "row=cn=gone-c"})
        EXPECT_EQ(JournalCount("CheckIn ", std::string(" rows=1 result=0 nRet=0 ") + role), 1u) << role;
    EXPECT_EQ(JournalCount("Made check-in object"), 2u);
}

// An agent that never answers holds up neither the status nor the stop, and loses nothing.
TEST_F(SurvivalTest, AStuckCheckInIsShownAndTheStopDoesNotWaitForIt) {
    standin::SetScript(L"CheckInDelayMs", 60000);
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(holder.Id(), Credential(L"stuck")), 0u);
    holder.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns("cn=stuck") == 1; }));
    EXPECT_EQ(StateOf(L"cn=stuck").substr(0, 18), L"checking in since ");
    tarrow.reset();
    const ULONGLONG asked = ::GetTickCount64();
    s_service->Stop();
    EXPECT_LT(::GetTickCount64() - asked, 5000u) << "the stop waits for the stuck check-in";
    EXPECT_EQ(Files(), 1u);
    standin::ClearScript();
    ASSERT_TRUE(s_service->Start());
    EXPECT_TRUE(WaitUntil([] { return CheckIns("cn=stuck") == 2 && Files() == 0; }));
}

// Two leases of one credential (two instances ended by force) each keep their own holders and are
// checked in apart; a third file of the first lease (its replaced copy) adds no second reference
// to a holder, so that the holder's one release lets the lease go.
TEST_F(SurvivalTest, TwoLeasesOfOneCredentialKeepTheirOwnHolders) {
    ChildProcess a = StartHolder(), b = StartHolder();
    const CSharedId first = Credential(L"twice");
    CSharedId second = first;
    second.SetLeaseDN(L"cn=twice-b");
    Crash();
    Leave(first, {Listed(a)});
    Leave(second, {Listed(b)});
    Leave(first, {Listed(a)});
    Restart();
    EXPECT_TRUE(WaitUntil([] { return Files() == 2; })) << "the copy of the first lease answers to its record";
    b.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns("cn=twice-b|") == 1; }));
    EXPECT_EQ(CheckIns("cn=twice|"), 0u) << "checked in under its running holder";
    EXPECT_EQ(Release(a.Id(), first), 0u);
    EXPECT_TRUE(WaitUntil([] { return CheckIns("cn=twice|") == 1 && Files() == 0; })) << "held twice by one holder";
    EXPECT_EQ(a.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
}

// A registration replaces the credential's file; the old one cannot be deleted (read-only), so it
// keeps its list, and the next start leaves it alone (logged once) instead of checking it in under
// the holders that the new file answers for.
TEST_F(SurvivalTest, AReplacedFileThatCannotBeDeletedIsLeftWithItsList) {
    ChildProcess first = StartHolder(), second = StartHolder();
    const CSharedId credential = Credential(L"readonly");
    ASSERT_EQ(Register(first.Id(), credential), 0u);
    const std::wstring old = OnDisk(L"cn=readonly").GetFileName();
    ASSERT_TRUE(::SetFileAttributesW(old.c_str(), FILE_ATTRIBUTE_READONLY));
    ASSERT_EQ(Register(second.Id(), credential), 0u);
    ASSERT_EQ(Files(), 2u);
    EXPECT_TRUE(FileExists(NS_SHAREDID_UTILS::HolderListPath(old)));
    const size_t logged = CountInServiceLog(L"cannot be claimed");
    Crash();
    Restart();
    EXPECT_TRUE(Found(credential));
    EXPECT_EQ(CountInServiceLog(L"cannot be claimed"), logged + 1);
    first.Kill();
    second.Kill();
    EXPECT_TRUE(WaitUntil([] { return CheckIns("cn=readonly|") == 1 && Files() == 1; }));
    EXPECT_TRUE(FileExists(old));
    EXPECT_EQ(CheckIns(), 1u);
    ::SetFileAttributesW(old.c_str(), FILE_ATTRIBUTE_NORMAL);
    ::DeleteFileW(NS_SHAREDID_UTILS::HolderListPath(old).c_str());
    ::DeleteFileW(old.c_str());
}

// An expiry that cannot be read stands in as now + "DefaultLeaseExpiryDuration", written to the
// file, so that two restarts keep one deadline: for a registration, and for a file left so.
TEST_F(SurvivalTest, AnUnreadableExpiryKeepsItsDeadlineAcrossRestarts) {
    ChildProcess registered = StartHolder(), left = StartHolder();
    CSharedId credential = Credential(L"noexpiry"), forged = Credential(L"forged");
    credential.SetLeaseExpiry(L"whenever");
    forged.SetLeaseExpiry(L"never");
    ASSERT_EQ(Register(registered.Id(), credential), 0u);
    Crash();
    Leave(forged, {Listed(left)});
    std::wstring deadlines[2];
    for (int restart = 0; restart < 2; ++restart) {
        Restart();
        ASSERT_TRUE(Found(credential) && Found(forged));
        ::Sleep(1100);  // a fresh deadline would differ by now
        int i = 0;
        for (const wchar_t* dn : {L"cn=noexpiry", L"cn=forged"}) {
            const std::wstring expiry = OnDisk(dn).GetLeaseExpiry();
            __time64_t time = 0;
            EXPECT_TRUE(NS_LEASE_UTILS::ExpiryTextToTime(expiry, time)) << expiry;
            if (restart == 1) {
                EXPECT_EQ(expiry, deadlines[i]) << dn;
            }
            deadlines[i++] = expiry;
        }
        Crash();
    }
    Restart();
    registered.Kill();
    left.Kill();
    EXPECT_TRUE(WaitUntil([] { return CheckIns() == 2 && Files() == 0; }));
}

// The folder removed while nothing is registered (a clean-up tool) is made again by the next
// registration; one that a file stands in for refuses registrations, and checks nothing of them
// in, while what was answered 0 before stays held, and is held again after a crash.
TEST_F(SurvivalTest, AnAnswerOf0MeansTheCredentialIsOnTheDisk) {
    const std::wstring folder = CredentialFolder().substr(0, CredentialFolder().size() - 1);
    ASSERT_EQ(Files(), 0u);
    for (const std::wstring& list : ListFiles(CredentialFolder(), L"*"))
        ::DeleteFileW((CredentialFolder() + list).c_str());
    ASSERT_TRUE(::RemoveDirectoryW(folder.c_str()));
    ChildProcess kept = StartHolder(), refused = StartHolder(), later = StartHolder();
    ASSERT_EQ(Register(kept.Id(), Credential(L"kept")), 0u);
    ASSERT_FALSE(OnDisk(L"cn=kept").GetFileName().empty()) << "answered 0 without its file";

    // Moved away with the file in it (the service keeps it open), a file in its place.
    const std::wstring away = folder + L".away";
    ASSERT_TRUE(::MoveFileExW(folder.c_str(), away.c_str(), 0));
    ASSERT_TRUE(WriteFileBytes(folder, "x", 1));
    EXPECT_EQ(Register(refused.Id(), Credential(L"refused")), SharedIdMonitor::kNotStored);
    EXPECT_FALSE(Found(Credential(L"refused")));
    EXPECT_EQ(Register(refused.Id(), Credential(L"kept")), SharedIdMonitor::kNotStored);
    EXPECT_EQ(Release(refused.Id(), Credential(L"kept")), SharedIdMonitor::kProcessNotRegistered)
        << "a refused registration left its process registered";
    EXPECT_EQ(StateOf(L"cn=kept"), L"held");

    Crash();
    ASSERT_TRUE(::DeleteFileW(folder.c_str()));
    ASSERT_TRUE(::MoveFileExW(away.c_str(), folder.c_str(), 0));
    Restart();
    EXPECT_EQ(StateOf(L"cn=kept"), L"held");
    // The worker runs in order: had the refused credential been queued, it would be checked in first.
    ASSERT_EQ(Register(later.Id(), Credential(L"later")), 0u);
    later.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns("cn=later|") == 1; }));
    refused.Kill();
    kept.Kill();
    EXPECT_TRUE(WaitUntil([] { return CheckIns("cn=kept|") == 1 && Files() == 0; }));
    EXPECT_EQ(CheckIns("cn=refused|"), 0u) << "checked in behind the client's back";
    EXPECT_EQ(CheckIns(), 2u);
}

// A leftover file that another program (a scanner) holds open without delete sharing at the start
// is taken up once it lets go; a list of thousands of holders, all gone but one, keeps the
// credential held for that one.
TEST_F(SurvivalTest, AFileInUseAtTheStartAndALongHolderListAreTakenUp) {
    ChildProcess live = StartHolder();
    std::vector<HolderProcess> holders;
    for (DWORD i = 0; i < 3000; ++i) holders.push_back({0x7FFF0000 + i * 4, 132000000000000000ull + i});
    holders.push_back(Listed(live));
    Crash();
    Leave(Credential(L"long"), holders);
    ASSERT_GT(ReadFileBytes(NS_SHAREDID_UTILS::HolderListPath(OnDisk(L"cn=long").GetFileName())).size(), 65536u);
    CSharedId scanned = Credential(L"scanned");
    Leave(scanned, {});
    NS_Utils::UniqueHandle scanner(::CreateFileW(OnDisk(L"cn=scanned").GetFileName().c_str(), GENERIC_READ,
                                                 FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(scanner.valid());
    Restart();
    EXPECT_EQ(StateOf(L"cn=long"), L"held");
    EXPECT_EQ(StateOf(L"cn=scanned"), L"on disk");
    EXPECT_EQ(CountInServiceLog(L"in use by another program"), 1u);
    EXPECT_EQ(CheckIns("cn=scanned|"), 0u);
    scanner.reset();
    EXPECT_TRUE(WaitUntil([] { return CheckIns("cn=scanned|") == 1; })) << "never taken up";
    EXPECT_EQ(CheckIns("cn=long|"), 0u) << "checked in under its live holder";
    live.Kill();
    EXPECT_TRUE(WaitUntil([] { return CheckIns("cn=long|") == 1 && Files() == 0; }));
}

// While the agent cannot be reached, a credential let go is left on the disk for its return: one
// whose file went with the folder is written anew in the folder made again, and one that cannot be
// written at all waits in memory; both are checked in once the agent is back.
TEST_F(SurvivalTest, ACredentialLetGoWhileTheAgentIsAwayIsNeverKeptWithoutItsFile) {
    const std::wstring folder = CredentialFolder().substr(0, CredentialFolder().size() - 1);
    const std::wstring away[2] = {folder + L".away1", folder + L".away2"};
    ASSERT_TRUE(standin::Unregister());
    Restart();
    ChildProcess first = StartHolder(), second = StartHolder();
    ASSERT_EQ(Register(first.Id(), Credential(L"rewritten")), 0u);
    ASSERT_EQ(Register(second.Id(), Credential(L"inmemory")), 0u);
    ASSERT_TRUE(::MoveFileExW(folder.c_str(), away[0].c_str(), 0));
    first.Kill();
    ASSERT_TRUE(WaitUntil([] { return Files() == 1; })) << "kept without its file";
    EXPECT_EQ(StateOf(L"cn=rewritten"), L"on disk");

    ASSERT_TRUE(::MoveFileExW(folder.c_str(), away[1].c_str(), 0));
    ASSERT_TRUE(WriteFileBytes(folder, "x", 1));
    second.Kill();
    ASSERT_TRUE(WaitUntil([&] { return CountInServiceLog(L"it waits in memory: cn=inmemory") >= 1; }));
    EXPECT_EQ(StateOf(L"cn=inmemory"), L"waiting for check-in");
    EXPECT_EQ(LeaseCount(), L"1") << "let go without its file";
    ASSERT_TRUE(::DeleteFileW(folder.c_str()));
    ASSERT_TRUE(::MoveFileExW(away[1].c_str(), folder.c_str(), 0));
    ASSERT_TRUE(standin::Register());
    EXPECT_TRUE(
        WaitUntil([] { return CheckIns("cn=rewritten|") == 1 && CheckIns("cn=inmemory|") == 1 && Files() == 0; }));
    for (const std::wstring& name : ListFiles(away[0] + L"\\", L"*")) ::DeleteFileW((away[0] + L"\\" + name).c_str());
    ::RemoveDirectoryW(away[0].c_str());
}

}  // namespace
}  // namespace testsupport
