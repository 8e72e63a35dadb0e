#include "libqbsocketcan/CanErrorFrame.h"

#include <linux/can/error.h>

#include <cstdint>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string controllerDetails(uint8_t bits) {
    static const struct {
        uint8_t bit;
        const char* text;
    } names[] = {
        {CAN_ERR_CRTL_RX_OVERFLOW, "receive buffer overflow"},
        {CAN_ERR_CRTL_TX_OVERFLOW, "transmit buffer overflow"},
        {CAN_ERR_CRTL_RX_WARNING, "receive error warning"},
        {CAN_ERR_CRTL_TX_WARNING, "transmit error warning"},
        {CAN_ERR_CRTL_RX_PASSIVE, "receive error passive"},
        {CAN_ERR_CRTL_TX_PASSIVE, "transmit error passive"},
        {CAN_ERR_CRTL_ACTIVE, "back to error active"},
    };
    std::string text;
    for (const auto& n : names) {
        if ((bits & n.bit) != 0) {
            text += text.empty() ? "" : " and ";
            text += n.text;
        }
    }
    return text.empty() ? "unspecified" : text;
}

}  // namespace

std::string CanErrorFrame::describe(const can_frame& frame) {
    const uint32_t classes = frame.can_id & CAN_ERR_MASK;
    std::vector<std::string> parts;
    uint32_t known = 0;
    auto add = [&](uint32_t bit, const std::string& text) {
        known |= bit;
        if ((classes & bit) != 0) {
            parts.push_back(text);
        }
    };
    add(CAN_ERR_BUSOFF, "bus-off");
    add(CAN_ERR_ACK, "no acknowledgement from any node");
    add(CAN_ERR_CRTL, "controller problem: " + controllerDetails(frame.data[1]));
    add(CAN_ERR_TX_TIMEOUT, "transmit time-out");
    add(CAN_ERR_TRX, "transceiver problem");
    add(CAN_ERR_RESTARTED, "controller restarted");
    add(CAN_ERR_LOSTARB, "arbitration lost");
    add(CAN_ERR_PROT, "protocol violation");
    add(CAN_ERR_BUSERROR, "bus error");
    const uint32_t unknown = classes & ~known;
    if (unknown != 0) {
        std::ostringstream text;
        text << "error class 0x" << std::hex << unknown;
        parts.push_back(text.str());
    }
    if (parts.empty()) {
        return "error frame without error class";
    }
    std::string joined;
    for (const std::string& p : parts) {
        joined += joined.empty() ? "" : ", ";
        joined += p;
    }
    return joined;
}
