#pragma once
// Owners of COM resources: interface pointers, BSTRs, VARIANTs, SAFEARRAYs and the apartment
// of a thread.

#include <objbase.h>
#include <oleauto.h>

#include <new>
#include <span>
#include <string>
#include <utility>

namespace NS_Utils {

template <typename T>
class ComPtr {
public:
    ComPtr() noexcept = default;
    ComPtr(const ComPtr& other) noexcept : m_ptr(other.m_ptr) {
        if (m_ptr) m_ptr->AddRef();
    }
    ComPtr(ComPtr&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
    ComPtr& operator=(ComPtr other) noexcept {
        std::swap(m_ptr, other.m_ptr);
        return *this;
    }
    ~ComPtr() { reset(); }

    // Takes over a reference the caller already owns.
    static ComPtr Attach(T* ptr) noexcept {
        ComPtr result;
        result.m_ptr = ptr;
        return result;
    }
    T* get() const noexcept { return m_ptr; }
    T* operator->() const noexcept { return m_ptr; }
    explicit operator bool() const noexcept { return m_ptr != nullptr; }
    void reset() noexcept {
        if (T* old = std::exchange(m_ptr, nullptr)) old->Release();
    }
    T** put() noexcept {
        reset();
        return &m_ptr;
    }
    void** put_void() noexcept { return reinterpret_cast<void**>(put()); }
    template <typename U>
    HRESULT As(ComPtr<U>& out) const noexcept {
        return m_ptr ? m_ptr->QueryInterface(__uuidof(U), out.put_void()) : E_POINTER;
    }

private:
    T* m_ptr = nullptr;
};

class UniqueBstr {
public:
    UniqueBstr() noexcept = default;
    // Always allocated, an empty text as an empty BSTR (never null); COM callers often treat the two
    // alike, and SecretBstr gives null for an empty text where that is wanted.
    explicit UniqueBstr(const std::wstring& text)
        : m_bstr(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
    UniqueBstr(const UniqueBstr&) = delete;
    UniqueBstr& operator=(const UniqueBstr&) = delete;
    UniqueBstr(UniqueBstr&& other) noexcept : m_bstr(std::exchange(other.m_bstr, nullptr)) {}
    UniqueBstr& operator=(UniqueBstr&& other) noexcept {
        if (this != &other) reset(std::exchange(other.m_bstr, nullptr));
        return *this;
    }
    ~UniqueBstr() { reset(); }

    BSTR get() const noexcept { return m_bstr; }
    BSTR release() noexcept { return std::exchange(m_bstr, nullptr); }
    void reset(BSTR value = nullptr) noexcept { ::SysFreeString(std::exchange(m_bstr, value)); }
    BSTR* put() noexcept {
        reset();
        return &m_bstr;
    }
    UINT ByteLength() const noexcept { return ::SysStringByteLen(m_bstr); }

private:
    BSTR m_bstr = nullptr;
};

// Allocation failure of a BSTR that a call cannot do without: E_OUTOFMEMORY, raised like any
// other failed allocation so that callers need no second error path.
class BstrAllocError : public std::bad_alloc {
public:
    HRESULT Result() const noexcept { return E_OUTOFMEMORY; }
    const char* what() const noexcept override { return "BSTR allocation failed (E_OUTOFMEMORY)"; }
};

// A copy of `text` that is never null, even when empty; throws BstrAllocError.
inline UniqueBstr AllocBstr(const std::wstring& text) {
    UniqueBstr bstr(text);
    if (!bstr.get()) throw BstrAllocError();
    return bstr;
}

// A BSTR that holds a secret: its characters are zeroed before it is freed or replaced. An
// empty text gives a null BSTR, which callees take as "none".
class SecretBstr {
public:
    SecretBstr() noexcept = default;
    explicit SecretBstr(const std::wstring& text) {
        if (!text.empty()) m_bstr = AllocBstr(text);
    }
    SecretBstr(const SecretBstr&) = delete;
    SecretBstr& operator=(const SecretBstr&) = delete;
    ~SecretBstr() { Wipe(); }

