#include "libqbtrace/CANTransportTraceMessage.h"

#include <iomanip>
#include <sstream>

namespace {

// How many payload bytes print() shows before it abbreviates with " ...".
constexpr size_t PRINTED_PAYLOAD_BYTES = 32;

}  // namespace

CANTransportTraceMessage::~CANTransportTraceMessage() = default;

MessageBase* CANTransportTraceMessage::clone() const {
    return new CANTransportTraceMessage(*this);
}

size_t CANTransportTraceMessage::getSize() const {
    return 5 + payload.size();
}

void CANTransportTraceMessage::appendBody(byteVec_t& out) const {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(canId >> (8 * i)));
    }
    out.push_back(static_cast<uint8_t>(canType));
    out.insert(out.end(), payload.begin(), payload.end());
}

std::ostream& CANTransportTraceMessage::print(std::ostream& os) const {
    // "CAN transport id 0x<id> <type> len <n>[ data xx xx ...]"; unknown types print as
    // "type <n>". Built in a string first so that the caller's stream flags stay untouched.
    std::ostringstream text;
    text << "CAN transport id 0x" << std::hex << canId << std::dec << ' ';
    const char* typeName = cantypeName(canType);
    if (typeName != nullptr) {
        text << typeName;
    } else {
        text << "type " << static_cast<int>(canType);
    }
    text << " len " << payload.size();
    if (!payload.empty()) {
        text << " data" << std::hex << std::setfill('0');
        const size_t shown =
            payload.size() < PRINTED_PAYLOAD_BYTES ? payload.size() : PRINTED_PAYLOAD_BYTES;
        for (size_t i = 0; i < shown; ++i) {
            text << ' ' << std::setw(2) << static_cast<unsigned>(payload[i]);
        }
        if (shown < payload.size()) {
            text << " ...";
        }
    }
    return os << text.str();
}
