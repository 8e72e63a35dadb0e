// cantp bench, run as a process: the figures it reports (present, numbers, positive), its text
// report, its help and its usage errors. Nothing here depends on how fast the machine is.
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Subprocess.h"

using namespace std::chrono_literals;
using qbtest::Subprocess;

namespace {

/// The leaves of a JSON text by path ("fc.median_us", "goodput.3.bitrate"): numbers, strings and
/// the literals true, false and null (kept as their text). Read far enough to check what cantp
/// bench writes: objects, arrays, strings with simple escapes, numbers.
struct JsonLeaves {
    std::map<std::string, double> numbers;
    std::map<std::string, std::string> strings;
    std::map<std::string, std::string> literals;
    /// Paths of the objects and arrays, and their number of members.
    std::map<std::string, size_t> containers;
};

class JsonReader {
  public:
    explicit JsonReader(const std::string& text) : text(text) {}

    /// False, with `error` set, unless the whole text is one JSON value.
    bool read(JsonLeaves& out) {
        if (!value("", out)) {
            return false;
        }
        skipSpace();
        return at == text.size() || fail("text after the value");
    }

    std::string error;

  private:
    bool fail(const std::string& what) {
        error = what + " at offset " + std::to_string(at);
        return false;
    }
    void skipSpace() {
        while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])) != 0) {
            ++at;
        }
    }
    static std::string join(const std::string& path, const std::string& key) {
        return path.empty() ? key : path + "." + key;
    }

    bool value(const std::string& path, JsonLeaves& out) {
        skipSpace();
        if (at >= text.size()) {
            return fail("end of text");
        }
        const char c = text[at];
        if (c == '{') {
            return object(path, out);
        }
        if (c == '[') {
            return array(path, out);
        }
        if (c == '"') {
            std::string s;
            if (!string(s)) {
                return false;
            }
            out.strings[path] = s;
            return true;
        }
        for (const char* literal : {"true", "false", "null"}) {
            const std::string l = literal;
            if (text.compare(at, l.size(), l) == 0) {
                at += l.size();
                out.literals[path] = l;
                return true;
            }
        }
        const std::regex number(R"(-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][-+]?[0-9]+)?)");
        std::smatch m;
        const std::string rest = text.substr(at, 64);
        if (!std::regex_search(rest, m, number, std::regex_constants::match_continuous)) {
            return fail("not a value");
        }
        out.numbers[path] = std::strtod(m[0].str().c_str(), nullptr);
        at += m[0].length();
        return true;
    }

    bool string(std::string& s) {
        ++at;  // the opening quote
        while (at < text.size() && text[at] != '"') {
            if (text[at] == '\\') {
                if (at + 1 >= text.size()) {
                    return fail("cut escape");
                }
                const char e = text[at + 1];
                if (e == 'u') {
                    if (at + 6 > text.size()) {
                        return fail("cut \\u escape");
                    }
                    s +=
                        static_cast<char>(std::strtol(text.substr(at + 2, 4).c_str(), nullptr, 16));
                    at += 6;
                    continue;
                }
                s += e == 'n' ? '\n' : e == 't' ? '\t' : e;
                at += 2;
                continue;
            }
            s += text[at++];
        }
        if (at >= text.size()) {
            return fail("unterminated string");
        }
        ++at;  // the closing quote
        return true;
    }

    bool object(const std::string& path, JsonLeaves& out) {
        ++at;
        size_t members = 0;
        skipSpace();
        if (at < text.size() && text[at] == '}') {
            ++at;
            out.containers[path] = 0;
            return true;
        }
        for (;;) {
            skipSpace();
            if (at >= text.size() || text[at] != '"') {
                return fail("expected a key");
            }
            std::string key;
            if (!string(key)) {
                return false;
            }
            skipSpace();
            if (at >= text.size() || text[at] != ':') {
                return fail("expected ':'");
            }
            ++at;
            if (!value(join(path, key), out)) {
                return false;
            }
            ++members;
            skipSpace();
            if (at < text.size() && text[at] == ',') {
                ++at;
                continue;
            }
            if (at < text.size() && text[at] == '}') {
                ++at;
                out.containers[path] = members;
                return true;
            }
            return fail("expected ',' or '}'");
        }
    }

    bool array(const std::string& path, JsonLeaves& out) {
        ++at;
        size_t members = 0;
        skipSpace();
        if (at < text.size() && text[at] == ']') {
            ++at;
            out.containers[path] = 0;
            return true;
        }
        for (;;) {
            if (!value(join(path, std::to_string(members)), out)) {
                return false;
            }
            ++members;
            skipSpace();
            if (at < text.size() && text[at] == ',') {
                ++at;
                continue;
            }
            if (at < text.size() && text[at] == ']') {
                ++at;
                out.containers[path] = members;
                return true;
            }
            return fail("expected ',' or ']'");
        }
    }

    const std::string& text;
    size_t at = 0;
};

