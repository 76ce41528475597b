#include "inference/runtime_loader_posix.h"
#include "test_support.h"

#include <gmock/gmock.h>

#include <climits>
#include <stdexcept>
#include <unistd.h>

namespace tonwerk {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

std::string executableDirectory() {
    char path[PATH_MAX] = {};
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    const std::string exe(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return exe.substr(0, exe.find_last_of('/'));
}

std::string loadError(const std::string& path) {
    return test::runtimeErrorOf([&] { loadOrtApiBase(path); });
}

// The backend is linked statically into this test, so "our module" is the
// test program; the path is absolute however the program was started.
TEST(RuntimeLoader, LooksNextToTheModuleAndFailuresNameTheLibraryAndTheReason) {
    EXPECT_EQ(ortLibraryPath(), executableDirectory() + "/libonnxruntime_pelagrin.so");
    const std::string missing = executableDirectory() + "/no-such-dir/libonnxruntime_pelagrin.so";
    EXPECT_THAT(loadError(missing), AllOf(HasSubstr(missing), HasSubstr("No such file or directory")));
    EXPECT_THAT(loadError("libm.so.6"), AllOf(HasSubstr("libm.so.6"), HasSubstr("OrtGetApiBase")));
}

}  // namespace
}  // namespace tonwerk
