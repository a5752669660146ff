#include "checkin/CheckInDecision.h"

#include <optional>

namespace NS_CheckIn {
namespace {

struct Rule {
    Reply reply;
    std::optional<int> result;  // none: any result
    Action action;
};

// The first rule that matches decides; the last one makes every other answer final.
constexpr Rule kRules[] = {
    {Reply::kNotSent, std::nullopt, Action::kSendAgain},   {Reply::kNoAnswer, std::nullopt, Action::kRetryLater},
    {Reply::kAnswered, kTransient5, Action::kRetryLater},  {Reply::kAnswered, kTransient7, Action::kRetryLater},
    {Reply::kAnswered, kTransient8, Action::kRetryLater},  {Reply::kAnswered, kTransient37, Action::kRetryLater},
    {Reply::kAnswered, kTransient41, Action::kRetryLater}, {Reply::kAnswered, kTransient43, Action::kRetryLater},
    {Reply::kAnswered, kDifferentUser, Action::kGiveUp},   {Reply::kAnswered, std::nullopt, Action::kForget},
};

// Each says that the server, or the connection to it, is gone: the call was not answered.
constexpr HRESULT kServerGone[] = {
    RPC_E_DISCONNECTED,
    RPC_E_SERVER_DIED,
    RPC_E_SERVER_DIED_DNE,
    RPC_E_CONNECTION_TERMINATED,
    RPC_E_SERVERFAULT,  // the server failed inside the call: no result came back
    CO_E_OBJNOTCONNECTED,
    CO_E_SERVER_STOPPING,
    __HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE),
    __HRESULT_FROM_WIN32(RPC_S_CALL_FAILED),
    __HRESULT_FROM_WIN32(RPC_S_CALL_FAILED_DNE),
    __HRESULT_FROM_WIN32(RPC_S_CALL_CANCELLED),
};

}  // namespace

Action Decide(const RowOutcome& outcome) {
    for (const Rule& rule : kRules)
        if (rule.reply == outcome.reply && (!rule.result || *rule.result == outcome.result)) return rule.action;
    return Action::kForget;  // not reached: the last rule matches every answer
}

bool IsServerGone(HRESULT hr) {
    for (HRESULT gone : kServerGone)
        if (hr == gone) return true;
    return false;
}

}  // namespace NS_CheckIn
