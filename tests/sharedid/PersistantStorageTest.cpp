#include "sharedid/PersistantStorage.h"
#include "sharedid/SharedIdFile.h"
#include "tests/support/Credential.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <set>

using namespace testsupport;

namespace {

class PersistantStorageTest : public ::testing::Test {
protected:
    void SetUp() override {
        appData = MakeTempFolder(L"appdata");
        ::SetEnvironmentVariableW(L"appdata", appData.c_str());
    }
    std::wstring appData;
};

TEST_F(PersistantStorageTest, PersistEnumerateDeleteAndLeaveWhatCannotBeRead) {
    PersistantStorage storage;
    ASSERT_EQ(storage.Folder(), appData + L"\\Kel\\Tarrow\\");
    std::list<CSharedId> found;
    ASSERT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
    EXPECT_TRUE(found.empty());
    ASSERT_TRUE(::CreateDirectoryW((storage.Folder() + L"x.dat").c_str(), nullptr));
    WriteFileBytes(storage.Folder() + L"1.dat", "", 0);
    WriteFileBytes(storage.Folder() + L"2.dat", "\x41\x00", 2);

    CSharedId record = Credential(L"role", L"acct-1");
    ASSERT_EQ(storage.Persist(record), PersistantStorage::kOk);
    ASSERT_EQ(record.GetFileName().rfind(storage.Folder(), 0), 0u);
    std::wstring name = record.GetFileName().substr(storage.Folder().size());
    EXPECT_EQ(name.find_first_not_of(L"0123456789"), name.size() - 4) << "local time, then .dat";
    record.ReleaseFileClaim();

    ASSERT_EQ(storage.EnumCreds(found), PersistantStorage::kOk);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found.front().GetSharedId(), L"acct-1");
    EXPECT_EQ(found.front().GetFileName(), record.GetFileName());
    EXPECT_TRUE(FileExists(storage.Folder() + L"1.dat") && FileExists(storage.Folder() + L"2.dat"));

    found.front().ReleaseFileClaim();
    EXPECT_EQ(storage.Delete(found.front()), PersistantStorage::kOk);
    EXPECT_FALSE(FileExists(record.GetFileName()));
    EXPECT_EQ(storage.Delete(found.front()), PersistantStorage::kDeleteFailed);
    EXPECT_EQ(storage.Delete(CSharedId()), PersistantStorage::kRecordUnfit);
    CSharedId incomplete = Credential(L"role", L"");
    EXPECT_EQ(storage.Persist(incomplete), PersistantStorage::kRecordUnfit);
}

// Names are the local time to the millisecond, so credentials persisted back to back meet on a
// name; each must still get a file of its own, and no file is written over.
TEST_F(PersistantStorageTest, CredentialsPersistedBackToBackEachGetAFileOfTheirOwn) {
    PersistantStorage storage;
    std::vector<CSharedId> records;
    std::set<std::wstring> names;
    const std::wstring taken = L"[NS_SHAREDID_UTILS::writeSharedIdToFile]\t CreateFile error. Error = 80";
    const size_t takenBefore = CountInServiceLog(taken);
    for (int i = 0; i < 2000 && CountInServiceLog(taken) == takenBefore; ++i) {
        records.push_back(Credential(L"role", L"acct-" + std::to_wstring(i)));
        ASSERT_EQ(storage.Persist(records.back()), PersistantStorage::kOk) << i;
        names.insert(records.back().GetFileName());
    }
    ASSERT_GT(CountInServiceLog(taken), takenBefore) << "no two names met";
    EXPECT_EQ(names.size(), records.size());
    for (CSharedId& record : records) {
        record.ReleaseFileClaim();
        CSharedId onDisk;
        std::list<DWORD> errors;
        ASSERT_TRUE(NS_SHAREDID_UTILS::readSharedIdFromFile(onDisk, record.GetFileName(), errors));
        EXPECT_EQ(onDisk.GetSharedId(), record.GetSharedId());
    }
}

TEST_F(PersistantStorageTest, WithoutAppDataEveryOperationGivesFour) {
    ::SetEnvironmentVariableW(L"appdata", nullptr);
    PersistantStorage storage;
    CSharedId record = Credential(L"role");
    std::list<CSharedId> found;
    EXPECT_EQ(storage.Persist(record), PersistantStorage::kFolderUnknown);
    EXPECT_EQ(storage.EnumCreds(found), PersistantStorage::kFolderUnknown);
    record.SetFileName(L"C:\\x.dat");
    EXPECT_EQ(storage.Delete(record), PersistantStorage::kFolderUnknown);
}

}  // namespace
