#include "soak/GuardedHeap.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace soak::guarded {
namespace {

constexpr size_t kPage = 4096;
constexpr size_t kHeader = 16;
constexpr size_t kAlign = 16;
constexpr size_t kCachedPages = 32;  // regions up to this size are kept for reuse
constexpr std::uint32_t kPlain = 0x504C4E31, kGuarded = 0x47524431;
constexpr unsigned char kSlack = 0xA5;

struct Header {
    std::uint32_t magic;
    std::uint32_t pages;
    std::uint64_t size;
};
static_assert(sizeof(Header) == kHeader);

std::atomic<bool> g_enabled{false};
std::atomic<size_t> g_guarded{0};
SRWLOCK g_lock = SRWLOCK_INIT;
void* g_free[kCachedPages + 1] = {};  // a list per page count, linked through each region's first word

size_t Rounded(size_t size) { return (size + kAlign - 1) & ~(kAlign - 1); }

[[noreturn]] void Corrupt(const char* what) {
    std::fprintf(stderr, "guarded heap: %s\n", what);
    std::fflush(stderr);
    ::ExitProcess(5);
}

void* TakeRegion(size_t pages) {
    if (pages <= kCachedPages) {
        ::AcquireSRWLockExclusive(&g_lock);
        void* region = g_free[pages];
        if (region) g_free[pages] = *static_cast<void**>(region);
        ::ReleaseSRWLockExclusive(&g_lock);
        if (region) return region;
    }
    // The page after the committed ones stays reserved only: touching it faults.
    void* region = ::VirtualAlloc(nullptr, (pages + 1) * kPage, MEM_RESERVE, PAGE_NOACCESS);
    if (region && !::VirtualAlloc(region, pages * kPage, MEM_COMMIT, PAGE_READWRITE)) {
        ::VirtualFree(region, 0, MEM_RELEASE);
        region = nullptr;
    }
    return region;
}

void GiveRegion(void* region, size_t pages) {
    if (pages > kCachedPages) {
        ::VirtualFree(region, 0, MEM_RELEASE);
        return;
    }
    ::AcquireSRWLockExclusive(&g_lock);
    *static_cast<void**>(region) = g_free[pages];
    g_free[pages] = region;
    ::ReleaseSRWLockExclusive(&g_lock);
}

void* Guarded(size_t size) {
    const size_t span = Rounded(size), pages = (span + kHeader + kPage - 1) / kPage;
    auto* region = static_cast<unsigned char*>(TakeRegion(pages));
    if (!region) return nullptr;
    unsigned char* block = region + pages * kPage - span;
    *reinterpret_cast<Header*>(block - kHeader) = {kGuarded, static_cast<std::uint32_t>(pages), size};
    std::memset(block + size, kSlack, span - size);
    ++g_guarded;
    return block;
}

void* Allocate(size_t size) {
    if (g_enabled) return Guarded(size);
    auto* raw = static_cast<unsigned char*>(std::malloc(size + kHeader));
    if (!raw) return nullptr;
    *reinterpret_cast<Header*>(raw) = {kPlain, 0, size};
    return raw + kHeader;
}

void Free(void* pointer) {
    if (!pointer) return;
    auto* block = static_cast<unsigned char*>(pointer);
    const Header header = *reinterpret_cast<Header*>(block - kHeader);
    if (header.magic == kPlain) return std::free(block - kHeader);
    if (header.magic != kGuarded) Corrupt("a block's header was overwritten, or a foreign block was freed");
    const size_t span = Rounded(header.size);
    for (size_t i = header.size; i < span; ++i)
        if (block[i] != kSlack) Corrupt("a write past the end of a block");
    GiveRegion(block + span - header.pages * kPage, header.pages);
}

}  // namespace

void Enable() { g_enabled = true; }
size_t GuardedAllocations() { return g_guarded; }

bool IsGuardPage(const void* address) {
    MEMORY_BASIC_INFORMATION info{};
    return ::VirtualQuery(address, &info, sizeof(info)) && info.State == MEM_RESERVE && info.AllocationBase &&
           static_cast<const unsigned char*>(address) >= static_cast<const unsigned char*>(info.AllocationBase) + kPage;
}

}  // namespace soak::guarded

void* operator new(std::size_t size) {
    if (void* block = soak::guarded::Allocate(size)) return block;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return soak::guarded::Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return soak::guarded::Allocate(size); }
void operator delete(void* block) noexcept { soak::guarded::Free(block); }
void operator delete[](void* block) noexcept { soak::guarded::Free(block); }
void operator delete(void* block, std::size_t) noexcept { soak::guarded::Free(block); }
void operator delete[](void* block, std::size_t) noexcept { soak::guarded::Free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { soak::guarded::Free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { soak::guarded::Free(block); }
