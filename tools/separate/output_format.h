// The file format of the stems: container and sample encoding, chosen from
// --format, the extension of --name and the input file's own format.
#pragma once

#include <optional>
#include <string>

namespace tonwerk::tools {

enum class Container { wav, flac, ogg, mp3 };
enum class Encoding { pcm16, pcm24, float32, lossy };

struct OutputFormat {
    Container container;
    Encoding encoding;
};

// What --format asked for: a container, an encoding, or both.
struct FormatRequest {
    std::string text;
    std::optional<Container> container;
    std::optional<Encoding> encoding;
};

// wav, flac, ogg, mp3, pcm16, pcm24, float, flac16, flac24; throws usageError.
FormatRequest parseFormatRequest(const std::string& text);

// ".wav", ".flac", ".ogg", ".mp3" (any case); empty for anything else.
std::optional<Container> containerOfExtension(const std::string& extension);
const char* extensionOf(Container container);

// Resolves the stems' format for an input whose libsndfile format word is
// `inputFormat`. Without a request: FLAC input stays FLAC, lossy input
// becomes 24-bit FLAC, anything else WAV; integer resolutions of 16 or 24
// bits are kept (8 bits become 16), anything else becomes float in WAV and
// 24 bits in FLAC. Throws usageError when the request and the extension
// disagree or ask for what the container cannot hold.
OutputFormat resolveOutputFormat(const std::optional<FormatRequest>& request,
                                 const std::optional<Container>& fromExtension, int inputFormat);

// libsndfile's format word; integer encodings are written from integers the
// tool has already rounded.
int sndfileFormat(const OutputFormat& format);
bool isInteger(Encoding encoding);
int bitsOf(Encoding encoding);  // 16 or 24 for the integer encodings, else 0

// "16-bit WAV", "24-bit FLAC", "32-bit float WAV", "Ogg Vorbis", "MP3".
std::string describe(const OutputFormat& format);

// Throws inputError when the installed libsndfile cannot write `format` at
// this rate and channel count.
void checkWritable(const OutputFormat& format, int sampleRate, int channels);

}  // namespace tonwerk::tools
