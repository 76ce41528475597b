#include "pending_audio_file.h"

#include "tool_error.h"

#include <climits>
#include <cmath>
#include <random>
#include <sndfile.h>
#include <unistd.h>

namespace tonwerk::tools {

namespace fs = std::filesystem;

namespace {

// Vorbis and MP3 at a high quality setting: stems are for further work.
constexpr double lossyCompressionLevel = 0.2;

std::string hostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "host";
    std::string host(name);
    for (char& c : host) {
        if (c == '/' || c == '\\') c = '_';
    }
    return host;
}

std::string& tagStorage() {
    static std::string tag;
    return tag;
}

}  // namespace

void setPartTag(std::string tag) { tagStorage() = std::move(tag); }

const std::string& partTag() {
    std::string& tag = tagStorage();
    if (tag.empty()) {
        tag = hostName() + "-" + std::to_string(::getpid()) + "-" + std::to_string(std::random_device{}());
    }
    return tag;
}

PendingAudioFile::PendingAudioFile(fs::path finalPath, int sampleRate, int channels, const OutputFormat& format,
                                   bool dither, std::uint64_t ditherSeed)
    : finalPath_(std::move(finalPath)), channels_(channels), lossy_(format.encoding == Encoding::lossy) {
    // Hidden and tagged, so a crashed run's leftovers are recognisable and
    // two runs into one folder do not collide.
    tempPath_ = finalPath_.parent_path() / ("." + finalPath_.filename().string() + ".part-" + partTag());
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = channels;
    info.format = sndfileFormat(format);
    file_ = sf_open(tempPath_.c_str(), SFM_WRITE, &info);
    if (file_ == nullptr) {
        const std::string reason = oneLine(sf_strerror(nullptr));
        std::error_code ignored;
        fs::remove(tempPath_, ignored);  // libsndfile may have created it before refusing the format
        throw inputError("cannot write " + finalPath_.string() + " as " + describe(format) + " at " +
                         std::to_string(sampleRate) + " Hz: " + reason);
    }
    if (isInteger(format.encoding)) quantizer_.emplace(bitsOf(format.encoding), dither, ditherSeed);
    if (lossy_) {
        double level = lossyCompressionLevel;
        sf_command(file_, SFC_SET_COMPRESSION_LEVEL, &level, sizeof level);
    }
}

PendingAudioFile::~PendingAudioFile() {
    if (file_ != nullptr) sf_close(file_);
    if (!committed_) {
        std::error_code ignored;
        fs::remove(tempPath_, ignored);
    }
}

void PendingAudioFile::write(const float* interleaved, std::size_t frames) {
    if (frames == 0) return;
    const std::size_t count = frames * static_cast<std::size_t>(channels_);
    sf_count_t written = 0;
    if (quantizer_) {
        steps_.resize(count);
        quantizer_->convert(interleaved, count, steps_.data());
        written = sf_writef_int(file_, steps_.data(), static_cast<sf_count_t>(frames));
    } else {
        if (lossy_) {
            for (std::size_t i = 0; i < count; ++i) lossyClipped_ += std::fabs(interleaved[i]) > 1.0f;
        }
        written = sf_writef_float(file_, interleaved, static_cast<sf_count_t>(frames));
    }
    if (written != static_cast<sf_count_t>(frames)) {
        throw inputError("cannot write " + finalPath_.string() + ": " + oneLine(sf_strerror(file_)));
    }
}

void PendingAudioFile::close() {
    if (file_ == nullptr) return;
    const int status = sf_close(file_);
    file_ = nullptr;
    if (status != 0) throw inputError("cannot write " + finalPath_.string() + ": " + oneLine(sf_error_number(status)));
}

void PendingAudioFile::commit() {
    close();
    std::error_code ec;
    fs::rename(tempPath_, finalPath_, ec);
    if (ec) throw inputError("cannot write " + finalPath_.string() + ": " + ec.message());
    committed_ = true;
}

void PendingAudioFile::remove() {
    std::error_code ignored;
    fs::remove(committed_ ? finalPath_ : tempPath_, ignored);
}

}  // namespace tonwerk::tools
