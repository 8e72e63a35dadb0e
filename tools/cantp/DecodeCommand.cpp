#include "DecodeCommand.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "ArgumentReader.h"
#include "LineReader.h"
#include "TransportDecoder.h"

void DecodeCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp decode [FILE]\n"
          "\n"
          "Shows a candump log as transport frames and reassembled payloads. Reads\n"
          "FILE, or standard input for '-' or no FILE. Input lines: candump -L\n"
          "'(SEC.USEC) IFACE ID#DATA' or 'IFACE ID#DATA'; blank lines and '#' lines\n"
          "are ignored.\n"
          "\n"
          "Options:\n"
          "  -h, --help   this text\n"
          "  --           end of options (a FILE after it may begin with '-')\n"
          "\n"
          "Output, one line each:\n"
          "  TIME IFACE ID KIND PARAM    a frame; TIME is SEC.USEC or '-'; KIND and\n"
          "                              PARAM: single len=N, first len=N,\n"
          "                              consecutive sn=N, flow-control CTP_FC_...,\n"
          "                              invalid REASON\n"
          "  payload IFACE ID len=N HEX  a payload reassembled (each interface and\n"
          "                              identifier has its own transfer)\n"
          "  error IFACE ID: MESSAGE     a protocol error\n"
          "  line N: error: REASON       an input line that is not a CAN data frame\n"
          "  summary frames=N ...        two lines of totals at the end\n"
          "  summary payloads=N ...\n"
          "\n"
          "Exit status: 0 the log was read (even with errors in it), 1 FILE cannot be\n"
          "opened or read or the report cannot be written, 2 usage error.\n"
          "\n"
          "Examples:\n"
          "  cantp decode trace.log\n"
          "  candump -L can0 | cantp decode\n"
          "  cantp decode trace.log | grep '^payload '\n"
          "  printf 'can0 7E0#03112233\\n' | cantp decode -\n";
}

int DecodeCommand::run(int argc, char** argv, int first) {
    ArgumentReader args(argc, argv, first);
    std::string path;
    bool havePath = false;
    bool optionsEnded = false;
    while (!args.done()) {
        const std::string arg = args.current();
        if (!optionsEnded && args.flag("--help", "-h")) {
            printHelp(std::cout);
            return 0;
        }
        if (!optionsEnded && arg == "--") {
            args.take();
            optionsEnded = true;
            continue;
        }
        if (!optionsEnded && arg.size() > 1 && arg[0] == '-') {
            throw UsageError("unknown option '" + arg + "'");
        }
        if (havePath) {
            throw UsageError("more than one FILE ('" + path + "', '" + arg + "')");
        }
        path = args.take();
        havePath = true;
    }

    const bool fromStdin = !havePath || path == "-";
    const std::string shownName = fromStdin ? std::string("standard input") : path;
    std::unique_ptr<LineReader> reader =
        fromStdin ? std::make_unique<LineReader>() : std::make_unique<LineReader>(path);
    if (!reader->isOpen()) {
        std::cerr << "cantp decode: cannot open " << path << ": " << std::strerror(errno)
                  << std::endl;
        return 1;
    }

    TransportDecoder decoder(std::cout);
    std::string line;
    for (;;) {
        // Flush before the reader may wait for input, so a live pipe shows every frame at once
        // while a file is still written in large blocks.
        if (!reader->hasBuffered()) {
            std::cout.flush();
        }
        const LineReader::Result result = reader->next(line);
        if (result == LineReader::END) {
            break;
        }
        if (result == LineReader::FAILED) {
            const int error = errno;
            std::cout.flush();
            std::cerr << "cantp decode: cannot read " << shownName << ": " << std::strerror(error)
                      << std::endl;
            return 1;
        }
        if (result == LineReader::LONG_LINE) {
            decoder.addUnreadableLine("line longer than " +
                                      std::to_string(LineReader::MAX_LINE_LENGTH) + " characters");
        } else {
            decoder.addLine(line);
        }
    }
    decoder.finish();
    std::cout.flush();
    if (!std::cout) {
        // A report cut short (a full disk, a closed descriptor) must not look complete.
        std::cerr << "cantp decode: cannot write standard output" << std::endl;
        return 1;
    }
    return 0;
}
