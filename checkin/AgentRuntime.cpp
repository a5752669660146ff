#include "checkin/AgentRuntime.h"

#include "common/Log.h"
#include "common/ModulePath.h"
#include "common/WinHandles.h"

#include <atomic>
#include <string>

namespace NS_AgentRuntime {

namespace {
constexpr const wchar_t* kTag = L"[SharedIdMonitor::GetRuntimeFromObs]\t";
// The agent holds the mutex only to read or write a slot; a longer wait means it is stuck.
constexpr DWORD kPlsMutexWaitMs = 5000;

KelPlsSlotTableFn SlotTableExport() {
    static std::atomic<KelPlsSlotTableFn> cached{nullptr};
    if (KelPlsSlotTableFn known = cached.load()) return known;
    // By full path, so that no other copy on the search path can stand in for the agent's. The
    // module is never freed: the objects in its table may be in use by any thread until the end.
    const std::wstring path = NS_Utils::AgentInstallFolder() + kKelRuntimeLibrary;
    HMODULE module = ::LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (!module) return nullptr;
    auto generic = reinterpret_cast<void (*)()>(::GetProcAddress(module, kKelPlsSlotTableExport));
    auto table = reinterpret_cast<KelPlsSlotTableFn>(generic);
    cached.store(table);
    return table;
}

NS_Utils::ComPtr<IKelSiteContainer> ReadSiteContainer() {
    KelPlsSlotTableFn tableFn = SlotTableExport();
    if (!tableFn) return {};
    // The agent's other processes share this mutex; it may not exist yet when none runs.
    NS_Utils::UniqueHandle mutex(::CreateMutexW(nullptr, FALSE, kPlsAccessMutex));
    if (!mutex) return {};
    // An abandoned mutex is ours all the same; the slot it guards is a single pointer.
    const auto owned = NS_Utils::MutexOwnership::Acquire(mutex.get(), kPlsMutexWaitMs);
    if (!owned.Owned()) return {};
    IUnknown** table = tableFn();
    IUnknown* slot = table ? table[kPlsSiteContainerSlot] : nullptr;
    if (slot) slot->AddRef();
    return NS_Utils::ComPtr<IKelSiteContainer>::Attach(static_cast<IKelSiteContainer*>(slot));
}
}  // namespace

void GetRuntimeFromObs(NS_Utils::ComPtr<IKelStateEngineRuntime>& runtime) {
    runtime.reset();
    NS_Utils::ComPtr<IKelSiteContainer> container = ReadSiteContainer();
    if (!container) {
        NS_Log::Log(1, kTag + std::wstring(L" could not get site container object"));
        return;
    }
    NS_Utils::ComPtr<IUnknown> engine;
    if (FAILED(container->GetFirstStateEngine(engine.put())) || !engine) {
        NS_Log::Log(1, kTag + std::wstring(L" Getting the first stateengine object from site container failed."));
        return;
    }
    HRESULT hr = engine->QueryInterface(IID_IKelStateEngineRuntime, runtime.put_void());
    if (FAILED(hr) || !runtime) {
        runtime.reset();
        NS_Log::Log(1, kTag + std::wstring(L" QI for SE runtime interface failed. HR = 0x") + NS_Log::Hex(hr));
    }
}

}  // namespace NS_AgentRuntime
