#include "TransportDecoder.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cstdio>
#include <sstream>
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

std::string lowerHex(const uint8_t* bytes, size_t count) {
    std::string s = HexText::encode(bytes, count);
    for (char& c : s) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return s;
}

template <typename T>
std::string joined(const std::vector<T>& items) {
    std::string s;
    for (const T& item : items) {
        if (!s.empty()) {
            s += '|';
        }
        std::ostringstream text;
        text << item;
        s += text.str();
    }
    return s;
}

bool parseIdentifier(const std::string& text, uint32_t& value) {
    if (text.empty()) {
        return false;
    }
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    uint64_t v = 0;
    for (size_t i = hex ? 2 : 0; i < text.size(); ++i) {
        const int digit = hex ? HexText::digitValue(text[i])
                              : (text[i] >= '0' && text[i] <= '9' ? text[i] - '0' : -1);
        if (digit < 0) {
            return false;
        }
        v = v * (hex ? 16 : 10) + static_cast<uint64_t>(digit);
        if (v > 0x1FFFFFFF) {
            return false;
        }
    }
    value = static_cast<uint32_t>(v);
    return true;
}

}  // namespace

bool TransportDecoder::parseIdentifiers(const std::string& text, IdentifierRanges& ranges,
                                        std::string& error) {
    IdentifierRanges result;
    std::string item;
    const auto takeItem = [&]() {
        const size_t dash = item.find('-');
        uint32_t low = 0;
        uint32_t high = 0;
        const bool ok = dash == std::string::npos
                            ? parseIdentifier(item, low) && parseIdentifier(item, high)
                            : parseIdentifier(item.substr(0, dash), low) &&
                                  parseIdentifier(item.substr(dash + 1), high);
        if (!ok || low > high) {
            error = "\"" + item +
                    "\" is not an identifier (0x7E0, 2016) or a range (0x700-0x7FF) up to "
                    "0x1FFFFFFF";
            return false;
        }
        result.emplace_back(low, high);
        return true;
    };
    for (char c : text) {
        if (c == ' ' || c == '\t') {
            continue;
        }
        if (c == ',') {
            if (!takeItem()) {
                return false;
            }
            item.clear();
            continue;
        }
        item += c;
    }
    if (!takeItem()) {
        return false;
    }
    ranges = result;
    return true;
}

TransportDecoder::TransportDecoder(std::ostream& stream, Output mode) : out(stream), output(mode) {}

void TransportDecoder::selectIdentifiers(const IdentifierRanges& ranges) {
    identifiers = ranges;
}

bool TransportDecoder::selected(uint32_t canId) const {
    if (identifiers.empty()) {
        return true;
    }
    for (const auto& range : identifiers) {
        if (canId >= range.first && canId <= range.second) {
            return true;
        }
    }
    return false;
}

void TransportDecoder::noteLine(const std::string& text) {
    out << "# " << text << '\n';
}

void TransportDecoder::addLine(const std::string& line) {
    ++lineNumber;
    const auto first = std::find_if_not(line.begin(), line.end(), isBlank);
    if (first == line.end() || *first == '#') {
        return;
    }
    CandumpLine frame;
    std::string error;
    if (!CandumpLine::parse(line, frame, error)) {
        addUnreadable("line", lineNumber, error);
        return;
    }
    // The time stamp is shown as written (any number of second digits); parse() has checked
    // that the first field is "(SEC.USEC)".
    std::string time = "-";
    if (frame.hasTimestamp) {
        const auto close = std::find(first, line.end(), ')');
        time.assign(first + 1, close);
    }
    decodeFrame(frame, time, lineNumber);
}

void TransportDecoder::addUnreadableLine(const std::string& reason) {
    ++lineNumber;
    addUnreadable("line", lineNumber, reason);
}

void TransportDecoder::addUnreadable(const char* what, uint64_t number, const std::string& reason) {
    ++totals.unparsable;
    const std::string text =
        std::string(what) + " " + std::to_string(number) + ": error: " + reason;
    if (output == Output::REPORT) {
        out << text << '\n';
    } else {
        noteLine(text);
    }
}

void TransportDecoder::addFrame(const CandumpLine& frame, uint64_t number) {
    std::string time = "-";
    if (frame.hasTimestamp) {
        char stamp[40];
        std::snprintf(stamp, sizeof stamp, "%010lld.%06lu", static_cast<long long>(frame.seconds),
                      static_cast<unsigned long>(frame.microseconds));
        time = stamp;
    }
    decodeFrame(frame, time, number);
}

void TransportDecoder::addOtherRecord(uint64_t number, const std::string& reason,
                                      bool hasIdentifier, uint32_t canId, bool extended) {
    addUnreadable("record", number, reason);
    if (output == Output::FIELDS) {
        const std::string identifier =
            hasIdentifier ? std::to_string(canId) + '\t' + (extended ? "1" : "0") : "\t";
        fieldsLine(number, identifier, FrameFields());
    }
}

