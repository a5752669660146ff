#pragma once
// Reads the service's status snapshot (ITarrowStatus::GetStatus) into texts, and lays them out as
// a table for people, or as CSV or JSON for programs.

#include <oaidl.h>

#include <string>
#include <utility>
#include <vector>

namespace tarrowctl {

struct StatusText {
    std::vector<std::pair<std::wstring, std::wstring>> service;  // name, value
    std::vector<std::vector<std::wstring>> credentials;          // one text per column of Columns()
};

// The credential columns, in the order of the snapshot's fields.
const std::vector<std::wstring>& StatusColumns();
// The text in `column` of the credential whose lease DN is `leaseDN`; empty when none is listed.
std::wstring CredentialField(const StatusText& status, const std::wstring& leaseDN, const std::wstring& column);
// False when the snapshot is not made of the rows the service sends.
bool ReadStatus(const VARIANT& snapshot, StatusText& status);
// The service's values, a blank line, then the credentials under a header, columns padded.
std::wstring StatusTable(const StatusText& status);
// A header line, then one line per credential; fields quoted where they need it.
std::wstring StatusCsv(const StatusText& status);
// One object: "service" with the service's values under their names in lower case, words joined by
// '_', and "credentials", an array of objects with the CSV's columns as names. Every value is a
// JSON string holding the table's text, so that a script reads the same as a person.
std::wstring StatusJson(const StatusText& status);

}  // namespace tarrowctl
