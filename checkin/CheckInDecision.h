#pragma once
// What becomes of a credential's row after a check-in attempt: the one table that decides it, and
// the one list of the call failures that mean the agent's server went away without answering.

#include <windows.h>

namespace NS_CheckIn {

// The agent's result codes for a row, as far as this service acts on them. The agent defines what
// each transient code means; to this service they all say "not now, ask again later".
enum AgentResult : int {
    kCheckedIn = 0,
    // Not the agent's own: a call that succeeded did not hold exactly one integer for the row.
    kNoSingleAnswer = 1,
    kTransient5 = 5,
    kTransient7 = 7,
    kTransient8 = 8,
    kTransient37 = 37,
    kTransient41 = 41,
    // The credential was checked out by another identity-server user: it can never be returned.
    kDifferentUser = 42,
    kTransient43 = 43,
};

// How a row came back from an attempt.
enum class Reply {
    kNotSent,   // no call carried it: its objects were dropped, the service stopped, no memory
    kNoAnswer,  // a call carried it, but the call failed without leaving a result for it
    kAnswered,  // the agent answered it with `result`
};

struct RowOutcome {
    Reply reply = Reply::kNotSent;
    int result = 0;       // kAnswered only
    HRESULT call = S_OK;  // of the call that carried it, for the log and the event log
};

enum class Action {
    kSendAgain,   // back to the queue as it was: no attempt is counted, no pause is owed
    kRetryLater,  // queued again after the retry pause; the file and the lease count stay
    kGiveUp,      // final without success: forgotten like a success, logged as given up
    kForget,      // final: the file is deleted, the record dropped, the lease count lowered
};

// A row is final only when the agent answered it: a call that failed (a busy agent's
// RPC_E_SERVERCALL_RETRYLATER, E_FAIL with the network down) and left no result is no answer.
[[nodiscard]] Action Decide(const RowOutcome& outcome);

// The call failed because the agent's server went away (or the object's proxy lost it): as with
// every failed call nothing was answered, and here the agent's objects must also be made anew
// before the next attempt.
[[nodiscard]] bool IsServerGone(HRESULT hr);

}  // namespace NS_CheckIn
