// Credential files as crashes leave them, taken up by the real Tarrow.exe at its start: two leases
// of one credential, a replaced file that could not be deleted, and an expiry that cannot be read.
// None may be checked in under a running holder, dropped unchecked, or given a fresh deadline.

#include "common/Registry.h"
#include "sharedid/ExpiryTime.h"
#include "sharedid/HolderList.h"
#include "sharedid/PersistantStorage.h"
#include "sharedid/SharedIdFile.h"
#include "testing/agent/StandInControl.h"
#include "tests/host/ServiceFixture.h"

#include <algorithm>

namespace testsupport {
namespace {

size_t CheckIns(const std::string& text = {}) {
    const std::vector<std::string> rows = standin::JournalLines("Row ");
    return std::count_if(rows.begin(), rows.end(), [&](const std::string& l) { return l.find(text) != l.npos; });
}
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

class ForgedFileTest : public ServiceTest {
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
    // Ended as a crash ends it, so that the files stay as they are until Start.
    void Crash() {
        tarrow.reset();
        s_service->Kill();
    }
    void Start() {
        ASSERT_TRUE(s_service->Start());
        ASSERT_EQ(tarrowctl::ConnectToTarrow(tarrow), S_OK);
    }
    // What a dead instance leaves: the file and its list, unclaimed.
    static void Leave(CSharedId record, const std::vector<HolderProcess>& holders) {
        PersistantStorage storage;
        ASSERT_EQ(storage.Persist(record, &holders), PersistantStorage::kOk);
    }
};

// Two leases of one credential (two instances ended by force) each keep their own holders and are
// checked in apart; a third file of the first lease (its replaced copy) adds no second reference
// to a holder, so that the holder's one release lets the lease go.
TEST_F(ForgedFileTest, TwoLeasesOfOneCredentialKeepTheirOwnHolders) {
    ChildProcess a = StartHolder(), b = StartHolder();
    const CSharedId first = Credential(L"twice");
    CSharedId second = first;
    second.SetLeaseDN(L"cn=twice-b");
    Crash();
    Leave(first, {Listed(a)});
    Leave(second, {Listed(b)});
    Leave(first, {Listed(a)});
    Start();
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
TEST_F(ForgedFileTest, AReplacedFileThatCannotBeDeletedIsLeftWithItsList) {
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
    Start();
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
TEST_F(ForgedFileTest, AnUnreadableExpiryKeepsItsDeadlineAcrossRestarts) {
    ChildProcess registered = StartHolder(), left = StartHolder();
    CSharedId credential = Credential(L"noexpiry"), forged = Credential(L"forged");
    credential.SetLeaseExpiry(L"whenever");
    forged.SetLeaseExpiry(L"never");
    ASSERT_EQ(Register(registered.Id(), credential), 0u);
    Crash();
    Leave(forged, {Listed(left)});
    std::wstring deadlines[2];
    for (int restart = 0; restart < 2; ++restart) {
        Start();
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
    Start();
    registered.Kill();
    left.Kill();
    EXPECT_TRUE(WaitUntil([] { return CheckIns() == 2 && Files() == 0; }));
}

}  // namespace
}  // namespace testsupport
