#pragma once
// Lease expiry texts ("20170312T140500Z", UTC) and the times they stand for. The fixed width makes
// the texts sort in time order, so they can key an ordered map.

#include <ctime>
#include <string>

namespace NS_LEASE_UTILS {

// False when the text is not a valid time of that form.
[[nodiscard]] bool ExpiryTextToTime(const std::wstring& text, __time64_t& time);
// Empty when the time cannot be broken down.
std::wstring TimeToExpiryText(__time64_t time);

}  // namespace NS_LEASE_UTILS
