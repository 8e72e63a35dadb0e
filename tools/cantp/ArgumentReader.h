// Reading the options of a cantp subcommand.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

/// A wrong command line: the message says what is wrong; the tool prints it with the usage hint
/// and exits with status 2.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Walks the arguments of one subcommand. Options take their value as the next argument
/// ("--id 0x7E0") or after '=' ("--id=0x7E0"); short forms take the next argument ("-i 0x7E0").
class ArgumentReader {
  public:
    ArgumentReader(int argc, char** argv, int first);

    bool done() const { return index >= argc; }
    /// The argument at hand.
    std::string current() const;
    /// Takes the argument at hand (a positional one).
    std::string take();

    /// If the argument at hand is the option (`longName`, e.g. "--id", or `shortName`, e.g.
    /// "-i", or null), takes it with its value and returns true. A missing value is a
    /// UsageError.
    bool option(const char* longName, const char* shortName, std::string& value);
    /// If the argument at hand is the flag, takes it and returns true.
    bool flag(const char* longName, const char* shortName);

    /// A number as people type it: decimal ("2016") or hexadecimal with 0x ("0x7E0", "0X7e0").
    /// Throws UsageError naming `what` unless the whole text is such a number no larger than
    /// `max`.
    static uint64_t toUnsigned(const std::string& what, const std::string& text, uint64_t max);
    /// Like toUnsigned(), for a signed int in [min, max] ("-1" allowed when min < 0).
    static int toInt(const std::string& what, const std::string& text, int min, int max);
    /// A decimal fraction in [min, max] ("0.05", "1e-3").
    static double toDouble(const std::string& what, const std::string& text, double min,
                           double max);
    /// Parses like toUnsigned() without throwing; false if `text` is not such a number.
    static bool parseUnsigned(const std::string& text, uint64_t max, uint64_t& value);

  private:
    int argc;
    char** argv;
    int index;
};
