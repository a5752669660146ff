#pragma once
// Owners of kernel, registry and other Win32 resources, one owner type per kind, so that early
// returns never leak and nothing closes a resource twice.

#include <windows.h>

#include <utility>

namespace NS_Utils {

template <typename Traits>
class UniqueResource {
public:
    using value_type = typename Traits::type;

    UniqueResource() noexcept = default;
    explicit UniqueResource(value_type value) noexcept : m_value(value) {}
    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    UniqueResource(UniqueResource&& other) noexcept : m_value(other.release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~UniqueResource() { reset(); }

    value_type get() const noexcept { return m_value; }
    bool valid() const noexcept { return Traits::IsValid(m_value); }
    explicit operator bool() const noexcept { return valid(); }

    value_type release() noexcept { return std::exchange(m_value, Traits::Invalid()); }
    void reset(value_type value = Traits::Invalid()) noexcept {
        value_type old = std::exchange(m_value, value);
        if (Traits::IsValid(old)) Traits::Close(old);
    }
    // For APIs that return the resource through an out parameter.
    value_type* put() noexcept {
        reset();
        return &m_value;
    }

private:
    value_type m_value = Traits::Invalid();
};

struct KernelHandleTraits {
    using type = HANDLE;
    static HANDLE Invalid() noexcept { return nullptr; }
    static bool IsValid(HANDLE h) noexcept { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(HANDLE h) noexcept { ::CloseHandle(h); }
};

struct FindHandleTraits {
    using type = HANDLE;
    static HANDLE Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static bool IsValid(HANDLE h) noexcept { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(HANDLE h) noexcept { ::FindClose(h); }
};

struct ChangeNotificationTraits {
    using type = HANDLE;
    static HANDLE Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static bool IsValid(HANDLE h) noexcept { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(HANDLE h) noexcept { ::FindCloseChangeNotification(h); }
};

// A timer of the default timer queue; deleting it waits for a callback that is running.
struct TimerQueueTimerTraits {
    using type = HANDLE;
    static HANDLE Invalid() noexcept { return nullptr; }
    static bool IsValid(HANDLE h) noexcept { return h != nullptr; }
    static void Close(HANDLE h) noexcept { ::DeleteTimerQueueTimer(nullptr, h, INVALID_HANDLE_VALUE); }
};

struct RegKeyTraits {
    using type = HKEY;
    static HKEY Invalid() noexcept { return nullptr; }
    static bool IsValid(HKEY k) noexcept { return k != nullptr; }
    static void Close(HKEY k) noexcept { ::RegCloseKey(k); }
};

struct ModuleTraits {
    using type = HMODULE;
    static HMODULE Invalid() noexcept { return nullptr; }
    static bool IsValid(HMODULE m) noexcept { return m != nullptr; }
    static void Close(HMODULE m) noexcept { ::FreeLibrary(m); }
};

// The argument array of CommandLineToArgvW, freed with LocalFree.
struct ArgvTraits {
    using type = LPWSTR*;
    static LPWSTR* Invalid() noexcept { return nullptr; }
    static bool IsValid(LPWSTR* argv) noexcept { return argv != nullptr; }
    static void Close(LPWSTR* argv) noexcept { ::LocalFree(argv); }
};

using UniqueHandle = UniqueResource<KernelHandleTraits>;
using UniqueArgv = UniqueResource<ArgvTraits>;
// A library loaded with LoadLibrary(Ex), freed with it.
using UniqueModule = UniqueResource<ModuleTraits>;
using UniqueFindHandle = UniqueResource<FindHandleTraits>;
// A folder's change notification, from FindFirstChangeNotification.
using UniqueChangeNotification = UniqueResource<ChangeNotificationTraits>;
using UniqueRegKey = UniqueResource<RegKeyTraits>;
using UniqueTimerQueueTimer = UniqueResource<TimerQueueTimerTraits>;

// Owns a mutex from a successful wait to the end of the scope. An abandoned mutex is owned all
// the same (its holder ended without letting go); a timeout or a failed wait owns nothing.
class MutexOwnership {
public:
    MutexOwnership() noexcept = default;
    [[nodiscard]] static MutexOwnership Acquire(HANDLE mutex, DWORD timeoutMs) noexcept {
        const DWORD wait = ::WaitForSingleObject(mutex, timeoutMs);
        MutexOwnership owned;
        if (wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED) owned.m_mutex = mutex;
        return owned;
    }
    MutexOwnership(MutexOwnership&& other) noexcept : m_mutex(std::exchange(other.m_mutex, nullptr)) {}
    MutexOwnership& operator=(MutexOwnership&&) = delete;
    ~MutexOwnership() {
        if (m_mutex) ::ReleaseMutex(m_mutex);
    }
    bool Owned() const noexcept { return m_mutex != nullptr; }

private:
    HANDLE m_mutex = nullptr;
};

template <typename F>
class ScopeExit {
public:
    explicit ScopeExit(F&& f) : m_f(std::forward<F>(f)) {}
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;
    ~ScopeExit() {
        if (m_armed) m_f();
    }
    void dismiss() noexcept { m_armed = false; }

private:
    F m_f;
    bool m_armed = true;
};

template <typename F>
ScopeExit<F> MakeScopeExit(F&& f) {
    return ScopeExit<F>(std::forward<F>(f));
}

}  // namespace NS_Utils
