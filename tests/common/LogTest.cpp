#include "common/EventLog.h"
#include "common/Log.h"
#include "common/LogWriter.h"
#include "common/Registry.h"
#include "common/Settings.h"
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
    void SetUp() override { Settings({}); }
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
    std::wstring folder = MakeTempFolder(L"log");
};

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

    ChildProcess reader = ChildProcess::Start(L"tarrow_logread.exe",
                                              L"\"" + folder + L"brisk_observer.enl\" \"" + folder + L"plain.txt\"");
    ASSERT_TRUE(reader.Wait(30000) == WAIT_OBJECT_0 && reader.ExitCode() == 0);
    std::vector<std::wstring> lines = Lines(L"plain.txt");
    ASSERT_EQ(lines.size(), 3u);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(std::regex_match(lines[i], kLinePattern) &&
                    lines[i].ends_with(L"secret line " + std::to_wstring(i)));
}

// Two processes append 1,000 lines each at the same moment through the front end.
TEST_F(LogTest, TwoProcessesWritingAtOnceLoseAndTearNothing) {
    ASSERT_TRUE(NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_Settings::kProgramDir.key,
                                              NS_Settings::kProgramDir.valueName, folder));
    const std::wstring go = L"tarrow-log-go-" + std::to_wstring(::GetCurrentProcessId());
    NS_Utils::UniqueHandle start(::CreateEventW(nullptr, TRUE, FALSE, go.c_str()));
    std::map<std::wstring, ChildProcess> children;
    for (const std::wstring name : {L"childA", L"childB"}) {
        NS_Utils::UniqueHandle ready(::CreateEventW(nullptr, TRUE, FALSE, (go + name).c_str()));
        children[name] = ChildProcess::StartHelper(L"--signal-event " + go + name + L" --wait-event " + go +
                                                   L" --log 1000 " + name);
        ASSERT_EQ(::WaitForSingleObject(ready.get(), 60000), WAIT_OBJECT_0);
    }
    ::SetEvent(start.get());
    for (auto& [name, child] : children) ASSERT_TRUE(child.Wait(120000) == WAIT_OBJECT_0 && child.ExitCode() == 0);

    std::vector<std::wstring> lines = Lines(L"logs\\brisk_observer.log");
    ASSERT_EQ(lines.size(), 2000u);
    std::map<std::wstring, int> seen;
    for (const std::wstring& line : lines) {
        std::wsmatch m;
        ASSERT_TRUE(std::regex_match(line, m, kLinePattern)) << "torn line";
        std::wstring text = m[13];
        ASSERT_EQ(std::stoul(m[9]), children.at(text.substr(0, text.find(L' '))).Id()) << "the writer's own process id";
        EXPECT_EQ(++seen[text], 1) << "twice: " << text;
    }
    EXPECT_EQ(seen.size(), 2000u) << "every line once";
}

// Another process holds the log mutex: the lines wait once in all and are dropped, and the
// first line after the mutex is free is written.
TEST_F(LogTest, AHeldMutexCostsOneWaitAndDropsTheLines) {
    const std::wstring held = L"tarrow-log-held-" + std::to_wstring(::GetCurrentProcessId());
    NS_Utils::UniqueHandle holding(::CreateEventW(nullptr, TRUE, FALSE, held.c_str()));
    NS_Utils::UniqueHandle release(::CreateEventW(nullptr, TRUE, FALSE, (held + L"-release").c_str()));
    ChildProcess holder = ChildProcess::StartHelper(
        L"--hold-mutex Global\\brisk_observer.log_LogMutex --signal-event " + held + L" --wait-event " + held +
        L"-release");
    ASSERT_EQ(::WaitForSingleObject(holding.get(), 60000), WAIT_OBJECT_0);
    NS_Log::CLogWriter writer(folder, L"brisk_observer");
    const ULONGLONG start = ::GetTickCount64();
    for (int i = 0; i < 5; ++i) writer.Log(1, L"held " + std::to_wstring(i));
    EXPECT_LT(::GetTickCount64() - start, 4000u) << "five lines, one wait of 3 s";
    EXPECT_FALSE(FileExists(folder + L"brisk_observer.log"));

    ::SetEvent(release.get());
    ASSERT_EQ(holder.Wait(30000), WAIT_OBJECT_0);
    writer.Log(1, L"free");
    std::vector<std::wstring> lines = Lines(L"brisk_observer.log");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(L"\tfree"));
}

