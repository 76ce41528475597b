#include "inference/runtime_loader_posix.h"
#include "test_support.h"

#include <gmock/gmock.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
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

// Loading a model in a host process leaves nothing of the runtime's own usage
// data collection: no device id or database in the home folder, no log in
// /tmp (and no thread that would send them out).
TEST(RuntimeLoader, LoadingAModelLeavesNoTraceOutsideTheProcess) {
    unsetenv("ORT_DISABLE_TELEMETRY");  // a host that has not chosen
    const std::filesystem::path home = std::filesystem::temp_directory_path() /
                                       ("tonwerk-home-" + std::to_string(getpid()));
    std::filesystem::create_directories(home);
    setenv("HOME", home.c_str(), 1);
    const auto backend = test::identityBackend();
    const bool homeEmpty = std::filesystem::is_empty(home);
    std::filesystem::remove_all(home);
    EXPECT_TRUE(homeEmpty);
    EXPECT_FALSE(std::filesystem::exists("/tmp/mat-debug-" + std::to_string(getpid()) + ".log"));
}

}  // namespace
}  // namespace tonwerk
