// A processor configuration from a stem mask, for programs that draw their
// stem choice as a number: bit 0 vocals, 1 drum, 2 piano, 3 acoustic guitar,
// 4 electric guitar, 5 bass (the configuration's field order). Header only:
// the test suites on every platform use it too.
#pragma once

#include "tonwerk/tonwerk_proc_multistem.h"

#include <cstdint>

namespace tonwerk::tools {

constexpr unsigned kAllStemBits = 0x3F;

inline TonwerkProcConfig configForStemBits(unsigned bits, bool interleaved, std::int32_t channels = 2) {
    TonwerkProcConfig config{};
    config.vocals = bits & 1u;
    config.drum = (bits >> 1) & 1u;
    config.piano = (bits >> 2) & 1u;
    config.acousticGuitar = (bits >> 3) & 1u;
    config.electricGuitar = (bits >> 4) & 1u;
    config.bass = (bits >> 5) & 1u;
    config.channels = channels;
    config.interleaved = interleaved;
    return config;
}

}  // namespace tonwerk::tools
