// The readable text of a SocketCAN error frame.
#pragma once

#include <linux/can.h>

#include <string>

/// Describes an error frame (CAN_ERR_FLAG set in can_id) as the kernel's CAN drivers report it
/// (linux/can/error.h): the error classes of can_id in a fixed order, each with the details
/// its data byte gives, joined by ", ". Examples: "bus-off", "no acknowledgement from any node",
/// "controller problem: transmit error passive", "transmit time-out". Classes without a name
/// here are given as "error class 0x...". Pure function; any thread.
class CanErrorFrame {
  public:
    static std::string describe(const can_frame& frame);
};
