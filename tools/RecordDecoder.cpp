#include "tools/RecordDecoder.h"

namespace tarrowctl {

namespace {
bool ReadUInt32(const std::uint8_t* bytes, size_t size, size_t& at, std::uint32_t& value) {
    if (size - at < 4) return false;
    value = bytes[at] | (bytes[at + 1] << 8) | (bytes[at + 2] << 16) |
            (static_cast<std::uint32_t>(bytes[at + 3]) << 24);
    at += 4;
    return true;
}
}  // namespace

bool DecodeRecord(const std::uint8_t* bytes, size_t size, DecodedRecord& fields) {
    static const wchar_t* const kNames[] = {L"corvinAuthSvcUrl", L"corvinAuthSrvId", L"authSvcId", L"sharedId",
                                            L"auxText2",         L"roleId",          L"auxText4",  L"leaseDN",
                                            L"fileName",         L"leaseExpiry"};
    size_t at = 0;
    std::uint32_t body = 0;
    if (!ReadUInt32(bytes, size, at, body) || body != size - 4) return false;
    fields.clear();
    for (const wchar_t* name : kNames) {
        std::uint32_t width = 0, length = 0;
        if (!ReadUInt32(bytes, size, at, width) || width != 4 || !ReadUInt32(bytes, size, at, length) ||
            length % 2 != 0 || size - at < length)
            return false;
        std::wstring text(length / 2, L'\0');
        for (size_t i = 0; i < text.size(); ++i)
            text[i] = static_cast<wchar_t>(bytes[at + 2 * i] | (bytes[at + 2 * i + 1] << 8));
        at += length;
        fields.emplace_back(name, std::move(text));
    }
    return at == size;
}

}  // namespace tarrowctl
