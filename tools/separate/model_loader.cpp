#include "model_loader.h"

#include "file_bytes.h"
#include "model_contract.h"
#include "model_scramble.h"
#include "tool_error.h"

#include <filesystem>
#include <vector>

namespace tonwerk::tools {

namespace fs = std::filesystem;

namespace {

// models/ beside the program in a build folder; share/tonwerk/models/ of the
// prefix once installed into bin/.
fs::path modelsFolder() {
    std::error_code ec;
    const fs::path executable = fs::read_symlink("/proc/self/exe", ec);
    const fs::path folder = ec ? fs::current_path() : executable.parent_path();
    const fs::path beside = folder / "models";
    const fs::path installed = folder.parent_path() / "share" / "tonwerk" / "models";
    return fs::is_directory(beside, ec) || !fs::is_directory(installed, ec) ? beside : installed;
}

}  // namespace

std::string resolveModelPath(const std::string& nameOrPath) {
    if (nameOrPath.empty()) return resolveModelPath(defaultModelName);
    // A bare name that is not a file here means one of the models that come with the program.
    std::error_code ec;
    const fs::path given(nameOrPath);
    if (given.has_parent_path() || given.has_extension() || fs::exists(given, ec)) return nameOrPath;
    return (modelsFolder() / (nameOrPath + ".onnx")).string();
}

std::shared_ptr<InferenceContext> loadCheckedModel(const std::string& path, const std::string& key) {
    std::error_code ec;
    if (!fs::exists(path, ec)) throw inputError("model " + path + ": no such file");
    const std::vector<unsigned char> stored = readFileBytes(path);

    std::vector<std::string> violations;
    {
        // The library unscrambles for itself; the check needs its own plain copy.
        std::vector<unsigned char> plain = stored;
        xorWithKey(plain, key);
        violations = checkModelBytes(plain.data(), plain.size());
    }
    if (!violations.empty()) {
        std::string reasons;
        for (const std::string& violation : violations) reasons += (reasons.empty() ? "" : "; ") + violation;
        throw inputError("model " + path + " does not fit the model contract: " + reasons);
    }

    try {
        return std::make_shared<InferenceContext>(ModelData{stored.data(), stored.size(), key});
    } catch (const std::exception& error) {
        throw inputError("model " + path + " cannot be loaded: " + oneLine(error.what()));
    }
}

}  // namespace tonwerk::tools
