// Writes the generated seed inputs of the fuzz targets trace_reader and endpoint_frames into a
// corpus directory (fuzz/corpus by default layout: <root>/<target>/gen-<name>).
//
//     qb_fuzz_seeds fuzz/corpus
//
// The trace_reader seeds hold serialised trace messages, made with createByteArray; run this
// again whenever the serialised format changes, so that the corpus starts from real messages.
// The endpoint_frames seeds are the target's own step encoding (see EndpointFramesFuzzer.cpp);
// they do not depend on the serialised format. Files are overwritten; other files are kept.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "FuzzMessages.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/RawTraceMessage.h"

using qbfuzz::Bytes;
using qbfuzz::serialise;

namespace {

std::string root;
int written = 0;

void writeSeed(const std::string& target, const std::string& name, const Bytes& bytes) {
    const std::string path = root + "/" + target + "/gen-" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
    ++written;
}

void append(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

Bytes counting(size_t n, uint8_t first = 0) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) {
        b[i] = static_cast<uint8_t>(first + i);
    }
    return b;
}

Bytes canExt(const Bytes& data, uint32_t id = 0x7E8) {
    Bytes d = data;
    d.resize(64, 0);
    return serialise(CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD,
                                        static_cast<uint8_t>(data.size()), id, d.data()));
}

Bytes transport(const Bytes& payload, uint32_t id = 0x7E0) {
    return serialise(CANTransportTraceMessage(0, id, payload.begin(), payload.end(), CT_STANDARD));
}

// --- trace_reader -------------------------------------------------------------------------

/// One message of each class the reader knows, and one of an identifier it does not know.
Bytes oneOfEach() {
    Bytes s;
    const Bytes data = counting(64, 0xA0);
    append(s, serialise(CANTraceMessage(1700000000123456ull, 1, CF_STANDARD, CSE_NO, CT_STANDARD, 3,
                                        0x123, data.data())));
    append(s, canExt({0x03, 0x22, 0xF1, 0x90, 0, 0, 0, 0}, 0x7E0));
    append(s, serialise(CANProxyTraceMessage(42, 2, CF_ERROR, CSE_CRC, CT_EXTENDED, 8, 0x18DAF110,
                                             data.data())));
    CANTraceMessage fd(7, 0, CF_TXMESSAGE, CSE_NO, CT_FD_STANDARD, 64, 0x7FF, data.data());
    fd.setFdFlags(true, true);
    append(s, serialise(fd));
    append(s, transport({0x41, 0x42, 0x43}, 0x7E8));
    append(s, serialise(RawTraceMessage(static_cast<msgid_t>(2), 99, {1, 2, 3, 4})));
    return s;
}

Bytes rawSeed(uint8_t mode, uint8_t chunk, const Bytes& stream) {
    Bytes b{mode, chunk};
    append(b, stream);
    return b;
}

