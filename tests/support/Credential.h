#pragma once
// The one credential the tests register, store and send: every text distinct, so that a text
// that lands in the wrong place shows.

#include "sharedid/SharedId.h"

namespace testsupport {

inline const std::wstring kUrl = L"https://corvin/auth";
// A second identity server: its credentials go to the agent in calls of their own.
inline const std::wstring kOtherUrl = L"https://corvin-b/auth";
inline const std::wstring kService = L"svc";

inline CSharedId Credential(const std::wstring& role, const std::wstring& account = L"acct",
                            const std::wstring& url = kUrl) {
    return CSharedId(url, L"srv-1", L"aux-1", kService, account, L"mem-2", role, L"aux-4", L"cn=" + role,
                     L"20301231T120000Z", true, L"mem-3", L"mem-6");
}

}  // namespace testsupport
