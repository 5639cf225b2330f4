#pragma once

// Value parsers: a display text and the variable's scale in, the big-endian bytes of a set
// command's payload out. Every rejection is a std::invalid_argument with a message for the user.

#include <QString>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

void reverseMemory(void* data, unsigned long size);

class StrParser {
  public:
    virtual ~StrParser() = default;
    virtual std::vector<unsigned char> parse(const std::string& text, float scale) = 0;
    static bool isNumeric(const QString& text);
};

class IntParser : public StrParser {
  public:
    explicit IntParser(unsigned long width) : width_(width) {}
    std::vector<unsigned char> parse(const std::string& text, float scale) override;

  private:
    unsigned long width_;
};

class UintParser : public StrParser {
  public:
    explicit UintParser(unsigned long width) : width_(width) {}
    std::vector<unsigned char> parse(const std::string& text, float scale) override;

  private:
    unsigned long width_;
};

class FloatParser : public StrParser {
  public:
    std::vector<unsigned char> parse(const std::string& text, float scale) override;
};

class DoubleParser : public StrParser {
  public:
    std::vector<unsigned char> parse(const std::string& text, float scale) override;
};

class IPv4Parser : public StrParser {
  public:
    std::vector<unsigned char> parse(const std::string& text, float scale = 1.0f) override;
};

class MacParser : public StrParser {
  public:
    std::vector<unsigned char> parse(const std::string& text, float scale = 1.0f) override;
};

class RawParser : public StrParser {
  public:
    std::vector<unsigned char> parse(const std::string& text, float scale = 1.0f) override;
};

// kBeyondConversion: the text's magnitude (truncated) exceeds `conversionLimit`, the largest
// number the check's standard conversion (stoi, stof) would have taken.
enum class LimitCheck { kWithin, kOutside, kNotANumber, kBeyondConversion };

// Compares the exact decimal value of `text` (C-locale syntax, exponents allowed) times `factor`
// with the catalogue limits [minVal, maxVal]: truncated toward zero first for the integer types
// (whose writer truncates), untruncated for the floating types (whose writer keeps the fraction,
// so 10.99 is beyond a limit of 10). The same reading of the text as the parsers use, so that
// what is checked is what is written.
LimitCheck checkDecimalWithinLimits(const std::string& text, float factor, int32_t minVal,
                                    int32_t maxVal, double conversionLimit,
                                    bool integerEncoding = true);
// Whether the writer of this var_type encodes an integer (every type but float32 and double).
bool encodesInteger(const std::string& varType);

// For an integer var_type ("int8" ... "uint64") and a number that the type cannot hold once
// divided by `scale`: the type's whole range in the variable's display unit, e.g.
// "-2147483.648 to 2147483.647" for int32 with a scale of 0.001. Empty otherwise (the number
// fits, the text is not a number, the type is not an integer one).
std::string typeRangeIfOutside(const std::string& varType, const std::string& text, float scale);

// For an integer var_type and a number whose quotient by `scale` is not whole, so that the writer
// would cut its fraction: the step the variable is kept in, in its display unit ("1", "0.01").
// Empty otherwise (a whole quotient, a type that keeps fractions, a text that is not a number).
std::string stepIfFractionCut(const std::string& varType, const std::string& text, float scale);

// The value of `text` (the parsers' number forms) in tenths, when it is a whole number of them
// that fits; false otherwise ("12.25", "abc").
bool decimalInTenths(const std::string& text, int64_t& tenths);

// The parser that writes a variable of this var_type ("int8" ... "uint64", "float32", "double",
// "IP", "MAC", "raw"); null for a type that cannot be written.
std::unique_ptr<StrParser> parserForVarType(const std::string& varType);