void traceReaderSeeds() {
    const std::string t = "trace_reader";
    const Bytes each = oneOfEach();
    writeSeed(t, "raw-one-of-each", rawSeed(0, 0, each));
    writeSeed(t, "raw-one-of-each-byte-by-byte", rawSeed(0, 1, each));
    writeSeed(t, "raw-one-of-each-chunks-of-up-to-7", rawSeed(0, 7, each));
    writeSeed(t, "raw-one-of-each-invalid-returned", rawSeed(2, 13, each));
    writeSeed(t, "raw-largest-transport", rawSeed(0, 200, transport(counting(4095))));
    writeSeed(t, "raw-empty-payload", rawSeed(0, 0, transport({})));

    Bytes withChecksum;
    const Bytes payload = counting(100);
    CANTransportTraceMessage(5, 0x7E8, payload.begin(), payload.end(), CT_STANDARD)
        .createByteArray(withChecksum, true, true);
    writeSeed(t, "raw-with-checksum", rawSeed(0, 0, withChecksum));

    Bytes garbage = counting(40, 0x51);
    append(garbage, canExt({0x02, 0x10, 0x03}));
    writeSeed(t, "raw-garbage-then-message", rawSeed(0, 5, garbage));

    const Bytes cut = transport(counting(300));
    Bytes truncated(cut.begin(), cut.begin() + 40);
    append(truncated, canExt({0x30}));
    append(truncated, canExt({0x33}));
    writeSeed(t, "raw-truncated-then-messages", rawSeed(0, 0, truncated));

    // A payload that holds a whole serialised message: the bytes from a CAN peer must never come
    // out as a message of their own.
    Bytes inner = canExt({0x03, 0x41, 0x42, 0x43});
    Bytes carrier(cut.begin(), cut.begin() + 30);
    append(carrier, transport(inner));
    append(carrier, canExt({0x33}));
    writeSeed(t, "raw-payload-holds-a-message", rawSeed(0, 3, carrier));

    // Message mode: the pieces are described by the target's input encoding (FuzzMessages.h).
    auto transportPiece = [](Bytes& in, const Bytes& payload) {
        in.push_back(3);                 // kind: transport
        append(in, Bytes(8, 0));         // time stamp
        append(in, {0xE8, 0x07, 0, 0});  // CAN identifier
        in.push_back(0);                 // CT_STANDARD
        in.push_back(static_cast<uint8_t>(payload.size()));
        in.push_back(static_cast<uint8_t>(payload.size() >> 8));
        append(in, payload);
    };
    auto canPiece = [](Bytes& in, const Bytes& data) {
        in.push_back(1);              // kind: CANExtTraceMessage
        append(in, Bytes(8, 0));      // time stamp
        append(in, {0, 0, 0, 0, 0});  // channel, frame kind, state, type, flags
        in.push_back(static_cast<uint8_t>(data.size()));
        append(in, {0xE8, 0x07, 0, 0});  // CAN identifier
        append(in, data);
    };
    Bytes m{1, 0};
    m.push_back(0), canPiece(m, {0x03, 0x41, 0x42, 0x43, 0, 0, 0, 0});
    m.push_back(1), m.push_back(5), append(m, {'Q', 'B', 0x7E, 0x7D, 0x00});
    m.push_back(0), transportPiece(m, counting(20));
    m.push_back(2), transportPiece(m, counting(50)), append(m, {30, 0});
    m.push_back(0), canPiece(m, {0x33, 0, 0, 0, 0, 0, 0, 0});
    m.push_back(3), transportPiece(m, inner), append(m, {20, 0, 0x40});
    m.push_back(0), transportPiece(m, inner);
    writeSeed(t, "msg-whole-garbage-cut-damaged", m);

    // Garbage made of the bytes that framings commonly reserve (delimiters, escapes, magic
    // starts), cut frames before whole messages, and a damaged message at the very end.
    Bytes g{1, 0};
    g.push_back(1), g.push_back(4), append(g, {0xC0, 0xF5, 0xC1, 0xC0});
    g.push_back(0), canPiece(g, {0x10, 0x14, 0, 1, 2, 3, 4, 5});
    g.push_back(1), g.push_back(3), append(g, {0x7E, 0x7D, 0xF5});
    g.push_back(0), transportPiece(g, {0xC0, 0xC1, 0xF5, 0x7E, 0x7D, 0x00, 0xFF});
    g.push_back(2), canPiece(g, {0x30}), append(g, {1, 0});
    g.push_back(0), canPiece(g, {0x33});
    g.push_back(1), g.push_back(6), append(g, {'Q', 'B', 'T', 'M', 0x01, 0x00});
    g.push_back(0), transportPiece(g, counting(300));
    g.push_back(3), transportPiece(g, counting(10)), append(g, {0, 0, 0xFF});
    writeSeed(t, "msg-reserved-bytes-as-garbage", g);
    m[0] = 3;
    m[1] = 9;
    writeSeed(t, "msg-whole-garbage-cut-damaged-chunked", m);
}

// --- endpoint_frames ----------------------------------------------------------------------
// Steps as EndpointFramesFuzzer.cpp reads them.

struct Steps {
    Bytes b;
    explicit Steps(uint8_t setup = 0, uint16_t sendId = 0x7E0) {
        b.push_back(setup);
        b.push_back(static_cast<uint8_t>(sendId));
        b.push_back(static_cast<uint8_t>(sendId >> 8));
    }
    /// A classic frame from the peer (0x7E8) of up to 8 bytes, after `delayMs`.
    Steps& frame(const Bytes& data, uint8_t delayMs = 0) {
        b.push_back(0);                                  // frame, identifier 0x7E8
        b.push_back(static_cast<uint8_t>(data.size()));  // CANExtTraceMessage, count
        append(b, data);
        b.push_back(delayMs);
        return *this;
    }
    /// A frame of any length up to 64 bytes, as a CANTraceMessage.
    Steps& longFrame(const Bytes& data) {
        b.push_back(0);
        b.push_back(0xA0);  // any length follows; class CANTraceMessage
        b.push_back(static_cast<uint8_t>(data.size()));
        append(b, data);
        b.push_back(0);
        return *this;
    }
    Steps& payload(size_t length) {
        b.push_back(4);
        b.push_back(static_cast<uint8_t>(length));
        b.push_back(static_cast<uint8_t>(length >> 8));
        append(b, counting(length));
        b.push_back(0);
        return *this;
    }
    Steps& wait(uint32_t ms) {
        while (ms > 0) {
            const uint32_t chunk = ms > 6500 ? 6500 : ms;
            const uint16_t units = static_cast<uint16_t>(chunk * 10);
            b.push_back(6);
            b.push_back(static_cast<uint8_t>(units));
            b.push_back(static_cast<uint8_t>(units >> 8));
            ms -= chunk;
        }
        return *this;
    }
    Steps& clear(bool all) {
        b.push_back(all ? 0x0F : 0x07);
        return *this;
    }
    Steps& debug(uint8_t level) {
        b.push_back(0x17);
        b.push_back(level);
        return *this;
    }
};

