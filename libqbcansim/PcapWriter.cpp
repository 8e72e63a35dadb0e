#include "libqbcansim/PcapWriter.h"

#include <stdexcept>
#include <string>

#include "libqbcansim/CandumpLine.h"

namespace {

void putLittle32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

void putLittle16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

void putBig32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

}  // namespace

PcapWriter::PcapWriter(std::ostream& stream) : out(stream) {
    uint8_t header[24] = {};
    putLittle32(header, 0xa1b2c3d4u);
    putLittle16(header + 4, 2);
    putLittle16(header + 6, 4);
    // Bytes 8 to 15: time zone offset and accuracy, both 0.
    putLittle32(header + 16, FRAME_BYTES);
    putLittle32(header + 20, LINKTYPE_CAN_SOCKETCAN);
    out.write(reinterpret_cast<const char*>(header), sizeof header);
}

void PcapWriter::write(int64_t seconds, uint32_t microseconds, uint32_t canId, bool extended,
                       const uint8_t* data, uint8_t length) {
    if (seconds < 0 || seconds > 0xFFFFFFFFll) {
        throw std::invalid_argument("PcapWriter: time stamp " + std::to_string(seconds) +
                                    " s is outside the 32-bit seconds of a pcap record");
    }
    if (microseconds > 999999) {
        throw std::invalid_argument("PcapWriter: " + std::to_string(microseconds) +
                                    " microseconds is above 999999");
    }
    if (length > 8) {
        throw std::invalid_argument(
            "PcapWriter: a classic CAN frame has at most 8 data bytes, not " +
            std::to_string(length));
    }
    if (length > 0 && data == nullptr) {
        throw std::invalid_argument("PcapWriter: null data with a non-zero length");
    }
    if (canId > (extended ? 0x1FFFFFFFu : 0x7FFu)) {
        throw std::invalid_argument("PcapWriter: identifier " + std::to_string(canId) +
                                    " is too wide for its format");
    }
    uint8_t record[16 + FRAME_BYTES] = {};
    putLittle32(record, static_cast<uint32_t>(seconds));
    putLittle32(record + 4, microseconds);
    putLittle32(record + 8, FRAME_BYTES);
    putLittle32(record + 12, FRAME_BYTES);
    putBig32(record + 16, canId | (extended ? EXTENDED_ID_FLAG : 0u));
    record[20] = length;
    // Bytes 21 to 23 (padding and two reserved bytes) stay 0, and so do the data bytes after
    // the frame's length.
    for (uint8_t i = 0; i < length; ++i) {
        record[24 + i] = data[i];
    }
    out.write(reinterpret_cast<const char*>(record), sizeof record);
    ++written;
}

void PcapWriter::write(const CandumpLine& frame) {
    write(frame.hasTimestamp ? frame.seconds : 0, frame.hasTimestamp ? frame.microseconds : 0,
          frame.canId, frame.extended, frame.data.data(), frame.length);
}

void PcapWriter::flush() {
    out.flush();
}

bool PcapWriter::good() const {
    return static_cast<bool>(out);
}
