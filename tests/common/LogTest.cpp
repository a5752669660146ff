#include "common/Log.h"
#include "common/LogWriter.h"
#include "common/Registry.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>

using namespace testsupport;

namespace {

const std::wregex kLinePattern(
    LR"(L:(\d) (\d{4})-(\d{2})-(\d{2}) (\d{2}):(\d{2}):(\d{2})\.(\d{3}) P:(\d+) T:(\d+)( S:(\d+))?\t(.*))");

// Every test starts from the default settings and a folder of its own.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        Settings({});
        folder = MakeTempFolder(L"log");
    }
    static void Settings(std::initializer_list<std::pair<const wchar_t*, DWORD>> values) {
        for (const wchar_t* name :
             {L"LogLevel", L"LogFileSize", L"LogObfuscationEnabled", L"LogFileCount", L"LogSyncEnabled"})
            NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, name);
        for (const auto& [name, value] : values)
            NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, name, value);
    }
    std::vector<std::wstring> Lines(const std::wstring& file) {
        return SplitLines(ReadUtf16File(folder + file), L"\r\n");
    }
    // The bytes one line of `text` takes in this process.
    static size_t LineBytes(const std::wstring& text) {
        return NS_Log::FormatLogLine(1, NS_Log::CurrentLogTime(), ::GetCurrentProcessId(), ::GetCurrentThreadId(),
                                     NS_Log::ProcessSessionId(), text)
                   .size() *
               sizeof(wchar_t);
    }
    std::wstring folder;
};

TEST(LogLineFormat, SessionItemOnlyForNonZeroSessions) {
    SYSTEMTIME t{2017, 3, 5, 3, 9, 5, 7, 42};
    EXPECT_EQ(NS_Log::FormatLogLine(3, t, 1200, 34, 0, L"[A::B]\tgo"),
              L"L:3 2017-03-03 09:05:07.042 P:1200 T:34\t[A::B]\tgo\r\n");
    EXPECT_EQ(NS_Log::FormatLogLine(1, t, 7, 8, 2, L"x"), L"L:1 2017-03-03 09:05:07.042 P:7 T:8 S:2\tx\r\n");
}

TEST_F(LogTest, LevelIsHonouredAndAChangeTakesEffectWithinTenWrites) {
    Settings({{L"LogLevel", 3}});
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    EXPECT_EQ(writer.Log(4, L"detail"), -1);
    EXPECT_FALSE(FileExists(folder + L"brisk_observer.log"));
    EXPECT_EQ(writer.Log(3, L"progress"), 0);
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, L"LogLevel", 4);
    int writtenWithin = 0;
    for (int i = 1; i <= 10 && writtenWithin == 0; ++i)
        if (writer.Log(4, L"detail " + std::to_wstring(i)) == 0) writtenWithin = i;
    EXPECT_GE(writtenWithin, 1);
    EXPECT_EQ(Lines(L"brisk_observer.log").size(), 2u);
}

TEST_F(LogTest, ScrambledLogHidesTextAndReadsBack) {
    Settings({{L"LogObfuscationEnabled", 1}});
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    for (int i = 0; i < 3; ++i) writer.Log(1, L"[LogTest::Scramble]\t secret line " + std::to_wstring(i));
    ASSERT_FALSE(FileExists(folder + L"brisk_observer.log"));
    std::wstring raw = ReadUtf16File(folder + L"brisk_observer.enl");
    ASSERT_FALSE(raw.empty());
    EXPECT_EQ(raw.find(L"secret"), std::wstring::npos);

    ChildProcess reader = ChildProcess::Start(
        L"tarrow_logread.exe", L"\"" + folder + L"brisk_observer.enl\" \"" + folder + L"plain.txt\"");
    ASSERT_EQ(reader.Wait(30000), WAIT_OBJECT_0);
    ASSERT_EQ(reader.ExitCode(), 0u);
    std::vector<std::wstring> lines = Lines(L"plain.txt");
    ASSERT_EQ(lines.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(std::regex_match(lines[i], kLinePattern));
        EXPECT_NE(lines[i].find(L"secret line " + std::to_wstring(i)), std::wstring::npos);
    }
}

