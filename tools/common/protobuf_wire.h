// A bounds-checked reader for the protocol-buffer wire format, just enough
// to walk an ONNX file's messages and skip everything it does not need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace tonwerk::tools {

// Thrown when the bytes are not a well-formed protocol-buffer message.
class WireFormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class WireType { varint = 0, fixed64 = 1, lengthDelimited = 2, fixed32 = 5 };

struct WireField {
    std::uint32_t number = 0;
    WireType type = WireType::varint;
    std::uint64_t varint = 0;           // value of a varint field
    const unsigned char* data = nullptr;  // payload of a length-delimited field
    std::size_t size = 0;

    std::string text() const { return std::string(reinterpret_cast<const char*>(data), size); }
};

class WireReader {
public:
    WireReader(const unsigned char* data, std::size_t size) : pos_(data), end_(data + size) {}

    bool atEnd() const { return pos_ == end_; }

    // Reads the next field; throws WireFormatError on truncated or invalid
    // input. Groups (wire types 3 and 4) are rejected: ONNX never uses them.
    WireField next();

private:
    std::uint64_t readVarint();

    const unsigned char* pos_;
    const unsigned char* end_;
};

}  // namespace tonwerk::tools