    BSTR get() const noexcept { return m_bstr.get(); }
    BSTR* put() noexcept {
        Wipe();
        return m_bstr.put();
    }
    // Into the caller's string, so that no temporary copy is left behind unwiped.
    void CopyTo(std::wstring& out) const {
        BSTR text = m_bstr.get();
        out.assign(text ? text : L"", text ? ::SysStringLen(text) : 0);
    }

private:
    void Wipe() noexcept {
        if (BSTR text = m_bstr.get()) ::SecureZeroMemory(text, ::SysStringByteLen(text));
    }
    UniqueBstr m_bstr;
};

class UniqueVariant {
public:
    UniqueVariant() noexcept { ::VariantInit(&m_variant); }
    UniqueVariant(const UniqueVariant&) = delete;
    UniqueVariant& operator=(const UniqueVariant&) = delete;
    ~UniqueVariant() { ::VariantClear(&m_variant); }

    VARIANT* get() noexcept { return &m_variant; }
    const VARIANT* get() const noexcept { return &m_variant; }
    VARIANT* put() noexcept {
        ::VariantClear(&m_variant);
        return &m_variant;
    }

private:
    VARIANT m_variant;
};

class UniqueSafeArray {
public:
    UniqueSafeArray() noexcept = default;
    explicit UniqueSafeArray(SAFEARRAY* array) noexcept : m_array(array) {}
    UniqueSafeArray(const UniqueSafeArray&) = delete;
    UniqueSafeArray& operator=(const UniqueSafeArray&) = delete;
    UniqueSafeArray(UniqueSafeArray&& other) noexcept : m_array(std::exchange(other.m_array, nullptr)) {}
    UniqueSafeArray& operator=(UniqueSafeArray&& other) noexcept {
        if (this != &other) reset(std::exchange(other.m_array, nullptr));
        return *this;
    }
    ~UniqueSafeArray() { reset(); }

    SAFEARRAY* get() const noexcept { return m_array; }
    SAFEARRAY* release() noexcept { return std::exchange(m_array, nullptr); }
    void reset(SAFEARRAY* array = nullptr) noexcept {
        if (SAFEARRAY* old = std::exchange(m_array, array)) ::SafeArrayDestroy(old);
    }

private:
    SAFEARRAY* m_array = nullptr;
};

// Direct access to a SAFEARRAY's elements for the owner's lifetime; the array is not owned.
class SafeArrayLock {
public:
    explicit SafeArrayLock(SAFEARRAY* array) noexcept
        : m_array(array), m_locked(array && SUCCEEDED(::SafeArrayLock(array))) {}
    SafeArrayLock(const SafeArrayLock&) = delete;
    SafeArrayLock& operator=(const SafeArrayLock&) = delete;
    ~SafeArrayLock() {
        if (m_locked) ::SafeArrayUnlock(m_array);
    }
    bool Locked() const noexcept { return m_locked; }
    template <typename T>
    T* Data() const noexcept {
        return m_locked ? static_cast<T*>(m_array->pvData) : nullptr;
    }
    // Every element over all dimensions.
    ULONG Count() const noexcept {
        if (!m_locked) return 0;
        ULONG count = 1;
        for (USHORT d = 0; d < m_array->cDims; ++d) count *= m_array->rgsabound[d].cElements;
        return count;
    }

private:
    SAFEARRAY* m_array;
    bool m_locked;
};

// COM on the current thread for the owner's lifetime.
class ComApartment {
public:
    explicit ComApartment(DWORD model = COINIT_APARTMENTTHREADED) noexcept
        : m_result(::CoInitializeEx(nullptr, model)) {}
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
    ~ComApartment() {
        if (SUCCEEDED(m_result)) ::CoUninitialize();
    }
    HRESULT Result() const noexcept { return m_result; }

private:
    HRESULT m_result;
};

// WaitForMultipleObjects (any one of `handles`) for a thread of an apartment: in a single-threaded
// one COM's modal loop runs meanwhile, so that the replies to the thread's own calls and the
// messages COM needs are dispatched. The same results as WaitForMultipleObjects; a thread without
// COM waits as that does.
inline DWORD WaitInApartment(std::span<const HANDLE> handles, DWORD milliseconds) {
    DWORD index = 0;
    const HRESULT hr = ::CoWaitForMultipleHandles(0, milliseconds, static_cast<ULONG>(handles.size()),
                                                  const_cast<HANDLE*>(handles.data()), &index);
    if (hr == S_OK) return index;
    if (hr == RPC_S_CALLPENDING) return WAIT_TIMEOUT;
    if (hr == CO_E_NOTINITIALIZED)
        return ::WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, milliseconds);
    return WAIT_FAILED;
}

}  // namespace NS_Utils