// Two processes append 1,000 lines each at the same moment through the front end.
TEST_F(LogTest, TwoProcessesWritingAtOnceLoseAndTearNothing) {
    ASSERT_EQ(NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kProduct,
                                            NS_Utils::RegKeys::kProgramDirValue, folder),
              ERROR_SUCCESS);
    const std::wstring go = L"tarrow-log-go-" + std::to_wstring(::GetCurrentProcessId());
    NS_Utils::UniqueHandle start(::CreateEventW(nullptr, TRUE, FALSE, go.c_str()));
    std::map<std::wstring, ChildProcess> children;
    std::vector<NS_Utils::UniqueHandle> ready;
    std::vector<HANDLE> readyHandles;
    for (const std::wstring name : {L"childA", L"childB"}) {
        ready.emplace_back(::CreateEventW(nullptr, TRUE, FALSE, (go + name).c_str()));
        readyHandles.push_back(ready.back().get());
        children[name] = ChildProcess::StartHelper(L"--signal-event " + go + name + L" --wait-event " + go +
                                                   L" --log 1000 " + name);
        ASSERT_TRUE(children[name].Valid());
    }
    ASSERT_EQ(::WaitForMultipleObjects(2, readyHandles.data(), TRUE, 60000), WAIT_OBJECT_0);
    ::SetEvent(start.get());
    for (auto& [name, child] : children) {
        ASSERT_EQ(child.Wait(120000), WAIT_OBJECT_0);
        ASSERT_EQ(child.ExitCode(), 0u);
    }

    std::vector<std::wstring> lines = SplitLines(ReadUtf16File(folder + L"logs\\brisk_observer.log"), L"\r\n");
    ASSERT_EQ(lines.size(), 2000u);
    std::map<std::wstring, std::vector<int>> seen{{L"childA", std::vector<int>(1000)},
                                                  {L"childB", std::vector<int>(1000)}};
    for (const std::wstring& line : lines) {
        std::wsmatch m;
        ASSERT_TRUE(std::regex_match(line, m, kLinePattern)) << "torn line";
        std::wstring text = m[13];
        std::wstring name = text.substr(0, text.find(L' '));
        ASSERT_EQ(std::stoul(m[9]), children.at(name).Id()) << "the writer's own process id";
        ++seen.at(name).at(std::stoi(text.substr(name.size() + 1)));
    }
    for (auto& [child, counts] : seen)
        for (int n = 0; n < 1000; ++n) EXPECT_EQ(counts[n], 1) << "line " << n;
}

TEST_F(LogTest, FileAtTheLimitIsKeptAndTheNextWriteRotatesIt) {
    Settings({{L"LogFileSize", 1}});
    const std::wstring text = L"[LogTest]\t to the limit";
    std::vector<char> earlier(1024 - LineBytes(text), 'x');
    ASSERT_TRUE(WriteFileBytes(folder + L"brisk_observer.log", earlier.data(), earlier.size()));
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    writer.Log(1, text);
    EXPECT_EQ(ReadFileBytes(folder + L"brisk_observer.log").size(), 1024u);
    EXPECT_TRUE(ListFiles(folder, L"brisk_observer-*.log").empty());

    writer.Log(1, text);
    EXPECT_FALSE(FileExists(folder + L"brisk_observer.log"));
    std::vector<std::wstring> rotated = ListFiles(folder, L"brisk_observer-*.log");
    ASSERT_EQ(rotated.size(), 1u);
    EXPECT_EQ(rotated[0].size(), std::wstring(L"brisk_observer-20170303090507.042.log").size());
    EXPECT_EQ(ReadFileBytes(folder + rotated[0]).size(), 1024u + LineBytes(text));
}

TEST_F(LogTest, RotatedFilesStayWithinTheFileCountAndTheNewestAreKept) {
    Settings({{L"LogFileSize", 1}, {L"LogFileCount", 3}});
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    const std::wstring filler(400, L'.');
    for (int i = 0; i < 60; ++i) {
        writer.Log(1, L"line " + std::to_wstring(i) + L" " + filler);
        ASSERT_LE(ListFiles(folder, L"brisk_observer-*.log").size(), 3u);
    }
    std::vector<std::wstring> rotated = ListFiles(folder, L"brisk_observer-*.log");
    ASSERT_FALSE(rotated.empty());
    EXPECT_NE((ReadUtf16File(folder + rotated.back()) + ReadUtf16File(folder + L"brisk_observer.log")).find(L"line 59 "),
              std::wstring::npos);
}

TEST_F(LogTest, UnwritableFolderNeverFailsTheCaller) {
    NS_Log::CLogWriter writer(L"Q:\\no\\such\\drive\\", L"brisk_observer");
    EXPECT_EQ(writer.Log(1, L"goes nowhere"), 0);
    EXPECT_EQ(writer.Log(2, L"dropped"), -1);
}

}  // namespace
