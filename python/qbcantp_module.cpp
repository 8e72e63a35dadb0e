// The compiled part of the Python module qbcantp: the class _Core over EndpointCore.
//
// GIL rules: every call that may wait or write releases the GIL for the whole of its C++ work;
// waits run in slices of at most kSliceMs, and between two slices the calling thread takes the
// GIL back and runs PyErr_CheckSignals(), so that Ctrl-C in a blocking call raises
// KeyboardInterrupt within one slice. No C++ thread of the endpoint ever takes the GIL.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "libqbutil/QBException.h"
#include "python/EndpointCore.h"

namespace py = pybind11;

namespace {

/// Longest wait between two looks for signals.
constexpr int kSliceMs = 40;

/// A payload of the transport: 1 to 4095 bytes.
constexpr size_t kMaxPayload = 4095;

using Clock = std::chrono::steady_clock;

/// Turns a Python time-out (None: no limit; seconds otherwise) into a deadline.
struct Deadline {
    explicit Deadline(const py::object& timeout) {
        if (timeout.is_none()) {
            unlimited = true;
            return;
        }
        const double seconds = timeout.cast<double>();
        if (std::isnan(seconds) || seconds < 0) {
            throw py::value_error("timeout must be None or a number of seconds >= 0");
        }
        unlimited = seconds > 1e9;
        if (!unlimited) {
            end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(seconds));
        }
    }
    /// The next slice in ms (0 when the deadline has passed).
    int slice() const {
        if (unlimited) {
            return kSliceMs;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now()).count();
        if (left <= 0) {
            return 0;
        }
        return static_cast<int>(std::min<long long>(kSliceMs, (left + 999) / 1000));
    }
    bool passed() const { return !unlimited && Clock::now() >= end; }

    bool unlimited = false;
    Clock::time_point end;
};

/// Raises the pending Python exception (KeyboardInterrupt, ...) if a signal handler raised one.
void checkSignals() {
    if (PyErr_CheckSignals() != 0) {
        throw py::error_already_set();
    }
}

py::bytes toBytes(const std::vector<uint8_t>& data) {
    return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
}

std::string checkedPayload(const py::buffer& data) {
    py::buffer_info info = data.request();
    if (info.ndim > 1 || (info.ndim == 1 && info.strides[0] != info.itemsize)) {
        throw py::value_error("the payload must be a contiguous bytes-like object");
    }
    const size_t size = static_cast<size_t>(info.size * info.itemsize);
    if (size == 0) {
        throw py::value_error(
            "payload of 0 bytes: the transport carries 1 to 4095 bytes (an empty payload goes "
            "out as a frame of zeros that every receiver rejects)");
    }
    if (size > kMaxPayload) {
        throw py::value_error("payload of " + std::to_string(size) +
                              " bytes: the transport carries 1 to 4095 bytes (the length field "
                              "of a first frame has 12 bits)");
    }
    return std::string(static_cast<const char*>(info.ptr), size);
}

class Core {
  public:
    Core(int txId, int debug, int statusQueueSize) {
        if (txId < 0 || txId > 0x7FF) {
            throw py::value_error("tx_id must be a standard CAN identifier, 0 to 0x7FF");
        }
        if (statusQueueSize < 1) {
            throw py::value_error("status_queue_size must be at least 1");
        }
        py::gil_scoped_release release;
        core.reset(new EndpointCore(static_cast<uint16_t>(txId), debug,
                                    static_cast<size_t>(statusQueueSize)));
    }

    Core(int txId, int debug, int statusQueueSize, const std::string& interfaceName,
         const std::vector<uint32_t>& peers) {
        if (txId < 0 || txId > 0x7FF) {
            throw py::value_error("tx_id must be a standard CAN identifier, 0 to 0x7FF");
        }
        if (statusQueueSize < 1) {
            throw py::value_error("status_queue_size must be at least 1");
        }
        py::gil_scoped_release release;
        core.reset(new EndpointCore(static_cast<uint16_t>(txId), debug,
                                    static_cast<size_t>(statusQueueSize), interfaceName, peers));
    }

    ~Core() {
        py::gil_scoped_release release;
        core.reset();
    }

