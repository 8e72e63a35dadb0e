// cantp: the command-line tool of the CAN transport library.
#include <cstring>
#include <iostream>
#include <string>

#include "ArgumentReader.h"
#include "BenchCommand.h"
#include "ConvertCommand.h"
#include "DecodeCommand.h"
#include "DemoCommand.h"
#include "DumpCommand.h"
#include "EndpointCommand.h"
#include "RecvCommand.h"
#include "SendCommand.h"
#include "SoakCommand.h"
#include "libqbutil/QBException.h"

namespace {

void printUsage(std::ostream& os) {
    os << "Usage: cantp <command> [options]\n"
          "\n"
          "Commands:\n"
          "  demo       two endpoints hold a request/response conversation on a simulated\n"
          "             500 kbit/s CAN bus; every payload is verified byte by byte\n"
          "  endpoint   one transport endpoint driven through standard input and output\n"
          "  decode     the transport view of a candump log or pcap capture\n"
          "  send       send one payload over a SocketCAN interface (like isotpsend)\n"
          "  recv       receive payloads over a SocketCAN interface (like isotprecv)\n"
          "  dump       the live transport view of a SocketCAN interface (like isotpdump)\n"
          "  convert    candump log to pcap capture and back\n"
          "  soak       many payloads over lossy simulated buses, every delivery classified\n"
          "  bench      end-to-end performance figures: latency, flow-control response,\n"
          "             throughput, goodput against the protocol's limit, memory\n"
          "\n"
          "'cantp <command> --help' describes each command; 'cantp --version' prints the\n"
          "version. Manual: docs/cantp.md, 'man cantp'\n";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        printUsage(std::cerr);
        return 2;
    }
    const std::string command = argv[1];
    try {
        if (command == "--help" || command == "-h" || command == "help") {
            printUsage(std::cout);
            return 0;
        }
        if (command == "--version" || command == "-V") {
            std::cout << "cantp " << QB_VERSION << std::endl;
            return 0;
        }
        if (command == "endpoint") {
            return EndpointCommand::run(argc, argv, 2);
        }
        if (command == "demo") {
            return DemoCommand::run(argc, argv, 2);
        }
        if (command == "decode") {
            return DecodeCommand::run(argc, argv, 2);
        }
        if (command == "send") {
            return SendCommand::run(argc, argv, 2);
        }
        if (command == "recv") {
            return RecvCommand::run(argc, argv, 2);
        }
        if (command == "dump") {
            return DumpCommand::run(argc, argv, 2);
        }
        if (command == "convert") {
            return ConvertCommand::run(argc, argv, 2);
        }
        if (command == "soak") {
            return SoakCommand::run(argc, argv, 2);
        }
        if (command == "bench") {
            return BenchCommand::run(argc, argv, 2);
        }
        throw UsageError("unknown command '" + command + "'");
    } catch (const UsageError& e) {
        std::cerr << "cantp " << (command.compare(0, 1, "-") == 0 ? "" : command + ": ") << e.what()
                  << "\n"
                  << "Try 'cantp " << (command.compare(0, 1, "-") == 0 ? "" : command + " ")
                  << "--help'." << std::endl;
        return 2;
    } catch (const QBException& e) {
        std::cerr << "cantp " << command << ": error: " << e << std::endl;
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "cantp " << command << ": error: " << e.what() << std::endl;
        return 1;
    }
}
