#include "host/SharedIdSerializer.h"


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

}  // namespace

std::uint32_t MeasureSharedId(const CSharedId& record) {
    CCountingStream counter;
    WriteBody(counter, record);
    return static_cast<std::uint32_t>(counter.Count());
}

std::vector<std::uint8_t> SerializeSharedId(const CSharedId& record) {
    const std::uint32_t body = MeasureSharedId(record);
    std::vector<std::uint8_t> bytes;
    bytes.reserve(body + 4);
    CBufferStream out(bytes);
    WriteUInt32(out, body);
    WriteBody(out, record);
    return bytes;
}

}  // namespace NS_DATA_STREAM_UTILS
