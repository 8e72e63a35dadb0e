#include "ConvertCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include "ArgumentReader.h"
#include "InputFile.h"
#include "libqbcansim/CandumpLine.h"
#include "libqbcansim/PcapReader.h"
#include "libqbcansim/PcapWriter.h"

namespace {

const size_t MAX_LINE_LENGTH = 4096;

enum Format { CANDUMP, PCAP };

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

/// The output: a file or standard output, written as one format or the other. Removes a file
/// it created unless told that the conversion succeeded.
class Output {
  public:
    Output(const std::string& path, Format format)
        : path(path), toStdout(path == "-"), format(format) {}

    ~Output() {
        if (!toStdout && file.is_open() && !kept) {
            file.close();
            ::unlink(path.c_str());
        }
    }

    bool open() {
        if (toStdout) {
            stream = &std::cout;
        } else {
            file.open(path, std::ios::out | std::ios::trunc | std::ios::binary);
            if (!file) {
                return false;
            }
            stream = &file;
        }
        if (format == PCAP) {
            pcap = std::make_unique<PcapWriter>(*stream);
        }
        return true;
    }

    /// Writes one frame (in candump output with its own interface name and direction).
    void write(const CandumpLine& line) {
        if (format == PCAP) {
            pcap->write(line);
        } else {
            *stream << line.toString() << '\n';
        }
    }

    /// Flushes; false if anything failed to be written.
    bool finish() {
        stream->flush();
        if (!*stream) {
            return false;
        }
        if (!toStdout) {
            file.close();
            if (file.fail()) {
                return false;
            }
        }
        kept = true;
        return true;
    }

    const std::string path;

  private:
    const bool toStdout;
    const Format format;
    std::ofstream file;
    std::ostream* stream = nullptr;
    std::unique_ptr<PcapWriter> pcap;
    bool kept = false;
};

struct Options {
    std::string in;
    std::string out;
    bool haveTo = false;
    Format to = PCAP;
    std::string interfaceName = "can0";
};

int fail(const std::string& message) {
    std::cerr << "cantp convert: " << message << std::endl;
    return 1;
}

int convertCandump(InputFile& input, const std::string& inName, Output& output, Format outFormat) {
    std::string line;
    uint64_t number = 0;
    uint64_t withoutTime = 0;
    uint64_t directions = 0;
    std::string interfaceName;
    for (;;) {
        const InputFile::LineResult result = input.nextLine(line, MAX_LINE_LENGTH);
        if (result == InputFile::END) {
            break;
        }
        ++number;
        const std::string where = inName + ": line " + std::to_string(number) + ": ";
        if (result == InputFile::FAILED) {
            return fail("cannot read " + inName + ": " + std::strerror(input.readError()));
        }
        if (result == InputFile::LONG_LINE) {
            return fail(where + "longer than " + std::to_string(MAX_LINE_LENGTH) + " characters");
        }
        const size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') {
            continue;
        }
        CandumpLine frame;
        std::string error;
        if (!CandumpLine::parse(line, frame, error)) {
            return fail(where + error);
        }
        if (outFormat == PCAP) {
            if (interfaceName.empty()) {
                interfaceName = frame.interfaceName;
            } else if (frame.interfaceName != interfaceName) {
                return fail(where + "interface " + frame.interfaceName + " after " + interfaceName +
                            ": a pcap capture (link type 227) has no interface name, so one "
                            "file holds one interface (split the log first, e.g. with grep)");
            }
            if (!frame.hasTimestamp) {
                ++withoutTime;
            }
            if (frame.direction != '\0') {
                ++directions;
            }
            if (frame.hasTimestamp && frame.seconds > 0xFFFFFFFFll) {
                return fail(where + "time stamp beyond the 32-bit seconds of a pcap record");
            }
        }
        output.write(frame);
    }
    if (withoutTime > 0) {
        std::cerr << "cantp convert: " << withoutTime
                  << " line(s) without a time stamp written at time 0.000000" << std::endl;
    }
    if (directions > 0) {
        std::cerr << "cantp convert: the direction (R/T) of " << directions
                  << " line(s) dropped: pcap has no field for it" << std::endl;
    }
    return 0;
}

int convertPcap(InputFile& input, const std::string& inName, Output& output,
                const std::string& interfaceName) {
    std::istream stream(&input);
    PcapReader reader(stream);
    PcapReader::Record record;
    uint64_t skipped = 0;
    std::string firstSkipped;
    for (;;) {
        const PcapReader::Result result = reader.next(record);
        if (result == PcapReader::END) {
            break;
        }
        if (result == PcapReader::FAILED) {
            if (input.readError() != 0) {
                return fail("cannot read " + inName + ": " + std::strerror(input.readError()));
            }
            return fail(inName + ": " + reader.error());
        }
        if (!record.isClassicDataFrame()) {
            if (skipped++ == 0) {
                firstSkipped = "record " + std::to_string(record.number) + ", a " + record.problem;
            }
            continue;
        }
        output.write(record.toCandumpLine(interfaceName));
    }
    if (skipped > 0) {
        std::cerr << "cantp convert: " << skipped
                  << " record(s) that are not classic CAN data frames skipped (first: "
                  << firstSkipped << ")" << std::endl;
    }
    return 0;
}

}  // namespace

void ConvertCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp convert [options] IN OUT\n"
          "\n"
          "Converts a candump log (candump -L text) to a pcap capture (link type 227,\n"
          "for Wireshark and tshark) or a pcap capture to a candump log. '-' is standard\n"
          "input or output. IN's format is told by its first bytes. OUT's format: --to,\n"
          "else OUT's extension (.pcap: pcap; .log, .txt, .candump: candump), else the\n"
          "other format than IN's.\n"
          "\n"
          "Classic data frames convert without loss: candump -> pcap -> candump gives\n"
          "the same lines. pcap holds no interface name: a log with several interfaces\n"
          "is refused, and lines written from pcap take --iface. Lines without a time\n"
          "stamp get 0.000000; directions (R/T) are dropped; remote, error and CAN FD\n"
          "records of a pcap file are skipped; each is counted on standard error.\n"
          "\n"
          "Options:\n"
          "  --to FORMAT    pcap or candump\n"
          "  --iface NAME   interface name of the candump lines written from pcap\n"
          "                 (default can0)\n"
          "  -h, --help     this text\n"
          "\n"
          "Exit status: 0 converted, 1 IN cannot be read or holds a line or record that\n"
          "cannot be converted, or OUT cannot be written (OUT is then removed), 2 usage\n"
          "error.\n"
          "\n"
          "Examples:\n"
          "  cantp convert trace.log trace.pcap\n"
          "  cantp convert --iface vcan0 capture.pcap capture.log\n"
          "  candump -L can0 | cantp convert --to pcap - live.pcap\n";
}

int ConvertCommand::run(int argc, char** argv, int first) {
    ArgumentReader args(argc, argv, first);
    Options opt;
    int positional = 0;
    std::string value;
    while (!args.done()) {
        const std::string arg = args.current();
        if (args.flag("--help", "-h")) {
            printHelp(std::cout);
            return 0;
        }
        if (args.option("--to", nullptr, value)) {
            if (value == "pcap") {
                opt.to = PCAP;
            } else if (value == "candump") {
                opt.to = CANDUMP;
            } else {
                throw UsageError("--to must be pcap or candump, not '" + value + "'");
            }
            opt.haveTo = true;
            continue;
        }
        if (args.option("--iface", nullptr, value)) {
            if (value.empty() || value.find_first_of(" \t\n") != std::string::npos) {
                throw UsageError("--iface needs a name without blanks");
            }
            opt.interfaceName = value;
            continue;
        }
        if (arg.size() > 1 && arg[0] == '-') {
            throw UsageError("unknown option '" + arg + "'");
        }
        if (positional == 2) {
            throw UsageError("more than IN and OUT ('" + arg + "')");
        }
        (positional++ == 0 ? opt.in : opt.out) = args.take();
    }
    if (positional < 2) {
        throw UsageError(positional == 0 ? "IN and OUT missing" : "OUT missing");
    }

    const bool fromStdin = opt.in == "-";
    const std::string inName = fromStdin ? std::string("standard input") : opt.in;
    std::unique_ptr<InputFile> input =
        fromStdin ? std::make_unique<InputFile>() : std::make_unique<InputFile>(opt.in);
    if (!input->isOpen()) {
        return fail("cannot open " + opt.in + ": " + std::strerror(errno));
    }
    if (!fromStdin && opt.out != "-") {
        struct stat inStat {};
        struct stat outStat {};
        if (::stat(opt.in.c_str(), &inStat) == 0 && ::stat(opt.out.c_str(), &outStat) == 0 &&
            inStat.st_dev == outStat.st_dev && inStat.st_ino == outStat.st_ino) {
            return fail(opt.out + " is IN itself: writing it would destroy what is read");
        }
    }
    const std::string head = input->peek(4);
    if (input->readError() != 0) {
        return fail("cannot read " + inName + ": " + std::strerror(input->readError()));
    }
    Format inFormat = CANDUMP;
    switch (PcapReader::detect(head.data(), head.size())) {
        case PcapReader::FORMAT_PCAP:
            inFormat = PCAP;
            break;
        case PcapReader::FORMAT_PCAPNG:
            return fail(inName +
                        ": a pcapng file, not pcap: convert it with 'editcap -F pcap IN OUT'");
        case PcapReader::FORMAT_OTHER:
            break;
    }
    Format outFormat = inFormat == PCAP ? CANDUMP : PCAP;
    if (opt.haveTo) {
        outFormat = opt.to;
    } else if (endsWith(opt.out, ".pcap")) {
        outFormat = PCAP;
    } else if (endsWith(opt.out, ".log") || endsWith(opt.out, ".txt") ||
               endsWith(opt.out, ".candump")) {
        outFormat = CANDUMP;
    }
    if (outFormat == PCAP && opt.out == "-" && ::isatty(STDOUT_FILENO) != 0) {
        return fail("not writing a binary pcap file to a terminal (give OUT or redirect)");
    }

    Output output(opt.out, outFormat);
    if (!output.open()) {
        return fail("cannot open " + opt.out + ": " + std::strerror(errno));
    }
    int status = 0;
    try {
        status = inFormat == PCAP ? convertPcap(*input, inName, output, opt.interfaceName)
                                  : convertCandump(*input, inName, output, outFormat);
    } catch (const std::invalid_argument& e) {
        status = fail(inName + ": " + e.what());
    }
    if (status != 0) {
        return status;
    }
    if (!output.finish()) {
        return fail("cannot write " + (opt.out == "-" ? std::string("standard output") : opt.out));
    }
    return 0;
}
