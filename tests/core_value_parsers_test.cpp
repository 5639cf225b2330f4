// The value parsers turn a display text into the big-endian bytes of a set payload; a rejection
// carries the exact message the user is shown.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "value_parsers.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The message of the std::invalid_argument that parse throws, or "" when it does not throw.
std::string rejection(StrParser&& parser, const std::string& text, float scale = 1.0f) {
    try {
        parser.parse(text, scale);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "";
}

TEST(ValueParsers, IsNumericAcceptsFloatsAndBase10Integers) {
    for (const char* text : {"1e3", " 7", "-2.5", "+3", "0"}) {
        EXPECT_TRUE(StrParser::isNumeric(text)) << text;
    }
    for (const char* text : {"0x10", "", "abc", "12abc", "1,5", "1e39"}) {
        EXPECT_FALSE(StrParser::isNumeric(text)) << text;
    }
}

TEST(ValueParsers, ReverseMemorySwapsEndsInward) {
    unsigned char odd[] = {1, 2, 3, 4, 5};
    reverseMemory(odd, sizeof(odd));
    EXPECT_EQ(Bytes(odd, odd + 5), (Bytes{5, 4, 3, 2, 1}));
    reverseMemory(odd, 1);
    EXPECT_EQ(odd[0], 5);
}

TEST(ValueParsers, IntParserRangeTruncationScaleAndWidths) {
    EXPECT_EQ(IntParser(1).parse("127", 1), Bytes{0x7F});
    EXPECT_EQ(IntParser(1).parse("-128", 1), Bytes{0x80});
    EXPECT_EQ(IntParser(1).parse("12.9", 1), Bytes{0x0C});
    EXPECT_EQ(IntParser(1).parse("-12.9", 1), Bytes{0xF4});  // toward zero: -12
    EXPECT_EQ(IntParser(2).parse("-3.2", 0.1f), (Bytes{0xFF, 0xE0}));
    EXPECT_EQ(IntParser(2).parse("12.5", 0.01f), (Bytes{0x04, 0xE2}));  // 1250
    EXPECT_EQ(IntParser(4).parse("-2", 1), (Bytes{0xFF, 0xFF, 0xFF, 0xFE}));
    EXPECT_EQ(IntParser(8).parse("258", 1), (Bytes{0, 0, 0, 0, 0, 0, 0x01, 0x02}));

    EXPECT_EQ(rejection(IntParser(1), "128"), "IntParser: contains an illegal number, error:128");
    EXPECT_EQ(rejection(IntParser(1), "-129"), "IntParser: contains an illegal number, error:-129");
    EXPECT_EQ(rejection(IntParser(2), "32768"),
              "IntParser: contains an illegal number, error:32768");
    EXPECT_EQ(rejection(IntParser(1), "abc"), "IntParser: contains an illegal number, error:abc");
    EXPECT_EQ(rejection(IntParser(1), "nan"), "IntParser: contains an illegal number, error:nan");
    // Qt accepts a subnormal number that stof reports as out of range.
    EXPECT_EQ(rejection(IntParser(1), "1e-40"), "IntParser: stof() failed, error:stof");
    // Below even a subnormal, Qt's conversion fails too: not numeric, as designed.
    EXPECT_EQ(rejection(IntParser(1), "1e-50"),
              "IntParser: contains an illegal number, error:1e-50");
    // A zero scale makes every value infinite.
    EXPECT_EQ(rejection(IntParser(1), "1", 0.0f), "IntParser: contains an illegal number, error:1");
    // The range is tested before the width; the width message keeps its lower-case "i".
    EXPECT_EQ(rejection(IntParser(3), "5"), "intParser: parser_length is not supported, error:3");
    EXPECT_EQ(rejection(IntParser(3), "1e9"), "IntParser: contains an illegal number, error:1e9");
}

TEST(ValueParsers, UintParserKeepsTheFourAndEightByteLimitOfOne) {
    EXPECT_EQ(UintParser(1).parse("255", 1), Bytes{0xFF});
    EXPECT_EQ(UintParser(2).parse("65535", 1), (Bytes{0xFF, 0xFF}));
    EXPECT_EQ(UintParser(2).parse("2.58", 0.01f), (Bytes{0x01, 0x02}));
    EXPECT_EQ(rejection(UintParser(2), "65536"),
              "UintParser: contains an illegal number, error:65536");
    EXPECT_EQ(rejection(UintParser(2), "-1"), "UintParser: contains an illegal number, error:-1");
    EXPECT_EQ(rejection(UintParser(1), "0x10"),
              "UintParser: contains an illegal number, error:0x10");
    EXPECT_EQ(rejection(UintParser(1), "1e-40"), "UintParser: stof() failed, error:stof");

    EXPECT_EQ(UintParser(4).parse("0", 1), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(UintParser(4).parse("0.5", 1), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(rejection(UintParser(4), "1"), "UintParser: contains an illegal number, error:1");
    EXPECT_EQ(rejection(UintParser(8), "1"), "UintParser: contains an illegal number, error:1");
    // Width 3 is not refused: its limit is 2^24.
    EXPECT_EQ(UintParser(3).parse("65536", 1), (Bytes{0x01, 0x00, 0x00}));
}

TEST(ValueParsers, FloatAndDoubleParsersAreBigEndianIeee) {
    EXPECT_EQ(FloatParser().parse("1.5", 1), (Bytes{0x3F, 0xC0, 0x00, 0x00}));
    EXPECT_EQ(FloatParser().parse("3", 2), (Bytes{0x3F, 0xC0, 0x00, 0x00}));
    EXPECT_EQ(DoubleParser().parse("1", 1), (Bytes{0x3F, 0xF0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(DoubleParser().parse("3", 2), (Bytes{0x3F, 0xF8, 0, 0, 0, 0, 0, 0}));

    EXPECT_EQ(rejection(FloatParser(), "x1"), "FloatParser: contains an illegal number, error:x1");
    EXPECT_EQ(rejection(FloatParser(), "1e-40"), "FloatParser: stof() out of range, error:stof");
    EXPECT_EQ(rejection(DoubleParser(), ""), "DoubleParser: contains an illegal number, error:");
}

TEST(ValueParsers, IPv4ParserNeedsFourDecimalBytes) {
    EXPECT_EQ(IPv4Parser().parse("192.168.1.201"), (Bytes{0xC0, 0xA8, 0x01, 0xC9}));
    EXPECT_EQ(IPv4Parser().parse("0.0.0.255", 0.5f), (Bytes{0, 0, 0, 0xFF}));  // scale ignored
    EXPECT_EQ(rejection(IPv4Parser(), "1.2.3"), "IPv4Parser: ip address, wrong format.");
    EXPECT_EQ(rejection(IPv4Parser(), "1.2.3.256"), "IPv4Parser: contains an illegal number");
    EXPECT_EQ(rejection(IPv4Parser(), "1..3.4"), "IPv4Parser: contains an illegal number");
    EXPECT_EQ(rejection(IPv4Parser(), "1.2.3.-1"), "IPv4Parser: contains an illegal number");
}

TEST(ValueParsers, MacParserNeedsSixHexBytes) {
    EXPECT_EQ(MacParser().parse("00:1A:2b:3c:4D:5e"), (Bytes{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E}));
    EXPECT_EQ(MacParser().parse("a:b:c:d:e:f"), (Bytes{0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F}));
    EXPECT_EQ(rejection(MacParser(), "00:1A:2B:3C:4D"), "MacParser: ip address, wrong format.");
    EXPECT_EQ(rejection(MacParser(), "00:1A:2B:3C:4D:100"),
              "MacParser: contains an illegal number");
    EXPECT_EQ(rejection(MacParser(), "00:1A:2B::4D:5E"), "MacParser: contains an illegal number");
    EXPECT_EQ(rejection(MacParser(), "00:1A:2B:3C:4D:G0"), "MacParser: contains an illegal number");
}

TEST(ValueParsers, RawParserReturnsNothingAndSaysSo) {
    testing::internal::CaptureStdout();
    const Bytes bytes = RawParser().parse("0102", 1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(bytes.empty());
    EXPECT_EQ(out, "not developed\n");
}

TEST(ValueParsers, IntegersAreExactOverTheirFullWidth) {
    // min, max and one past each, for every signed width; nothing wraps or loses a digit.
    const std::pair<unsigned long, const char*> bounds[] = {
        {1, "128"}, {2, "32768"}, {4, "2147483648"}, {8, "9223372036854775808"}};
    for (const auto& [width, limit] : bounds) {
        const std::string max = std::to_string(std::stoull(limit) - 1);
        const std::string min = std::string("-") + limit;
        const std::string belowMin = "-" + std::to_string(std::stoull(limit) + 1);
        Bytes maxBytes(width, 0xFF), minBytes(width, 0x00);
        maxBytes[0] = 0x7F;
        minBytes[0] = 0x80;
        EXPECT_EQ(IntParser(width).parse(max, 1), maxBytes) << max;
        EXPECT_EQ(IntParser(width).parse(min, 1), minBytes) << min;
        EXPECT_NE(rejection(IntParser(width), limit), "") << limit;
        EXPECT_NE(rejection(IntParser(width), belowMin), "") << belowMin;
    }
    EXPECT_EQ(IntParser(4).parse("16777217", 1), (Bytes{0x01, 0x00, 0x00, 0x01}));
    EXPECT_EQ(IntParser(8).parse("9007199254740993", 1),
              (Bytes{0x00, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01}));
    EXPECT_EQ(UintParser(1).parse("255", 1), Bytes{0xFF});
    EXPECT_NE(rejection(UintParser(1), "256"), "");
    EXPECT_NE(rejection(UintParser(1), "-0.5"), "");

    // Scales are the decimals the catalogue wrote: 0.001 is a thousandth, not 0.0010000000475.
    EXPECT_EQ(IntParser(4).parse("-1.255", 0.001f), (Bytes{0xFF, 0xFF, 0xFB, 0x19}));  // -1255
    EXPECT_EQ(IntParser(4).parse("2147483.647", 0.001f), (Bytes{0x7F, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(UintParser(2).parse("655.35", 0.01f), (Bytes{0xFF, 0xFF}));
    // Exponents are read as the number they write; the result is what the range check sees.
    EXPECT_EQ(UintParser(2).parse("5e3", 1), (Bytes{0x13, 0x88}));
    EXPECT_EQ(IntParser(1).parse("0.9e1", 1), Bytes{0x09});
    EXPECT_EQ(IntParser(2).parse("-1255e-3", 0.001f), (Bytes{0xFB, 0x19}));
}

TEST(ValueParsers, FloatsRejectWhatTheTypeCannotHold) {
    EXPECT_EQ(FloatParser().parse("0.1", 1), (Bytes{0x3D, 0xCC, 0xCC, 0xCD}));       // rounded once
    EXPECT_EQ(FloatParser().parse("16777217", 1), (Bytes{0x4B, 0x80, 0x00, 0x00}));  // ties to even
    EXPECT_EQ(DoubleParser().parse("0.1", 1),
              (Bytes{0x3F, 0xB9, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9A}));
    EXPECT_EQ(DoubleParser().parse("12.5", 0.01f),
              (Bytes{0x40, 0x93, 0x88, 0, 0, 0, 0, 0}));  // 1250
    for (const char* text : {"inf", "-inf", "nan"}) {
        EXPECT_EQ(rejection(FloatParser(), text),
                  std::string("FloatParser: contains an illegal number, error:") + text);
        EXPECT_EQ(rejection(DoubleParser(), text),
                  std::string("DoubleParser: contains an illegal number, error:") + text);
    }
    for (const float scale : {0.5f, 0.25f})  // 6e38 rounds past the largest float; 1.2e39 is past
        EXPECT_EQ(rejection(FloatParser(), "3e38", scale),
                  "FloatParser: stof() out of range, error:stof");
    // The number test is a float conversion even for a double, as designed.
    EXPECT_EQ(rejection(DoubleParser(), "1e39"),
              "DoubleParser: contains an illegal number, error:1e39");
    // Beyond float, within double; the scale is the catalogue's decimal 1e-30, so exactly 3e68.
    const double beyondFloat = 3e68;
    uint64_t bits = 0;
    std::memcpy(&bits, &beyondFloat, sizeof bits);
    Bytes expected(8);
    for (int i = 0; i < 8; ++i) expected[7 - i] = static_cast<unsigned char>(bits >> (8 * i));
    EXPECT_EQ(DoubleParser().parse("3e38", 1e-30f), expected);
    EXPECT_EQ(rejection(FloatParser(), "1", 0.0f), "FloatParser: stof() out of range, error:stof");
    EXPECT_EQ(rejection(DoubleParser(), "1", 0.0f),
              "DoubleParser: stod() out of range, error:stod");
}

TEST(ValueParsers, LimitsAreCheckedOnTheNumberThatIsWritten) {
    EXPECT_EQ(checkDecimalWithinLimits("5e3", 1, 1, 4094, 2147483647.0), LimitCheck::kOutside);
    EXPECT_EQ(checkDecimalWithinLimits("0.9e1", 1, -5, 5, 2147483647.0), LimitCheck::kOutside);
    EXPECT_EQ(checkDecimalWithinLimits("4094.9", 1, 1, 4094, 2147483647.0),
              LimitCheck::kWithin);  // written 4094
    EXPECT_EQ(checkDecimalWithinLimits("-5.9", 1, -5, 5, 2147483647.0), LimitCheck::kWithin);
    EXPECT_EQ(checkDecimalWithinLimits("5.09", 10, 5, 50, 2147483647.0), LimitCheck::kWithin);
    EXPECT_EQ(checkDecimalWithinLimits("5.1", 10, 5, 50, 2147483647.0), LimitCheck::kOutside);
    // A floating type is written with its fraction, so the fraction counts.
    EXPECT_EQ(checkDecimalWithinLimits("10.99", 1, -10, 10, 3.4e38, false), LimitCheck::kOutside);
    EXPECT_EQ(checkDecimalWithinLimits("-10.01", 1, -10, 10, 3.4e38, false), LimitCheck::kOutside);
    EXPECT_EQ(checkDecimalWithinLimits("9.99", 1, -10, 10, 3.4e38, false), LimitCheck::kWithin);
    EXPECT_FALSE(encodesInteger("float32"));
    EXPECT_TRUE(encodesInteger("uint16"));
    // Beyond what the standard conversion takes: reported as that conversion's range failure.
    EXPECT_EQ(checkDecimalWithinLimits("1e400", 1, -5, 5, 2147483647.0),
              LimitCheck::kBeyondConversion);
    EXPECT_EQ(checkDecimalWithinLimits("2147483648", 1, -5, 5, 2147483647.0),
              LimitCheck::kBeyondConversion);
    EXPECT_EQ(checkDecimalWithinLimits("2147483647.9", 1, -5, 5, 2147483647.0),
              LimitCheck::kOutside);
    EXPECT_EQ(checkDecimalWithinLimits("12,5", 1, 0, 100, 2147483647.0), LimitCheck::kNotANumber);
    EXPECT_EQ(checkDecimalWithinLimits("0x10", 1, 0, 100, 2147483647.0), LimitCheck::kNotANumber);
}

// A refusal names the type's range only for a number the type cannot hold, in display units.
TEST(ValueParsers, TypeRangeIsNamedForNumbersTheTypeCannotHold) {
    EXPECT_EQ(typeRangeIfOutside("int8", "-128", 1), "");
    EXPECT_EQ(typeRangeIfOutside("int8", "127", 1), "");
    EXPECT_EQ(typeRangeIfOutside("int8", "-129", 1), "-128 to 127");
    EXPECT_EQ(typeRangeIfOutside("uint16", "70000", 1), "0 to 65535");
    EXPECT_EQ(typeRangeIfOutside("uint64", "1e5000000", 1), "0 to 18446744073709551615");
    EXPECT_EQ(typeRangeIfOutside("int8", "0.128", 0.001f), "-0.128 to 0.127");
    EXPECT_EQ(typeRangeIfOutside("int16", "40000", -1), "-32767 to 32768");
    // Not a number, not an integer type, or a width no parser has: nothing to add.
    for (const auto& [type, text] : {std::pair<const char*, const char*>{"int8", "abc"},
                                     {"float32", "1e40"},
                                     {"int12", "99999"},
                                     {"IP", "300"}})
        EXPECT_EQ(typeRangeIfOutside(type, text, 1), "") << type << " " << text;

    int64_t tenths = 0;
    EXPECT_TRUE(decimalInTenths("1.5e1", tenths));
    EXPECT_EQ(tenths, 150);
    EXPECT_TRUE(decimalInTenths("-0.50", tenths));
    EXPECT_EQ(tenths, -5);
    for (const char* text : {"12.25", "abc", "1e30"}) EXPECT_FALSE(decimalInTenths(text, tenths));
}

// The front end refuses what the integer writer would cut: a fraction of the variable's step.
TEST(ValueParsers, AFractionOfAnIntegerStepIsNamedWithTheStep) {
    EXPECT_EQ(stepIfFractionCut("uint16", "1.5", 1), "1");
    EXPECT_EQ(stepIfFractionCut("int32", "1.0005", 0.001f), "0.001");
    EXPECT_EQ(stepIfFractionCut("int16", "0.05", -0.1f), "0.1");
    for (const auto& [type, text] : {std::pair<const char*, const char*>{"uint16", "2.0e3"},
                                     {"float32", "1.5"},
                                     {"int8", "abc"},
                                     {"int8", "-12.3e1"}})
        EXPECT_EQ(stepIfFractionCut(type, text, 0.1f), "") << type << " " << text;
}

}  // namespace
