#include "inference/dml_adapter.h"

#include "common/logging.h"
#include "test_support.h"

#include <gmock/gmock.h>

#include <map>

namespace tonwerk {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kNvidia = 0x10DE, kAmd = 0x1002, kAmdAlternative = 0x1022, kIntel = 0x8086;

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

class DmlAdapterTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(logging_, nullptr) << "another logger is active"; }
    // The chosen index; the log lines of the choice go to `log`.
    int select() {
        int index = -1;
        log = test::linesWith(test::stdoutOf([&] { index = selectDmlAdapterIndex(dxgi); }), "[INFERENCE_onnx]");
        EXPECT_EQ(dxgi.held, 0);
        EXPECT_EQ(dxgi.factoryReleased, dxgi.factoryResult == 0);
        return index;
    }
    FakeDxgi dxgi;
    std::vector<std::string> log;

private:
    std::unique_ptr<log::LogSetup> logging_ = log::LogSetup::trySetUp();
};

TEST_F(DmlAdapterTest, HardwareNvidiaBeatsAmdWhichBeatsTheRestAndNothingFallsBackToZero) {
    struct Case {
        std::map<std::uint32_t, DxgiAdapterSource::Description> adapters;
        int expected;
    };
    const std::vector<Case> cases = {
        {{}, 0},
        {{{0, hardware(kAmd)}, {1, software(kNvidia)}, {2, hardware(kNvidia)}, {3, hardware(kNvidia)}}, 2},
        {{{0, hardware(kIntel)}, {1, software(kAmd)}, {2, hardware(kAmdAlternative)}}, 2},
        {{{0, hardware(kIntel)}, {1, software(kNvidia)}, {2, software(kAmd)}}, 0},
    };
    for (const Case& c : cases) {
        dxgi = FakeDxgi();
        dxgi.adapters = c.adapters;
        EXPECT_EQ(select(), c.expected) << c.adapters.size() << " adapters";
        EXPECT_EQ(dxgi.enumerated.size(), c.adapters.size() + 1);
        EXPECT_THAT(log, IsEmpty());
    }
}

TEST_F(DmlAdapterTest, UnreadableDescriptionIsSkippedAndEnumerationGoesOn) {
    dxgi.adapters = {{0, hardware(kNvidia)}, {1, hardware(kAmd)}};
    dxgi.describeFailures = {{0, 0x80004005u}};
    EXPECT_EQ(select(), 1);
    ASSERT_THAT(log, SizeIs(1));
    EXPECT_THAT(log[0], HasSubstr("WARN  ["));
    EXPECT_THAT(log[0],
                HasSubstr("] [INFERENCE_onnx] Failed to read DXGI adapter description for index 0. HRESULT=2147500037"));
}

TEST_F(DmlAdapterTest, EnumerationFailureStopsButKeepsEarlierAdapters) {
    dxgi.adapters = {{0, hardware(kIntel)}, {1, hardware(kAmd)}, {3, hardware(kNvidia)}};
    dxgi.enumFailures = {{2, 0x887A0001u}};
    EXPECT_EQ(select(), 1);
    EXPECT_THAT(dxgi.enumerated, ElementsAre(0u, 1u, 2u));
    ASSERT_THAT(log, SizeIs(1));
    EXPECT_THAT(log[0], HasSubstr("] [INFERENCE_onnx] Failed to enumerate DXGI adapter 2, fallback search stops. "
                                  "HRESULT=2289696769"));
}

TEST_F(DmlAdapterTest, FactoryFailureFallsBackToZero) {
    dxgi.adapters = {{0, hardware(kIntel)}, {1, hardware(kNvidia)}};
    dxgi.factoryResult = 0x887A0002u;
    EXPECT_EQ(select(), 0);
    EXPECT_THAT(dxgi.enumerated, IsEmpty());
    ASSERT_THAT(log, SizeIs(1));
    EXPECT_THAT(log[0], HasSubstr("] [INFERENCE_onnx] Failed to create DXGI factory, fallback to DML adapter 0. "
                                  "HRESULT=2289696770"));
}

TEST(DmlAdapterName, EveryUnitOutsideAsciiBecomesOneQuestionMark) {
    // A surrogate pair (U+1F600) is two units, so it becomes two characters.
    const std::u16string name = u"Gr" u"\x00E4" u"fik " u"\xD83D\xDE00" u" " u"\x007F\x0080";
    EXPECT_EQ(asciiAdapterName(name), "Gr?fik ?? \x7F?");
}

}  // namespace
}  // namespace tonwerk
