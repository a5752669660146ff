#include "sharedid/SharedIdFile.h"
#include "tests/support/Credential.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

using namespace testsupport;
using namespace NS_SHAREDID_UTILS;

namespace {

// Built by hand from the file layout, not by the writer.
std::vector<std::uint8_t> Utf16Bytes(const std::wstring& text) {
    auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return {bytes, bytes + text.size() * 2};
}

class SharedIdFileTest : public ::testing::Test {
protected:
    void SetUp() override { folder = MakeTempFolder(L"file"); }
    std::wstring Write(const std::wstring& name, const std::vector<std::uint8_t>& bytes) {
        WriteFileBytes(folder + name, bytes.data(), bytes.size());
        return folder + name;
    }
    std::wstring folder;
    std::list<DWORD> errors;
};

TEST_F(SharedIdFileTest, RecordWritesKnownBytesAndWhatIsReadBackWritesThemAgain) {
    CSharedId record = Credential(L"role-admin");
    record.SetEnterpriseId(L"alice@corp");
    record.SetFileName(folder + L"known.dat");
    ASSERT_TRUE(writeSharedIdToFile(record, folder + L"known.dat", errors));
    const std::vector<std::uint8_t> known = Utf16Bytes(
        L"https://corvin/auth\nsrv-1\nsvc\nacct\nrole-admin\naux-4\ncn=role-admin\naux-1\n20301231T120000Z\nalice@corp\n1");
    EXPECT_EQ(ReadFileBytes(folder + L"known.dat"), known) << "no memory-only text, in the stored order";

    CSharedId back;
    ASSERT_TRUE(readSharedIdFromFile(back, folder + L"known.dat", errors));
    EXPECT_TRUE(back.GetFileName().empty()) << "the caller sets the file name";
    back.SetFileName(folder + L"again.dat");
    ASSERT_TRUE(writeSharedIdToFile(back, folder + L"again.dat", errors));
    EXPECT_EQ(ReadFileBytes(folder + L"again.dat"), known);
    EXPECT_TRUE(errors.empty());
}

TEST_F(SharedIdFileTest, MissingEmptyHugeAndNonUtf16FilesAreRefusedOrReadWithoutCrashing) {
    CSharedId record;
    EXPECT_FALSE(readSharedIdFromFile(record, folder + L"missing.dat", errors));
    EXPECT_EQ(errors, (std::list<DWORD>{kStepFile, ERROR_FILE_NOT_FOUND}));
    errors.clear();
    EXPECT_FALSE(readSharedIdFromFile(record, Write(L"empty.dat", {}), errors));
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors.front(), kStepFile);

    std::mt19937 rng(7);
    std::vector<std::uint8_t> noise(3 * 1024 * 1024);
    for (auto& b : noise) b = static_cast<std::uint8_t>(rng());
    for (size_t size : {size_t{1}, size_t{3}, size_t{1023}, noise.size()})
        readSharedIdFromFile(record, Write(L"noise.dat", {noise.begin(), noise.begin() + size}), errors);
    // Eleven valid lines followed by megabytes of anything: only the lines count.
    std::vector<std::uint8_t> valid = Utf16Bytes(L"1\n2\n3\n4\n5\n6\n7\n8\n9\n10\nfalse\n");
    valid.insert(valid.end(), noise.begin(), noise.end());
    ASSERT_TRUE(readSharedIdFromFile(record, Write(L"tail.dat", valid), errors));
    EXPECT_EQ(record.GetEnterpriseId(), L"10");
    EXPECT_FALSE(record.GetFlag());
}

// What the reader must make of any text: the first nine lines, each ended by a line feed and at
// most 511 characters long, or a refusal (no lines).
std::vector<std::wstring> ExpectedLines(const std::wstring& raw) {
    std::wstring text = raw.substr(0, raw.find(L'\0'));
    std::vector<std::wstring> lines;
    for (size_t start = 0, end = 0; lines.size() < 9; lines.push_back(text.substr(start, end - start)), start = end + 1)
        if ((end = text.find(L'\n', start)) == std::wstring::npos || end - start > 511) return {};
    return lines;
}

std::wstring Mutate(std::wstring text, std::mt19937& rng) {
    auto pick = [&](size_t n) { return n == 0 ? 0 : std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
    const wchar_t specials[] = {L'\n', L'\r', L'\0', 0xD800, 0xDFFF, 0xFFFF, L':', L'x'};
    for (int steps = 1 + static_cast<int>(pick(4)); steps > 0; --steps) {
        size_t at = pick(text.size() + 1);
        switch (pick(4)) {
            case 0:  // overwrite a unit with anything
                if (at < text.size()) text[at] = static_cast<wchar_t>(rng() & 0xFFFF);
                break;
            case 1:  // insert a special unit
                text.insert(text.begin() + at, specials[pick(std::size(specials))]);
                break;
            case 2:  // cut here, or drop a stretch from here
                text.erase(at, pick(2) ? std::wstring::npos : pick(text.size() - at + 1));
                break;
            default:  // stretch a line around the 511-character limit, or far past it
                text.insert(at, std::wstring(pick(2) ? 505 + pick(12) : pick(5000), L'y'));
        }
    }
    return text;
}

// Replay a failure with TARROW_FUZZ_SEED set to the seed it prints.
TEST(SharedIdFileText, RandomlyMutatedFilesAreReadOrRefusedExactly) {
    const char* given = std::getenv("TARROW_FUZZ_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : 20261122u;
    std::mt19937 rng(seed);
    const std::wstring valid = FormatSharedIdText(Credential(L"role"));
    for (int i = 0; i < 5000; ++i) {
        std::wstring input = Mutate(valid, rng);
        std::vector<std::wstring> expected = ExpectedLines(input);
        CSharedId r;
        ASSERT_EQ(ParseSharedIdText(input, r), !expected.empty()) << "seed " << seed << ", case " << i;
        if (!expected.empty()) {
            ASSERT_EQ(expected, (std::vector<std::wstring>{r.GetCorvinAuthSvcUrl(), r.GetCorvinAuthSrvId(), r.GetAuthSvcId(),
                                                           r.GetSharedId(), r.GetRoleId(), r.GetAuxText4(), r.GetLeaseDN(),
                                                           r.GetAuxText1(), r.GetLeaseExpiry()}))
                << "seed " << seed << ", case " << i;
        }
        ASSERT_LE(r.GetEnterpriseId().size(), 511u);
    }
}

}  // namespace
