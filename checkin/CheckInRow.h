#pragma once
// What the agent's check-in object reads and answers: the five-value row that describes a
// credential, the input that carries the rows, and the integers that come back.

#include "common/ComHandles.h"
#include "sharedid/SharedId.h"

#include <array>
#include <span>
#include <string>
#include <vector>

namespace NS_CheckInRow {

// ";" authSvcId ";" (flag ? auxText4 : "") ";" sharedId ";" auxText3 ";{ERROR_CODE};;" leaseDN.
// The agent parses this layout and fills in the marker itself. Holds m_auxText3: never log it.
std::wstring MakeRowKey(const CSharedId& credential);

// Lease DN, m_auxText1, row key, m_enterpriseId (`enterpriseId` when the record has none: it was
// registered before the agent's user was known), m_leaseExpiry.
std::array<std::wstring, 5> MakeRow(const CSharedId& credential, const std::wstring& enterpriseId);

// VT_ARRAY|VT_VARIANT with one element per credential, each a VT_ARRAY|VT_VARIANT of its row's
// five BSTRs. Throws BstrAllocError when a copy cannot be allocated.
void MakeInput(std::span<const CSharedId* const> credentials, const std::wstring& enterpriseId,
               NS_Utils::UniqueVariant& input);

// Every element of a one-dimensional array of VARIANTs, each as a 32-bit integer. Empty when
// the output holds no such array, an element is not a number, or it holds more than `most`: an
// agent's bounds are not trusted to be small.
std::vector<LONG> ReadResults(const VARIANT& output, size_t most);

}  // namespace NS_CheckInRow
