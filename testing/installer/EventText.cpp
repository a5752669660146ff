// tarrow_eventtext.exe <message library> <event id> [insert...]: prints the text that the event
// log shows for an event, formatted from the library's message table as a viewer does.
// Exit code 1 when the library or the id is not there.

#include "common/WinHandles.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <vector>

int wmain(int argc, wchar_t** argv) {
    if (argc < 3) return 100;
    NS_Utils::UniqueModule library(
        ::LoadLibraryExW(argv[1], nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    if (!library) return 1;
    std::vector<DWORD_PTR> inserts;
    for (int i = 3; i < argc; ++i) inserts.push_back(reinterpret_cast<DWORD_PTR>(argv[i]));
    wchar_t text[4096] = {};
    DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, library.get(),
                                    std::wcstoul(argv[2], nullptr, 10), 0x409, text, 4096,
                                    reinterpret_cast<va_list*>(inserts.data()));
    if (length == 0) return 1;
    std::fwprintf(stdout, L"%ls", text);
    return 0;
}
