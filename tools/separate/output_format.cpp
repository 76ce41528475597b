#include "output_format.h"

#include "tool_error.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <sndfile.h>

namespace tonwerk::tools {

namespace {

bool isLossy(int inputFormat) {
    switch (inputFormat & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_VORBIS:
    case SF_FORMAT_OPUS:
    case SF_FORMAT_MPEG_LAYER_I:
    case SF_FORMAT_MPEG_LAYER_II:
    case SF_FORMAT_MPEG_LAYER_III:
    case SF_FORMAT_IMA_ADPCM:
    case SF_FORMAT_MS_ADPCM:
    case SF_FORMAT_GSM610:
    case SF_FORMAT_VOX_ADPCM:
    case SF_FORMAT_G721_32:
    case SF_FORMAT_G723_24:
    case SF_FORMAT_G723_40:
        return true;
    default:
        return false;
    }
}

// The input's integer resolution where it has one worth keeping.
std::optional<Encoding> integerResolution(int inputFormat) {
    switch (inputFormat & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_ALAC_16:
        return Encoding::pcm16;
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_ALAC_24:
        return Encoding::pcm24;
    default:
        return std::nullopt;
    }
}

const char* containerName(Container container) {
    switch (container) {
    case Container::flac: return "FLAC";
    case Container::ogg: return "Ogg Vorbis";
    case Container::mp3: return "MP3";
    case Container::wav: break;
    }
    return "WAV";
}

}  // namespace

FormatRequest parseFormatRequest(const std::string& text) {
    FormatRequest request{text, std::nullopt, std::nullopt};
    if (text == "wav") request.container = Container::wav;
    else if (text == "flac") request.container = Container::flac;
    else if (text == "ogg") request.container = Container::ogg;
    else if (text == "mp3") request.container = Container::mp3;
    else if (text == "pcm16") request.encoding = Encoding::pcm16;
    else if (text == "pcm24") request.encoding = Encoding::pcm24;
    else if (text == "float") request.encoding = Encoding::float32;
    else if (text == "flac16") request = {text, Container::flac, Encoding::pcm16};
    else if (text == "flac24") request = {text, Container::flac, Encoding::pcm24};
    else {
        throw usageError("--format must be wav, flac, ogg, mp3, pcm16, pcm24, float, flac16 or flac24, not '" + text +
                         "'");
    }
    return request;
}

std::optional<Container> containerOfExtension(const std::string& extension) {
    std::string lower = extension;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (lower == ".wav") return Container::wav;
    if (lower == ".flac") return Container::flac;
    if (lower == ".ogg") return Container::ogg;
    if (lower == ".mp3") return Container::mp3;
    return std::nullopt;
}

const char* extensionOf(Container container) {
    switch (container) {
    case Container::flac: return ".flac";
    case Container::ogg: return ".ogg";
    case Container::mp3: return ".mp3";
    case Container::wav: break;
    }
    return ".wav";
}

OutputFormat resolveOutputFormat(const std::optional<FormatRequest>& request,
                                 const std::optional<Container>& fromExtension, int inputFormat) {
    const FormatRequest asked = request.value_or(FormatRequest{});
    const std::optional<Encoding>& encoding = asked.encoding;
    if (asked.container && fromExtension && *asked.container != *fromExtension) {
        throw usageError("--format " + asked.text + " does not match the extension " +
                         extensionOf(*fromExtension) + " of --name");
    }
    Container container = Container::wav;
    if (asked.container) container = *asked.container;
    else if (fromExtension) container = *fromExtension;
    else if (!encoding && (isLossy(inputFormat) || (inputFormat & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC)) {
        container = Container::flac;
    }

    if (container == Container::ogg || container == Container::mp3) {
        if (encoding) {
            throw usageError("--format " + asked.text + " cannot be written as " +
                             containerName(container));
        }
        return {container, Encoding::lossy};
    }
    if (container == Container::flac && encoding && *encoding == Encoding::float32) {
        throw usageError("FLAC holds no float samples: use pcm16 or pcm24 with .flac, or float with .wav");
    }
    if (encoding) return {container, *encoding};
    const std::optional<Encoding> kept = integerResolution(inputFormat);
    if (kept) return {container, *kept};
    return {container, container == Container::flac ? Encoding::pcm24 : Encoding::float32};
}

int sndfileFormat(const OutputFormat& format) {
    switch (format.container) {
    case Container::ogg: return SF_FORMAT_OGG | SF_FORMAT_VORBIS;
    case Container::mp3: return SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;
    case Container::flac:
        return SF_FORMAT_FLAC | (format.encoding == Encoding::pcm16 ? SF_FORMAT_PCM_16 : SF_FORMAT_PCM_24);
    case Container::wav: break;
    }
    switch (format.encoding) {
    case Encoding::pcm16: return SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    case Encoding::pcm24: return SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    default: return SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    }
}

bool isInteger(Encoding encoding) { return encoding == Encoding::pcm16 || encoding == Encoding::pcm24; }

int bitsOf(Encoding encoding) {
    if (encoding == Encoding::pcm16) return 16;
    if (encoding == Encoding::pcm24) return 24;
    return 0;
}

std::string describe(const OutputFormat& format) {
    if (format.encoding == Encoding::lossy) return containerName(format.container);
    const std::string resolution =
        format.encoding == Encoding::float32 ? "32-bit float" : std::to_string(bitsOf(format.encoding)) + "-bit";
    return resolution + " " + containerName(format.container);
}

namespace {

// A file that swallows what is written, so that libsndfile can be asked to
// open a format for real (its encoders check more than sf_format_check).
struct NullFile {
    sf_count_t length = 0;
    sf_count_t position = 0;
};

SF_VIRTUAL_IO nullFileIo() {
    SF_VIRTUAL_IO io{};
    io.get_filelen = [](void* data) { return static_cast<NullFile*>(data)->length; };
    io.seek = [](sf_count_t offset, int whence, void* data) {
        NullFile& file = *static_cast<NullFile*>(data);
        file.position = (whence == SEEK_SET ? 0 : whence == SEEK_CUR ? file.position : file.length) + offset;
        return file.position;
    };
    io.read = [](void*, sf_count_t, void*) -> sf_count_t { return 0; };
    io.write = [](const void*, sf_count_t count, void* data) {
        NullFile& file = *static_cast<NullFile*>(data);
        file.position += count;
        file.length = std::max(file.length, file.position);
        return count;
    };
    io.tell = [](void* data) { return static_cast<NullFile*>(data)->position; };
    return io;
}

}  // namespace

void checkWritable(const OutputFormat& format, int sampleRate, int channels) {
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = channels;
    info.format = sndfileFormat(format);
    // The MP3 encoder takes only the MPEG rates, which libsndfile's check does not know.
    const bool mpegRate = sampleRate == 8000 || sampleRate == 11025 || sampleRate == 12000 || sampleRate == 16000 ||
                          sampleRate == 22050 || sampleRate == 24000 || sampleRate == 32000 || sampleRate == 44100 ||
                          sampleRate == 48000;
    bool opens = sf_format_check(&info) != 0 && (format.container != Container::mp3 || mpegRate);
    if (opens) {
        SF_VIRTUAL_IO io = nullFileIo();
        NullFile sink;
        SNDFILE* probe = sf_open_virtual(&io, SFM_WRITE, &info, &sink);
        opens = probe != nullptr;
        if (probe != nullptr) sf_close(probe);
    }
    if (!opens) {
        throw inputError("this libsndfile cannot write " + describe(format) + " at " + std::to_string(sampleRate) +
                         " Hz");
    }
}

}  // namespace tonwerk::tools
