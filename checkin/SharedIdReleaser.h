#pragma once
// Returns credentials to the identity server through the agent's check-in object.

class SharedIdReleaser {
public:
    // Makes the check-in agent and the state-engine runtime ready. Neither is reachable yet, so
    // this answers false and credentials are forgotten without a check-in.
    bool Init();
    bool IsReady() const { return m_hasCheckInAgent && m_hasRuntime; }
    // Refreshes the cached identity-server credential; false when none could be had.
    bool UpdateCorvinCred();

private:
    bool m_hasCheckInAgent = false;
    bool m_hasRuntime = false;
};
