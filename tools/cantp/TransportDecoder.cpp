#include "TransportDecoder.h"

#include <algorithm>
#include <cassert>
#include <vector>

#include "libqbcan/cantransport.h"
#include "libqbutil/HexText.h"

namespace {

// Column widths of a frame line. A value longer than its column widens that line only: the
// decoder streams and cannot look ahead for the widest value. 17 fits a candump time stamp
// ("1700000000.123456"), 8 an extended identifier, 12 the longest kind ("flow-control").
const int TIME_WIDTH = 17;
const int IFACE_WIDTH = 5;
const int ID_WIDTH = 8;
const int KIND_WIDTH = 12;

// A first frame carries 6 payload bytes, a consecutive frame up to 7 (a single frame, too,
// carries at most 7, although its length nibble can announce up to 15).
const size_t FIRST_FRAME_BYTES = 6;
const size_t CONSECUTIVE_FRAME_BYTES = 7;
// Payloads below 8 bytes go in a single frame; a first frame announcing less starts nothing.
const size_t SMALLEST_SEGMENTED = 8;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

void pad(std::string& s, const std::string& value, int width) {
    s += value;
    for (int i = static_cast<int>(value.size()); i < width; ++i) {
        s += ' ';
    }
    s += ' ';
}

std::string byteCount(size_t n, const char* noun) {
    return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

const char* flowControlName(uint16_t code) {
    switch (code) {
        case CTP_FC_NOT_READY_TO_RECEIVE:
            return "CTP_FC_NOT_READY_TO_RECEIVE";
        case CTP_FC_READY_TO_RECEIVE:
            return "CTP_FC_READY_TO_RECEIVE";
        case CTP_FC_NOT_ACKNOWLEDGE:
            return "CTP_FC_NOT_ACKNOWLEDGE";
        case CTP_FC_ACKNOWLEDGE:
            return "CTP_FC_ACKNOWLEDGE";
        default:
            return nullptr;
    }
}

/// The PCI parameter by the shared rule: DATA[0] in the low byte, DATA[1] (if any) in the high.
uint16_t frameParam(const CandumpLine& frame, bool withSecondByte) {
    uint16_t frameData = frame.data[0];
    if (withSecondByte) {
        frameData = static_cast<uint16_t>(frameData | (frame.data[1] << 8));
    }
    return getFrameParam(frameData);
}

}  // namespace

TransportDecoder::TransportDecoder(std::ostream& stream) : out(stream) {}

void TransportDecoder::addLine(const std::string& line) {
    ++lineNumber;
    const auto first = std::find_if_not(line.begin(), line.end(), isBlank);
    if (first == line.end() || *first == '#') {
        return;
    }
    CandumpLine frame;
    std::string error;
    if (!CandumpLine::parse(line, frame, error)) {
        ++totals.unparsable;
        out << "line " << lineNumber << ": error: " << error << '\n';
        return;
    }
    // The time stamp is shown as written (any number of second digits); parse() has checked
    // that the first field is "(SEC.USEC)".
    std::string time = "-";
    if (frame.hasTimestamp) {
        const auto close = std::find(first, line.end(), ')');
        time.assign(first + 1, close);
    }
    decodeFrame(frame, time);
}

void TransportDecoder::addUnreadableLine(const std::string& reason) {
    ++lineNumber;
    ++totals.unparsable;
    out << "line " << lineNumber << ": error: " << reason << '\n';
}

void TransportDecoder::decodeFrame(const CandumpLine& frame, const std::string& time) {
    ++totals.frames;
    const Key key(frame.interfaceName, frame.extended, frame.canId);
    const std::string name = frame.interfaceName + " " + frame.identifierText();

    if (frame.length == 0) {
        ++totals.invalid;
        frameLine(time, frame, "invalid", "no data byte");
        errorLine(name, "frame without data byte");
        return;
    }
    const uint8_t pci = frame.data[0];
    switch (classifyFrame(pci)) {
        case CTP_FRAME_SINGLE:
            ++totals.single;
            frameLine(time, frame, "single", "len=" + std::to_string(frameParam(frame, false)));
            onSingle(key, name, frame);
            return;
        case CTP_FRAME_FIRST:
            if (frame.length < 2) {
                // The length's low byte is DATA[1]; reading it would read past the frame.
                ++totals.invalid;
                frameLine(time, frame, "invalid", "1 byte, PCI needs 2");
                errorLine(name, "first frame of 1 byte: its PCI needs 2");
                return;
            }
            ++totals.first;
            frameLine(time, frame, "first", "len=" + std::to_string(frameParam(frame, true)));
            onFirst(key, name, frame);
            return;
        case CTP_FRAME_CONSECUTIVE:
            ++totals.consecutive;
            frameLine(time, frame, "consecutive", "sn=" + std::to_string(frameParam(frame, false)));
            onConsecutive(key, name, frame);
            return;
        case CTP_FRAME_FLOW_CONTROL: {
            ++totals.flowControl;
            const uint16_t code = frameParam(frame, false);
            const char* codeName = flowControlName(code);
            frameLine(time, frame, "flow-control",
                      codeName != nullptr ? std::string(codeName)
                                          : "code=" + std::to_string(code) + " (unknown)");
            return;
        }
        case CTP_FRAME_INVALID:
            break;
    }
    ++totals.invalid;
    if (pci == 0x00) {
        frameLine(time, frame, "invalid", "DATA[0]=0x00");
        errorLine(name, "invalid frame: DATA[0]=0x00");
    } else {
        const std::string nibble = "0x" + HexText::number(pci >> 4, 1);
        frameLine(time, frame, "invalid", "unknown kind " + nibble);
        errorLine(name, "unknown frame kind " + nibble);
    }
}

void TransportDecoder::onSingle(const Key& key, const std::string& name, const CandumpLine& frame) {
    dropOpenTransfer(key, name, "single frame");
    const size_t announced = frameParam(frame, false);
    const size_t carried = frame.length - 1u;
    if (announced > carried) {
        errorLine(name, "single frame announces " + byteCount(announced, "byte") + ", carries " +
                            std::to_string(carried));
        return;
    }
    deliver(name, byteVec_t(frame.data.begin() + 1, frame.data.begin() + 1 + announced));
}

void TransportDecoder::onFirst(const Key& key, const std::string& name, const CandumpLine& frame) {
    dropOpenTransfer(key, name, "first frame");
    const size_t announced = frameParam(frame, true);
    if (announced < SMALLEST_SEGMENTED) {
        errorLine(name, "first frame announces " + byteCount(announced, "byte") +
                            ": a first frame starts a payload of 8 bytes or more");
        return;
    }
    const size_t carried = frame.length - 2u;
    if (carried < FIRST_FRAME_BYTES) {
        errorLine(name, "first frame carries " + byteCount(carried, "payload byte") + ", needs " +
                            std::to_string(FIRST_FRAME_BYTES));
        return;
    }
    Transfer& transfer = open[key];
    transfer.startOrder = ++transfersStarted;
    transfer.announced = announced;
    transfer.nextSequence = 0;
    transfer.bytes.reserve(announced);
    transfer.bytes.assign(frame.data.begin() + 2, frame.data.begin() + 2 + FIRST_FRAME_BYTES);
}

void TransportDecoder::onConsecutive(const Key& key, const std::string& name,
                                     const CandumpLine& frame) {
    const auto it = open.find(key);
    if (it == open.end()) {
        errorLine(name, "consecutive frame out of place (no first frame)");
        return;
    }
    Transfer& transfer = it->second;
    const auto dropped = [&transfer] {
        return " (" + std::to_string(transfer.bytes.size()) + " of " +
               byteCount(transfer.announced, "byte") + " dropped)";
    };
    const uint16_t sequence = frameParam(frame, false);
    if (sequence != transfer.nextSequence) {
        errorLine(name, "wrong sequence number: got " + std::to_string(sequence) + ", expected " +
                            std::to_string(transfer.nextSequence) + dropped());
        open.erase(it);
        return;
    }
    const size_t needed =
        std::min(CONSECUTIVE_FRAME_BYTES, transfer.announced - transfer.bytes.size());
    const size_t carried = frame.length - 1u;
    if (carried < needed) {
        errorLine(name, "consecutive frame carries " + byteCount(carried, "payload byte") +
                            ", needs " + std::to_string(needed) + dropped());
        open.erase(it);
        return;
    }
    // Sequence numbers run 0, 1, ..., 15, 0, 1, ...
    transfer.nextSequence = static_cast<uint8_t>((transfer.nextSequence + 1) & 0x0F);
    // Bytes after the end of the payload in its last frame are padding and are not taken.
    transfer.bytes.insert(transfer.bytes.end(), frame.data.begin() + 1,
                          frame.data.begin() + 1 + needed);
    if (transfer.bytes.size() == transfer.announced) {
        deliver(name, transfer.bytes);
        open.erase(it);
    }
}

void TransportDecoder::dropOpenTransfer(const Key& key, const std::string& name, const char* what) {
    const auto it = open.find(key);
    if (it == open.end()) {
        return;
    }
    errorLine(name, std::string(what) + " while a transfer is open (" +
                        std::to_string(it->second.bytes.size()) + " of " +
                        byteCount(it->second.announced, "byte") + " dropped)");
    open.erase(it);
}

void TransportDecoder::deliver(const std::string& name, const byteVec_t& bytes) {
    // Single frames announce 1 to 15 bytes and first frames at least 8: never empty.
    assert(!bytes.empty());
    ++totals.payloads;
    totals.bytes += bytes.size();
    out << "payload " << name << " len=" << bytes.size() << ' ' << HexText::encode(bytes) << '\n';
}

void TransportDecoder::frameLine(const std::string& time, const CandumpLine& frame,
                                 const char* kind, const std::string& param) {
    std::string s;
    pad(s, time, TIME_WIDTH);
    pad(s, frame.interfaceName, IFACE_WIDTH);
    pad(s, frame.identifierText(), ID_WIDTH);
    pad(s, kind, KIND_WIDTH);
    s += param;
    s += '\n';
    out << s;
}

void TransportDecoder::errorLine(const std::string& name, const std::string& message) {
    ++totals.errors;
    out << "error " << name << ": " << message << '\n';
}

void TransportDecoder::finish() {
    assert(!finished);
    finished = true;
    std::vector<std::pair<uint64_t, const std::pair<const Key, Transfer>*>> left;
    for (const auto& entry : open) {
        left.emplace_back(entry.second.startOrder, &entry);
    }
    std::sort(left.begin(), left.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& item : left) {
        const Key& key = item.second->first;
        const Transfer& transfer = item.second->second;
        CandumpLine idOnly;
        idOnly.extended = std::get<1>(key);
        idOnly.canId = std::get<2>(key);
        ++totals.incomplete;
        errorLine(std::get<0>(key) + " " + idOnly.identifierText(),
                  "transfer incomplete at end of log (" + std::to_string(transfer.bytes.size()) +
                      " of " + byteCount(transfer.announced, "byte") + ")");
    }
    open.clear();
    out << "summary frames=" << totals.frames << " single=" << totals.single
        << " first=" << totals.first << " consecutive=" << totals.consecutive
        << " flow-control=" << totals.flowControl << " invalid=" << totals.invalid << '\n'
        << "summary payloads=" << totals.payloads << " bytes=" << totals.bytes
        << " errors=" << totals.errors << " unparsable=" << totals.unparsable
        << " incomplete=" << totals.incomplete << '\n';
}
