#include "libqbtrace/CANTraceMessageBase.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "libqbtrace/BufferMismatchException.h"

const uint8_t CANTraceMessageBase::FD_ESI_MASK;
const uint8_t CANTraceMessageBase::FD_BRS_MASK;
const uint8_t CANTraceMessageBase::CANSTATERR_MASK;
const uint8_t CANTraceMessageBase::numDlcBytes[16] = {0, 1,  2,  3,  4,  5,  6,  7,
                                                      8, 12, 16, 20, 24, 32, 48, 64};

namespace {

constexpr size_t MAX_DATA_BYTES = 64;

const char* frameKindName(canframe_t kind) {
    switch (kind) {
        case CF_STANDARD:
            return "";
        case CF_ERROR:
            return "ERROR";
        case CF_TXMESSAGE:
            return "TX";
        case CF_TXREQUEST:
            return "TXREQ";
        case CF_NUM:
            break;
    }
    return nullptr;
}

const char* stateErrorName(canstaterr_t state) {
    switch (state) {
        case CSE_NO:
            return "";
        case CSE_STUFF:
            return "STUFF";
        case CSE_FORMAT:
            return "FORMAT";
        case CSE_ACKNOWLEDGE:
            return "ACK";
        case CSE_BIT1:
            return "BIT1";
        case CSE_BIT0:
            return "BIT0";
        case CSE_CRC:
            return "CRC";
        case CSE_OVERRUN:
            return "OVERRUN";
        case CSE_NUM:
            break;
    }
    return nullptr;
}

}  // namespace

CANTraceMessageBase::CANTraceMessageBase(msgid_t id, timeStamp_t ts, uint8_t channel,
                                         canframe_t frameKind, canstaterr_t stateError,
                                         cantype_t canType, uint8_t numberOfDataBytes,
                                         uint32_t canId, const uint8_t* data)
    : MessageBase(id, ts),
      channel(channel),
      frameKind(frameKind),
      status(static_cast<uint8_t>(stateError & CANSTATERR_MASK)),
      canType(canType),
      numberOfDataBytes(0),
      canId(fixCanId(canId, canType)),
      dataBytes{} {
    setDataBytes(data, numberOfDataBytes);
}

CANTraceMessageBase::~CANTraceMessageBase() = default;

size_t CANTraceMessageBase::getSize() const {
    return 9 + static_cast<size_t>(numberOfDataBytes);
}

void CANTraceMessageBase::appendBody(byteVec_t& out) const {
    out.push_back(channel);
    out.push_back(static_cast<uint8_t>(frameKind));
    out.push_back(status);
    out.push_back(static_cast<uint8_t>(canType));
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(canId >> (8 * i)));
    }
    out.push_back(numberOfDataBytes);
    out.insert(out.end(), dataBytes, dataBytes + numberOfDataBytes);
}

std::ostream& CANTraceMessageBase::print(std::ostream& os) const {
    // One line: "CAN ch <channel> id 0x<id> <type>[ <kind>][ err <state>][ BRS][ ESI] dlc <dlc>
    // len <n>[ data xx xx ...]". The frame kind is left out for CF_STANDARD and the error state
    // for CSE_NO; values outside the enumerations are shown as numbers. Built in a string
    // first so that the caller's stream flags stay untouched.
    std::ostringstream text;
    text << "CAN ch " << static_cast<unsigned>(channel) << " id 0x" << std::hex << canId << std::dec
         << ' ';
    const char* typeName = cantypeName(canType);
    if (typeName != nullptr) {
        text << typeName;
    } else {
        text << "type " << static_cast<int>(canType);
    }
    const char* kindName = frameKindName(frameKind);
    if (kindName == nullptr) {
        text << " kind " << static_cast<int>(frameKind);
    } else if (*kindName != '\0') {
        text << ' ' << kindName;
    }
    const char* stateName = stateErrorName(getStateError());
    if (stateName == nullptr) {
        text << " err " << static_cast<int>(getStateError());
    } else if (*stateName != '\0') {
        text << " err " << stateName;
    }
    if (getBitRateSwitch()) {
        text << " BRS";
    }
    if (getErrorStateIndicator()) {
        text << " ESI";
    }
    text << " dlc " << static_cast<unsigned>(getDlc()) << " len "
         << static_cast<unsigned>(numberOfDataBytes);
    if (numberOfDataBytes > 0) {
        text << " data" << std::hex << std::setfill('0');
        for (uint8_t i = 0; i < numberOfDataBytes; ++i) {
            text << ' ' << std::setw(2) << static_cast<unsigned>(dataBytes[i]);
        }
    }
    return os << text.str();
}

uint8_t CANTraceMessageBase::getDlc() const {
    return numDataBytes2dlc(numberOfDataBytes);
}

canstaterr_t CANTraceMessageBase::getStateError() const {
    return static_cast<canstaterr_t>(status & CANSTATERR_MASK);
}

void CANTraceMessageBase::setFdFlags(bool bitRateSwitch, bool errorStateIndicator) {
    uint8_t s = static_cast<uint8_t>(status & ~(FD_BRS_MASK | FD_ESI_MASK));
    if (bitRateSwitch) {
        s = static_cast<uint8_t>(s | FD_BRS_MASK);
    }
    if (errorStateIndicator) {
        s = static_cast<uint8_t>(s | FD_ESI_MASK);
    }
    status = s;
}

void CANTraceMessageBase::getDataBytes(uint8_t* destinationBuffer,
                                       size_t destinationBufferSize) const {
    if (numberOfDataBytes > destinationBufferSize) {
        throw BufferMismatchException("CANTraceMessageBase too long");
    }
    if (numberOfDataBytes > 0) {
        std::memcpy(destinationBuffer, dataBytes, numberOfDataBytes);
    }
}

void CANTraceMessageBase::setDataBytes(const uint8_t* data, size_t n) {
    const size_t count = std::min(n, MAX_DATA_BYTES);
    numberOfDataBytes = static_cast<uint8_t>(count);
    // A null source with a non-zero count gives zero bytes rather than a crash.
    if (count > 0 && data != nullptr) {
        std::memcpy(dataBytes, data, count);
    } else {
        std::memset(dataBytes, 0, count);
    }
    // Bytes past the count stay 0, so that copies and comparisons never see stale data.
    std::memset(dataBytes + count, 0, MAX_DATA_BYTES - count);
}

uint8_t CANTraceMessageBase::numDataBytes2dlc(uint8_t n) {
    if (n <= 8) {
        return n;
    }
    if (n <= 24) {
        return static_cast<uint8_t>((n + 27) / 4);
    }
    if (n <= 64) {
        return static_cast<uint8_t>((n + 191) / 16);
    }
    return 15;
}

uint32_t CANTraceMessageBase::fixCanId(uint32_t id, cantype_t type) {
    switch (type) {
        case CT_STANDARD:
        case CT_FD_STANDARD:
            return id & 0x7FFu;
        case CT_EXTENDED:
        case CT_FD_EXTENDED:
            break;
    }
    // Extended types, and any unknown type, keep the 29 bits that a CAN identifier can have.
    return id & 0x1FFFFFFFu;
}