void TransportDecoder::decodeFrame(const CandumpLine& frame, const std::string& time,
                                   uint64_t number) {
    ++totals.frames;
    frameNumber = number;
    current = FrameFields();
    if (selected(frame.canId)) {
        decodeTransportFrame(frame, time);
    } else {
        ++totals.other;
        frameLine(time, frame, "other", "-");
    }
    if (output == Output::FIELDS) {
        fieldsLine(number, std::to_string(frame.canId) + '\t' + (frame.extended ? "1" : "0"),
                   current);
    }
}

void TransportDecoder::fieldsLine(uint64_t number, const std::string& identifier,
                                  const FrameFields& f) {
    const auto optional = [](int value) {
        return value < 0 ? std::string() : std::to_string(value);
    };
    std::string s = std::to_string(number);
    s += '\t';
    s += identifier;
    s += '\t' + optional(f.kind);
    s += '\t' + optional(f.length);
    s += '\t' + optional(f.sequence);
    s += '\t' + optional(f.code);
    s += '\t' + f.padding;
    s += '\t' + joined(f.errors);
    if (f.delivered) {
        s += '\t' + std::to_string(f.payload.size());
        s += '\t' + lowerHex(f.payload.data(), f.payload.size());
        s += '\t' + joined(f.payloadFrames);
    } else {
        s += "\t\t\t";
    }
    s += '\n';
    out << s;
}

void TransportDecoder::setPadding(const CandumpLine& frame, size_t from) {
    if (from < frame.length) {
        current.padding = lowerHex(frame.data.data() + from, frame.length - from);
    }
}

void TransportDecoder::decodeTransportFrame(const CandumpLine& frame, const std::string& time) {
    const Key key(frame.interfaceName, frame.extended, frame.canId);
    const std::string name = frame.interfaceName + " " + frame.identifierText();

    if (frame.length == 0) {
        ++totals.invalid;
        frameLine(time, frame, "invalid", "no data byte");
        errorLine(name, "frame without data byte");
        return;
    }
    const uint8_t pci = frame.data[0];
    current.kind = pci >> 4;
    switch (classifyFrame(pci)) {
        case CTP_FRAME_SINGLE:
            ++totals.single;
            current.length = frameParam(frame, false);
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
            current.length = frameParam(frame, true);
            frameLine(time, frame, "first", "len=" + std::to_string(frameParam(frame, true)));
            onFirst(key, name, frame);
            return;
        case CTP_FRAME_CONSECUTIVE:
            ++totals.consecutive;
            current.sequence = frameParam(frame, false);
            frameLine(time, frame, "consecutive", "sn=" + std::to_string(frameParam(frame, false)));
            onConsecutive(key, name, frame);
            return;
        case CTP_FRAME_FLOW_CONTROL: {
            ++totals.flowControl;
            const uint16_t code = frameParam(frame, false);
            current.code = code;
            setPadding(frame, 1);
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
    setPadding(frame, 1 + announced);
    deliver(name, byteVec_t(frame.data.begin() + 1, frame.data.begin() + 1 + announced),
            std::vector<uint64_t>{frameNumber});
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
    transfer.frames.assign(1, frameNumber);
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
    transfer.frames.push_back(frameNumber);
    setPadding(frame, 1 + needed);
    if (transfer.bytes.size() == transfer.announced) {
        deliver(name, transfer.bytes, transfer.frames);
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

void TransportDecoder::deliver(const std::string& name, const byteVec_t& bytes,
                               const std::vector<uint64_t>& frames) {
    // Single frames announce 1 to 15 bytes and first frames at least 8: never empty.
    assert(!bytes.empty());
    ++totals.payloads;
    totals.bytes += bytes.size();
    if (output == Output::FIELDS) {
        current.delivered = true;
        current.payload = bytes;
        current.payloadFrames = frames;
        return;
    }
    out << "payload " << name << " len=" << bytes.size() << ' ' << HexText::encode(bytes) << '\n';
}

void TransportDecoder::frameLine(const std::string& time, const CandumpLine& frame,
                                 const char* kind, const std::string& param) {
    if (output == Output::FIELDS) {
        return;
    }
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
    if (output == Output::REPORT) {
        out << "error " << name << ": " << message << '\n';
    } else if (finished) {
        noteLine("error " + name + ": " + message);
    } else {
        current.errors.push_back(message);
    }
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
    const char* prefix = output == Output::FIELDS ? "# " : "";
    out << prefix << "summary frames=" << totals.frames << " single=" << totals.single
        << " first=" << totals.first << " consecutive=" << totals.consecutive
        << " flow-control=" << totals.flowControl << " invalid=" << totals.invalid;
    // Only with an identifier filter, so that the summary of a plain run keeps its form.
    if (!identifiers.empty()) {
        out << " other=" << totals.other;
    }
    out << '\n'
        << prefix << "summary payloads=" << totals.payloads << " bytes=" << totals.bytes
        << " errors=" << totals.errors << " unparsable=" << totals.unparsable
        << " incomplete=" << totals.incomplete << '\n';
}
