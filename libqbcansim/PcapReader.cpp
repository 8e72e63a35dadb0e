#include "libqbcansim/PcapReader.h"

#include <algorithm>
#include <stdexcept>

#include "libqbcansim/CandumpLine.h"
#include "libqbutil/HexText.h"

namespace {

const size_t FILE_HEADER_BYTES = 24;
const size_t RECORD_HEADER_BYTES = 16;
const size_t CAN_HEADER_BYTES = 8;
const size_t MAX_DATA_BYTES = 64;
// A CAN FD record of a capture made before the FD flag existed is told by its size alone.
const uint32_t CANFD_RECORD_BYTES = 72;

const uint32_t EXTENDED_ID_FLAG = 0x80000000u;
const uint32_t CAN_RTR_FLAG = 0x40000000u;
const uint32_t CAN_ERR_FLAG = 0x20000000u;
const uint8_t CANFD_FDF = 0x04;
const uint8_t CANXL_XLF = 0x80;

uint32_t big32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

uint32_t little32(const uint8_t* p) {
    return static_cast<uint32_t>(p[3]) << 24 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[1]) << 8 | p[0];
}

std::string hexBytes(const uint8_t* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += HexText::number(p[i], 2);
    }
    return s;
}

}  // namespace

PcapReader::Format PcapReader::detect(const char* bytes, size_t length) {
    if (length < 4) {
        return FORMAT_OTHER;
    }
    const uint32_t magic = big32(reinterpret_cast<const uint8_t*>(bytes));
    switch (magic) {
        case 0xa1b2c3d4u:
        case 0xd4c3b2a1u:
        case 0xa1b23c4du:
        case 0x4d3cb2a1u:
            return FORMAT_PCAP;
        case 0x0a0d0d0au:
            return FORMAT_PCAPNG;
        default:
            return FORMAT_OTHER;
    }
}

CandumpLine PcapReader::Record::toCandumpLine(const std::string& interfaceName) const {
    if (!isClassicDataFrame()) {
        throw std::logic_error("PcapReader::Record: record " + std::to_string(number) + " is a " +
                               problem + ", not a classic CAN data frame");
    }
    CandumpLine line;
    line.hasTimestamp = true;
    line.seconds = seconds;
    line.microseconds = microseconds;
    line.interfaceName = interfaceName;
    line.canId = canId;
    line.extended = extended;
    line.length = length;
    std::copy(data.begin(), data.begin() + length, line.data.begin());
    return line;
}

PcapReader::PcapReader(std::istream& stream) : in(stream) {}

PcapReader::Result PcapReader::fail(const std::string& message) {
    failed = true;
    failure = message;
    return FAILED;
}

size_t PcapReader::readBytes(uint8_t* buffer, size_t n) {
    in.read(reinterpret_cast<char*>(buffer), static_cast<std::streamsize>(n));
    return static_cast<size_t>(in.gcount());
}

uint32_t PcapReader::number32(const uint8_t* p) const {
    return swapped ? big32(p) : little32(p);
}

bool PcapReader::readHeader() {
    uint8_t header[FILE_HEADER_BYTES];
    const size_t got = readBytes(header, sizeof header);
    const Format format = detect(reinterpret_cast<const char*>(header), got);
    if (format == FORMAT_PCAPNG) {
        fail(
            "a pcapng file, not pcap: convert it with 'editcap -F pcap IN OUT' (or save as "
            "\"Wireshark/tcpdump - pcap\")");
        return false;
    }
    if (format != FORMAT_PCAP) {
        fail("not a pcap file (first bytes " + hexBytes(header, std::min<size_t>(got, 4)) +
             ", expected the magic number a1b2c3d4 or a1b23c4d in either byte order)");
        return false;
    }
    if (got < sizeof header) {
        fail("pcap file header cut short: " + std::to_string(got) + " of " +
             std::to_string(FILE_HEADER_BYTES) + " bytes");
        return false;
    }
    const uint32_t magic = big32(header);
    swapped = magic == 0xa1b2c3d4u || magic == 0xa1b23c4du;
    nanoseconds = magic == 0xa1b23c4du || magic == 0x4d3cb2a1u;
    const uint32_t versions = number32(header + 4);
    const uint16_t major = static_cast<uint16_t>(swapped ? versions >> 16 : versions & 0xFFFF);
    const uint16_t minor = static_cast<uint16_t>(swapped ? versions & 0xFFFF : versions >> 16);
    if (major != 2) {
        fail("pcap version " + std::to_string(major) + "." + std::to_string(minor) +
             " is not read (2.x expected)");
        return false;
    }
    snap = number32(header + 16);
    // The upper bits of the link-type field may carry FCS information; the type is the low 16.
    const uint32_t linkType = number32(header + 20) & 0xFFFF;
    if (linkType != LINKTYPE_CAN_SOCKETCAN) {
        fail("link type " + std::to_string(linkType) +
             " is not 227 (LINKTYPE_CAN_SOCKETCAN): not a capture of a CAN interface");
        return false;
    }
    headerRead = true;
    return true;
}

