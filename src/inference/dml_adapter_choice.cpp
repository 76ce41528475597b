#include "common/logging.h"
#include "inference/dml_adapter.h"

#include <optional>
#include <vector>

namespace tonwerk {
namespace {

constexpr const char* kFunction = "selectDmlAdapterIndex";
constexpr std::uint32_t kVendorNvidia = 0x10DE;
constexpr std::uint32_t kVendorAmd = 0x1002;
constexpr std::uint32_t kVendorAmdAlternative = 0x1022;

struct AdapterRecord {
    std::uint32_t index;
    std::uint32_t vendorId;
    bool software;
    std::string name;
};

// HRESULTs are printed the way the Windows documentation lists them when
// read as unsigned numbers, so that logs can be matched against it.
std::uint32_t asUnsigned(std::int32_t hr) { return static_cast<std::uint32_t>(hr); }

// Adapters in enumeration order. Stops at the end of the list or at the
// first enumeration failure; adapters whose description fails are skipped.
std::vector<AdapterRecord> enumerateAdapters(DxgiAdapterSource& source) {
    std::vector<AdapterRecord> adapters;
    for (std::uint32_t index = 0;; ++index) {
        const std::int32_t enumResult = source.enumAdapter(index);
        if (enumResult == kDxgiErrorNotFound) break;
        if (enumResult < 0) {
            TW_LOG(warning, kFunction) << "[INFERENCE_onnx] Failed to enumerate DXGI adapter " << index
                                       << ", fallback search stops. HRESULT=" << asUnsigned(enumResult);
            break;
        }
        DxgiAdapterSource::Description description;
        const std::int32_t describeResult = source.describeAdapter(description);
        if (describeResult < 0) {
            TW_LOG(warning, kFunction) << "[INFERENCE_onnx] Failed to read DXGI adapter description for index "
                                       << index << ". HRESULT=" << asUnsigned(describeResult);
            source.releaseAdapter();
            continue;
        }
        AdapterRecord record{index, description.vendorId, (description.flags & kDxgiAdapterFlagSoftware) != 0,
                             asciiAdapterName(description.name)};
        TW_LOG(info, kFunction) << "[INFERENCE_onnx] DML adapter " << index << ": vendorId=" << record.vendorId
                                << ", software=" << (record.software ? "true" : "false")
                                << ", name=" << record.name;
        adapters.push_back(std::move(record));
        source.releaseAdapter();
    }
    return adapters;
}

bool isAmd(std::uint32_t vendorId) { return vendorId == kVendorAmd || vendorId == kVendorAmdAlternative; }

template <typename Predicate>
std::optional<AdapterRecord> firstHardware(const std::vector<AdapterRecord>& adapters, Predicate vendorMatches) {
    for (const auto& adapter : adapters) {
        if (!adapter.software && vendorMatches(adapter.vendorId)) return adapter;
    }
    return std::nullopt;
}

}  // namespace

// The log is plain narrow text, so nothing outside ASCII goes into it.
std::string asciiAdapterName(const std::u16string& name) {
    std::string out;
    out.reserve(name.size());
    for (char16_t unit : name) out.push_back(unit < 128 ? static_cast<char>(unit) : '?');
    return out;
}

int selectDmlAdapterIndex(DxgiAdapterSource& source) {
    const std::int32_t factoryResult = source.createFactory();
    if (factoryResult < 0) {
        TW_LOG(warning, kFunction)
            << "[INFERENCE_onnx] Failed to create DXGI factory, fallback to DML adapter 0. HRESULT="
            << asUnsigned(factoryResult);
        return 0;
    }
    const std::vector<AdapterRecord> adapters = enumerateAdapters(source);
    source.releaseFactory();

    if (auto nvidia = firstHardware(adapters, [](std::uint32_t id) { return id == kVendorNvidia; })) {
        TW_LOG(info, kFunction) << "[INFERENCE_onnx] Prefer NVIDIA DML adapter index " << nvidia->index << " ("
                                << nvidia->name << ")";
        return static_cast<int>(nvidia->index);
    }
    if (auto amd = firstHardware(adapters, isAmd)) {
        TW_LOG(info, kFunction) << "[INFERENCE_onnx] Prefer AMD DML adapter index " << amd->index << " ("
                                << amd->name << ")";
        return static_cast<int>(amd->index);
    }
    TW_LOG(info, kFunction) << "[INFERENCE_onnx] No NVIDIA or AMD DML adapter found, fallback to adapter index 0";
    return 0;
}

}  // namespace tonwerk
