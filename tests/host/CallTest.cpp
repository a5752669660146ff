#include "tests/host/ServiceFixture.h"

#include <array>
#include <cstring>

using namespace testsupport;

namespace {

using Texts = std::array<std::wstring, 12>;  // in the order of RegisterSharedId's text arguments

Texts Complete(const std::wstring& role, const std::wstring& account = L"shared-acct") {
    return {L"https://corvin/auth", L"srv-1", L"aux-1", L"svc-17", account,         L"aux-2",
            role,                   L"aux-4", L"cn=lease-1", L"20301231T120000Z", L"aux-3", L"aux-6"};
}

// Reads the answer of GetRegisteredSharedId without the service's own code.
std::vector<std::wstring> DecodeTen(BSTR serialized) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(serialized);
    const size_t size = ::SysStringByteLen(serialized);
    auto u32 = [&](size_t at) {
        std::uint32_t v;
        std::memcpy(&v, bytes + at, 4);
        return v;
    };
    std::vector<std::wstring> fields;
    if (size < 4 || u32(0) != size - 4) return fields;
    size_t at = 4;
    while (at + 8 <= size) {
        if (u32(at) != 4) return {};
        std::uint32_t length = u32(at + 4);
        at += 8;
        if (at + length > size) return {};
        fields.emplace_back(reinterpret_cast<const wchar_t*>(bytes + at), length / 2);
        at += length;
    }
    return at == size ? fields : std::vector<std::wstring>{};
}

std::vector<std::uint8_t> Encode(const std::vector<std::wstring>& fields) {
    std::vector<std::uint8_t> body;
    auto put = [&](std::uint32_t v) {
        for (int i = 0; i < 4; ++i) body.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    };
    for (const std::wstring& f : fields) {
        put(4);
        put(static_cast<std::uint32_t>(f.size() * 2));
        for (wchar_t c : f) {
            body.push_back(static_cast<std::uint8_t>(c));
            body.push_back(static_cast<std::uint8_t>(c >> 8));
        }
    }
    std::vector<std::uint8_t> all;
    std::uint32_t b = static_cast<std::uint32_t>(body.size());
    for (int i = 0; i < 4; ++i) all.push_back(static_cast<std::uint8_t>(b >> (8 * i)));
    all.insert(all.end(), body.begin(), body.end());
    return all;
}

class CallTest : public ServiceTest {
protected:
    DWORD Register(DWORD pid, const Texts& t, VARIANT_BOOL flag = VARIANT_TRUE) {
        std::array<NS_Utils::UniqueBstr, 12> b;
        for (size_t i = 0; i < t.size(); ++i) b[i] = NS_Utils::UniqueBstr(t[i]);
        DWORD result = 99;
        EXPECT_EQ(tarrow->RegisterSharedId(pid, b[0].get(), b[1].get(), b[2].get(), b[3].get(), b[4].get(), b[5].get(),
                                           b[6].get(), b[7].get(), b[8].get(), b[9].get(), b[10].get(), flag,
                                           b[11].get(), &result),
                  S_OK);
        return result;
    }
    DWORD Release(DWORD pid, const std::wstring& role) {
        NS_Utils::UniqueBstr url(std::wstring(L"https://corvin/auth")), svc(std::wstring(L"svc-17")), r(role);
        DWORD result = 99;
        EXPECT_EQ(tarrow->ReleaseSharedId(pid, url.get(), svc.get(), r.get(), &result), S_OK);
        return result;
    }
    HRESULT Query(DWORD pid, const std::wstring& role, bool ownOnly, NS_Utils::UniqueBstr& out) {
        NS_Utils::UniqueBstr url(std::wstring(L"https://corvin/auth")), svc(std::wstring(L"svc-17")), r(role);
        return tarrow->GetRegisteredSharedId(pid, url.get(), svc.get(), r.get(), ownOnly ? VARIANT_TRUE : VARIANT_FALSE,
                                             out.put());
    }
};

TEST_F(CallTest, RegisterQueryReleaseEndToEnd) {
    ChildProcess holder = ChildProcess::StartHelper(L"--sleep 600000");
    ASSERT_EQ(Register(holder.Id(), Complete(L"end-to-end")), 0u);

    NS_Utils::UniqueBstr found;
    ASSERT_EQ(Query(holder.Id(), L"end-to-end", false, found), S_OK);
    std::vector<std::wstring> fields = DecodeTen(found.get());
    ASSERT_EQ(fields.size(), 10u);
    const std::wstring fileName = fields[8];
    EXPECT_EQ(fields, (std::vector<std::wstring>{L"https://corvin/auth", L"srv-1", L"svc-17", L"shared-acct", L"aux-2",
                                                 L"end-to-end", L"aux-4", L"cn=lease-1", fileName,
                                                 L"20301231T120000Z"}));
    std::vector<std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(found.get()),
                                    reinterpret_cast<const std::uint8_t*>(found.get()) + found.ByteLength());
    EXPECT_EQ(bytes, Encode(fields));
    EXPECT_TRUE(FileExists(fileName));
    EXPECT_EQ(ReadUtf16File(fileName).back(), L'1') << "VARIANT_TRUE stores true";

    NS_Utils::UniqueBstr own;
    EXPECT_EQ(Query(holder.Id(), L"end-to-end", true, own), S_OK);
    NS_Utils::UniqueBstr untouched;
    EXPECT_EQ(Query(holder.Id(), L"never-registered", false, untouched), S_FALSE);
    EXPECT_EQ(untouched.get(), nullptr);

    // The own-only query made the holder hold it once more, so it lets go twice.
    EXPECT_EQ(Release(holder.Id(), L"end-to-end"), 0u);
    EXPECT_EQ(Query(holder.Id(), L"end-to-end", false, untouched), S_OK);
    untouched.reset();
    EXPECT_EQ(Release(holder.Id(), L"end-to-end"), 0u);
    EXPECT_EQ(Query(holder.Id(), L"end-to-end", false, untouched), S_FALSE);
    EXPECT_TRUE(WaitUntil([&] { return !FileExists(fileName); }));
    EXPECT_EQ(Release(holder.Id(), L"end-to-end"), 7u);
}

