#include "sharedid/PersistantStorage.h"
#include "sharedid/SharedIdFile.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace testsupport;

namespace {

CSharedId Complete(const std::wstring& account) {
    CSharedId r;
    r.SetCorvinAuthSvcUrl(L"https://corvin");
    r.SetCorvinAuthSrvId(L"srv");
    r.SetAuthSvcId(L"svc");
    r.SetSharedId(account);
    r.SetRoleId(L"role");
    r.SetLeaseDN(L"cn=" + account);
    return r;
}

// Points "appdata" at a folder of the test's own for the lifetime of the object.
class AppDataScope {
public:
    explicit AppDataScope(const std::wstring& value) {
        wchar_t old[MAX_PATH];
        DWORD n = ::GetEnvironmentVariableW(L"appdata", old, MAX_PATH);
        m_old.assign(old, n < MAX_PATH ? n : 0);
        ::SetEnvironmentVariableW(L"appdata", value.empty() ? nullptr : value.c_str());
    }
    ~AppDataScope() { ::SetEnvironmentVariableW(L"appdata", m_old.empty() ? nullptr : m_old.c_str()); }

private:
    std::wstring m_old;
};

class PersistantStorageTest : public ::testing::Test {
protected:
    void SetUp() override { appData = MakeTempFolder(L"appdata"); }
    std::wstring appData;
};

TEST_F(PersistantStorageTest, PersistEnumerateDelete) {
    AppDataScope scope(appData);
    PersistantStorage storage;
    EXPECT_EQ(storage.Folder(), appData + L"\\Kel\\Tarrow\\");

    CSharedId record = Complete(L"acct-1");
    ASSERT_EQ(storage.Persist(record), PersistantStorage::kOk);
    ASSERT_EQ(record.GetFileName().rfind(storage.Folder(), 0), 0u);
    std::wstring name = record.GetFileName().substr(storage.Folder().size());
    EXPECT_EQ(name.find_first_not_of(L"0123456789"), name.size() - 4);
    EXPECT_EQ(name.substr(name.size() - 4), L".dat");

    std::list<CSharedId> found;
    ASSERT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found.front().GetSharedId(), L"acct-1");
    EXPECT_EQ(found.front().GetFileName(), record.GetFileName());

    EXPECT_EQ(storage.Delete(found.front()), PersistantStorage::kOk);
    EXPECT_FALSE(FileExists(record.GetFileName()));
    EXPECT_EQ(storage.Delete(found.front()), PersistantStorage::kDeleteFailed);
    EXPECT_EQ(storage.Delete(CSharedId()), PersistantStorage::kRecordUnfit);
    CSharedId incomplete = Complete(L"");
    EXPECT_EQ(storage.Persist(incomplete), PersistantStorage::kRecordUnfit);
    EXPECT_GE(CountInServiceLog(L"[PersistantStorage::Persist]\t CSharedId object information not completed."), 1u);
}

TEST_F(PersistantStorageTest, CollidingNameFailsAndLeavesTheOtherFileAlone) {
    AppDataScope scope(appData);
    PersistantStorage storage;
    // Two credentials persisted back to back often fall into one millisecond; try until they do.
    bool collided = false;
    for (int attempt = 0; attempt < 5000 && !collided; ++attempt) {
        CSharedId first = Complete(L"acct-1");
        CSharedId second = Complete(L"acct-2");
        second.SetFileName(L"C:\\earlier\\1.dat");
        ASSERT_EQ(storage.Persist(first), PersistantStorage::kOk);
        int result = storage.Persist(second);
        if (result == PersistantStorage::kOk) {
            storage.Delete(first);
            storage.Delete(second);
            continue;
        }
        collided = true;
        EXPECT_EQ(result, PersistantStorage::kWriteFailed);
        EXPECT_EQ(second.GetFileName(), L"C:\\earlier\\1.dat") << "never points at someone else's file";
        CSharedId onDisk;
        std::list<DWORD> errors;
        ASSERT_TRUE(NS_SHAREDID_UTILS::readSharedIdFromFile(onDisk, first.GetFileName(), errors));
        EXPECT_EQ(onDisk.GetSharedId(), L"acct-1");
    }
    ASSERT_TRUE(collided);
    EXPECT_GE(CountInServiceLog(L"[PersistantStorage::Persist]\t Error stack = 1 80 "), 1u);
}

TEST_F(PersistantStorageTest, EnumerationSkipsFoldersAndUnreadableFilesAndKeepsThem) {
    AppDataScope scope(appData);
    PersistantStorage storage;
    ASSERT_TRUE(::CreateDirectoryW((storage.Folder() + L"x.dat").c_str(), nullptr));
    WriteFileBytes(storage.Folder() + L"1.dat", "", 0);
    WriteFileBytes(storage.Folder() + L"2.dat", "\x41\x00", 2);
    CSharedId good = Complete(L"acct-3");
    ASSERT_EQ(storage.Persist(good), PersistantStorage::kOk);

    std::list<CSharedId> found;
    ASSERT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found.front().GetSharedId(), L"acct-3");
    EXPECT_TRUE(FileExists(storage.Folder() + L"1.dat"));
    EXPECT_TRUE(FileExists(storage.Folder() + L"2.dat"));
}

TEST_F(PersistantStorageTest, EmptyFolderEnumeratesNothing) {
    AppDataScope scope(appData);
    PersistantStorage storage;
    std::list<CSharedId> found;
    EXPECT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
    EXPECT_TRUE(found.empty());
}

TEST_F(PersistantStorageTest, WithoutAppDataEveryOperationGivesFour) {
    AppDataScope scope(L"");  // removes the variable
    PersistantStorage storage;
    CSharedId record = Complete(L"acct-4");
    std::list<CSharedId> found;
    EXPECT_EQ(storage.Persist(record), PersistantStorage::kFolderUnknown);
    EXPECT_EQ(storage.EnumCreds(found), PersistantStorage::kFolderUnknown);
    record.SetFileName(L"C:\\x.dat");
    EXPECT_EQ(storage.Delete(record), PersistantStorage::kFolderUnknown);
}

}  // namespace
