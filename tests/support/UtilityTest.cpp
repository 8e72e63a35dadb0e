// The small helpers of the utility header: hexdump, millisleep and the printed timeval.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "common/Wait.h"
#include "libqbutil/utility.h"

namespace {

using std::chrono::milliseconds;

// "Hello, World!", a NUL, DEL, 0x80, then '~' and a blank: 18 bytes.
const std::vector<uint8_t> kBytes{0x48, 0x65, 0x6c, 0x6c, 0x6f, 0x2c, 0x20, 0x57, 0x6f,
                                  0x72, 0x6c, 0x64, 0x21, 0x00, 0x7f, 0x80, 0x7e, 0x20};

const std::vector<uint8_t> kSix{0x01, 0x02, 0x03, 0x04, 0x05, 0x06};

// Records every piece that a stream hands to it. It has no buffer, so each insertion reaches
// it as it was made: a string as one xsputn() call, a single character through overflow().
class PieceRecorder : public std::streambuf {
  public:
    std::vector<std::string> pieces;

  protected:
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        pieces.emplace_back(s, static_cast<size_t>(n));
        return n;
    }
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            pieces.emplace_back(1, traits_type::to_char_type(c));
        }
        return traits_type::not_eof(c);
    }
};

std::string hexAddress(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%016" PRIxPTR, reinterpret_cast<uintptr_t>(p));
    return text;
}

double msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

std::string printed(const timeval& tv) {
    std::ostringstream os;
    os << tv;
    return os.str();
}

std::atomic<int> signalsSeen{0};
extern "C" void countSignal(int) {
    signalsSeen.fetch_add(1);
}

}  // namespace

TEST(Hexdump, NonePrefixWithTextPadsShortLastRow) {
    std::ostringstream os;
    hexdump(os, kBytes.data(), kBytes.data() + kBytes.size(), "P:", 16, HEXDUMP_PREFIX_NONE, true);
    EXPECT_EQ(os.str(),
              "P: 48 65 6c 6c 6f 2c 20 57 6f 72 6c 64 21 00 7f 80  |Hello, World!...|\n"
              "P: 7e 20                                            |~ |\n");
}

TEST(Hexdump, NonePrefixWithoutText) {
    std::ostringstream os;
    hexdump(os, kBytes.data(), kBytes.data() + kBytes.size(), "[ERROR] X:", 16, HEXDUMP_PREFIX_NONE,
            false);
    EXPECT_EQ(os.str(),
              "[ERROR] X: 48 65 6c 6c 6f 2c 20 57 6f 72 6c 64 21 00 7f 80\n"
              "[ERROR] X: 7e 20\n");
}

TEST(Hexdump, OffsetPrefixWithoutText) {
    std::ostringstream os;
    hexdump(os, kSix.begin(), kSix.end(), "", 4, HEXDUMP_PREFIX_OFFSET, false);
    EXPECT_EQ(os.str(),
              "00000000:  01 02 03 04\n"
              "00000004:  05 06\n");
}

TEST(Hexdump, OffsetPrefixWithTextAlignsTextColumn) {
    std::ostringstream os;
    hexdump(os, kSix.begin(), kSix.end(), ">", 4, HEXDUMP_PREFIX_OFFSET, true);
    EXPECT_EQ(os.str(),
              ">00000000:  01 02 03 04  |....|\n"
              ">00000004:  05 06        |..|\n");
}

TEST(Hexdump, FullLastRowNeedsNoPadding) {
    std::ostringstream os;
    hexdump(os, kSix.begin(), kSix.begin() + 4, "", 2, HEXDUMP_PREFIX_NONE, true);
    EXPECT_EQ(os.str(),
              " 01 02  |..|\n"
              " 03 04  |..|\n");
}

TEST(Hexdump, ZeroBytesPerRowMeansSixteen) {
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 17; ++i) {
        bytes.push_back(static_cast<uint8_t>(i + 0xa0));
    }
    std::ostringstream os;
    hexdump(os, bytes.begin(), bytes.end(), "", 0, HEXDUMP_PREFIX_OFFSET, false);
    EXPECT_EQ(os.str(),
              "00000000:  a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 aa ab ac ad ae af\n"
              "00000010:  b0\n");
}

TEST(Hexdump, EmptyRangeWritesNothing) {
    std::ostringstream os;
    hexdump(os, kBytes.data(), kBytes.data(), "P:", 16, HEXDUMP_PREFIX_OFFSET, true);
    const std::vector<uint8_t> none;
    hexdump(os, none.begin(), none.end(), "P:", 0, HEXDUMP_PREFIX_ADDRESS, false);
    EXPECT_EQ(os.str(), "");
}

TEST(Hexdump, AddressPrefixShowsAddressOfEachRow) {
    std::ostringstream os;
    hexdump(os, kSix.data(), kSix.data() + kSix.size(), "A ", 4, HEXDUMP_PREFIX_ADDRESS, false);
    const std::string expected = "A " + hexAddress(kSix.data()) + ":  01 02 03 04\n" + "A " +
                                 hexAddress(kSix.data() + 4) + ":  05 06\n";
    EXPECT_EQ(os.str(), expected);
}

