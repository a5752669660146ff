#include "host/SharedIdSerializer.h"

#include "common/WinHandles.h"

#include <map>
#include <typeindex>

namespace NS_DATA_STREAM_UTILS {

namespace {
template <typename Stream>
void WriteUInt32(Stream& stream, std::uint32_t value) {
    const std::uint8_t bytes[4] = {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
                                   static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
    stream.Write(bytes, sizeof(bytes));
}

template <typename Stream>
void WriteText(Stream& stream, const std::wstring& text) {
    const std::uint32_t bytes = static_cast<std::uint32_t>(text.size() * sizeof(wchar_t));
    WriteUInt32(stream, 4);
    WriteUInt32(stream, bytes);
    stream.Write(text.data(), bytes);
}

template <typename Stream>
void WriteBody(Stream& stream, const CSharedId& r) {
    for (const std::wstring* field :
         {&r.GetCorvinAuthSvcUrl(), &r.GetCorvinAuthSrvId(), &r.GetAuthSvcId(), &r.GetSharedId(), &r.GetAuxText2(),
          &r.GetRoleId(), &r.GetAuxText4(), &r.GetLeaseDN(), &r.GetFileName(), &r.GetLeaseExpiry()})
        WriteText(stream, *field);
}

bool OnThisThreadsStack(const void* address) {
    ULONG_PTR low = 0, high = 0;
    ::GetCurrentThreadStackLimits(&low, &high);
    auto at = reinterpret_cast<ULONG_PTR>(address);
    return at >= low && at < high;
}

// Measured lengths by (record type, address). Only heap records are cached: a stack address is
// reused by the next call's record. Emptied after every serialization, so a record changed or
// freed in between is measured afresh.
thread_local std::map<std::pair<std::type_index, const void*>, std::uint32_t> t_measured;
}  // namespace

std::uint32_t MeasureSharedId(const CSharedId& record) {
    const bool cacheable = !OnThisThreadsStack(&record);
    const auto key = std::make_pair(std::type_index(typeid(CSharedId)), static_cast<const void*>(&record));
    if (cacheable) {
        auto found = t_measured.find(key);
        if (found != t_measured.end()) return found->second;
    }
    CCountingStream counter;
    WriteBody(counter, record);
    const auto length = static_cast<std::uint32_t>(counter.Count());
    if (cacheable) t_measured[key] = length;
    return length;
}

std::vector<std::uint8_t> SerializeSharedId(const CSharedId& record) {
    auto forget = NS_Utils::MakeScopeExit([] { t_measured.clear(); });
    const std::uint32_t body = MeasureSharedId(record);
    std::vector<std::uint8_t> bytes;
    bytes.reserve(body + 4);
    CBufferStream out(bytes);
    WriteUInt32(out, body);
    WriteBody(out, record);
    return bytes;
}

}  // namespace NS_DATA_STREAM_UTILS