TEST_F(LogTest, FileAtTheLimitIsKeptAndTheNextWriteRotatesIt) {
    Settings({{L"LogFileSize", 1}});
    const std::wstring text = L"[LogTest]\t to the limit";
    const size_t lineBytes = NS_Log::FormatLogLine(1, NS_Log::CurrentLogTime(), ::GetCurrentProcessId(),
                                                   ::GetCurrentThreadId(), NS_Log::ProcessSessionId(), text)
                                 .size() *
                             2;
    std::vector<char> earlier(1024 - lineBytes, 'x');
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
    EXPECT_EQ(ReadFileBytes(folder + rotated[0]).size(), 1024u + lineBytes);
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
    EXPECT_NE(
        (ReadUtf16File(folder + rotated.back()) + ReadUtf16File(folder + L"brisk_observer.log")).find(L"line 59 "),
        std::wstring::npos);
}

// The installation's folder cannot be written (here a file stands in its place, as Program Files
// stands to a standard user): every line goes to the user's folder, made for it, the first saying
// why; rotation and pruning happen there.
TEST_F(LogTest, UnwritableFolderGivesWayToTheFallbackForGood) {
    Settings({{L"LogFileSize", 1}, {L"LogFileCount", 2}});
    const std::wstring blocked = folder + L"logs";
    ASSERT_TRUE(WriteFileBytes(blocked, "x", 1));
    const std::wstring fallback = folder + L"user\\Kel\\Tarrow\\logs\\";
    NS_Log::CLogWriter writer(blocked + L"\\", L"brisk_observer", fallback);
    const std::wstring filler(400, L'.');
    auto everything = [&] {
        std::wstring all;
        for (const std::wstring& name : ListFiles(fallback, L"brisk_observer*.log"))
            all += ReadUtf16File(fallback + name);
        return all;
    };
    const std::wstring notice = L"[CLogWriter]\t The log folder " + blocked + L"\\ cannot be written";
    writer.Log(1, L"line 0 " + filler);
    EXPECT_EQ(SplitLines(everything(), notice).size(), 2u) << "the first line says why";
    for (int i = 1; i < 20; ++i) writer.Log(1, L"line " + std::to_wstring(i) + L" " + filler);
    EXPECT_EQ(writer.Folder(), fallback);
    EXPECT_EQ(ListFiles(fallback, L"brisk_observer-*.log").size(), 2u);
    EXPECT_NE(everything().find(L"line 19 "), std::wstring::npos);
    EXPECT_LE(SplitLines(everything(), notice).size(), 2u) << "said once";
    EXPECT_TRUE(ReadFileBytes(blocked).size() == 1) << "the file in the folder's place is left alone";

    // Without a fallback nothing is written anywhere, and the writer does not fail.
    const std::wstring other = folder + L"other";
    ASSERT_TRUE(WriteFileBytes(other, "x", 1));
    NS_Log::CLogWriter alone(other + L"\\", L"brisk_observer");
    EXPECT_EQ(alone.Log(1, L"dropped"), 0);
    EXPECT_EQ(alone.Folder(), other + L"\\");
}

// Failure entries within the budget of a window; the rest counted and reported once, ahead of the
// first entry of a later window, with the minutes they span.
TEST(FailureEntryLimitTest, BudgetPerWindowAndTheCountOfWhatWasLeftOut) {
    NS_EventLog::CFailureEntryLimit limit(3, 60000);
    unsigned written = 0;
    for (ULONGLONG at = 1000; at < 1000 + 8 * 100; at += 100) {
        const auto admission = limit.Admit(at);
        written += admission.write ? 1 : 0;
        EXPECT_EQ(admission.leftOut, 0u);
    }
    EXPECT_EQ(written, 3u);
    // Still inside the window: left out, nothing reported yet.
    EXPECT_FALSE(limit.Admit(60999).write);
    const auto next = limit.Admit(61000);
    EXPECT_TRUE(next.write);
    EXPECT_EQ(next.leftOut, 6u);
    EXPECT_EQ(next.leftOutSpanMs, 61000u - 1300u);
    // A quiet window reports nothing.
    EXPECT_TRUE(limit.Admit(61100).write);
    const auto later = limit.Admit(200000);
    EXPECT_TRUE(later.write);
    EXPECT_EQ(later.leftOut, 0u);
}

}  // namespace
