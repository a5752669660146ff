#include "checkin/SharedIdReleaser.h"

#include "checkin/AgentRuntime.h"
#include "checkin/CheckInRow.h"
#include "checkin/CorvinUrlResolver.h"
#include "checkin/KelUtils.h"
#include "common/FailFast.h"
#include "common/Log.h"
#include "common/SecretString.h"


namespace {
// Tags end without "]": each message piece begins with it, a few with "]\t" and no blank.
constexpr const wchar_t* kReleaseTag = L"[SharedIdReleaser::ReleaseCredInternal";
constexpr const wchar_t* kUpdateTag = L"[SharedIdReleaser::UpdateCorvinCred";
constexpr const wchar_t* kResolveTag = L"[SharedIdReleaser::ResolveAuthId";
constexpr const wchar_t* kNoRuntime = L"]\tGetting the SE runtime object from observer failed";
constexpr LCID kAgentLcid = 1024;  // LOCALE_USER_DEFAULT, as the agent's own callers pass it

std::wstring HrText(HRESULT hr) { return L"0x" + NS_Log::Hex(static_cast<unsigned long>(hr)); }

VARIANT BoolScope(VARIANT_BOOL value) {
    VARIANT scope;
    ::VariantInit(&scope);
    scope.vt = VT_BOOL;
    scope.boolVal = value;
    return scope;
}
// The agent's objects live in the worker's apartment; a call from elsewhere would use them across
// apartments without marshaling.
constexpr wchar_t kOffWorker[] = L"[SharedIdReleaser]\t called off the collector's worker thread";
}  // namespace

SharedIdReleaser::~SharedIdReleaser() { NS_Utils::WipeString(m_corvinPassword); }

bool SharedIdReleaser::Init() {
    m_worker->Check(kOffWorker);
    if (!InitCom()) return false;
    if (!m_checkInAgent && !CreateCheckInAgent()) return false;
    if (!m_runtime) {
        NS_AgentRuntime::GetRuntimeFromObs(m_runtime);
        if (!m_runtime)
            NS_Log::Log(1, L"[SharedIdMonitor::FreeSharedId]\tGetting the SE runtime object from observer failed");
    }
    const bool scripting = m_scriptSupport || CreateScriptSupport();
    return m_runtime && scripting;
}

bool SharedIdReleaser::InitCom() {
    // Never undone: the worker keeps COM for as long as it runs, and the agent's objects with
    // it. The collector's worker is in its apartment already (S_FALSE); a thread already in the
    // multithreaded apartment can use the objects just as well.
    if (!m_comReady) {
        HRESULT hr = ::CoInitialize(nullptr);
        m_comReady = SUCCEEDED(hr) || hr == RPC_E_CHANGED_MODE;
    }
    return m_comReady;
}

bool SharedIdReleaser::CreateCheckInAgent() {
    HRESULT hr = ::CoCreateInstance(CLSID_CICOBatchAgent, nullptr, kCheckInAgentContext, IID_ICICOBatchAgent,
                                    m_checkInAgent.put_void());
    if (SUCCEEDED(hr) && m_checkInAgent) return true;
    m_checkInAgent.reset();
    NS_Log::Log(1, L"[SharedIdReleaser::Init]\tGet CICOBatchAgent object return error code: " + HrText(hr));
    return false;
}

bool SharedIdReleaser::CreateScriptSupport() {
    CLSID clsid{};
    NS_Utils::ComPtr<IUnknown> object;
    HRESULT hr = ::CLSIDFromProgID(kScriptSupportProgId, &clsid);
    if (SUCCEEDED(hr)) hr = ::CoCreateInstance(clsid, nullptr, kCheckInAgentContext, IID_IUnknown, object.put_void());
    if (FAILED(hr) || !object) {
        NS_Log::Log(1, L"[SharedIdMonitor::WaitForBriskLoginBlocking]\tCannot create object BriskScriptSupport");
        return false;
    }
    NS_Utils::ComPtr<IDispatch> dispatch;
    LPOLESTR name = const_cast<LPOLESTR>(kEnterpriseIdProperty);
    DISPID id = DISPID_UNKNOWN;
    hr = object->QueryInterface(IID_IDispatch, dispatch.put_void());
    if (SUCCEEDED(hr)) hr = dispatch->GetIDsOfNames(IID_NULL, &name, 1, kAgentLcid, &id);
    if (FAILED(hr)) {
        NS_Log::Log(1,
                    L"[SharedIdReleaser::Init]\t BriskScriptSupport does not answer EnterpriseId. HR = " + HrText(hr));
        return false;
    }
    m_scriptSupport = dispatch;
    m_enterpriseIdDispId = id;
    return true;
}

