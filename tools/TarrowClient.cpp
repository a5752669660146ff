#include "tools/TarrowClient.h"

namespace tarrowctl {

HRESULT ConnectToTarrow(NS_Utils::ComPtr<ITarrow>& tarrow) {
    NS_Utils::ComPtr<IRunningObjectTable> table;
    HRESULT hr = ::GetRunningObjectTable(0, table.put());
    if (FAILED(hr)) return hr;
    NS_Utils::ComPtr<IMoniker> moniker;
    hr = ::CreateItemMoniker(nullptr, L"KELTARROW", moniker.put());
    if (FAILED(hr)) return hr;
    NS_Utils::ComPtr<IUnknown> object;
    hr = table->GetObject(moniker.get(), object.put());
    if (FAILED(hr)) return hr;
    return object.As(tarrow);
}

}  // namespace tarrowctl
