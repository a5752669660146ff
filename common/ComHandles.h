#pragma once
// Owners of COM resources: interface pointers, BSTRs, VARIANTs and the apartment of a thread.

#include <objbase.h>
#include <oleauto.h>

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
    // A null BSTR for an empty text only when asked; COM callers often treat them alike.
    explicit UniqueBstr(const std::wstring& text) : m_bstr(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
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

}  // namespace NS_Utils