/// Runs cantp bench with `args` and reads its JSON output; fails the test unless it exits 0
/// with one JSON object on standard output and nothing on standard error.
JsonLeaves benchJson(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"bench"};
    all.insert(all.end(), args.begin(), args.end());
    Subprocess bench(qbtest::cantpPath(), all);
    const int status = bench.wait(240s);
    const std::string out = bench.outText();
    EXPECT_EQ(status, 0) << out << bench.errText();
    EXPECT_EQ(bench.errText(), "");
    JsonLeaves leaves;
    JsonReader reader(out);
    EXPECT_TRUE(reader.read(leaves)) << reader.error << "\n" << out;
    return leaves;
}

/// Expects a positive number at `path`.
void expectPositive(const JsonLeaves& json, const std::string& path) {
    const auto found = json.numbers.find(path);
    ASSERT_NE(found, json.numbers.end()) << "no number at " << path;
    EXPECT_GT(found->second, 0.0) << path;
}

void expectMachine(const JsonLeaves& json) {
    for (const char* key :
         {"machine.cpu_model", "machine.kernel", "machine.build_type", "machine.cantp_version"}) {
        ASSERT_EQ(json.strings.count(key), 1u) << key;
        EXPECT_FALSE(json.strings.at(key).empty()) << key;
    }
    EXPECT_EQ(json.strings.count("machine.sanitizers"), 1u);  // empty without sanitizers
    expectPositive(json, "machine.cores");
    EXPECT_EQ(json.literals.count("quick"), 1u);
}

}  // namespace

TEST(CantpBench, QuickJsonOfLatencyAndThroughputHasEveryFigureAsAPositiveNumber) {
    const JsonLeaves json = benchJson({"--quick", "--json", "--only", "fc,roundtrip,throughput"});
    expectMachine(json);
    EXPECT_EQ(json.literals.at("quick"), "true");
    // Only the parts asked for.
    EXPECT_EQ(json.containers.count("goodput"), 0u);
    EXPECT_EQ(json.containers.count("memory"), 0u);

    EXPECT_EQ(json.numbers.at("roundtrip.payload_bytes"), 7.0);
    EXPECT_EQ(json.numbers.at("roundtrip.payloads"), 1000.0);
    EXPECT_EQ(json.numbers.at("fc.payload_bytes"), 20.0);
    EXPECT_EQ(json.numbers.at("fc.transfers"), 1000.0);
    for (const char* part : {"roundtrip", "fc"}) {
        const std::string p = part;
        expectPositive(json, p + ".median_us");
        expectPositive(json, p + ".p99_us");
        if (json.numbers.count(p + ".median_us") != 0 && json.numbers.count(p + ".p99_us") != 0) {
            EXPECT_LE(json.numbers.at(p + ".median_us"), json.numbers.at(p + ".p99_us")) << p;
        }
    }

    for (const char* pattern : {"throughput.one_way", "throughput.request_response"}) {
        const std::string p = pattern;
        for (const char* key : {"payload_bytes_min", "payload_bytes_max", "payloads",
                                "payload_bytes_total", "frames", "seconds", "frames_per_s",
                                "payload_bytes_per_s", "cpu_us_per_frame", "wakeups_per_frame"}) {
            expectPositive(json, p + "." + key);
        }
    }
    EXPECT_EQ(json.numbers.at("throughput.one_way.payload_bytes_min"), 4095.0);
    EXPECT_EQ(json.numbers.at("throughput.request_response.payload_bytes_min"), 1.0);
    // A 4095-byte payload is 588 frames: first frame, ready, 585 consecutive frames,
    // acknowledgement.
    EXPECT_EQ(json.numbers.at("throughput.one_way.frames"),
              588.0 * json.numbers.at("throughput.one_way.payloads"));
    EXPECT_EQ(json.numbers.at("throughput.one_way.payload_bytes_total"),
              4095.0 * json.numbers.at("throughput.one_way.payloads"));
}

