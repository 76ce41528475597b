#include "protobuf_wire.h"

namespace tonwerk::tools {

std::uint64_t WireReader::readVarint() {
    std::uint64_t value = 0;
    for (int shift = 0; shift < 64; shift += 7) {
        if (pos_ == end_) throw WireFormatError("truncated varint");
        const unsigned char byte = *pos_++;
        value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
        if ((byte & 0x80) == 0) return value;
    }
    throw WireFormatError("varint longer than ten bytes");
}

WireField WireReader::next() {
    const std::uint64_t key = readVarint();
    WireField field;
    if ((key >> 3) == 0 || (key >> 3) > 0x1fffffff) throw WireFormatError("invalid field number");
    field.number = static_cast<std::uint32_t>(key >> 3);
    const auto remaining = [this] { return static_cast<std::size_t>(end_ - pos_); };
    switch (key & 7) {
    case 0:
        field.type = WireType::varint;
        field.varint = readVarint();
        break;
    case 1:
        if (remaining() < 8) throw WireFormatError("truncated fixed64 field");
        field.type = WireType::fixed64;
        pos_ += 8;
        break;
    case 2: {
        const std::uint64_t length = readVarint();
        if (length > remaining()) throw WireFormatError("length-delimited field runs past the end");
        field.type = WireType::lengthDelimited;
        field.data = pos_;
        field.size = static_cast<std::size_t>(length);
        pos_ += length;
        break;
    }
    case 5:
        if (remaining() < 4) throw WireFormatError("truncated fixed32 field");
        field.type = WireType::fixed32;
        pos_ += 4;
        break;
    default:
        throw WireFormatError("unsupported wire type");
    }
    return field;
}

}  // namespace tonwerk::tools
