// The adapter choice over the system's DXGI.
#include "inference/dml_adapter.h"

#include <windows.h>

#include <dxgi.h>

#include <algorithm>
#include <iterator>

namespace tonwerk {
namespace {

class SystemDxgiAdapterSource final : public DxgiAdapterSource {
public:
    ~SystemDxgiAdapterSource() override {
        releaseAdapter();
        releaseFactory();
    }

    std::int32_t createFactory() override {
        return CreateDXGIFactory1(__uuidof(IDXGIFactory1), reinterpret_cast<void**>(&factory_));
    }

    std::int32_t enumAdapter(std::uint32_t index) override { return factory_->EnumAdapters1(index, &adapter_); }

    std::int32_t describeAdapter(Description& description) override {
        DXGI_ADAPTER_DESC1 desc{};
        const HRESULT hr = adapter_->GetDesc1(&desc);
        if (FAILED(hr)) return hr;
        description.vendorId = desc.VendorId;
        description.flags = desc.Flags;
        // The text fills the array without a terminator when it is 128 units long.
        const auto* text = reinterpret_cast<const char16_t*>(desc.Description);
        const auto* end = std::find(text, text + std::size(desc.Description), u'\0');
        description.name.assign(text, end);
        return hr;
    }

    void releaseAdapter() override {
        if (adapter_ != nullptr) adapter_->Release();
        adapter_ = nullptr;
    }

    void releaseFactory() override {
        if (factory_ != nullptr) factory_->Release();
        factory_ = nullptr;
    }

private:
    IDXGIFactory1* factory_ = nullptr;
    IDXGIAdapter1* adapter_ = nullptr;
};

}  // namespace

int selectDmlAdapterIndex() {
    SystemDxgiAdapterSource source;
    return selectDmlAdapterIndex(source);
}

}  // namespace tonwerk
