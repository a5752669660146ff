#pragma once
// The desktop agent's own COM objects, as the agent ships them and as Tarrow calls them. The
// agent defines them; they are declared here, once, by vtable slot, so that every caller and
// every object built to stand in for the agent agrees on the layout. Slots count from 0 with
// IUnknown's three (and IDispatch's four more where derived from it). Reserved slots exist in
// the agent's objects but Tarrow never calls them.

#include <oaidl.h>
#include <objbase.h>

// Runtime library "KelRuntime.dll" in the agent's installation folder. Its process-wide table
// of 16 slots; slot 7 holds the site container and is read under the named mutex below.
using KelPlsSlotTableFn = IUnknown** (*)();
constexpr const char* kKelPlsSlotTableExport = "KelPlsSlotTable";
constexpr const wchar_t* kKelRuntimeLibrary = L"KelRuntime.dll";
constexpr const wchar_t* kPlsAccessMutex = L"PLS_ACCESS_MUTEX";
constexpr int kPlsSlotCount = 16;
constexpr int kPlsSiteContainerSlot = 7;

// Site container: found in slot 7 of the table.
struct IKelSiteContainer : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Reserved3() = 0;                             // slot 3
    virtual HRESULT STDMETHODCALLTYPE Reserved4() = 0;                             // slot 4
    virtual HRESULT STDMETHODCALLTYPE GetFirstStateEngine(IUnknown** engine) = 0;  // slot 5
};

// State-engine runtime: QueryInterface of the first state engine for this interface id.
struct IKelStateEngineRuntime : public IDispatch {
    virtual HRESULT STDMETHODCALLTYPE GetPropertyManager(IDispatch** manager) = 0;  // slot 7
    virtual HRESULT STDMETHODCALLTYPE Reserved8() = 0;                              // slot 8
    virtual HRESULT STDMETHODCALLTYPE Reserved9() = 0;                              // slot 9
    virtual HRESULT STDMETHODCALLTYPE Reserved10() = 0;                             // slot 10
    virtual HRESULT STDMETHODCALLTYPE GetPolicyProvider(IDispatch** provider) = 0;  // slot 11
};
// {D97C8895-73BF-4138-B227-B3D52EEF8A43}
constexpr IID IID_IKelStateEngineRuntime = {
    0xD97C8895, 0x73BF, 0x4138, {0xB2, 0x27, 0xB3, 0xD5, 0x2E, 0xEF, 0x8A, 0x43}};

// Property manager: the user's wallet and account data bags. A scope VARIANT is a VT_BOOL; a
// VARIANT_BOOL answer counts as true only when it is VARIANT_TRUE.
struct IKelPropertyManager : public IDispatch {
    virtual HRESULT STDMETHODCALLTYPE Reserved7() = 0;                                                       // slot 7
    virtual HRESULT STDMETHODCALLTYPE Reserved8() = 0;                                                       // slot 8
    virtual HRESULT STDMETHODCALLTYPE GetAccDataItem(BSTR bag, BSTR item, VARIANT scope, BSTR* value) = 0;   // 9
    virtual HRESULT STDMETHODCALLTYPE Reserved10() = 0;                                                      // slot 10
    virtual HRESULT STDMETHODCALLTYPE Reserved11() = 0;                                                      // slot 11
    virtual HRESULT STDMETHODCALLTYPE IsAccDataBagExist(BSTR bag, VARIANT scope, VARIANT_BOOL* exists) = 0;  // 12
    virtual HRESULT STDMETHODCALLTYPE Reserved13() = 0;                                                      // slot 13
    virtual HRESULT STDMETHODCALLTYPE SetAccDataBag(BSTR bag, BSTR authSvcId, VARIANT scope,
                                                    VARIANT_BOOL* ok) = 0;  // 14
    virtual HRESULT STDMETHODCALLTYPE Reserved15() = 0;                     // slot 15
    virtual HRESULT STDMETHODCALLTYPE SetAccDataBagAdt(BSTR bag, BSTR adt, VARIANT scope, VARIANT_BOOL* ok) = 0;  // 16
    virtual HRESULT STDMETHODCALLTYPE Reserved17() = 0;                                                // slot 17
    virtual HRESULT STDMETHODCALLTYPE CreateAccDataBag(BSTR bag, VARIANT_BOOL* ok) = 0;                // slot 18
    virtual HRESULT STDMETHODCALLTYPE GetAccountData(BSTR target, BSTR source, VARIANT_BOOL* ok) = 0;  // slot 19
    virtual HRESULT STDMETHODCALLTYPE Reserved20() = 0;                                                // slot 20
    virtual HRESULT STDMETHODCALLTYPE Reserved21() = 0;                                                // slot 21
    virtual HRESULT STDMETHODCALLTYPE Reserved22() = 0;                                                // slot 22
    virtual HRESULT STDMETHODCALLTYPE Reserved23() = 0;                                                // slot 23
    virtual HRESULT STDMETHODCALLTYPE Reserved24() = 0;                                                // slot 24
    virtual HRESULT STDMETHODCALLTYPE DeleteAccDataBag(BSTR bag, VARIANT scope) = 0;                   // slot 25
};

// Policy provider: the agent's central policies.
struct IKelPolicyProvider : public IDispatch {
    virtual HRESULT STDMETHODCALLTYPE GetPolicy(BSTR policyId, VARIANT* value) = 0;  // slot 7
};

// Check-in object ("CICOBatchAgent"): created by class, context 23.
struct ICICOBatchAgent : public IDispatch {
    virtual HRESULT STDMETHODCALLTYPE CheckIn(IUnknown* runtime, BSTR corvinAuthSvcUrl, BSTR corvinAuthSrvId,
                                              BSTR userName, BSTR password, VARIANT* in, VARIANT* out,
                                              LONG* nRet) = 0;  // slot 7
};
// {0D199155-1E93-4DB6-9A1C-8C3CAB4344BD}
constexpr CLSID CLSID_CICOBatchAgent = {0x0D199155, 0x1E93, 0x4DB6, {0x9A, 0x1C, 0x8C, 0x3C, 0xAB, 0x43, 0x44, 0xBD}};
// {BD5AC195-E79B-4C27-96B3-44269F2057B2}
constexpr IID IID_ICICOBatchAgent = {0xBD5AC195, 0xE79B, 0x4C27, {0x96, 0xB3, 0x44, 0x26, 0x9F, 0x20, 0x57, 0xB2}};
constexpr DWORD kCheckInAgentContext = 23;  // in-process server and handler, local and remote server

// Script support: late bound, property "EnterpriseId" (the user logged on to the agent).
constexpr const wchar_t* kScriptSupportProgId = L"BriskScriptSupport.ScriptSupport";
constexpr const wchar_t* kEnterpriseIdProperty = L"EnterpriseId";