    uint64_t submit(const py::buffer& data) {
        const std::string payload = checkedPayload(data);
        py::gil_scoped_release release;
        return core->submit(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    }

    int waitSent(uint64_t ticket, const py::object& timeout) {
        Deadline deadline(timeout);
        for (;;) {
            SendTracker::Outcome outcome;
            {
                const int slice = deadline.slice();
                py::gil_scoped_release release;
                outcome = core->waitSent(ticket, slice);
            }
            if (outcome != SendTracker::PENDING) {
                return outcome;
            }
            checkSignals();
            if (deadline.passed()) {
                return SendTracker::PENDING;
            }
        }
    }

    void forget(uint64_t ticket) {
        // Only the tracker's lock, for an instant.
        core->forgetTicket(ticket);
    }

    /// (0, can_id, data), (1, None, None) at the time-out, (2, None, None) when closed.
    py::tuple recv(const py::object& timeout) {
        Deadline deadline(timeout);
        EndpointCore::Payload payload;
        for (;;) {
            EndpointCore::Wait result;
            {
                const int slice = deadline.slice();
                py::gil_scoped_release release;
                result = core->recv(payload, slice);
            }
            if (result == EndpointCore::Wait::READY) {
                return py::make_tuple(0, payload.canId, toBytes(payload.data));
            }
            if (result == EndpointCore::Wait::CLOSED) {
                return py::make_tuple(2, py::none(), py::none());
            }
            checkSignals();
            if (deadline.passed()) {
                return py::make_tuple(1, py::none(), py::none());
            }
        }
    }

    /// A list of (id, data) (empty at the time-out), or None when closed.
    py::object takeFrames(const py::object& timeout) {
        Deadline deadline(timeout);
        std::vector<EndpointCore::Frame> frames;
        for (;;) {
            EndpointCore::Wait result;
            {
                const int slice = deadline.slice();
                py::gil_scoped_release release;
                result = core->takeFrames(frames, slice);
            }
            if (result == EndpointCore::Wait::READY) {
                py::list out(frames.size());
                for (size_t i = 0; i < frames.size(); ++i) {
                    out[i] = py::make_tuple(frames[i].id, toBytes(frames[i].data));
                }
                return std::move(out);
            }
            if (result == EndpointCore::Wait::CLOSED) {
                return py::none();
            }
            checkSignals();
            if (deadline.passed()) {
                return py::list();
            }
        }
    }

    bool feedFrame(uint32_t id, bool extended, const py::bytes& data, uint64_t timeStampUs) {
        char* ptr = nullptr;
        ssize_t size = 0;
        PyBytes_AsStringAndSize(data.ptr(), &ptr, &size);
        if (size > 8) {
            throw py::value_error("a classic CAN frame has at most 8 data bytes");
        }
        uint8_t buffer[8] = {0};
        std::memcpy(buffer, ptr, static_cast<size_t>(size));
        py::gil_scoped_release release;
        return core->feedFrame(id, extended, buffer, static_cast<size_t>(size), timeStampUs);
    }

    /// (0, status, ack_id, time), (1, ...) at the time-out, (2, ...) when closed.
    py::tuple nextStatus(bool forCallback, const py::object& timeout) {
        Deadline deadline(timeout);
        StatusQueue::Event event{};
        for (;;) {
            EndpointCore::Wait result;
            {
                const int slice = deadline.slice();
                py::gil_scoped_release release;
                result = core->nextStatus(event, forCallback, slice);
            }
            if (result == EndpointCore::Wait::READY) {
                return py::make_tuple(0, event.status, event.ackId, event.time);
            }
            if (result == EndpointCore::Wait::CLOSED) {
                return py::make_tuple(2, py::none(), py::none(), py::none());
            }
            checkSignals();
            if (deadline.passed()) {
                return py::make_tuple(1, py::none(), py::none(), py::none());
            }
        }
    }

    void clear(bool all) {
        py::gil_scoped_release release;
        core->clear(all);
    }

    bool sendQueueEmpty() {
        py::gil_scoped_release release;
        return core->sendQueueEmpty();
    }

    void close() {
        py::gil_scoped_release release;
        core->close();
    }

    EndpointCore& get() { return *core; }

  private:
    std::unique_ptr<EndpointCore> core;
};

}  // namespace

PYBIND11_MODULE(_qbcantp, m) {
    m.doc() = "Compiled part of qbcantp: the CAN transport endpoint (use qbcantp.Endpoint).";
    m.attr("MAX_PAYLOAD") = kMaxPayload;
    m.attr("SLICE_MS") = kSliceMs;
    m.attr("OUTCOME_PENDING") = static_cast<int>(SendTracker::PENDING);
    m.attr("OUTCOME_DISCONNECTED") = static_cast<int>(SendTracker::DISCONNECTED);
    m.attr("OUTCOME_SEND_TIMEOUT") = static_cast<int>(SendTracker::SEND_TIMEOUT);
    m.attr("OUTCOME_ACKNOWLEDGED") = static_cast<int>(SendTracker::ACKNOWLEDGED);
    m.attr("OUTCOME_CLEARED") = static_cast<int>(SendTracker::CLEARED);
    m.attr("OUTCOME_CLOSED") = static_cast<int>(SendTracker::CLOSED);

    py::register_exception<QBException>(m, "CoreError", PyExc_OSError);

    py::class_<Core>(m, "_Core", "One running endpoint (internal; see qbcantp.Endpoint).")
        .def(py::init<int, int, int>(), py::arg("tx_id"), py::arg("debug"),
             py::arg("status_queue_size"))
        .def(py::init<int, int, int, const std::string&, const std::vector<uint32_t>&>(),
             py::arg("tx_id"), py::arg("debug"), py::arg("status_queue_size"), py::arg("interface"),
             py::arg("peers"))
        .def("submit", &Core::submit, py::arg("data"),
             "Hands a payload (1 to 4095 bytes) to the endpoint; returns its ticket.")
        .def("wait_sent", &Core::waitSent, py::arg("ticket"), py::arg("timeout"),
             "The outcome of a ticket (OUTCOME_*), OUTCOME_PENDING at the time-out.")
        .def("forget", &Core::forget, py::arg("ticket"))
        .def("recv", &Core::recv, py::arg("timeout"))
        .def("take_frames", &Core::takeFrames, py::arg("timeout"))
        .def("feed_frame", &Core::feedFrame, py::arg("can_id"), py::arg("extended"),
             py::arg("data"), py::arg("timestamp_us"))
        .def("next_status", &Core::nextStatus, py::arg("for_callback"), py::arg("timeout"))
        .def("enable_callback_queue", [](Core& c) { c.get().enableCallbackQueue(); })
        .def(
            "dropped_status_events",
            [](Core& c, bool forCallback) { return c.get().droppedStatusEvents(forCallback); },
            py::arg("for_callback"))
        .def("clear", &Core::clear, py::arg("all"))
        .def("send_queue_empty", &Core::sendQueueEmpty)
        .def(
            "set_debug", [](Core& c, int level) { c.get().setDebugLevel(level); }, py::arg("level"))
        .def_property_readonly("running", [](Core& c) { return c.get().running(); })
        .def_property_readonly("exit_reason", [](Core& c) { return c.get().exitReason(); })
        .def_property_readonly("closed", [](Core& c) { return c.get().closed(); })
        .def("close", &Core::close);
}
