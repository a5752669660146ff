#pragma once
// Lease expiry texts ("20170312T140500Z", UTC) and the times they stand for. The fixed width makes
// the texts sort in time order, so they can key an ordered map.

#include <ctime>
#include <string>

namespace NS_LEASE_UTILS {

// The last moment the C runtime's time functions can break down: 30001231T235959Z.
inline constexpr __time64_t kLatestTime = 32535215999;

// False when the text is not a valid date and time of that form. Any valid one is kept, its time
// held within 1970 and kLatestTime: "no end" is often written as the year 9999.
[[nodiscard]] bool ExpiryTextToTime(const std::wstring& text, __time64_t& time);
// Empty when the time cannot be broken down.
std::wstring TimeToExpiryText(__time64_t time);

}  // namespace NS_LEASE_UTILS
