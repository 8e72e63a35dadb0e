// Fuzz target: `cantp decode` without its command line: its input reader (InputFile) on a
// file, each line through the candump parser and the transport decoder (TransportDecoder),
// which writes its report to memory.
//
// Input: byte 0 is reserved (earlier corpus files chose a block size with it); the rest is the
// log, put into a memory file that the reader opens by its /proc path.
//
// Checked: no crash, no exception; the reader returns exactly the lines of the input (each
// '\n' ends one, a last line without '\n' counts), each line either as it stands or, beyond
// MAX_LINE_LENGTH characters, as a long line; a line that CandumpLine parses is
// written by CandumpLine as a line that parses back into the same frame; the decoder's totals
// agree with each other (every frame counted under exactly one kind, no more payloads than
// frames, at most 4095 bytes a payload) and end with the two summary lines.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "InputFile.h"
#include "TransportDecoder.h"
#include "libqbcansim/CandumpLine.h"

namespace {

/// The longest line cantp decode takes (DecodeCommand's limit).
constexpr size_t MAX_LINE_LENGTH = 4096;

std::string frameFields(const CandumpLine& f) {
    std::string s = std::to_string(f.hasTimestamp) + " " + std::to_string(f.seconds) + "." +
                    std::to_string(f.microseconds) + " [" + f.interfaceName + "] " +
                    std::to_string(f.canId) + (f.extended ? "x" : "s") + " " +
                    std::to_string(f.length) + ":";
    for (unsigned i = 0; i < f.length && i < f.data.size(); ++i) {
        s += " " + std::to_string(f.data[i]);
    }
    s += " dir " + std::to_string(static_cast<int>(f.direction));
    return s;
}

/// The input's lines as the reader must return them.
std::vector<std::string> expectedLines(const std::string& log) {
    std::vector<std::string> lines;
    size_t begin = 0;
    while (begin < log.size()) {
        size_t end = log.find('\n', begin);
        if (end == std::string::npos) {
            end = log.size();
        }
        lines.push_back(log.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

void checkCandumpRoundTrip(const std::string& line) {
    CandumpLine frame;
    std::string reason;
    if (!CandumpLine::parse(line, frame, reason)) {
        QB_FUZZ_CHECK(!reason.empty(), "no reason for \"" << line << "\"");
        return;
    }
    const std::string written = frame.toString();
    CandumpLine again;
    QB_FUZZ_CHECK(
        CandumpLine::parse(written, again, reason) && frameFields(again) == frameFields(frame),
        "\"" << line << "\" written as \"" << written << "\" does not read back (" << reason
             << ")");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qbfuzz::silenceLogStreams();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string log(reinterpret_cast<const char*>(data + 1), size - 1);

    // One memory file for the whole run, cut to the input's length each time: a new file per
    // input would cost most of the run's time in page faults.
    static const int fd = ::memfd_create("cantp-decode-fuzz", MFD_CLOEXEC);
    QB_FUZZ_CHECK(fd >= 0, "memfd_create failed");
    QB_FUZZ_CHECK(::ftruncate(fd, static_cast<off_t>(log.size())) == 0, "ftruncate failed");
    size_t written = 0;
    while (written < log.size()) {
        const ssize_t n =
            ::pwrite(fd, log.data() + written, log.size() - written, static_cast<off_t>(written));
        QB_FUZZ_CHECK(n > 0, "write to the memory file failed");
        written += static_cast<size_t>(n);
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);

    const std::vector<std::string> expected = expectedLines(log);
    std::ostringstream report;
    {
        TransportDecoder decoder(report);
        InputFile reader(path);
        QB_FUZZ_CHECK(reader.isOpen(), "opening the memory file failed");
        std::string line;
        size_t index = 0;
        for (;;) {
            const InputFile::LineResult result = reader.nextLine(line, MAX_LINE_LENGTH);
            QB_FUZZ_CHECK(result != InputFile::FAILED, "reading the memory file failed");
            if (result == InputFile::END) {
                break;
            }
            QB_FUZZ_CHECK(index < expected.size(), "more lines read than the input has");
            const std::string& want = expected[index++];
            if (result == InputFile::LONG_LINE) {
                QB_FUZZ_CHECK(want.size() > MAX_LINE_LENGTH && line.empty(),
                              "a line of " << want.size() << " characters read as too long");
                decoder.addUnreadableLine("line longer than " +
                                          std::to_string(MAX_LINE_LENGTH) +
                                          " characters");
                continue;
            }
            QB_FUZZ_CHECK(line == want, "line " << index << " read as \"" << line
                                                << "\", written \"" << want << "\"");
            checkCandumpRoundTrip(line);
            decoder.addLine(line);
        }
        QB_FUZZ_CHECK(index == expected.size(),
                      index << " lines read of the " << expected.size() << " written");
        decoder.finish();

        const TransportDecoder::Counts& c = decoder.counts();
        QB_FUZZ_CHECK(c.frames == c.single + c.first + c.consecutive + c.flowControl + c.invalid,
                      "frame kinds do not add up to " << c.frames);
        QB_FUZZ_CHECK(
            c.payloads <= c.frames && c.bytes <= c.payloads * 4095,
            c.payloads << " payloads, " << c.bytes << " bytes, " << c.frames << " frames");
        QB_FUZZ_CHECK(c.frames + c.unparsable <= expected.size(),
                      "more frames and unreadable lines than lines");
    }
    const std::string text = report.str();
    QB_FUZZ_CHECK(text.find("summary frames=") != std::string::npos &&
                      text.find("summary payloads=") != std::string::npos,
                  "no summary lines in the report");
    return 0;
}