TEST(CantpBench, QuickJsonOfGoodputHasEveryCellAgainstTheProtocolLimit) {
    const JsonLeaves json = benchJson({"--quick", "--json", "--only", "goodput"});
    expectMachine(json);
    // 3 bit rates x 4 sizes x 2 patterns.
    ASSERT_EQ(json.containers.count("goodput"), 1u);
    ASSERT_EQ(json.containers.at("goodput"), 24u);
    std::map<std::string, int> seen;
    for (int i = 0; i < 24; ++i) {
        const std::string cell = "goodput." + std::to_string(i);
        for (const char* key : {"bitrate", "payload_bytes", "payloads", "seconds", "limit_seconds",
                                "payload_bytes_per_s", "limit_percent"}) {
            expectPositive(json, cell + "." + key);
        }
        ASSERT_EQ(json.strings.count(cell + ".pattern"), 1u);
        const std::string pattern = json.strings.at(cell + ".pattern");
        EXPECT_TRUE(pattern == "stream" || pattern == "request_response") << pattern;
        const double payloads = json.numbers.at(cell + ".payloads");
        EXPECT_GE(payloads, 2.0) << cell;
        if (pattern == "request_response") {
            EXPECT_EQ(static_cast<long>(payloads) % 2, 0) << cell << ": requests and answers";
        }
        // The rate is the cell's payload bytes over its time.
        const double bytes = payloads * json.numbers.at(cell + ".payload_bytes");
        EXPECT_NEAR(
            json.numbers.at(cell + ".payload_bytes_per_s") * json.numbers.at(cell + ".seconds"),
            bytes, 0.01 * bytes);
        seen[std::to_string(static_cast<long>(json.numbers.at(cell + ".bitrate"))) + "/" +
             std::to_string(static_cast<long>(json.numbers.at(cell + ".payload_bytes"))) + "/" +
             pattern] += 1;
    }
    EXPECT_EQ(seen.size(), 24u);
    for (const char* bitrate : {"125000", "500000", "1000000"}) {
        for (const char* size : {"7", "100", "1000", "4095"}) {
            EXPECT_EQ(seen[std::string(bitrate) + "/" + size + "/stream"], 1) << bitrate << size;
            EXPECT_EQ(seen[std::string(bitrate) + "/" + size + "/request_response"], 1)
                << bitrate << size;
        }
    }
}

TEST(CantpBench, QuickJsonOfMemoryHasBothChildrenAndTheirDifference) {
    const JsonLeaves json = benchJson({"--quick", "--json", "--only", "memory"});
    EXPECT_EQ(json.numbers.at("memory.payload_bytes"), 7.0);
    EXPECT_EQ(json.numbers.at("memory.small_payloads"), 1000.0);
    EXPECT_EQ(json.numbers.at("memory.large_payloads"), 10000.0);
    expectPositive(json, "memory.small_max_rss_kib");
    expectPositive(json, "memory.large_max_rss_kib");
    ASSERT_EQ(json.numbers.count("memory.difference_kib"), 1u);
    EXPECT_EQ(
        json.numbers.at("memory.difference_kib"),
        json.numbers.at("memory.large_max_rss_kib") - json.numbers.at("memory.small_max_rss_kib"));
}

TEST(CantpBench, TextReportShowsEachPartAsAnAlignedTable) {
    Subprocess bench(qbtest::cantpPath(), {"bench", "--quick", "--only", "fc"});
    ASSERT_EQ(bench.wait(120s), 0) << bench.errText();
    const std::vector<std::string> out = bench.outLines();
    ASSERT_GE(out.size(), 6u);
    EXPECT_TRUE(std::regex_match(
        out[0], std::regex(R"(cantp bench: qbcantp \S+ \(.+ build(, sanitizers \S+)?\); .+, )"
                           R"([0-9]+ cores, Linux .+; --quick: .+)")))
        << out[0];
    // The part's header row names the units; the row below holds the figures under them.
    size_t header = 0;
    while (header < out.size() && out[header].find("median us") == std::string::npos) {
        ++header;
    }
    ASSERT_LT(header + 1, out.size());
    EXPECT_EQ(out[header], "  payload B  transfers  median us  p99 us");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out[header + 1], m,
                                 std::regex(R"( +20 +1000 +([0-9]+\.[0-9]) +([0-9]+\.[0-9]))")))
        << out[header + 1];
    EXPECT_EQ(out[header + 1].size(), out[header].size()) << "columns aligned";
    EXPECT_GT(std::stod(m[1]), 0.0);
    EXPECT_GE(std::stod(m[2]), std::stod(m[1]));
}

TEST(CantpBench, UsageErrorsExitTwoWithAClearMessage) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"bench", "--frobnicate"}, "cantp bench: unknown argument '--frobnicate'"},
        {{"bench", "--only", "roundtrip,latency"},
         "cantp bench: --only takes parts among roundtrip, fc, throughput, goodput and memory, "
         "separated by commas, not 'latency'"},
        {{"bench", "--only"}, "cantp bench: option --only needs a value"},
    };
    for (const auto& c : cases) {
        Subprocess bench(qbtest::cantpPath(), c.first);
        EXPECT_EQ(bench.wait(10s), 2);
        EXPECT_EQ(bench.outText(), "");
        const std::vector<std::string> err = bench.errLines();
        ASSERT_EQ(err.size(), 2u);
        EXPECT_EQ(err[0], c.second);
        EXPECT_EQ(err[1], "Try 'cantp bench --help'.");
    }
}

TEST(CantpBench, HelpExplainsEveryPartAndOption) {
    Subprocess bench(qbtest::cantpPath(), {"bench", "--help"});
    EXPECT_EQ(bench.wait(10s), 0);
    const std::string text = bench.outText();
    EXPECT_EQ(text.compare(0, 28, "Usage: cantp bench [options]"), 0) << text;
    for (const char* word :
         {"roundtrip", "fc", "throughput", "goodput", "memory", "--quick", "--only", "--json",
          "--help", "Median", "99th", "getrusage", "context switches", "ru_maxrss", "limit"}) {
        EXPECT_NE(text.find(word), std::string::npos) << word;
    }
}
