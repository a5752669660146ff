// The floor mem_bench measures Tarrow's memory against: a bare COM server with nothing of its own.
// It loads the libraries it is given (those Tarrow had loaded), enters a single-threaded
// apartment, makes a hidden window, puts an object in the running object table, holds `waits`
// process handles each with a thread-pool wait on it (as Tarrow holds one per holder process),
// sets the event it is given and runs its message loop until it is ended. No threads of its own.
//   mem_floor <waits> <ready event> [library...]

#include "common/ComHandles.h"
#include "common/WaitRegistration.h"
#include "common/WinHandles.h"
#include "host/RunningObjectEntry.h"
#include "ui/UiHandles.h"

#include <objbase.h>

#include <cwchar>
#include <memory>
#include <vector>

namespace {

// The least an object in the running object table can be.
class Object final : public IUnknown {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        if (!out) return E_POINTER;
        *out = iid == IID_IUnknown ? static_cast<IUnknown*>(this) : nullptr;
        return *out ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
};

void CALLBACK NeverCalled(void*, BOOLEAN) {}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 3) return 2;
    const int waits = _wtoi(argv[1]);
    std::vector<NS_Utils::UniqueModule> libraries;
    for (int i = 3; i < argc; ++i) libraries.emplace_back(::LoadLibraryW(argv[i]));

    NS_Utils::ComApartment com;
    NS_Utils::UniqueWindow window(
        ::CreateWindowExW(0, L"STATIC", L"mem_floor", WS_OVERLAPPED, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr));
    Object object;
    CRunningObjectEntry entry;
    NS_Utils::ComPtr<IRunningObjectTable> table;
    NS_Utils::ComPtr<IMoniker> moniker;
    if (FAILED(::GetRunningObjectTable(0, table.put())) ||
        FAILED(::CreateItemMoniker(nullptr, L"TARROWMEMFLOOR", moniker.put())) ||
        FAILED(
            entry.Register(table, ROTFLAGS_REGISTRATIONKEEPSALIVE | ROTFLAGS_ALLOWANYCLIENT, &object, moniker.get())))
        return 3;

    // Its own process stands for a holder: the handle and the wait cost the same, and it never ends
    // while it is measured.
    std::vector<NS_Utils::UniqueHandle> processes;
    std::vector<std::unique_ptr<NS_Utils::WaitRegistration>> registrations;
    for (int i = 0; i < waits; ++i) {
        processes.emplace_back(::OpenProcess(SYNCHRONIZE, FALSE, ::GetCurrentProcessId()));
        registrations.push_back(std::make_unique<NS_Utils::WaitRegistration>());
        if (!registrations.back()->Register(processes.back().get(), &NeverCalled, nullptr, INFINITE,
                                            WT_EXECUTEONLYONCE))
            return 4;
    }

    NS_Utils::UniqueHandle ready(::OpenEventW(EVENT_MODIFY_STATE, FALSE, argv[2]));
    ::SetEvent(ready.get());
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0) ::DispatchMessageW(&message);
    return 0;
}
