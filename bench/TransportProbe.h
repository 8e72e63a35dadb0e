// A CAN transport endpoint for micro-benchmarks: never started as a thread, its protected
// sending and receiving entry points called directly on the benchmark thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "libqbcan/CANTransportThread.h"

/// An endpoint that sends with identifier 0x7E0 and writes its frames to /dev/null.
///
/// The constructor opens the endpoint's pipes (open()), makes the application's read end
/// non-blocking and connects the CAN proxy side to /dev/null (setConnection()), so that a frame
/// written costs one cheap write() and nothing has to read it. Payloads the endpoint delivers
/// go to its output pipe; drainOutput() empties that pipe so that it never fills (a full pipe
/// would block the delivering call).
///
/// Only prepareData(), handleCANData() and clear() are used: the benchmarks measure the
/// endpoint through the same calls its own loop makes, whatever their insides are.
class TransportProbe : public CANTransportThread {
  public:
    /// Identifier of every frame the probe sends.
    static constexpr uint16_t kSendId = 0x7E0;

    TransportProbe();
    ~TransportProbe() override;
    TransportProbe(const TransportProbe&) = delete;
    TransportProbe& operator=(const TransportProbe&) = delete;

    using CANTransportThread::handleCANData;
    using CANTransportThread::prepareData;

    /// False if /dev/null could not be opened (open() failing throws instead).
    bool ready() const { return nullFd >= 0; }
    /// The /dev/null descriptor the constructor connected as the CAN proxy.
    int nullDescriptor() const { return nullFd; }

    /// Reads everything waiting on the endpoint's output pipe without blocking; returns the
    /// number of bytes read (0 if nothing was there).
    size_t drainOutput();

    /// Number of CAN frames a payload of `length` bytes is cut into: one single frame up to 7
    /// bytes, else one first frame and one consecutive frame per further 7 bytes or part of 7.
    static size_t framesFor(size_t length);

  private:
    int nullFd;
    int appReadFd;
    int appWriteFd;
    std::vector<uint8_t> scratch;
};
