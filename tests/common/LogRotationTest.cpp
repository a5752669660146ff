#include "common/Log.h"
#include "common/LogWriter.h"
#include "tests/common/LogTestSupport.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

class LogRotationTest : public ::testing::Test {
protected:
    void SetUp() override { folder = MakeTempFolder(L"rotation"); }

    // The bytes one line of `text` takes in this process.
    static size_t LineBytes(const std::wstring& text) {
        return NS_Log::FormatLogLine(1, NS_Log::CurrentLogTime(), ::GetCurrentProcessId(),
                                     ::GetCurrentThreadId(), NS_Log::ProcessSessionId(), text)
                   .size() *
               sizeof(wchar_t);
    }
    // Leaves a log file of `size` bytes, as an earlier writer would have.
    void Prefill(size_t size) {
        std::vector<char> bytes(size, 'x');
        ASSERT_TRUE(WriteFileBytes(folder + L"brisk_observer.log", bytes.data(), bytes.size()));
    }
    std::wstring folder;
};

TEST_F(LogRotationTest, FileExactlyAtTheLimitIsKept) {
    ResetLogSettings({{L"LogFileSize", 1}});
    const std::wstring text = L"[LogRotationTest]\t to the limit";
    Prefill(1024 - LineBytes(text));
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    writer.Log(1, text);
    EXPECT_EQ(ReadFileBytes(folder + L"brisk_observer.log").size(), 1024u);
    EXPECT_TRUE(ListFiles(folder, L"brisk_observer-*.log").empty());
}

TEST_F(LogRotationTest, FileOneByteOverTheLimitIsRotatedAfterThatWrite) {
    ResetLogSettings({{L"LogFileSize", 1}});
    const std::wstring text = L"[LogRotationTest]\t over the limit";
    Prefill(1024 - LineBytes(text) + 1);
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    writer.Log(1, text);
    EXPECT_FALSE(FileExists(folder + L"brisk_observer.log"));
    std::vector<std::wstring> rotated = ListFiles(folder, L"brisk_observer-*.log");
    ASSERT_EQ(rotated.size(), 1u);
    // brisk_observer-YYYYMMDDhhmmss.mmm.log
    EXPECT_EQ(rotated[0].size(), std::wstring(L"brisk_observer-20170303090507.042.log").size());
    EXPECT_EQ(ReadFileBytes(folder + rotated[0]).size(), 1025u);
}

TEST_F(LogRotationTest, RotatedFilesStayWithinTheFileCountAndTheNewestAreKept) {
    ResetLogSettings({{L"LogFileSize", 1}, {L"LogFileCount", 3}});
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    const std::wstring filler(400, L'.');
    for (int i = 0; i < 60; ++i) {
        writer.Log(1, L"line " + std::to_wstring(i) + L" " + filler);
        ASSERT_LE(ListFiles(folder, L"brisk_observer-*.log").size(), 3u);
    }
    std::vector<std::wstring> rotated = ListFiles(folder, L"brisk_observer-*.log");
    ASSERT_FALSE(rotated.empty());
    std::wstring newest = ReadUtf16File(folder + rotated.back());
    std::wstring current = ReadUtf16File(folder + L"brisk_observer.log");
    EXPECT_TRUE(current.find(L"line 59 ") != std::wstring::npos ||
                newest.find(L"line 59 ") != std::wstring::npos);
}

TEST_F(LogRotationTest, UnwritableFolderNeverFailsTheCaller) {
    ResetLogSettings();
    NS_Log::CLogWriter writer(L"Q:\\no\\such\\drive\\", L"brisk_observer");
    EXPECT_EQ(writer.Log(1, L"goes nowhere"), 0);
    EXPECT_EQ(writer.Log(2, L"dropped"), -1);
}

}  // namespace
