#pragma once
// The service's COM object. A thin adapter: COM arguments become a credential record, the
// registry answers, one log line tells the outcome, and the registry's code goes back.
// ITarrowStatus extends ITarrow, so the object has one vtable and one IDispatch, which knows
// every method of both interfaces (a script given ITarrow's IDispatch finds GetStatus).
//
// Threads: everything on the main thread, the single-threaded apartment that serves all calls;
// AddRef and Release from any thread. WinMain shuts the object down on the main thread before it
// lets its reference go, so the Release that destroys the object does no main-thread work.

#include "common/ComHandles.h"
#include "host/ActiveObject.h"
#include "host/RunningObjectEntry.h"
#include "monitor/SharedIdMonitor.h"

#include "Tarrow_h.h"

#include <atomic>
#include <memory>

class CTarrow final : public ITarrowStatus {
public:
    // A new object with one reference, which the caller owns. Throws std::bad_alloc only.
    static NS_Utils::ComPtr<CTarrow> Create();

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;

    // IDispatch, served from the type library beside the executable (ITarrowStatus's type
    // information, which holds ITarrow's methods too).
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override;
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID lcid, DISPID* ids) override;
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID iid, LCID lcid, WORD flags, DISPPARAMS* params, VARIANT* result,
                                     EXCEPINFO* exception, UINT* argumentError) override;

    // ITarrow
    HRESULT STDMETHODCALLTYPE RegisterSharedId(DWORD processId, BSTR corvinAuthSvcUrl, BSTR corvinAuthSrvId,
                                               BSTR auxText1, BSTR authSvcId, BSTR sharedId, BSTR auxText2, BSTR roleId,
                                               BSTR auxText4, BSTR leaseDN, BSTR leaseExpiry, BSTR auxText3,
                                               VARIANT_BOOL flag, BSTR auxText6, DWORD* result) override;
    HRESULT STDMETHODCALLTYPE ReleaseSharedId(DWORD processId, BSTR authSvcUrl, BSTR authSvcId, BSTR roleId,
                                              DWORD* result) override;
    HRESULT STDMETHODCALLTYPE GetRegisteredSharedId(DWORD processId, BSTR authSvcUrl, BSTR authSvcId, BSTR roleId,
                                                    VARIANT_BOOL ownOnly, BSTR* serialized) override;

    // ITarrowStatus: see host/StatusLayout.h for the rows.
    HRESULT STDMETHODCALLTYPE GetStatus(VARIANT* snapshot) override;

    // Publishes the object under "KELTARROW"; S_FALSE when it already is.
    [[nodiscard]] HRESULT RegisterInROT();
    // RegisterInROT, again with a growing pause for up to a minute while the table is unavailable.
    [[nodiscard]] HRESULT RegisterInROTPatiently();
    HRESULT RevokeFromROT();
    // Publishes the object as the active object of its class, weakly, for scripts.
    [[nodiscard]] HRESULT RegisterActive();
    // The end of the service, on the main thread once its message loop has ended: withdraws the
    // object from the table (the active object's entry first), then stops the lease monitor and
    // the collector (in that order, so that no warning starts while check-ins finish) and
    // destroys the registry here. Calls that still arrive are refused. False when a thread had
    // to be ended by force: the caller ends the process without taking down anything more.
    [[nodiscard]] bool Shutdown();
    // Main thread: the session's announced end did not come.
    void OnSessionGoesOn() {
        if (m_monitor) m_monitor->OnSessionGoesOn();
    }

private:
    CTarrow();
    ~CTarrow();
    [[nodiscard]] HRESULT LoadTypeInfo();

    std::atomic<ULONG> m_refs{1};
    std::shared_ptr<SharedIdMonitor> m_monitor;
    CRunningObjectEntry m_rotEntry;
    NS_Utils::ComPtr<ITypeInfo> m_typeInfo;
    CActiveObject m_activeObject;
};