TEST_F(CallTest, HolderExitReleasesTheCredential) {
    ChildProcess holder = ChildProcess::StartHelper(L"--sleep 600000");
    ASSERT_EQ(Register(holder.Id(), Complete(L"exit")), 0u);
    NS_Utils::UniqueBstr found;
    ASSERT_EQ(Query(holder.Id(), L"exit", false, found), S_OK);
    std::wstring fileName = DecodeTen(found.get()).at(8);
    holder.Kill();
    EXPECT_TRUE(WaitUntil([&] {
        NS_Utils::UniqueBstr again;
        return Query(::GetCurrentProcessId(), L"exit", false, again) == S_FALSE && !FileExists(fileName);
    }));
}

TEST_F(CallTest, FlagIsTrueOnlyForVariantTrue) {
    ChildProcess holder = ChildProcess::StartHelper(L"--sleep 600000");
    ASSERT_EQ(Register(holder.Id(), Complete(L"flag-one"), 1), 0u);
    NS_Utils::UniqueBstr found;
    ASSERT_EQ(Query(holder.Id(), L"flag-one", false, found), S_OK);
    EXPECT_EQ(ReadUtf16File(DecodeTen(found.get()).at(8)).back(), L'0');
}

TEST_F(CallTest, OwnOnlyAttachesTheCallerOrAnswersNotFound) {
    ChildProcess owner = ChildProcess::StartHelper(L"--sleep 600000");
    ChildProcess other = ChildProcess::StartHelper(L"--sleep 600000");
    ASSERT_EQ(Register(owner.Id(), Complete(L"take-over")), 0u);
    NS_Utils::UniqueBstr out;
    EXPECT_EQ(Query(0, L"take-over", true, out), S_FALSE);
    EXPECT_EQ(Query(0x7FFFFFFC, L"take-over", true, out), S_FALSE) << "a process that cannot be opened";
    EXPECT_EQ(Query(other.Id(), L"nothing-like-it", true, out), S_FALSE);
    // Another process asking with own-only takes the credential over: it now holds it too.
    ASSERT_EQ(Query(other.Id(), L"take-over", true, out), S_OK);
    owner.Kill();
    ASSERT_EQ(owner.Wait(30000), WAIT_OBJECT_0);
    NS_Utils::UniqueBstr still;
    EXPECT_EQ(Query(other.Id(), L"take-over", false, still), S_OK);
    EXPECT_EQ(Release(other.Id(), L"take-over"), 0u);
}

TEST_F(CallTest, LateBoundCallsThroughIDispatch) {
    NS_Utils::ComPtr<IDispatch> dispatch;
    ASSERT_EQ(tarrow.As(dispatch), S_OK);
    UINT count = 0;
    ASSERT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);

    LPOLESTR names[] = {const_cast<LPOLESTR>(L"RegisterSharedId"), const_cast<LPOLESTR>(L"ReleaseSharedId"),
                        const_cast<LPOLESTR>(L"GetRegisteredSharedId")};
    DISPID ids[3];
    for (int i = 0; i < 3; ++i) ASSERT_EQ(dispatch->GetIDsOfNames(IID_NULL, &names[i], 1, 0, &ids[i]), S_OK);

    ChildProcess holder = ChildProcess::StartHelper(L"--sleep 600000");
    Texts t = Complete(L"late-bound");
    // Arguments go in reverse order: the flag and the twelfth text come first.
    VARIANT args[14];
    args[13].vt = VT_UI4;
    args[13].ulVal = holder.Id();
    for (int i = 0; i < 11; ++i) {
        args[12 - i].vt = VT_BSTR;
        args[12 - i].bstrVal = ::SysAllocString(t[i].c_str());
    }
    args[1].vt = VT_BOOL;
    args[1].boolVal = VARIANT_TRUE;
    args[0].vt = VT_BSTR;
    args[0].bstrVal = ::SysAllocString(t[11].c_str());
    DISPPARAMS params{args, nullptr, 14, 0};
    NS_Utils::UniqueVariant result;
    EXCEPINFO exception{};
    UINT badArgument = 0;
    HRESULT hr = dispatch->Invoke(ids[0], IID_NULL, 0, DISPATCH_METHOD, &params, result.put(), &exception, &badArgument);
    for (VARIANT& a : args) ::VariantClear(&a);
    ASSERT_EQ(hr, S_OK) << "argument " << badArgument;
    ASSERT_EQ(::VariantChangeType(result.get(), result.get(), 0, VT_UI4), S_OK);
    EXPECT_EQ(result.get()->ulVal, 0u);

    NS_Utils::UniqueBstr found;
    EXPECT_EQ(Query(holder.Id(), L"late-bound", false, found), S_OK);
    EXPECT_EQ(Release(holder.Id(), L"late-bound"), 0u);
}

}  // namespace