NS_CheckIn::RowOutcome SharedIdReleaser::ReleaseCredInternal(const CSharedId& credential, HRESULT* hrCIRes) {
    const CSharedId* const one[] = {&credential};
    NS_CheckIn::RowOutcome outcome;
    (void)Exchange(one, {&outcome, 1}, hrCIRes);  // one row is always answered or not at all
    return outcome;
}

void SharedIdReleaser::ReleaseCreds(std::span<const CSharedId* const> credentials,
                                    std::span<NS_CheckIn::RowOutcome> outcomes, HRESULT* hrCIRes) {
    if (credentials.size() == 1 || m_singleRows) return OnePerCall(credentials, outcomes, hrCIRes);
    if (Exchange(credentials, outcomes, hrCIRes)) return;
    NS_Log::Log(2, kReleaseTag,
                L"]\t The agent did not answer one result per row for " + std::to_wstring(credentials.size()) +
                    L" rows: they are sent again one per call, and single rows from now on.");
    m_singleRows = true;
    for (NS_CheckIn::RowOutcome& outcome : outcomes) outcome = {};
    OnePerCall(credentials, outcomes, hrCIRes);
}

void SharedIdReleaser::OnePerCall(std::span<const CSharedId* const> credentials,
                                  std::span<NS_CheckIn::RowOutcome> outcomes, HRESULT* hrCIRes) {
    // Once the server has gone its objects are dropped: the rows after it wait for new ones. A
    // row without an account to send with says the same of every row after it.
    for (size_t i = 0; i < credentials.size() && IsReady(); ++i) {
        (void)Exchange(credentials.subspan(i, 1), outcomes.subspan(i, 1), hrCIRes);
        if (outcomes[i].reply == NS_CheckIn::Reply::kNotSent) return;
    }
}

bool SharedIdReleaser::Exchange(std::span<const CSharedId* const> credentials,
                                std::span<NS_CheckIn::RowOutcome> outcomes, HRESULT* hrCIRes) {
    m_worker->Check(kOffWorker);
    if (!m_checkInAgent || !RefreshAccountForCheckIn()) return true;  // nothing is sent
    // The call's own texts come from the first row: a batch holds rows of one identity server.
    const CSharedId& first = *credentials.front();
    const NS_Utils::UniqueBstr url = NS_Utils::AllocBstr(first.GetCorvinAuthSvcUrl());
    const NS_Utils::UniqueBstr srvId = NS_Utils::AllocBstr(first.GetCorvinAuthSrvId());
    if (m_enterpriseId.empty()) (void)RefreshEnterpriseId();
    NS_Utils::UniqueVariant input;
    NS_CheckInRow::MakeInput(credentials, m_enterpriseId, input);
    // Removed whatever the check-in's outcome: the agent recreates the bag at the next check-out.
    for (const CSharedId* credential : credentials)
        if (!credential->GetAuxText6().empty()) DeleteGlobalAccountDataBag(*credential);

    const NS_Utils::SecretBstr user(m_corvinUser);
    const NS_Utils::SecretBstr password(m_corvinPassword);
    NS_Utils::UniqueVariant output;
    LONG nRet = 0;
    // From here the rows are on their way: whatever the call does, none of them is unsent.
    for (NS_CheckIn::RowOutcome& outcome : outcomes) outcome = {NS_CheckIn::Reply::kNoAnswer, 0};
    const HRESULT hr = m_checkInAgent->CheckIn(m_runtime.get(), url.get(), srvId.get(), user.get(), password.get(),
                                               input.get(), output.get(), &nRet);
    if (hrCIRes) *hrCIRes = hr;
    for (NS_CheckIn::RowOutcome& outcome : outcomes) outcome.call = hr;
    // A failed call answers only with what it left: a result code, or a result for every row.
    // Anything less is no answer, whatever the failure; the rows are sent again after the pause.
    if (FAILED(hr) && nRet == 0 &&
        NS_CheckInRow::ReadResults(*output.get(), outcomes.size()).size() != outcomes.size()) {
        if (NS_CheckIn::IsServerGone(hr)) {
            NS_Log::Log(2, kReleaseTag,
                        L"]\t The agent's server is gone, hrCIRes: " + HrText(hr) +
                            L"; its objects are made anew for the next attempt.");
            DropAgentObjects();
        } else {
            NS_Log::Log(2, kReleaseTag,
                        L"]\t The check-in call failed without an answer, hrCIRes: " + HrText(hr) +
                            L"; it is sent again after the pause.");
        }
        return true;
    }
    return DecideResults(hr, nRet, *output.get(), outcomes);
}

