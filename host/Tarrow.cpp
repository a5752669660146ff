#include "host/Tarrow.h"

#include "common/Log.h"
#include "host/Registration.h"
#include "host/RetryWhileUnavailable.h"
#include "host/SharedIdSerializer.h"
#include "host/StatusVariant.h"
#include "host/TarrowModule.h"
#include "lease/LeaseMonitor.h"

#include "TarrowVersion.h"

#include <new>

namespace {
constexpr const wchar_t* kMoniker = L"KELTARROW";
// Every call is served on the main thread, the apartment that holds the object.
constexpr const wchar_t* kOffMainThread = L"[CTarrow]\t called off the main thread";

std::wstring Text(BSTR value) { return value ? std::wstring(value, ::SysStringLen(value)) : std::wstring(); }

std::wstring HexResult(HRESULT hr) { return NS_Log::Hex(static_cast<unsigned long>(hr)); }

// What a method's body throws never crosses the COM boundary: it is logged and answered. Only
// allocation fails that way here (out of memory for texts, BSTRs or the status's arrays).
template <typename Body>
HRESULT Guarded(const wchar_t* method, Body&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        NS_Log::Log(1, L"[Tarrow::" + std::wstring(method) + L"]\t Out of memory.");
        return E_OUTOFMEMORY;
    } catch (...) {
        NS_Log::Log(1, L"[Tarrow::" + std::wstring(method) + L"]\t Unexpected exception.");
        return E_UNEXPECTED;
    }
}
}  // namespace

NS_Utils::ComPtr<CTarrow> CTarrow::Create() { return NS_Utils::ComPtr<CTarrow>::Attach(new CTarrow()); }

CTarrow::CTarrow() : m_monitor(SharedIdMonitor::Create()) {
    CTarrowModule::Instance().Lock();
    // The lease monitor first: credentials held again for their running holders are handed to it.
    // Without its thread the service goes on, only without lease warnings.
    if (!CLeaseMonitor::Create()->StartLeaseMonitor(*m_monitor))
        NS_Log::Log(1, L"[Tarrow::Tarrow]\t StartLeaseMonitor failed.");
    if (!m_monitor->GCUncheckedInCredentials()) NS_Log::Log(1, L"[Tarrow::Tarrow]\t GCUncheckedInCredentials failed.");
}

CTarrow::~CTarrow() {
    // Shut down by the owner before; a forced stop ends the process before the last release.
    (void)Shutdown();
    CTarrowModule::Instance().Unlock();
}

bool CTarrow::Shutdown() {
    // WinMain shuts the object down before it lets go: the destructor's call, on whichever thread
    // the last Release comes, finds nothing left to take down.
    if (!m_monitor && !m_rotEntry.Registered() && !m_activeObject.Registered()) return true;
    CTarrowModule::Instance().MainThread().Check(L"[CTarrow::Shutdown]\t called off the main thread");
    m_activeObject.Revoke();
    RevokeFromROT();
    if (!m_monitor) return true;
    // Lease monitor first, then the collector: see SharedIdMonitor::Shutdown.
    if (!m_monitor->Shutdown()) {
        // Never destroyed: its destructor would take the locks a thread ended by force may hold.
        (void)new std::shared_ptr<SharedIdMonitor>(std::move(m_monitor));
        return false;
    }
    m_monitor.reset();
    return true;
}

