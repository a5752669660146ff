#include "tools/StatusReader.h"

#include "common/ComHandles.h"
#include "host/StatusLayout.h"

#include <algorithm>
#include <cwchar>

namespace tarrowctl {
namespace {

using NS_Status::kCredentialFields;
using NS_Status::kServiceFields;

// The elements of a one-dimensional array of VARIANTs, or false.
bool Elements(const VARIANT& value, std::vector<const VARIANT*>& elements) {
    if (value.vt != (VT_ARRAY | VT_VARIANT) || !value.parray || value.parray->cDims != 1) return false;
    elements.clear();
    const auto* first = static_cast<const VARIANT*>(value.parray->pvData);
    for (ULONG i = 0; i < value.parray->rgsabound[0].cElements; ++i) elements.push_back(first + i);
    return true;
}

std::wstring DateText(DATE date) {
    SYSTEMTIME t{};
    if (!::VariantTimeToSystemTime(date, &t)) return L"?";
    wchar_t text[32];
    std::swprintf(text, 32, L"%04u-%02u-%02u %02u:%02u:%02u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond);
    return text;
}

std::wstring HoldersText(const VARIANT& value) {
    std::vector<const VARIANT*> holders, pair;
    std::wstring text;
    if (!Elements(value, holders)) return L"?";
    for (const VARIANT* holder : holders) {
        if (!Elements(*holder, pair) || pair.size() != 2 || pair[0]->vt != VT_I4 || pair[1]->vt != VT_BSTR) return L"?";
        if (!text.empty()) text += L"; ";
        text += std::to_wstring(pair[0]->lVal) + L" " + (pair[1]->bstrVal ? pair[1]->bstrVal : L"");
    }
    return text;
}

std::wstring Text(const VARIANT& value) {
    switch (value.vt) {
    case VT_EMPTY: return L"";
    case VT_BSTR: return value.bstrVal ? std::wstring(value.bstrVal, ::SysStringLen(value.bstrVal)) : L"";
    case VT_I4: return std::to_wstring(value.lVal);
    case VT_BOOL: return value.boolVal ? L"yes" : L"no";
    case VT_DATE: return DateText(value.date);
    case VT_ARRAY | VT_VARIANT: return HoldersText(value);
    default: return L"?";
    }
}

bool Kind(const VARIANT& value, const wchar_t* kind) {
    return value.vt == VT_BSTR && value.bstrVal && std::wcscmp(value.bstrVal, kind) == 0;
}

std::wstring CsvField(const std::wstring& text) {
    if (text.find_first_of(L",\"\r\n") == std::wstring::npos) return text;
    std::wstring quoted = L"\"";
    for (wchar_t c : text) quoted += c == L'"' ? std::wstring(L"\"\"") : std::wstring(1, c);
    return quoted + L"\"";
}

// A JSON string. A lone surrogate would not survive the UTF-8 of the output, so it is escaped
// like the control characters.
std::wstring JsonString(const std::wstring& text) {
    auto surrogate = [](wchar_t c, wchar_t first) { return c >= first && c <= first + 0x3FF; };
    std::wstring out = L"\"";
    for (size_t i = 0; i < text.size(); ++i) {
        const wchar_t c = text[i];
        if (surrogate(c, 0xD800) && i + 1 < text.size() && surrogate(text[i + 1], 0xDC00)) {
            out.append(text, i++, 2);
        } else if (c == L'"' || c == L'\\') {
            out.append(1, L'\\').append(1, c);
        } else if (c < 0x20 || surrogate(c, 0xD800) || surrogate(c, 0xDC00)) {
            wchar_t escaped[8];
            std::swprintf(escaped, 8, L"\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + L"\"";
}

// "check-in worker running" -> "check_in_worker_running"
std::wstring JsonName(std::wstring name) {
    std::replace_if(
        name.begin(), name.end(), [](wchar_t c) { return c == L' ' || c == L'-'; }, L'_');
    return name;
}

}  // namespace

const std::vector<std::wstring>& StatusColumns() {
    static const std::vector<std::wstring> columns = {
        L"credential", L"account",     L"lease_dn", L"lease_expiry", L"holders",     L"file",
        L"state",      L"last_result", L"attempts", L"next_attempt", L"holders_end", L"checking_in_since"};
    return columns;
}

std::wstring CredentialField(const StatusText& status, const std::wstring& leaseDN, const std::wstring& column) {
    const auto& columns = StatusColumns();
    const size_t dn = std::find(columns.begin(), columns.end(), L"lease_dn") - columns.begin();
    const size_t wanted = std::find(columns.begin(), columns.end(), column) - columns.begin();
    for (const auto& row : status.credentials)
        if (row.size() > std::max(dn, wanted) && row[dn] == leaseDN) return row[wanted];
    return {};
}

bool ReadStatus(const VARIANT& snapshot, StatusText& status) {
    static const wchar_t* const kServiceNames[] = {L"lease count", L"queued work items", L"started",
                                                   L"version",     L"agent reachable",   L"check-in worker running"};
    std::vector<const VARIANT*> rows, fields;
    if (!Elements(snapshot, rows) || rows.empty()) return false;
    if (!Elements(*rows[0], fields) || fields.size() != kServiceFields || !Kind(*fields[0], NS_Status::kServiceRow))
        return false;
    status = {};
    for (size_t i = 1; i < kServiceFields; ++i) {
        std::wstring value = Text(*fields[i]);
        status.service.emplace_back(kServiceNames[i - 1], value.empty() ? L"not asked yet" : value);
    }
    for (size_t r = 1; r < rows.size(); ++r) {
        if (!Elements(*rows[r], fields) || fields.size() != kCredentialFields ||
            !Kind(*fields[0], NS_Status::kCredentialRow))
            return false;
        std::vector<std::wstring>& line = status.credentials.emplace_back();
        for (size_t i = 1; i < kCredentialFields; ++i) line.push_back(Text(*fields[i]));
    }
    return true;
}

std::wstring StatusTable(const StatusText& status) {
    std::wstring text;
    for (const auto& [name, value] : status.service) text.append(name).append(L": ").append(value).append(L"\n");
    text += L"\n";
    if (status.credentials.empty()) return text + L"no credentials\n";
    std::vector<size_t> widths;
    for (const std::wstring& column : StatusColumns()) widths.push_back(column.size());
    for (const auto& line : status.credentials)
        for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
    auto row = [&](const std::vector<std::wstring>& cells) {
        std::wstring out;
        for (size_t i = 0; i < cells.size(); ++i) out += cells[i] + std::wstring(widths[i] - cells[i].size() + 2, L' ');
        return out.erase(out.find_last_not_of(L' ') + 1) + L"\n";
    };
    text += row(StatusColumns());
    for (const auto& line : status.credentials) text += row(line);
    return text;
}

std::wstring StatusCsv(const StatusText& status) {
    auto line = [](const std::vector<std::wstring>& cells) {
        std::wstring out;
        for (size_t i = 0; i < cells.size(); ++i) out += (i ? L"," : L"") + CsvField(cells[i]);
        return out + L"\n";
    };
    std::wstring text = line(StatusColumns());
    for (const auto& credential : status.credentials) text += line(credential);
    return text;
}

std::wstring StatusJson(const StatusText& status) {
    std::wstring text = L"{\n  \"service\": {";
    const wchar_t* separator = L"\n    ";
    for (const auto& [name, value] : status.service) {
        text.append(separator).append(JsonString(JsonName(name))).append(L": ").append(JsonString(value));
        separator = L",\n    ";
    }
    text += L"\n  },\n  \"credentials\": [";
    separator = L"\n    {";
    for (const auto& credential : status.credentials) {
        text += separator;
        for (size_t i = 0; i < credential.size() && i < StatusColumns().size(); ++i)
            text.append(i ? L", " : L"")
                .append(JsonString(StatusColumns()[i]))
                .append(L": ")
                .append(JsonString(credential[i]));
        text += L"}";
        separator = L",\n    {";
    }
    return text + (status.credentials.empty() ? L"]\n}\n" : L"\n  ]\n}\n");
}

}  // namespace tarrowctl
