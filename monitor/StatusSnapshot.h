#pragma once
// What the status view shows, as plain values: copied from the registry under its lock and
// turned into text or VARIANTs without it. Never a memory-only text, a secret or a map key.

#include <windows.h>

#include <ctime>
#include <string>
#include <vector>

struct HolderStatus {
    DWORD pid = 0;
    std::wstring executable;  // the image's file name; empty when the process cannot be asked
};

struct CredentialStatus {
    enum class State { Held, OnExpiryWindow, WaitingForCheckIn, CheckingIn, Retrying, OnDisk };

    std::wstring displayName;  // service id:role:URL
    std::wstring sharedAccount;
    std::wstring leaseDN;
    std::wstring leaseExpiry;  // as stored: "20301231T120000Z", UTC
    std::wstring fileName;     // the credential file's name, without its folder
    std::vector<HolderStatus> holders;
    State state = State::Held;
    // Retrying: the agent's last result, the attempts that are to be tried again (answered with a
    // transient result, or not answered),
    // and the earliest moment of the next one (UTC).
    int lastResult = 0;
    unsigned attempts = 0;
    __time64_t nextAttempt = 0;
    // OnExpiryWindow: the first moment at which one of its holders is ended (UTC).
    __time64_t holdersEndAt = 0;
    // CheckingIn: when the call to the agent began (UTC).
    __time64_t checkingInSince = 0;
};

struct ServiceStatus {
    enum class Agent { NotAskedYet, Reachable, Unreachable };

    LONG leaseCount = 0;
    size_t queuedWorkItems = 0;
    Agent agent = Agent::NotAskedYet;  // at the last check-in attempt
    bool workerRunning = true;         // false: the collector's worker could not start or died
};

struct StatusSnapshot {
    ServiceStatus service;
    // Held credentials by display name, then those released and not yet checked in, oldest first,
    // then the credential files that none of these stands for (left for the next start or the
    // agent's return, or another live instance's).
    std::vector<CredentialStatus> credentials;
};

class CSharedId;
// A record's fields as the status shows them, in `state`, without holders.
CredentialStatus DescribeCredential(const CSharedId& record, CredentialStatus::State state);

inline const wchar_t* StateText(CredentialStatus::State state) {
    switch (state) {
    case CredentialStatus::State::Held: return L"held";
    case CredentialStatus::State::OnExpiryWindow: return L"on the lease-expiry window";
    case CredentialStatus::State::WaitingForCheckIn: return L"waiting for check-in";
    case CredentialStatus::State::CheckingIn: return L"checking in";
    case CredentialStatus::State::Retrying: return L"retrying";
    case CredentialStatus::State::OnDisk: return L"on disk";
    }
    return L"";
}