const Bytes FC_NOT_READY{0x30, 0, 0, 0, 0, 0, 0, 0};
const Bytes FC_READY{0x31, 0, 0, 0, 0, 0, 0, 0};
const Bytes FC_NOT_ACK{0x32, 0, 0, 0, 0, 0, 0, 0};
const Bytes FC_ACK{0x33, 0, 0, 0, 0, 0, 0, 0};

void endpointSeeds() {
    const std::string t = "endpoint_frames";
    writeSeed(t, "single-frame", Steps().frame({0x03, 0x41, 0x42, 0x43, 0, 0, 0, 0}).b);
    writeSeed(t, "segmented-20-bytes",
              Steps()
                  .frame({0x10, 0x14, 0, 1, 2, 3, 4, 5})
                  .frame({0x20, 6, 7, 8, 9, 10, 11, 12})
                  .frame({0x21, 13, 14, 15, 16, 17, 18, 19})
                  .b);
    writeSeed(t, "send-single-acknowledged", Steps().payload(3).frame(FC_ACK).b);
    writeSeed(t, "send-segmented-acknowledged",
              Steps().payload(20).frame(FC_READY).frame(FC_ACK).payload(7).frame(FC_ACK).b);
    writeSeed(t, "send-4200-bytes", Steps().payload(4200).frame(FC_READY).frame(FC_ACK).b);
    writeSeed(t, "send-timeouts", Steps(1).payload(10).wait(6000).wait(6000).b);
    writeSeed(t, "send-refused-five-times",
              Steps(2)
                  .frame({0x01, 0x55, 0, 0, 0, 0, 0, 0})
                  .payload(10)
                  .frame(FC_NOT_ACK)
                  .frame(FC_NOT_READY)
                  .frame(FC_NOT_ACK)
                  .frame(FC_NOT_ACK)
                  .frame(FC_NOT_ACK)
                  .b);
    writeSeed(t, "receive-timeout", Steps(3).frame({0x10, 0x30, 1, 2, 3, 4, 5, 6}).wait(1500).b);
    writeSeed(t, "oversized-frames",
              Steps()
                  .longFrame(counting(9, 0x01))
                  .longFrame(counting(10, 0x01))
                  .longFrame(counting(64, 0x01))
                  .frame({0x02, 0x01, 0x02})
                  .b);
    writeSeed(t, "acknowledgement-without-callback", Steps(0x80).payload(2).frame(FC_ACK).b);
    writeSeed(t, "first-frame-during-transfer",
              Steps()
                  .frame({0x10, 0x20, 0, 1, 2, 3, 4, 5})
                  .frame({0x20, 6, 7, 8, 9, 10, 11, 12})
                  .frame({0x10, 0x20, 0, 1, 2, 3, 4, 5})
                  .frame({0x21, 13, 14, 15, 16, 17, 18, 19})
                  .frame({0x22, 20, 21, 22, 23, 24, 25, 26})
                  .frame({0x23, 27, 28, 29, 30, 31, 32, 33})
                  .b);
    writeSeed(
        t, "short-first-frame",
        Steps().frame({0x10, 0x04, 1, 2, 3, 4, 5, 6}).frame({0x20, 7, 8, 9, 10, 11, 12, 13}).b);
    writeSeed(t, "single-frame-length-15", Steps().frame({0x0F, 1, 2, 3, 4, 5, 6, 7}).b);
    writeSeed(t, "clear-while-sending",
              Steps()
                  .payload(30)
                  .payload(5)
                  .payload(9)
                  .clear(false)
                  .frame(FC_READY)
                  .clear(true)
                  .frame(FC_ACK)
                  .debug(3)
                  .payload(1)
                  .wait(20)
                  .b);
    writeSeed(t, "invalid-frames",
              Steps()
                  .frame({0x00, 1, 2, 3, 4, 5, 6, 7})
                  .frame({0x45, 1, 2, 3, 4, 5, 6, 7})
                  .frame({0x21, 1, 2, 3, 4, 5, 6, 7})
                  .frame({})
                  .frame({0x3F})
                  .b);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_ROOT (e.g. fuzz/corpus)\n", argv[0]);
        return 2;
    }
    root = argv[1];
    traceReaderSeeds();
    endpointSeeds();
    std::printf("%d seed files written under %s\n", written, root.c_str());
    return 0;
}
