// Which graphics adapter DirectML runs on.
#pragma once

#include <cstdint>
#include <string>

namespace tonwerk {

// DXGI as seen by the adapter choice: the calls it makes, in the order it
// makes them. Results are HRESULTs (negative = failure). The real source
// wraps IDXGIFactory1 on Windows; tests substitute their own.
class DxgiAdapterSource {
public:
    struct Description {
        std::uint32_t vendorId = 0;
        std::uint32_t flags = 0;
        std::u16string name;  // the description text, without its terminator
    };

    virtual ~DxgiAdapterSource() = default;
    virtual std::int32_t createFactory() = 0;
    // On success the source holds adapter `index` until releaseAdapter().
    virtual std::int32_t enumAdapter(std::uint32_t index) = 0;
    virtual std::int32_t describeAdapter(Description& description) = 0;
    virtual void releaseAdapter() = 0;
    virtual void releaseFactory() = 0;
};

// DXGI_ERROR_NOT_FOUND: the end of the adapter list.
constexpr std::int32_t kDxgiErrorNotFound = static_cast<std::int32_t>(0x887A0002u);
// DXGI_ADAPTER_FLAG_SOFTWARE.
constexpr std::uint32_t kDxgiAdapterFlagSoftware = 2;

// The adapter name as logged: one character per UTF-16 unit, '?' for every
// unit outside ASCII.
std::string asciiAdapterName(const std::u16string& name);

// The DirectML device index: the first hardware NVIDIA adapter, else the
// first hardware AMD adapter, else 0. Never fails.
int selectDmlAdapterIndex(DxgiAdapterSource& source);

// The same over the system's DXGI. Without DXGI (not Windows) it is 0.
int selectDmlAdapterIndex();

}  // namespace tonwerk