TEST(Hexdump, CharIteratorsGiveUnsignedBytes) {
    const std::string text("A\xff\x09z");
    std::ostringstream os;
    hexdump(os, text.begin(), text.end(), "", 4, HEXDUMP_PREFIX_NONE, true);
    EXPECT_EQ(os.str(), " 41 ff 09 7a  |A..z|\n");
}

TEST(Hexdump, EachRowIsInsertedAsOnePiece) {
    PieceRecorder recorder;
    std::ostream os(&recorder);
    hexdump(os, kBytes.data(), kBytes.data() + kBytes.size(), "P:", 8, HEXDUMP_PREFIX_NONE, true);
    const std::vector<std::string> expected{"P: 48 65 6c 6c 6f 2c 20 57  |Hello, W|\n",
                                            "P: 6f 72 6c 64 21 00 7f 80  |orld!...|\n",
                                            "P: 7e 20                    |~ |\n"};
    EXPECT_EQ(recorder.pieces, expected);
}

TEST(Millisleep, SleepsAtLeastTheTime) {
    const auto start = std::chrono::steady_clock::now();
    millisleep(30);
    const double took = msSince(start);
    std::cout << "millisleep(30) took " << took << " ms" << std::endl;
    EXPECT_GE(took, 30.0);
}

TEST(Millisleep, ZeroAndNegativeReturnAtOnce) {
    const auto start = std::chrono::steady_clock::now();
    millisleep(0);
    millisleep(-1);
    millisleep(-5000);
    EXPECT_LT(msSince(start), 1000.0);
}

TEST(Millisleep, SleepsOnAfterSignals) {
    struct sigaction action {};
    action.sa_handler = countSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: nanosleep returns EINTR on each signal
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    signalsSeen.store(0);

    const pthread_t sleeper = pthread_self();
    std::atomic<bool> sleeping{false};
    std::atomic<bool> done{false};
    std::thread sender([&] {
        qbtest::waitUntil([&] { return sleeping.load(); }, milliseconds(5000));
        while (!done.load()) {
            pthread_kill(sleeper, SIGUSR1);
            qbtest::waitUntil([&] { return done.load(); }, milliseconds(10));
        }
    });

    const auto start = std::chrono::steady_clock::now();
    sleeping.store(true);
    millisleep(150);
    const double took = msSince(start);
    done.store(true);
    sender.join();
    sigaction(SIGUSR1, &previous, nullptr);

    std::cout << "millisleep(150) with " << signalsSeen.load() << " signals took " << took << " ms"
              << std::endl;
    EXPECT_GE(signalsSeen.load(), 1);
    EXPECT_GE(took, 150.0);
}

TEST(TimevalOutput, WholeSecond) {
    EXPECT_EQ(printed(timeval{1, 0}), "1.000000");
}

TEST(TimevalOutput, TenMilliseconds) {
    EXPECT_EQ(printed(timeval{0, 10000}), "0.010000");
}

TEST(TimevalOutput, ZeroAndMixed) {
    EXPECT_EQ(printed(timeval{0, 0}), "0.000000");
    EXPECT_EQ(printed(timeval{12, 345678}), "12.345678");
    EXPECT_EQ(printed(timeval{5, 1}), "5.000001");
}

TEST(TimevalOutput, MicrosecondsOutOfRangeAreFoldedIntoSeconds) {
    EXPECT_EQ(printed(timeval{1, 1500000}), "2.500000");
    EXPECT_EQ(printed(timeval{2, -500000}), "1.500000");
    EXPECT_EQ(printed(timeval{0, 3000000}), "3.000000");
}

TEST(TimevalOutput, NegativeValuesHaveLeadingMinus) {
    EXPECT_EQ(printed(timeval{-1, 0}), "-1.000000");
    EXPECT_EQ(printed(timeval{0, -10000}), "-0.010000");
    EXPECT_EQ(printed(timeval{-2, 500000}), "-1.500000");
    EXPECT_EQ(printed(timeval{-1, 999999}), "-0.000001");
}

TEST(TimevalOutput, StreamFlagsFillAndWidthAreRestored) {
    std::ostringstream os;
    os << std::hex << std::showbase << std::left << std::setfill('*');
    const std::ios_base::fmtflags flags = os.flags();
    os.width(12);
    os << timeval{1, 0};
    EXPECT_EQ(os.str(), "1.000000");
    EXPECT_EQ(os.flags(), flags);
    EXPECT_EQ(os.fill(), '*');
    EXPECT_EQ(os.width(), 12);
    os.width(0);
    os << ' ' << 255;
    EXPECT_EQ(os.str(), "1.000000 0xff");
}

TEST(TimevalOutput, ChainsLikeOtherInsertions) {
    std::ostringstream os;
    os << "select timeout set to " << timeval{1, 0} << " s";
    EXPECT_EQ(os.str(), "select timeout set to 1.000000 s");
}
