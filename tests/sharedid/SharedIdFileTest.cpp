#include "sharedid/SharedIdFile.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

using namespace testsupport;
using namespace NS_SHAREDID_UTILS;

namespace {

CSharedId KnownRecord() {
    CSharedId r(L"https://corvin/a", L"srv-2", L"aux-1", L"svc-17", L"acct-5", L"memory-2", L"role-admin",
                L"aux-4", L"cn=lease", L"20170312T140500Z", false, L"memory-3", L"memory-6");
    r.SetEnterpriseId(L"alice@corp");
    return r;
}

// Built by hand from the file layout, not by the writer.
std::vector<std::uint8_t> Utf16Bytes(const std::wstring& text) {
    std::vector<std::uint8_t> bytes;
    for (wchar_t c : text) {
        bytes.push_back(static_cast<std::uint8_t>(c & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(c >> 8));
    }
    return bytes;
}

class SharedIdFileTest : public ::testing::Test {
protected:
    void SetUp() override { folder = MakeTempFolder(L"file"); }
    std::wstring Write(const std::wstring& name, const std::wstring& text) {
        std::vector<std::uint8_t> bytes = Utf16Bytes(text);
        WriteFileBytes(folder + name, bytes.data(), bytes.size());
        return folder + name;
    }
    std::wstring folder;
};

TEST_F(SharedIdFileTest, KnownRecordWritesKnownBytesAndReadsBack) {
    CSharedId record = KnownRecord();
    std::wstring path = folder + L"known.dat";
    record.SetFileName(path);
    std::list<DWORD> errors;
    ASSERT_TRUE(writeSharedIdToFile(record, path, errors));
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(ReadFileBytes(path), Utf16Bytes(L"https://corvin/a\nsrv-2\nsvc-17\nacct-5\nrole-admin\naux-4\n"
                                              L"cn=lease\naux-1\n20170312T140500Z\nalice@corp\n0"));
    EXPECT_EQ(ReadUtf16File(path).find(L"memory"), std::wstring::npos);

    CSharedId back;
    ASSERT_TRUE(readSharedIdFromFile(back, path, errors));
    EXPECT_EQ(back.GetCorvinAuthSvcUrl(), L"https://corvin/a");
    EXPECT_EQ(back.GetCorvinAuthSrvId(), L"srv-2");
    EXPECT_EQ(back.GetAuthSvcId(), L"svc-17");
    EXPECT_EQ(back.GetSharedId(), L"acct-5");
    EXPECT_EQ(back.GetRoleId(), L"role-admin");
    EXPECT_EQ(back.GetAuxText4(), L"aux-4");
    EXPECT_EQ(back.GetLeaseDN(), L"cn=lease");
    EXPECT_EQ(back.GetAuxText1(), L"aux-1");
    EXPECT_EQ(back.GetLeaseExpiry(), L"20170312T140500Z");
    EXPECT_EQ(back.GetEnterpriseId(), L"alice@corp");
    EXPECT_TRUE(back.GetFlag()) << "a stored 0 reads back as true";
    EXPECT_TRUE(back.GetAuxText2().empty() && back.GetAuxText3().empty() && back.GetAuxText6().empty());
    EXPECT_TRUE(back.GetFileName().empty()) << "the caller sets the file name";
}

TEST_F(SharedIdFileTest, WriterRefusesUnfitRecordsAndNeverOverwrites) {
    std::list<DWORD> errors;
    CSharedId incomplete = KnownRecord();
    incomplete.SetSharedId(L"");
    incomplete.SetFileName(folder + L"a.dat");
    EXPECT_FALSE(writeSharedIdToFile(incomplete, folder + L"a.dat", errors));
    CSharedId unnamed = KnownRecord();
    EXPECT_FALSE(writeSharedIdToFile(unnamed, folder + L"a.dat", errors));
    ASSERT_EQ(errors.size(), 4u);
    EXPECT_EQ(errors.front(), kStepRecord);
    EXPECT_EQ(*std::next(errors.begin(), 2), kStepRecord);
    EXPECT_FALSE(FileExists(folder + L"a.dat"));

    const std::wstring openFailed = L"[NS_SHAREDID_UTILS::writeSharedIdToFile]\t CreateFile error. Error = 80";
    size_t before = CountInServiceLog(openFailed);
    std::wstring existing = Write(L"taken.dat", L"someone else's credential");
    CSharedId record = KnownRecord();
    record.SetFileName(existing);
    errors.clear();
    EXPECT_FALSE(writeSharedIdToFile(record, existing, errors));
    EXPECT_EQ(errors, (std::list<DWORD>{kStepFile, ERROR_FILE_EXISTS}));
    EXPECT_EQ(ReadUtf16File(existing), L"someone else's credential");
    EXPECT_EQ(CountInServiceLog(openFailed), before + 1);
}

TEST_F(SharedIdFileTest, ReaderStepCodesForMissingAndEmptyFiles) {
    std::list<DWORD> errors;
    CSharedId record;
    EXPECT_FALSE(readSharedIdFromFile(record, folder + L"missing.dat", errors));
    EXPECT_EQ(errors, (std::list<DWORD>{kStepFile, ERROR_FILE_NOT_FOUND}));
    EXPECT_GE(CountInServiceLog(L"[::readSharedIdFromFile]\t CreateFile error. Error = 2"), 1u);

    errors.clear();
    WriteFileBytes(folder + L"empty.dat", "", 0);
    EXPECT_FALSE(readSharedIdFromFile(record, folder + L"empty.dat", errors));
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors.front(), kStepFile);
    EXPECT_GE(CountInServiceLog(L"[NS_SHAREDID_UTILS::readSharedIdFromFile]\t Invalid file size."), 1u);
}

TEST_F(SharedIdFileTest, NineCompleteLinesStillReadAndLongLinesFail) {
    std::list<DWORD> errors;
    CSharedId record;
    EXPECT_TRUE(readSharedIdFromFile(record, Write(L"nine.dat", L"1\n2\n3\n4\n5\n6\n7\n8\n9\n"), errors));
    EXPECT_EQ(record.GetLeaseExpiry(), L"9");
    EXPECT_TRUE(record.GetEnterpriseId().empty());
    EXPECT_TRUE(record.GetFlag());

    EXPECT_FALSE(readSharedIdFromFile(record, Write(L"eight.dat", L"1\n2\n3\n4\n5\n6\n7\n8\n9"), errors));

    std::wstring at511(511, L'x'), at512(512, L'x');
    EXPECT_TRUE(readSharedIdFromFile(record, Write(L"511.dat", L"1\n2\n" + at511 + L"\n4\n5\n6\n7\n8\n9\n10\n1"), errors));
    EXPECT_EQ(record.GetAuthSvcId(), at511);
    EXPECT_FALSE(readSharedIdFromFile(record, Write(L"512.dat", L"1\n2\n" + at512 + L"\n4\n5\n6\n7\n8\n9\n10\n1"), errors));
    EXPECT_TRUE(errors.empty()) << "a short or overlong file fails without an error entry";
}

TEST(SharedIdFileText, FlagIsFalseOnlyForTheWordFalse) {
    const std::wstring nine = L"1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n";
    for (const wchar_t* item : {L"false", L"FALSE", L"False"}) {
        CSharedId record;
        record.SetFlag(true);
        ASSERT_TRUE(ParseSharedIdText(nine + item, record));
        EXPECT_FALSE(record.GetFlag()) << item;
    }
    for (const wchar_t* item : {L"0", L"1", L"", L"true", L"falsey", L" false"}) {
        CSharedId record;
        ASSERT_TRUE(ParseSharedIdText(nine + item, record));
        EXPECT_TRUE(record.GetFlag()) << item;
    }
}

// What the reader must make of any text: the first nine lines, each ended by a line feed and at
// most 511 characters long, or a refusal.
struct Expectation {
    bool accepted;
    std::vector<std::wstring> lines;
};

Expectation Expect(const std::wstring& raw) {
    std::wstring text = raw.substr(0, raw.find(L'\0'));
    Expectation e{true, {}};
    size_t start = 0;
    for (int i = 0; i < 9; ++i) {
        size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos || end - start > 511) return {false, {}};
        e.lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return e;
}

std::wstring Mutate(std::wstring text, std::mt19937& rng) {
    auto pick = [&](size_t n) { return n == 0 ? 0 : std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
    const wchar_t specials[] = {L'\n', L'\r', L'\0', 0xD800, 0xDFFF, 0xFFFF, L':', L'x'};
    int steps = 1 + static_cast<int>(pick(4));
    for (int s = 0; s < steps; ++s) {
        switch (pick(6)) {
            case 0:  // overwrite a unit
                if (!text.empty()) text[pick(text.size())] = static_cast<wchar_t>(rng() & 0xFFFF);
                break;
            case 1:  // insert a special unit
                text.insert(text.begin() + pick(text.size() + 1), specials[pick(std::size(specials))]);
                break;
            case 2:  // cut somewhere
                text.resize(pick(text.size() + 1));
                break;
            case 3:  // stretch a line around the 511-character limit, or far past it
                text.insert(pick(text.size() + 1), std::wstring(pick(2) ? 505 + pick(12) : pick(5000), L'y'));
                break;
            case 4:  // drop a stretch
                if (!text.empty()) {
                    size_t at = pick(text.size());
                    text.erase(at, pick(text.size() - at + 1));
                }
                break;
            default:  // pure noise
                text.assign(pick(300), L'\0');
                for (wchar_t& c : text) c = static_cast<wchar_t>(rng() & 0xFFFF);
        }
    }
    return text;
}

TEST(SharedIdFileText, RandomlyMutatedFilesAreReadOrRefusedExactly) {
    const char* given = std::getenv("TARROW_FUZZ_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : 20261122u;
    std::mt19937 rng(seed);
    CSharedId known(L"https://corvin/a", L"srv", L"a1", L"svc", L"acct", L"", L"role", L"a4", L"cn=l",
                    L"20170312T140500Z", true, L"", L"");
    const std::wstring valid = FormatSharedIdText(known);
    for (int i = 0; i < 20000; ++i) {
        std::wstring input = Mutate(valid, rng);
        Expectation expected = Expect(input);
        CSharedId record;
        bool accepted = ParseSharedIdText(input, record);
        ASSERT_EQ(accepted, expected.accepted) << "seed " << seed << ", case " << i;
        if (!accepted) continue;
        const std::wstring got[] = {record.GetCorvinAuthSvcUrl(), record.GetCorvinAuthSrvId(), record.GetAuthSvcId(),
                                    record.GetSharedId(),         record.GetRoleId(),         record.GetAuxText4(),
                                    record.GetLeaseDN(),          record.GetAuxText1(),       record.GetLeaseExpiry()};
        for (int line = 0; line < 9; ++line)
            ASSERT_EQ(got[line], expected.lines[line]) << "seed " << seed << ", case " << i << ", line " << line;
        ASSERT_LE(record.GetEnterpriseId().size(), 511u);
    }
}

TEST_F(SharedIdFileTest, OddHugeAndNonUtf16FilesNeverCrashTheReader) {
    std::mt19937 rng(7);
    std::list<DWORD> errors;
    std::vector<std::uint8_t> bytes(3 * 1024 * 1024);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
    for (size_t size : {size_t{1}, size_t{3}, size_t{1023}, bytes.size()}) {
        WriteFileBytes(folder + L"noise.dat", bytes.data(), size);
        CSharedId record;
        readSharedIdFromFile(record, folder + L"noise.dat", errors);
    }
    // Eleven valid lines followed by megabytes of anything: only the lines count.
    std::vector<std::uint8_t> valid = Utf16Bytes(L"1\n2\n3\n4\n5\n6\n7\n8\n9\n10\nfalse\n");
    valid.insert(valid.end(), bytes.begin(), bytes.end());
    WriteFileBytes(folder + L"tail.dat", valid.data(), valid.size());
    CSharedId record;
    ASSERT_TRUE(readSharedIdFromFile(record, folder + L"tail.dat", errors));
    EXPECT_EQ(record.GetEnterpriseId(), L"10");
    EXPECT_FALSE(record.GetFlag());
}

}  // namespace
