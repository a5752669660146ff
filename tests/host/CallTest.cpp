#include "tests/host/ServiceFixture.h"

#include <cstring>

using namespace testsupport;

namespace {

// Reads the service's answer by its layout, not with the service's code: the byte count of the
// rest, then items of (4, byte length, UTF-16 text) that fill it exactly; empty when it does not fit.
std::vector<std::wstring> Decode(BSTR answer) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(answer);
    const size_t size = ::SysStringByteLen(answer);
    auto u32 = [&](size_t at) {
        std::uint32_t v;
        std::memcpy(&v, bytes + at, 4);
        return v;
    };
    if (size < 4 || u32(0) != size - 4) return {};
    std::vector<std::wstring> items;
    size_t at = 4;
    for (; at + 8 <= size && u32(at) == 4 && at + 8 + u32(at + 4) <= size; at += 8 + u32(at + 4))
        items.emplace_back(reinterpret_cast<const wchar_t*>(bytes + at + 8), u32(at + 4) / 2);
    return at == size ? items : std::vector<std::wstring>{};
}

class CallTest : public ServiceTest {};

TEST_F(CallTest, RegisterQueryReleaseEndToEnd) {
    ChildProcess holder = StartHolder();
    const CSharedId credential = Credential(L"end-to-end");
    ASSERT_EQ(Register(holder.Id(), credential), 0u);

    NS_Utils::UniqueBstr found;
    ASSERT_EQ(Query(holder.Id(), credential, false, found), S_OK);
    std::vector<std::wstring> items = Decode(found.get());
    ASSERT_EQ(items.size(), 10u);
    const std::wstring fileName = items[8];
    EXPECT_EQ(items, (std::vector<std::wstring>{kUrl, L"srv-1", kService, L"acct", L"mem-2", L"end-to-end", L"aux-4",
                                                L"cn=end-to-end", fileName, L"20301231T120000Z"}));
    EXPECT_TRUE(FileExists(fileName));
    EXPECT_EQ(ServiceLogText().find(L"mem-"), std::wstring::npos) << "memory-only texts are never logged";
    EXPECT_EQ(ReadUtf16File(fileName).back(), L'1') << "VARIANT_TRUE stores true";

    EXPECT_EQ(Query(holder.Id(), credential, true, found), S_OK);
    EXPECT_EQ(Query(holder.Id(), Credential(L"never-registered"), false, found), S_FALSE);
    EXPECT_EQ(found.get(), nullptr);

    // The own-only query made the holder hold it once more, so it lets go twice.
    EXPECT_EQ(Release(holder.Id(), credential), 0u);
    EXPECT_TRUE(Found(credential));
    EXPECT_EQ(Release(holder.Id(), credential), 0u);
    EXPECT_FALSE(Found(credential));
    // Without the agent (none is installed here) nothing can be checked in: the file stays.
    // Forgotten by the service once nothing has it open any more, and still there.
    EXPECT_TRUE(WaitUntil([&] {
        return NS_Utils::UniqueHandle(
                   ::CreateFileW(fileName.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr))
            .valid();
    }));
    EXPECT_TRUE(FileExists(fileName));
    EXPECT_EQ(Release(holder.Id(), credential), 7u);

    // Any other VARIANT_BOOL than VARIANT_TRUE is false.
    ASSERT_EQ(Register(holder.Id(), Credential(L"flag-one"), 1), 0u);
    ASSERT_EQ(Query(holder.Id(), Credential(L"flag-one"), false, found), S_OK);
    EXPECT_EQ(ReadUtf16File(Decode(found.get()).at(8)).back(), L'0');
}

TEST_F(CallTest, OwnOnlyTakesOverForAProcessThatCanBeOpened) {
    ChildProcess owner = StartHolder(), other = StartHolder();
    const CSharedId credential = Credential(L"take-over"), ownersOnly = Credential(L"owner-only");
    ASSERT_EQ(Register(owner.Id(), credential), 0u);
    ASSERT_EQ(Register(owner.Id(), ownersOnly), 0u);
    NS_Utils::UniqueBstr out;
    EXPECT_EQ(Query(0, credential, true, out), S_FALSE);
    EXPECT_EQ(Query(0x7FFFFFFC, credential, true, out), S_FALSE) << "a process that cannot be opened";
    EXPECT_EQ(Query(other.Id(), Credential(L"nothing-like-it"), true, out), S_FALSE);
    ASSERT_EQ(Query(other.Id(), credential, true, out), S_OK);
    // Once the owner's exit has been handled, the taker still holds the credential.
    owner.Kill();
    ASSERT_TRUE(WaitUntil([&] { return !Found(ownersOnly); }));
    EXPECT_TRUE(Found(credential));
    EXPECT_EQ(Release(other.Id(), credential), 0u);
}

TEST_F(CallTest, LateBoundCallsThroughIDispatch) {
    NS_Utils::ComPtr<IDispatch> dispatch;
    ASSERT_EQ(tarrow.As(dispatch), S_OK);
    LPOLESTR names[] = {const_cast<LPOLESTR>(L"RegisterSharedId")};
    DISPID id = 0;
    ASSERT_EQ(dispatch->GetIDsOfNames(IID_NULL, names, 1, 0, &id), S_OK);
    EXPECT_EQ(id, 1);

    ChildProcess holder = StartHolder();
    const CSharedId c = Credential(L"late-bound");
    // Arguments go in reverse order: the last text and the flag come first, the holder last.
    VARIANT args[14];
    for (int i = 0; i < 12; ++i) {
        args[i ? i + 1 : 0].vt = VT_BSTR;
        args[i ? i + 1 : 0].bstrVal = ::SysAllocString((c.*kTexts[11 - i])().c_str());
    }
    args[1].vt = VT_BOOL;
    args[1].boolVal = VARIANT_TRUE;
    args[13].vt = VT_UI4;
    args[13].ulVal = holder.Id();
    DISPPARAMS params{args, nullptr, 14, 0};
    NS_Utils::UniqueVariant result;
    UINT badArgument = 0;
    HRESULT hr = dispatch->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &params, result.put(), nullptr, &badArgument);
    for (VARIANT& a : args) ::VariantClear(&a);
    ASSERT_EQ(hr, S_OK) << "argument " << badArgument;
    ASSERT_EQ(::VariantChangeType(result.get(), result.get(), 0, VT_UI4), S_OK);
    EXPECT_EQ(result.get()->ulVal, 0u);
    EXPECT_TRUE(Found(c));
    EXPECT_EQ(Release(holder.Id(), c), 0u);
}

}  // namespace
