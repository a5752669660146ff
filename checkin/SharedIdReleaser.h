#pragma once
// Returns credentials to the identity server through the agent's check-in object, with the
// identity-server account that the user's wallet keeps.
//
// Which thread calls what: every method runs on the collector's worker thread, the one thread
// that checks credentials in. Its single-threaded apartment (the collector's, entered again by
// Init where the thread has none) holds the agent's objects, so they may only be used there; the
// cached account and the agent's user are touched by that thread alone and need no lock. Other
// threads (the registration path on the COM thread included) ask the worker to act by queueing a
// work item, and read the agent's user from the pipeline's copy; they never call in here.
// Every method checks it, in every build: a call from another thread ends the process.

#include "checkin/AgentInterfaces.h"
#include "checkin/CheckInDecision.h"
#include "common/ComHandles.h"
#include "common/ThreadRule.h"
#include "sharedid/SharedId.h"

#include <functional>
#include <span>
#include <string>
#include <vector>

class SharedIdReleaser {
public:
    static constexpr DWORD kLoginPollMs = 5000;

    // Pauses the worker; false when the service is stopping and the caller should give up.
    using Pause = std::function<bool(DWORD milliseconds)>;

    // `loginPollMs`: the pause between two questions while waiting for the agent's logon.
    explicit SharedIdReleaser(DWORD loginPollMs = kLoginPollMs) : m_loginPollMs(loginPollMs) {
        m_creator.BindToCurrentThread();
    }
    // Before the worker starts: the login wait pauses through `pause`, so that a stop ends it.
    void SetPause(Pause pause) { m_pause = std::move(pause); }
    // Before the worker starts: the rule that names the worker, which outlives the releaser.
    // Without it, the thread that made the releaser is its worker.
    void SetWorkerRule(const NS_Utils::ThreadRule& worker) { m_worker = &worker; }
    SharedIdReleaser(const SharedIdReleaser&) = delete;
    SharedIdReleaser& operator=(const SharedIdReleaser&) = delete;
    ~SharedIdReleaser();

    // Initialises COM on this thread and gets whatever of the check-in agent, the state-engine
    // runtime and the script support is not yet held. True only when all three are held.
    [[nodiscard]] bool Init();
    // A check-in can be tried: the check-in agent and the runtime are both held.
    bool IsReady() const { return m_checkInAgent && m_runtime; }

    // One check-in exchange for `credential`; the agent's HRESULT goes to `hrCIRes` (for the log
    // only). Answered with the agent's result code, or kNoSingleAnswer when a call that succeeded
    // did not hold one integer; no answer when the call failed and left no result; not sent when
    // there is no account to send with. Call after Init made it ready. Throws BstrAllocError when a BSTR cannot be
    // allocated, and whatever the agent's call throws.
    [[nodiscard]] NS_CheckIn::RowOutcome ReleaseCredInternal(const CSharedId& credential, HRESULT* hrCIRes);
    // The same for several credentials in one call, a row each (the wallet read once): an outcome
    // per row into `outcomes`, in order, written as soon as it is known, so that what a throw
    // leaves there is still true. A row that no call carried stays kNotSent; one a call carried
    // that got no answer is kNoAnswer. An agent that does not answer one integer per row gets the
    // rows again one per call, and single rows from then on; after the server went away, or when
    // a row could not be sent, the rows after it are not sent.
    void ReleaseCreds(std::span<const CSharedId* const> credentials, std::span<NS_CheckIn::RowOutcome> outcomes,
                      HRESULT* hrCIRes);
    bool WantsSingleRows() const { return m_singleRows; }

    // Refreshes the cached account from the wallet; false, with the cache left as it was, when
    // the wallet has none.
    [[nodiscard]] bool UpdateCorvinCred();
    // Finds the identity-server authentication-service id and keeps it; false when none.
    [[nodiscard]] bool ResolveAuthId();
    // Returns true once the agent reports a logged-on user, false when it cannot be asked or the
    // pause reports a stop. Polls without a time limit.
    [[nodiscard]] bool WaitForBriskLoginBlocking();
    // Asks the agent's script support once for the user logged on to it and keeps a non-empty
    // answer; false when none is logged on or it cannot be asked (the last answer stays).
    bool RefreshEnterpriseId();
    // The last user the agent reported as logged on; empty before the first. Rows of records
    // registered before it was known carry it.
    const std::wstring& EnterpriseId() const { return m_enterpriseId; }

    // Drops the agent's objects and wipes the cached account; for the worker before it ends,
    // since the objects belong to its apartment.
    void Reset();

private:
    [[nodiscard]] bool InitCom();
    [[nodiscard]] bool CreateCheckInAgent();
    [[nodiscard]] bool CreateScriptSupport();
    enum class LoginWait { kLoggedOn, kCannotAsk, kStopping };
    LoginWait WaitForLogin();
    enum class Logon { kLoggedOn, kNobody, kCannotAsk };
    Logon AskLogon();
    // False when there is no account to send with (the wallet stayed empty after the logon, the
    // logon could not be waited for) or the service is stopping: nothing is sent then.
    [[nodiscard]] bool RefreshAccountForCheckIn();
    void DeleteGlobalAccountDataBag(const CSharedId& credential);
    // One call for all rows; false, with the rows kNoAnswer, when the agent answered several
    // rows with another number of results.
    bool Exchange(std::span<const CSharedId* const> credentials, std::span<NS_CheckIn::RowOutcome> outcomes,
                  HRESULT* hrCIRes);
    // False when the answer does not hold one integer per row of several.
    bool DecideResults(HRESULT hr, LONG nRet, const VARIANT& output, std::span<NS_CheckIn::RowOutcome> outcomes);
    void OnePerCall(std::span<const CSharedId* const> credentials, std::span<NS_CheckIn::RowOutcome> outcomes,
                    HRESULT* hrCIRes);
    void DropAgentObjects();

    NS_Utils::ComPtr<ICICOBatchAgent> m_checkInAgent;
    NS_Utils::ComPtr<IKelStateEngineRuntime> m_runtime;
    NS_Utils::ComPtr<IDispatch> m_scriptSupport;
    DISPID m_enterpriseIdDispId = DISPID_UNKNOWN;
    bool m_comReady = false;
    std::wstring m_corvinUser;
    std::wstring m_corvinPassword;  // secret: only here and in the check-in call; wiped on change
    std::wstring m_corvinAuthSvcId;
    std::wstring m_enterpriseId;
    DWORD m_loginPollMs;
    Pause m_pause = [](DWORD milliseconds) { return ::Sleep(milliseconds), true; };
    NS_Utils::ThreadRule m_creator;
    const NS_Utils::ThreadRule* m_worker = &m_creator;
    bool m_singleRows = false;  // the agent answered several rows with another count once
};
