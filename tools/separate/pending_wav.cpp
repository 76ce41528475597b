#include "pending_wav.h"

#include "tool_error.h"

#include <sndfile.h>
#include <unistd.h>

namespace tonwerk::tools {

namespace fs = std::filesystem;

namespace {

int sndfileFormat(SampleFormat format) {
    switch (format) {
    case SampleFormat::pcm16: return SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    case SampleFormat::pcm24: return SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    case SampleFormat::float32: break;
    }
    return SF_FORMAT_WAV | SF_FORMAT_FLOAT;
}

}  // namespace

PendingWav::PendingWav(fs::path finalPath, int sampleRate, int channels, SampleFormat format)
    : finalPath_(std::move(finalPath)) {
    // Hidden and tagged with the process id, so a crashed run's leftovers are
    // recognisable and two runs into one folder do not collide.
    tempPath_ = finalPath_.parent_path() /
                ("." + finalPath_.filename().string() + ".part-" + std::to_string(::getpid()));
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = channels;
    info.format = sndfileFormat(format);
    file_ = sf_open(tempPath_.c_str(), SFM_WRITE, &info);
    if (file_ == nullptr) {
        throw inputError("cannot write " + finalPath_.string() + ": " + oneLine(sf_strerror(nullptr)));
    }
    // Stems may exceed full scale; clip integer samples instead of letting them wrap.
    if (format != SampleFormat::float32) sf_command(file_, SFC_SET_CLIPPING, nullptr, SF_TRUE);
}

PendingWav::~PendingWav() {
    if (file_ != nullptr) sf_close(file_);
    if (!committed_) {
        std::error_code ignored;
        fs::remove(tempPath_, ignored);
    }
}

void PendingWav::write(const float* interleaved, std::size_t frames) {
    if (frames == 0) return;
    const sf_count_t written = sf_writef_float(file_, interleaved, static_cast<sf_count_t>(frames));
    if (written != static_cast<sf_count_t>(frames)) {
        throw inputError("cannot write " + finalPath_.string() + ": " + oneLine(sf_strerror(file_)));
    }
}

void PendingWav::close() {
    if (file_ == nullptr) return;
    const int status = sf_close(file_);
    file_ = nullptr;
    if (status != 0) throw inputError("cannot write " + finalPath_.string() + ": " + oneLine(sf_error_number(status)));
}

void PendingWav::commit() {
    close();
    std::error_code ec;
    fs::rename(tempPath_, finalPath_, ec);
    if (ec) throw inputError("cannot write " + finalPath_.string() + ": " + ec.message());
    committed_ = true;
}

void PendingWav::remove() {
    std::error_code ignored;
    fs::remove(committed_ ? finalPath_ : tempPath_, ignored);
}

}  // namespace tonwerk::tools
