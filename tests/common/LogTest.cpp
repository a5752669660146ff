#include "common/Log.h"
#include "common/LogWriter.h"
#include "common/Registry.h"
#include "tests/common/LogTestSupport.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>

using namespace testsupport;

namespace {

const std::wregex kLinePattern(
    LR"(L:(\d) (\d{4})-(\d{2})-(\d{2}) (\d{2}):(\d{2}):(\d{2})\.(\d{3}) P:(\d+) T:(\d+)( S:(\d+))?\t(.*))");

class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        ResetLogSettings();
        folder = MakeTempFolder(L"log");
    }
    std::vector<std::wstring> Lines(const std::wstring& file) {
        return SplitLines(ReadUtf16File(folder + file), L"\r\n");
    }
    std::wstring folder;
};

TEST(LogLineFormat, SessionItemOnlyForNonZeroSessions) {
    SYSTEMTIME t{2017, 3, 5, 3, 9, 5, 7, 42};
    EXPECT_EQ(NS_Log::FormatLogLine(3, t, 1200, 34, 0, L"[A::B]\tgo"),
              L"L:3 2017-03-03 09:05:07.042 P:1200 T:34\t[A::B]\tgo\r\n");
    EXPECT_EQ(NS_Log::FormatLogLine(1, t, 7, 8, 2, L"x"), L"L:1 2017-03-03 09:05:07.042 P:7 T:8 S:2\tx\r\n");
}

TEST_F(LogTest, WrittenLineParsesBackToItsParts) {
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    ASSERT_EQ(writer.Log(1, L"[LogTest::Parse]\t hello: world"), 0);

    std::vector<std::wstring> lines = Lines(L"brisk_observer.log");
    ASSERT_EQ(lines.size(), 1u);
    std::wsmatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, kLinePattern)) << lines[0].size();
    EXPECT_EQ(m[1].str(), L"1");
    EXPECT_EQ(std::stoul(m[9]), ::GetCurrentProcessId());
    EXPECT_EQ(std::stoul(m[10]), ::GetCurrentThreadId());
    DWORD session = 0;
    ::ProcessIdToSessionId(::GetCurrentProcessId(), &session);
    if (session == 0)
        EXPECT_FALSE(m[11].matched);
    else
        EXPECT_EQ(std::stoul(m[12]), session);
    EXPECT_EQ(m[13].str(), L"[LogTest::Parse]\t hello: world");
}

TEST_F(LogTest, LevelAboveTheSettingIsDropped) {
    ResetLogSettings({{L"LogLevel", 3}});
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    EXPECT_EQ(writer.Log(4, L"detail"), -1);
    EXPECT_FALSE(FileExists(folder + L"brisk_observer.log"));
    EXPECT_EQ(writer.Log(3, L"progress"), 0);
    EXPECT_EQ(Lines(L"brisk_observer.log").size(), 1u);
}

TEST_F(LogTest, LevelChangedWhileWritingTakesEffectWithinTenWrites) {
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    EXPECT_EQ(writer.Log(4, L"dropped at the default level"), -1);
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, L"LogLevel", 4);
    int writtenWithin = 0;
    for (int i = 1; i <= 10 && writtenWithin == 0; ++i)
        if (writer.Log(4, L"detail " + std::to_wstring(i)) == 0) writtenWithin = i;
    EXPECT_GE(writtenWithin, 1);
    EXPECT_EQ(Lines(L"brisk_observer.log").size(), 1u);
}

TEST_F(LogTest, ScrambledLogHidesTextAndReadsBack) {
    ResetLogSettings({{L"LogObfuscationEnabled", 1}});
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    for (int i = 0; i < 3; ++i) writer.Log(1, L"[LogTest::Scramble]\t secret line " + std::to_wstring(i));
    ASSERT_FALSE(FileExists(folder + L"brisk_observer.log"));
    std::wstring raw = ReadUtf16File(folder + L"brisk_observer.enl");
    ASSERT_FALSE(raw.empty());
    EXPECT_EQ(raw.find(L"secret"), std::wstring::npos);

    ChildProcess reader = ChildProcess::Start(
        L"tarrow_logread.exe", L"\"" + folder + L"brisk_observer.enl\" \"" + folder + L"plain.txt\"");
    ASSERT_TRUE(reader.Valid());
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
    std::wstring go = L"tarrow-log-go-" + std::to_wstring(::GetCurrentProcessId());
    NS_Utils::UniqueHandle start(::CreateEventW(nullptr, TRUE, FALSE, go.c_str()));
    NS_Utils::UniqueHandle readyA(::CreateEventW(nullptr, TRUE, FALSE, (go + L"-a").c_str()));
    NS_Utils::UniqueHandle readyB(::CreateEventW(nullptr, TRUE, FALSE, (go + L"-b").c_str()));
    ChildProcess a = ChildProcess::StartHelper(L"--signal-event " + go + L"-a --wait-event " + go +
                                               L" --log 1000 childA");
    ChildProcess b = ChildProcess::StartHelper(L"--signal-event " + go + L"-b --wait-event " + go +
                                               L" --log 1000 childB");
    ASSERT_TRUE(a.Valid() && b.Valid());
    HANDLE ready[] = {readyA.get(), readyB.get()};
    ASSERT_EQ(::WaitForMultipleObjects(2, ready, TRUE, 60000), WAIT_OBJECT_0);
    ::SetEvent(start.get());
    ASSERT_EQ(a.Wait(120000), WAIT_OBJECT_0);
    ASSERT_EQ(b.Wait(120000), WAIT_OBJECT_0);
    ASSERT_EQ(a.ExitCode(), 0u);
    ASSERT_EQ(b.ExitCode(), 0u);

    std::vector<std::wstring> lines = SplitLines(ReadUtf16File(folder + L"logs\\brisk_observer.log"), L"\r\n");
    ASSERT_EQ(lines.size(), 2000u);
    std::map<std::wstring, std::vector<int>> seen{{L"childA", std::vector<int>(1000)},
                                                  {L"childB", std::vector<int>(1000)}};
    for (const std::wstring& line : lines) {
        std::wsmatch m;
        ASSERT_TRUE(std::regex_match(line, m, kLinePattern)) << "torn line";
        std::wstring text = m[13];
        size_t space = text.find(L' ');
        ASSERT_NE(space, std::wstring::npos);
        ++seen.at(text.substr(0, space)).at(std::stoi(text.substr(space + 1)));
    }
    for (auto& [child, counts] : seen)
        for (int n = 0; n < 1000; ++n) EXPECT_EQ(counts[n], 1) << "line " << n;
}

}  // namespace
