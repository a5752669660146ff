#pragma once
// The status snapshot's layout, shared by the service that builds it and the clients that read
// it: an array of rows, each an array of VARIANTs.
//
//   row 0, the service:  "service", lease count (I4), queued work items (I4), start time (DATE),
//                        version (BSTR), agent reachable at the last check-in attempt (BOOL; EMPTY
//                        before the first attempt), check-in worker running (BOOL)
//   rows 1..n:           "credential", display name, shared account, lease DN, lease expiry (DATE;
//                        the stored text when it is not a time), holders (array of [pid (I4),
//                        executable (BSTR)]), file name, state, last result (I4 or EMPTY), attempts
//                        (I4), next attempt (DATE or EMPTY), holders ended at (DATE or EMPTY),
//                        checking in since (DATE or EMPTY)
//
// Times are local.

namespace NS_Status {

inline constexpr unsigned kServiceFields = 7;
inline constexpr unsigned kCredentialFields = 13;
inline constexpr const wchar_t* kServiceRow = L"service";
inline constexpr const wchar_t* kCredentialRow = L"credential";

}  // namespace NS_Status
