// The DirectML adapter choice over a fake DXGI: the machine has no adapters.
#include "inference/dml_adapter.h"

#include "common/logging.h"
#include "test_support.h"

#include <gmock/gmock.h>

#include <map>

namespace tonwerk {
namespace {

constexpr std::uint32_t kNvidia = 0x10DE, kAmd = 0x1002, kAmdAlternative = 0x1022, kIntel = 0x8086;
constexpr std::uint32_t kFailed = 0x80004005u;

// Adapters by index; enumeration ends at the first index without one. Every
// adapter handed out must be released before the next is asked for.
class FakeDxgi : public DxgiAdapterSource {
public:
    std::map<std::uint32_t, Description> adapters;
    std::map<std::uint32_t, std::uint32_t> enumFailures, describeFailures;  // index -> HRESULT
    std::uint32_t factoryResult = 0;
    std::vector<std::uint32_t> enumerated;
    int held = 0;
    bool factoryReleased = false;

    std::int32_t createFactory() override { return static_cast<std::int32_t>(factoryResult); }
    std::int32_t enumAdapter(std::uint32_t index) override {
        EXPECT_EQ(held, 0) << "adapter " << current_ << " was not released";
        enumerated.push_back(index);
        if (enumFailures.count(index) != 0) return static_cast<std::int32_t>(enumFailures[index]);
        if (adapters.count(index) == 0) return kDxgiErrorNotFound;
        current_ = index;
        ++held;
        return 0;
    }
    std::int32_t describeAdapter(Description& description) override {
        if (describeFailures.count(current_) != 0) return static_cast<std::int32_t>(describeFailures[current_]);
        description = adapters[current_];
        return 0;
    }
    void releaseAdapter() override { --held; }
    void releaseFactory() override { factoryReleased = true; }

private:
    std::uint32_t current_ = 0;
};

DxgiAdapterSource::Description hardware(std::uint32_t vendorId) { return {vendorId, 0, u"GPU"}; }
DxgiAdapterSource::Description software(std::uint32_t vendorId) { return {vendorId, kDxgiAdapterFlagSoftware, u"SW"}; }

// Hardware NVIDIA beats AMD, which beats the rest, and nothing falls back to
// adapter 0; unreadable descriptions are skipped, a failed enumeration stops
// the search but keeps what was found, a failed factory gives adapter 0.
TEST(DmlAdapter, ChoosesTheFirstHardwareNvidiaThenAmdAdapterAndWarnsOfDxgiFailures) {
    const auto logging = log::LogSetup::trySetUp();
    ASSERT_NE(logging, nullptr) << "another logger is active";
    struct Case {
        std::map<std::uint32_t, DxgiAdapterSource::Description> adapters;
        std::map<std::uint32_t, std::uint32_t> enumFailures, describeFailures;
        std::uint32_t factoryResult;
        int expected;
        std::size_t enumerated;
        std::string warning;  // the one warning, if any
    };
    const std::vector<Case> cases = {
        {{}, {}, {}, 0, 0, 1, ""},
        {{{0, hardware(kAmd)}, {1, software(kNvidia)}, {2, hardware(kNvidia)}, {3, hardware(kNvidia)}}, {}, {}, 0, 2, 5,
         ""},
        {{{0, hardware(kIntel)}, {1, software(kAmd)}, {2, hardware(kAmdAlternative)}}, {}, {}, 0, 2, 4, ""},
        {{{0, hardware(kIntel)}, {1, software(kNvidia)}, {2, software(kAmd)}}, {}, {}, 0, 0, 4, ""},
        {{{0, hardware(kNvidia)}, {1, hardware(kAmd)}}, {}, {{0, kFailed}}, 0, 1, 3,
         "Failed to read DXGI adapter description for index 0. HRESULT=2147500037"},
        {{{0, hardware(kIntel)}, {1, hardware(kAmd)}, {3, hardware(kNvidia)}}, {{2, 0x887A0001u}}, {}, 0, 1, 3,
         "Failed to enumerate DXGI adapter 2, fallback search stops. HRESULT=2289696769"},
        {{{0, hardware(kIntel)}, {1, hardware(kNvidia)}}, {}, {}, 0x887A0002u, 0, 0,
         "Failed to create DXGI factory, fallback to DML adapter 0. HRESULT=2289696770"},
    };
    for (const Case& c : cases) {
        FakeDxgi dxgi;
        dxgi.adapters = c.adapters;
        dxgi.enumFailures = c.enumFailures;
        dxgi.describeFailures = c.describeFailures;
        dxgi.factoryResult = c.factoryResult;
        int index = -1;
        const auto lines = test::linesWith(test::stdoutOf([&] { index = selectDmlAdapterIndex(dxgi); }), "");
        SCOPED_TRACE(c.warning);
        EXPECT_EQ(index, c.expected);
        EXPECT_EQ(dxgi.enumerated.size(), c.enumerated);
        EXPECT_EQ(dxgi.held, 0);
        EXPECT_EQ(dxgi.factoryReleased, c.factoryResult == 0);
        ASSERT_EQ(lines.size(), c.warning.empty() ? 0u : 1u);
        if (c.warning.empty()) continue;
        EXPECT_THAT(lines[0], ::testing::HasSubstr(" WARN  ["));
        EXPECT_THAT(lines[0], ::testing::EndsWith("] [INFERENCE_onnx] " + c.warning));
    }
}

TEST(DmlAdapterName, EveryUnitOutsideAsciiBecomesOneQuestionMark) {
    // A surrogate pair (U+1F600) is two units, so it becomes two characters.
    const std::u16string name = u"Gr" u"\x00E4" u"fik " u"\xD83D\xDE00" u" " u"\x007F\x0080";
    EXPECT_EQ(asciiAdapterName(name), "Gr?fik ?? \x7F?");
}

}  // namespace
}  // namespace tonwerk
