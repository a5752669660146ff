// Allocation failure where a thread of the service would end: this program's operator new fails
// on request, on every thread but the test's own and the collector's worker (whose items are not
// what is tried here).

#include "tests/monitor/MonitorFixture.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<int> g_failures{0};
std::atomic<DWORD> g_spared{0};
std::atomic<const NS_Utils::CGarbageCollector*> g_collector{nullptr};

bool Spared() {
    const NS_Utils::CGarbageCollector* collector = g_collector.load();
    return ::GetCurrentThreadId() == g_spared.load() || (collector && collector->IsWorkerThread());
}

void* Allocate(std::size_t size) {
    if (g_failures.load(std::memory_order_relaxed) > 0 && !Spared() && g_failures.fetch_sub(1) > 0)
        throw std::bad_alloc();
    if (void* block = std::malloc(size ? size : 1)) return block;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

namespace testsupport {
namespace {

class OutOfMemoryTest : public MonitorTest {};

// The exit callback runs out of memory several times over: the pool thread goes on, and the exit
// is handled once memory is back.
TEST_F(OutOfMemoryTest, AnExitCallbackOutOfMemoryTriesAgainAndReleasesTheCredential) {
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(Credential(L"scarce"), holder.Id()), SharedIdMonitor::kOk);
    const size_t before = CountInServiceLog(L"Out of memory: the exit is handled again");
    g_spared.store(::GetCurrentThreadId());
    g_collector.store(&monitor->Collector());
    g_failures.store(5);
    holder.Kill();
    EXPECT_TRUE(WaitUntil([&] { return g_failures.load() <= 0; }));
    g_failures.store(0);
    g_collector.store(nullptr);
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_GE(CountInServiceLog(L"Out of memory: the exit is handled again"), before + 1);
}

}  // namespace
}  // namespace testsupport
