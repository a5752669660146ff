// tarrow_settings.exe: prints the service's table of administered registry values, one per line:
// key, value, type (dword or string), default, minimum, maximum, and where a policy may set it
// ("machine" or "machine, user"), separated by tabs.
// The installer's test compares it with the Group Policy templates and the admin guide.

#include "common/Settings.h"

#include <cstdio>

int wmain() {
    for (const NS_Settings::Setting& s : NS_Settings::AllSettings()) {
        if (!s.Administered()) continue;
        const wchar_t* policy = s.policy == NS_Settings::Policy::MachineAndUser ? L"machine, user" : L"machine";
        if (s.type == NS_Settings::Type::Dword)
            std::wprintf(L"%ls\t%ls\tdword\t%lu\t%lu\t%lu\t%ls\n", s.key, s.valueName, s.defaultNumber, s.minimum,
                         s.maximum, policy);
        else
            std::wprintf(L"%ls\t%ls\tstring\t%ls\t\t\t%ls\n", s.key, s.valueName, s.defaultText, policy);
    }
    return 0;
}