PcapReader::Result PcapReader::next(Record& record) {
    if (failed) {
        return FAILED;
    }
    if (!headerRead && !readHeader()) {
        return FAILED;
    }
    uint8_t header[RECORD_HEADER_BYTES];
    const size_t got = readBytes(header, sizeof header);
    if (got == 0) {
        return END;
    }
    const uint64_t number = records + 1;
    const std::string where = "record " + std::to_string(number) + ": ";
    if (got < sizeof header) {
        return fail(where + "record header cut short by the end of the file (" +
                    std::to_string(got) + " of " + std::to_string(RECORD_HEADER_BYTES) + " bytes)");
    }
    const uint32_t seconds = number32(header);
    const uint32_t fraction = number32(header + 4);
    const uint32_t captured = number32(header + 8);
    const uint32_t original = number32(header + 12);
    if (fraction > (nanoseconds ? 999999999u : 999999u)) {
        return fail(where + "time stamp fraction " + std::to_string(fraction) + " is not below " +
                    (nanoseconds ? "one second in nanoseconds" : "one second in microseconds"));
    }
    if (captured > MAX_RECORD_BYTES) {
        return fail(where + "captured length " + std::to_string(captured) + " is above " +
                    std::to_string(MAX_RECORD_BYTES) + " bytes");
    }
    // A snap length of 0 is written by some tools for "no limit".
    if (snap != 0 && captured > snap) {
        return fail(where + "captured length " + std::to_string(captured) +
                    " is above the snap length " + std::to_string(snap));
    }
    if (captured > original) {
        return fail(where + "captured length " + std::to_string(captured) +
                    " is above the original length " + std::to_string(original));
    }

    uint8_t body[CAN_HEADER_BYTES + MAX_DATA_BYTES] = {};
    const size_t kept = std::min<size_t>(captured, sizeof body);
    size_t read = readBytes(body, kept);
    // The rest of a long record is skipped in small pieces: it is never needed.
    uint8_t skipped[256];
    bool more = read == kept;
    while (more && read < captured) {
        const size_t n = std::min<size_t>(sizeof skipped, captured - read);
        const size_t r = readBytes(skipped, n);
        read += r;
        more = r == n;
    }
    if (read < captured) {
        return fail(where + "record cut short by the end of the file (" + std::to_string(read) +
                    " of " + std::to_string(captured) + " bytes)");
    }
    records = number;

    record = Record();
    record.number = number;
    record.seconds = seconds;
    record.microseconds = nanoseconds ? fraction / 1000 : fraction;
    if (captured < CAN_HEADER_BYTES) {
        record.problem =
            "record of " + std::to_string(captured) + " bytes, shorter than the 8-byte CAN header";
        return RECORD;
    }
    const uint32_t idWord = big32(body);
    record.extended = (idWord & EXTENDED_ID_FLAG) != 0;
    record.canId = idWord & (record.extended ? 0x1FFFFFFFu : 0x7FFu);
    record.length = body[4];
    const size_t carried = std::min<size_t>(record.length, captured - CAN_HEADER_BYTES);
    std::copy(body + CAN_HEADER_BYTES, body + CAN_HEADER_BYTES + std::min(carried, MAX_DATA_BYTES),
              record.data.begin());

    record.identified = (idWord & CAN_ERR_FLAG) == 0;
    if ((body[4] & CANXL_XLF) != 0) {
        record.problem = "CAN XL frame";
    } else if ((body[5] & CANFD_FDF) != 0 || captured == CANFD_RECORD_BYTES) {
        record.problem = "CAN FD frame";
    } else if ((idWord & CAN_ERR_FLAG) != 0) {
        record.problem = "error frame";
    } else if ((idWord & CAN_RTR_FLAG) != 0) {
        record.problem = "remote frame";
    } else if (!record.extended && (idWord & 0x1FFFF800u) != 0) {
        record.problem = "standard frame with identifier bits above 0x7FF set";
    } else if (record.length > 8) {
        record.problem =
            "classic frame with data length " + std::to_string(record.length) + " (at most 8)";
    } else if (carried < record.length) {
        record.problem = "frame of " + std::to_string(record.length) + " data bytes, " +
                         std::to_string(carried) + " captured";
    }
    return RECORD;
}