void SharedIdReleaser::DropAgentObjects() {
    // Proxies of a server that is gone stay dead; the cached account stays good.
    m_checkInAgent.reset();
    m_runtime.reset();
    m_scriptSupport.reset();
    m_enterpriseIdDispId = DISPID_UNKNOWN;
}

bool SharedIdReleaser::RefreshAccountForCheckIn() {
    if (!UpdateCorvinCred()) NS_Log::Log(2, kReleaseTag, L"]\t Cannot get Corvin cred.");
    if (!m_corvinUser.empty()) return true;
    NS_Log::Log(2, kReleaseTag, L"]\t No Corvin cred is available yet.");
    if (WaitForLogin() != LoginWait::kLoggedOn) {
        NS_Log::Log(1, kReleaseTag, L"]\tWait for Brisk login failed.");
        return false;
    }
    // The wallet is filled by the logon: what was read before the wait was empty. An empty
    // account would be refused for good by the identity server, so the rows wait unsent.
    if (UpdateCorvinCred()) return true;
    NS_Log::Log(2, kReleaseTag, L"]\t The agent's user logged on, but the wallet holds no Corvin cred yet.");
    return false;
}

void SharedIdReleaser::DeleteGlobalAccountDataBag(const CSharedId& credential) {
    NS_Log::Log(4, kReleaseTag,
                L"]\tAbout to delete the associated global account data bag for " + credential.GetSignature());
    NS_Utils::ComPtr<IDispatch> store;
    HRESULT hr = m_runtime ? m_runtime->GetPropertyManager(store.put()) : E_POINTER;
    if (SUCCEEDED(hr) && !store) hr = E_POINTER;
    auto failed = [](HRESULT result) {
        NS_Log::Log(1, kReleaseTag,
                    L"]\t Delete global account data bag failed " + NS_Log::Hex(static_cast<unsigned long>(result)));
    };
    if (FAILED(hr)) return failed(hr);
    auto manager = NS_AgentRuntime::AgentObjectAs<IKelPropertyManager>(store);
    const NS_Utils::UniqueBstr name = NS_Utils::AllocBstr(credential.GetAuxText6());
    const VARIANT global = BoolScope(VARIANT_FALSE);
    VARIANT_BOOL exists = VARIANT_FALSE;
    if (FAILED(manager->IsAccDataBagExist(name.get(), global, &exists)) || exists != VARIANT_TRUE) return;
    hr = manager->DeleteAccDataBag(name.get(), global);
    if (FAILED(hr)) return failed(hr);
    NS_Log::Log(4, kReleaseTag, L"]\t Deleted global account data bag: " + credential.GetAuxText6());
}

bool SharedIdReleaser::DecideResults(HRESULT hr, LONG nRet, const VARIANT& output,
                                     std::span<NS_CheckIn::RowOutcome> outcomes) {
    if (nRet != 0) {
        NS_Log::Log(3, kReleaseTag, L"]\t hrCIRes: " + HrText(hr) + L", nRet = " + std::to_wstring(nRet));
        for (NS_CheckIn::RowOutcome& outcome : outcomes) outcome = {NS_CheckIn::Reply::kAnswered, nRet};
        return true;
    }
    // A call that succeeded without one answer for the row leaves it final.
    const std::vector<LONG> results = NS_CheckInRow::ReadResults(output, outcomes.size());
    if (results.size() != outcomes.size()) {
        if (outcomes.size() > 1) return false;
        NS_Log::Log(2, kReleaseTag, L"]\t The size of  CheckIn result vector is not 1. ");
        outcomes.front() = {NS_CheckIn::Reply::kAnswered, NS_CheckIn::kNoSingleAnswer};
        return true;
    }
    for (size_t i = 0; i < results.size(); ++i) {
        NS_Log::Log(3, kReleaseTag, L"]\t hrCIRes: " + HrText(hr) + L", ret = " + std::to_wstring(results[i]));
        outcomes[i] = {NS_CheckIn::Reply::kAnswered, results[i]};
    }
    return true;
}

