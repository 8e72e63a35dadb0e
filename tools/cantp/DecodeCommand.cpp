#include "DecodeCommand.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "ArgumentReader.h"
#include "InputFile.h"
#include "TransportDecoder.h"
#include "libqbcansim/PcapReader.h"

namespace {

/// A candump line is below 100 characters; anything far longer is not a frame, and cutting it
/// off keeps the memory of the decoder bounded whatever the input.
const size_t MAX_LINE_LENGTH = 4096;

struct Options {
    std::string path;
    bool fromStdin = true;
    bool fields = false;
    std::string interfaceName = "can0";
    TransportDecoder::IdentifierRanges identifiers;
};

/// Ends the report and checks that it reached standard output whole. Returns the exit status.
int finishReport(TransportDecoder& decoder, int status) {
    decoder.finish();
    std::cout.flush();
    if (!std::cout) {
        // A report cut short (a full disk, a closed descriptor) must not look complete.
        std::cerr << "cantp decode: cannot write standard output" << std::endl;
        return 1;
    }
    return status;
}

int readFailed(const std::string& shownName, int error) {
    std::cout.flush();
    std::cerr << "cantp decode: cannot read " << shownName << ": " << std::strerror(error)
              << std::endl;
    return 1;
}

int decodeCandump(InputFile& input, TransportDecoder& decoder, const std::string& shownName) {
    std::string line;
    for (;;) {
        // Flush before the reader may wait for input, so a live pipe shows every frame at once
        // while a file is still written in large blocks.
        if (!input.hasBuffered()) {
            std::cout.flush();
        }
        const InputFile::LineResult result = input.nextLine(line, MAX_LINE_LENGTH);
        if (result == InputFile::END) {
            break;
        }
        if (result == InputFile::FAILED) {
            return readFailed(shownName, input.readError());
        }
        if (result == InputFile::LONG_LINE) {
            decoder.addUnreadableLine("line longer than " + std::to_string(MAX_LINE_LENGTH) +
                                      " characters");
        } else {
            decoder.addLine(line);
        }
    }
    return finishReport(decoder, 0);
}

int decodePcap(InputFile& input, TransportDecoder& decoder, const std::string& shownName,
               const std::string& interfaceName) {
    std::istream stream(&input);
    PcapReader reader(stream);
    PcapReader::Record record;
    for (;;) {
        if (!input.hasBuffered()) {
            std::cout.flush();
        }
        const PcapReader::Result result = reader.next(record);
        if (result == PcapReader::END) {
            break;
        }
        if (result == PcapReader::FAILED) {
            if (input.readError() != 0) {
                return readFailed(shownName, input.readError());
            }
            // What was read is reported; the error says where the file went wrong.
            const int status = finishReport(decoder, 1);
            std::cerr << "cantp decode: " << shownName << ": " << reader.error() << std::endl;
            return status;
        }
        if (record.isClassicDataFrame()) {
            decoder.addFrame(record.toCandumpLine(interfaceName), record.number);
        } else {
            decoder.addOtherRecord(record.number, record.problem + ", not a classic CAN data frame",
                                   record.identified, record.canId, record.extended);
        }
    }
    return finishReport(decoder, 0);
}

}  // namespace

void DecodeCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp decode [FILE]\n"
          "\n"
          "Shows a candump log or a pcap capture as transport frames and reassembled\n"
          "payloads. Reads FILE, or standard input for '-' or no FILE; the format is\n"
          "told by the first bytes: a pcap file (link type 227, either byte order,\n"
          "microsecond or nanosecond time stamps) or else candump text. Input lines:\n"
          "candump -L '(SEC.USEC) IFACE ID#DATA' or 'IFACE ID#DATA'; blank lines and\n"
          "'#' lines are ignored.\n"
          "\n"
          "Options:\n"
          "  --ids LIST     decode only these identifiers, e.g. 0x7E0,0x7E8 or\n"
          "                 0x700-0x7FF; other frames are shown as 'other'\n"
          "  --iface NAME   interface name shown for the frames of a pcap file, which\n"
          "                 holds none (default can0)\n"
          "  --fields       one tab-separated line per frame, in the order and form of\n"
          "                 tshark's fields with the Wireshark dissector\n"
          "                 (docs/wireshark.md); other lines begin with '#'\n"
          "  -h, --help     this text\n"
          "  --             end of options (a FILE after it may begin with '-')\n"
          "\n"
          "Output, one line each:\n"
          "  TIME IFACE ID KIND PARAM    a frame; TIME is SEC.USEC or '-'; KIND and\n"
          "                              PARAM: single len=N, first len=N,\n"
          "                              consecutive sn=N, flow-control CTP_FC_...,\n"
          "                              invalid REASON, other - (not selected)\n"
          "  payload IFACE ID len=N HEX  a payload reassembled (each interface and\n"
          "                              identifier has its own transfer)\n"
          "  error IFACE ID: MESSAGE     a protocol error\n"
          "  line N: error: REASON       an input line that is not a CAN data frame\n"
          "  record N: error: REASON     a pcap record that is not a classic data frame\n"
          "  summary frames=N ...        two lines of totals at the end\n"
          "  summary payloads=N ...\n"
          "\n"
          "Exit status: 0 the input was read (even with errors in it), 1 FILE cannot be\n"
          "opened or read, a pcap file is damaged (what came before is reported) or the\n"
          "report cannot be written, 2 usage error.\n"
          "\n"
          "Examples:\n"
          "  cantp decode trace.log\n"
          "  cantp decode --ids 0x7E0,0x7E8 capture.pcap\n"
          "  candump -L can0 | cantp decode\n"
          "  cantp decode trace.log | grep '^payload '\n"
          "  printf 'can0 7E0#03112233\\n' | cantp decode -\n";
}

int DecodeCommand::run(int argc, char** argv, int first) {
    ArgumentReader args(argc, argv, first);
    Options opt;
    bool havePath = false;
    bool optionsEnded = false;
    std::string value;
    while (!args.done()) {
        const std::string arg = args.current();
        if (!optionsEnded) {
            if (args.flag("--help", "-h")) {
                printHelp(std::cout);
                return 0;
            }
            if (arg == "--") {
                args.take();
                optionsEnded = true;
                continue;
            }
            if (args.flag("--fields", nullptr)) {
                opt.fields = true;
                continue;
            }
            if (args.option("--iface", nullptr, value)) {
                if (value.empty() || value.find_first_of(" \t\n") != std::string::npos) {
                    throw UsageError("--iface needs a name without blanks");
                }
                opt.interfaceName = value;
                continue;
            }
            if (args.option("--ids", nullptr, value)) {
                std::string error;
                if (!TransportDecoder::parseIdentifiers(value, opt.identifiers, error)) {
                    throw UsageError("--ids: " + error);
                }
                continue;
            }
            if (arg.size() > 1 && arg[0] == '-') {
                throw UsageError("unknown option '" + arg + "'");
            }
        }
        if (havePath) {
            throw UsageError("more than one FILE ('" + opt.path + "', '" + arg + "')");
        }
        opt.path = args.take();
        havePath = true;
    }
    opt.fromStdin = !havePath || opt.path == "-";

    const std::string shownName = opt.fromStdin ? std::string("standard input") : opt.path;
    std::unique_ptr<InputFile> input =
        opt.fromStdin ? std::make_unique<InputFile>() : std::make_unique<InputFile>(opt.path);
    if (!input->isOpen()) {
        std::cerr << "cantp decode: cannot open " << opt.path << ": " << std::strerror(errno)
                  << std::endl;
        return 1;
    }

    TransportDecoder decoder(std::cout, opt.fields ? TransportDecoder::Output::FIELDS
                                                   : TransportDecoder::Output::REPORT);
    if (!opt.identifiers.empty()) {
        decoder.selectIdentifiers(opt.identifiers);
    }
    const std::string head = input->peek(4);
    if (input->readError() != 0) {
        return readFailed(shownName, input->readError());
    }
    switch (PcapReader::detect(head.data(), head.size())) {
        case PcapReader::FORMAT_PCAP:
            return decodePcap(*input, decoder, shownName, opt.interfaceName);
        case PcapReader::FORMAT_PCAPNG:
            std::cerr << "cantp decode: " << shownName
                      << ": a pcapng file, not pcap: convert it with 'editcap -F pcap IN OUT'"
                      << std::endl;
            return 1;
        case PcapReader::FORMAT_OTHER:
            break;
    }
    return decodeCandump(*input, decoder, shownName);
}