HRESULT CTarrow::QueryInterface(REFIID iid, void** object) {
    if (!object) return E_POINTER;
    if (iid == IID_IUnknown || iid == IID_IDispatch || iid == IID_ITarrow || iid == IID_ITarrowStatus) {
        *object = static_cast<ITarrowStatus*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG CTarrow::AddRef() { return ++m_refs; }

ULONG CTarrow::Release() {
    ULONG count = --m_refs;
    if (count == 0) delete this;
    return count;
}

HRESULT CTarrow::LoadTypeInfo() {
    // Here rather than in each IDispatch method: all of them come through.
    CTarrowModule::Instance().MainThread().Check(L"[CTarrow::LoadTypeInfo]\t called off the main thread");
    if (m_typeInfo) return S_OK;
    NS_Utils::ComPtr<ITypeLib> library;
    HRESULT hr = ::LoadTypeLibEx(NS_Registration::TypeLibraryPath().c_str(), REGKIND_NONE, library.put());
    if (FAILED(hr)) hr = ::LoadRegTypeLib(LIBID_KelSlnHelperLib, 1, 0, LOCALE_NEUTRAL, library.put());
    if (FAILED(hr)) return hr;
    return library->GetTypeInfoOfGuid(IID_ITarrowStatus, m_typeInfo.put());
}

HRESULT CTarrow::GetTypeInfoCount(UINT* count) {
    if (!count) return E_POINTER;
    *count = SUCCEEDED(LoadTypeInfo()) ? 1 : 0;
    return S_OK;
}

HRESULT CTarrow::GetTypeInfo(UINT index, LCID, ITypeInfo** info) {
    if (!info) return E_POINTER;
    *info = nullptr;
    if (index != 0) return DISP_E_BADINDEX;
    HRESULT hr = LoadTypeInfo();
    if (FAILED(hr)) return hr;
    m_typeInfo->AddRef();
    *info = m_typeInfo.get();
    return S_OK;
}

HRESULT CTarrow::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
    HRESULT hr = LoadTypeInfo();
    return FAILED(hr) ? hr : ::DispGetIDsOfNames(m_typeInfo.get(), names, count, ids);
}

HRESULT CTarrow::Invoke(DISPID id, REFIID iid, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                        EXCEPINFO* exception, UINT* argumentError) {
    if (iid != IID_NULL) return DISP_E_UNKNOWNINTERFACE;
    HRESULT hr = LoadTypeInfo();
    if (FAILED(hr)) return hr;
    return ::DispInvoke(static_cast<ITarrowStatus*>(this), m_typeInfo.get(), id, flags, params, result, exception,
                        argumentError);
}

HRESULT CTarrow::RegisterSharedId(DWORD processId, BSTR corvinAuthSvcUrl, BSTR corvinAuthSrvId, BSTR auxText1,
                                  BSTR authSvcId, BSTR sharedId, BSTR auxText2, BSTR roleId, BSTR auxText4,
                                  BSTR leaseDN, BSTR leaseExpiry, BSTR auxText3, VARIANT_BOOL flag, BSTR auxText6,
                                  DWORD* result) {
    return Guarded(L"RegisterSharedId", [&]() -> HRESULT {
        CTarrowModule::Instance().MainThread().Check(kOffMainThread);
        if (!result) return E_POINTER;
        if (!m_monitor) return CO_E_OBJNOTCONNECTED;
        CSharedId record(Text(corvinAuthSvcUrl), Text(corvinAuthSrvId), Text(auxText1), Text(authSvcId), Text(sharedId),
                         Text(auxText2), Text(roleId), Text(auxText4), Text(leaseDN), Text(leaseExpiry),
                         flag == VARIANT_TRUE, Text(auxText3), Text(auxText6));
        // As the collector's worker last read it: a client's call never waits on the agent.
        record.SetEnterpriseId(m_monitor->EnterpriseId());
        *result = m_monitor->RegisterSharedCreds(record, &processId);
        if (*result == 0)
            NS_Log::Log(3, L"[Tarrow::RegisterSharedId]\t Shared ID registered successfully.");
        else
            NS_Log::Log(1, L"[Tarrow::RegisterSharedId]\t Shared ID registration failed with error = " +
                               std::to_wstring(*result));
        return S_OK;
    });
}

HRESULT CTarrow::ReleaseSharedId(DWORD processId, BSTR authSvcUrl, BSTR authSvcId, BSTR roleId, DWORD* result) {
    return Guarded(L"ReleaseSharedId", [&]() -> HRESULT {
        CTarrowModule::Instance().MainThread().Check(kOffMainThread);
        if (!result) return E_POINTER;
        if (!m_monitor) return CO_E_OBJNOTCONNECTED;
        CSharedId key = CSharedId::SignatureKey(Text(authSvcUrl), Text(authSvcId), Text(roleId));
        if (NS_Log::IsEnabled(4)) NS_Log::Log(4, L"[Tarrow::ReleaseSharedId]\t Shared ID content = " + key.Dump());
        *result = m_monitor->UnregisterSharedCreds(key, &processId);
        if (*result == 0)
            NS_Log::Log(3, L"[Tarrow::ReleaseSharedId]\t Shared ID released successfully.");
        else
            NS_Log::Log(
                1, L"[Tarrow::ReleaseSharedId]\t Shared ID release failed with error = " + std::to_wstring(*result));
        return S_OK;
    });
}

HRESULT CTarrow::GetRegisteredSharedId(DWORD processId, BSTR authSvcUrl, BSTR authSvcId, BSTR roleId,
                                       VARIANT_BOOL ownOnly, BSTR* serialized) {
    return Guarded(L"GetRegisteredSharedId", [&]() -> HRESULT {
        CTarrowModule::Instance().MainThread().Check(kOffMainThread);
        if (!serialized) return E_POINTER;
        if (!m_monitor) return CO_E_OBJNOTCONNECTED;
        CSharedId key = CSharedId::SignatureKey(Text(authSvcUrl), Text(authSvcId), Text(roleId));
        CSharedId found;
        bool registered = ownOnly != 0 ? m_monitor->GetCredsRegistered(processId, key, &found)
                                       : m_monitor->IsCredsRegistered(key, &found);
        if (!registered) {
            NS_Log::Log(3, L"[Tarrow::GetRegisteredSharedId]\t Shared ID not registered in Tarrow.exe");
            return S_FALSE;
        }
        NS_Log::Log(3, L"[Tarrow::GetRegisteredSharedId]\t Shared ID already registered in Tarrow.exe.");
        std::vector<std::uint8_t> bytes = NS_DATA_STREAM_UTILS::SerializeSharedId(found);
        BSTR out = ::SysAllocStringByteLen(reinterpret_cast<const char*>(bytes.data()),
                                           static_cast<UINT>(bytes.size()));
        if (!out) return E_OUTOFMEMORY;
        *serialized = out;
        return S_OK;
    });
}

HRESULT CTarrow::GetStatus(VARIANT* snapshot) {
    return Guarded(L"GetStatus", [&]() -> HRESULT {
        CTarrowModule::Instance().MainThread().Check(kOffMainThread);
        if (!snapshot) return E_POINTER;
        ::VariantInit(snapshot);
        if (!m_monitor) return CO_E_OBJNOTCONNECTED;
        NS_Status::ServiceFacts facts{{}, L"" TARROW_VERSION_TEXT};
        FILETIME unused[3];
        ::GetProcessTimes(::GetCurrentProcess(), &facts.started, &unused[0], &unused[1], &unused[2]);
        // The rows go into the snapshot only once all are made: a failure leaves it empty.
        NS_Status::ToVariant(m_monitor->TakeStatusSnapshot(), facts, snapshot);
        NS_Log::Log(4, L"[Tarrow::GetStatus]\t Status given.");
        return S_OK;
    });
}

HRESULT CTarrow::RegisterActive() {
    CTarrowModule::Instance().MainThread().Check(L"[CTarrow::RegisterActive]\t called off the main thread");
    HRESULT hr = m_activeObject.Register(static_cast<ITarrowStatus*>(this), CLSID_Tarrow);
    NS_Log::Log(FAILED(hr) ? 1 : 3,
                L"[CTarrow::RegisterActive]\t Registered as the active object of its class; hr = 0x" + HexResult(hr));
    return hr;
}

HRESULT CTarrow::RegisterInROT() {
    CTarrowModule::Instance().MainThread().Check(L"[CTarrow::RegisterInROT]\t called off the main thread");
    if (m_rotEntry.Registered()) return S_FALSE;
    NS_Utils::ComPtr<IRunningObjectTable> table;
    HRESULT hr = ::GetRunningObjectTable(0, table.put());
    if (FAILED(hr)) {
        NS_Log::Log(1, L"[CTarrow::RegisterInROT]\t GetRunningObjectTable failed - HRESULT = 0x" + HexResult(hr));
        return hr;
    }
    NS_Utils::ComPtr<IMoniker> moniker;
    hr = ::CreateItemMoniker(nullptr, kMoniker, moniker.put());
    if (FAILED(hr)) {
        NS_Log::Log(1, L"[CTarrow::RegisterInROT]\t CreateItemMoniker failed - HRESULT = 0x" + HexResult(hr));
        return hr;
    }
    hr = m_rotEntry.Register(table, ROTFLAGS_REGISTRATIONKEEPSALIVE | ROTFLAGS_ALLOWANYCLIENT,
                             static_cast<ITarrowStatus*>(this), moniker.get());
    if (hr == CO_E_WRONG_SERVER_IDENTITY) {
        // Windows grants "any client" only to an AppID whose ROTFlags lie under HKEY_LOCAL_MACHINE,
        // which a registration for one user cannot write. Published for this account's own clients,
        // the service still serves this account's clients that are not elevated.
        NS_Log::Log(2,
                    L"[CTarrow::RegisterInROT]\t Publishing for any client was refused (the AppID's ROTFlags "
                    L"are not registered for the machine); publishing for this account's clients only.");
        hr = m_rotEntry.Register(table, ROTFLAGS_REGISTRATIONKEEPSALIVE, static_cast<ITarrowStatus*>(this),
                                 moniker.get());
    }
    // A failure here may still be retried: the caller says when it gives up.
    NS_Log::Log(FAILED(hr) ? 2 : 3,
                L"[CTarrow::RegisterInROT]\t Registered a new entry to the ROT table with moniker = KELTARROW; hr = " +
                    std::to_wstring(hr) + (m_rotEntry.AnyClient() ? L"" : L" (this account's clients only)"));
    return hr;
}

HRESULT CTarrow::RegisterInROTPatiently() {
    return NS_Host::RetryWhileUnavailable([this] { return RegisterInROT(); }, [](DWORD ms) { ::Sleep(ms); });
}

HRESULT CTarrow::RevokeFromROT() {
    CTarrowModule::Instance().MainThread().Check(L"[CTarrow::RevokeFromROT]\t called off the main thread");
    return m_rotEntry.Revoke();
}