bool SharedIdReleaser::UpdateCorvinCred() {
    m_worker->Check(kOffWorker);
    if (!m_runtime) NS_AgentRuntime::GetRuntimeFromObs(m_runtime);
    if (!m_runtime) {
        NS_Log::Log(1, kUpdateTag, kNoRuntime);
        return false;
    }
    if (m_corvinAuthSvcId.empty() && !ResolveAuthId()) {
        NS_Log::Log(2, kUpdateTag, L"]\tResolution of Corvin authentication service failed.");
        return false;
    }
    std::wstring user;
    std::wstring password;
    CKelUtils::RetrieveCorvinCredentials(m_runtime.get(), m_corvinAuthSvcId, BoolScope(VARIANT_TRUE), user, password);
    if (user.empty()) {
        NS_Utils::WipeString(password);
        NS_Log::Log(2, kUpdateTag, L"]\tcould not get Corvin cred from wallet. Not disturbing the cache.");
        return false;
    }
    m_corvinUser = user;
    NS_Utils::ReplaceSecret(m_corvinPassword, password);
    return true;
}

bool SharedIdReleaser::ResolveAuthId() {
    m_worker->Check(kOffWorker);
    if (!m_runtime) NS_AgentRuntime::GetRuntimeFromObs(m_runtime);
    if (!m_runtime) {
        NS_Log::Log(1, kResolveTag, kNoRuntime);
        return false;
    }
    std::wstring authSvcId;
    if (CCorvinUrlResolver::ResolveAuthSvcId(m_runtime.get(), authSvcId) != 0) {
        NS_Log::Log(1, kResolveTag, L"]\t Cannot get Corvin Auth Id from wallet.");
        return false;
    }
    m_corvinAuthSvcId = authSvcId;
    NS_Log::Log(3, kResolveTag, L"]\t CorvinAuthSvcId = " + m_corvinAuthSvcId);
    return true;
}

bool SharedIdReleaser::WaitForBriskLoginBlocking() { return WaitForLogin() == LoginWait::kLoggedOn; }

SharedIdReleaser::LoginWait SharedIdReleaser::WaitForLogin() {
    m_worker->Check(kOffWorker);
    if (!m_scriptSupport) return LoginWait::kCannotAsk;
    NS_Log::Log(3, L"[SharedIdReleaser::WaitForBriskLoginBlocking]\t Waiting for the user to log on to the agent.");
    for (;;) {
        switch (AskLogon()) {
        case Logon::kLoggedOn: return LoginWait::kLoggedOn;
        case Logon::kCannotAsk: return LoginWait::kCannotAsk;
        case Logon::kNobody: break;
        }
        if (!m_pause(m_loginPollMs)) return LoginWait::kStopping;
    }
}

bool SharedIdReleaser::RefreshEnterpriseId() {
    m_worker->Check(kOffWorker);
    return m_scriptSupport && AskLogon() == Logon::kLoggedOn;
}

SharedIdReleaser::Logon SharedIdReleaser::AskLogon() {
    NS_Utils::UniqueVariant value;
    DISPPARAMS none{};
    if (FAILED(m_scriptSupport->Invoke(m_enterpriseIdDispId, IID_NULL, kAgentLcid, DISPATCH_PROPERTYGET, &none,
                                       value.put(), nullptr, nullptr)))
        return Logon::kCannotAsk;
    if (value.get()->vt != VT_BSTR || ::SysStringLen(value.get()->bstrVal) == 0) return Logon::kNobody;
    m_enterpriseId.assign(value.get()->bstrVal, ::SysStringLen(value.get()->bstrVal));
    return Logon::kLoggedOn;
}

void SharedIdReleaser::Reset() {
    m_worker->Check(kOffWorker);
    DropAgentObjects();
    m_corvinUser.clear();
    NS_Utils::WipeString(m_corvinPassword);
    m_corvinAuthSvcId.clear();
    m_enterpriseId.clear();
}
