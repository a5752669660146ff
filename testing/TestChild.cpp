// A process for tests to start, hold and end. Its options run in the order given:
//   --sleep MS            sleep
//   --wait-event NAME     wait for a named event (creating it when missing)
//   --signal-event NAME   signal a named event (creating it when missing)
//   --log COUNT TEXT      write COUNT level-1 lines "TEXT <n>" through the service's log
//   --hold-mutex NAME     own a named mutex (creating it when missing) until the process ends
//   --exit CODE           end now with CODE
// Without --exit it ends with 0 after the last option.

#include "common/Log.h"
#include "common/WinHandles.h"

#include <cstdlib>
#include <string>

namespace {
NS_Utils::UniqueHandle NamedEvent(const wchar_t* name) {
    return NS_Utils::UniqueHandle(::CreateEventW(nullptr, TRUE, FALSE, name));
}

unsigned long Number(const wchar_t* text) { return std::wcstoul(text, nullptr, 10); }
}  // namespace

int wmain(int argc, wchar_t** argv) {
    for (int i = 1; i < argc; ++i) {
        std::wstring option = argv[i];
        bool hasValue = i + 1 < argc;
        if (option == L"--sleep" && hasValue) {
            ::Sleep(Number(argv[++i]));
        } else if (option == L"--wait-event" && hasValue) {
            NS_Utils::UniqueHandle event = NamedEvent(argv[++i]);
            ::WaitForSingleObject(event.get(), INFINITE);
        } else if (option == L"--signal-event" && hasValue) {
            NS_Utils::UniqueHandle event = NamedEvent(argv[++i]);
            ::SetEvent(event.get());
        } else if (option == L"--log" && i + 2 < argc) {
            unsigned long count = Number(argv[++i]);
            std::wstring text = argv[++i];
            for (unsigned long n = 0; n < count; ++n) NS_Log::Log(1, text + L" " + std::to_wstring(n));
        } else if (option == L"--hold-mutex" && hasValue) {
            // Owned, never released: ending the process abandons it.
            HANDLE mutex = ::CreateMutexW(nullptr, FALSE, argv[++i]);
            ::WaitForSingleObject(mutex, INFINITE);
        } else if (option == L"--exit" && hasValue) {
            return static_cast<int>(Number(argv[++i]));
        } else {
            return 120;
        }
    }
    return 0;
}
