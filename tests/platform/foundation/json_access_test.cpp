#include "foundation/json_access.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace sorvan::json {
namespace {

constexpr std::string_view kFormatError =
    "The data couldn't be read because it isn't in the correct format.";

Value doc(std::string_view text) {
    auto parsed = parse(text);
    EXPECT_TRUE(parsed.value.has_value()) << text << ": " << parsed.errorDescription;
    return parsed.value.value_or(Value());
}

// Runs f and returns the StructureError's reason, or "no throw".
template <typename F>
std::string reasonOf(F f) {
    try {
        f();
    } catch (const StructureError& e) {
        return e.reason();
    }
    return "no throw";
}

TEST(JsonAccess, ParseTakesOnlyAnObjectOrAnArrayAtTheTop) {
    for (std::string_view bad : {"", "   ", "{", "{\"a\":}", "[1,]", "nul", "{'a':1}", "[1] x",
                                 "\"text\"", "12", "null", "true", "[\"\xff\"]"}) {
        const auto parsed = parse(bad);
        EXPECT_FALSE(parsed.value.has_value()) << bad;
        EXPECT_EQ(parsed.errorDescription.rfind(kFormatError, 0), 0u) << parsed.errorDescription;
        EXPECT_GT(parsed.errorDescription.size(), kFormatError.size()) << "no detail for " << bad;
        EXPECT_EQ(parsed.errorDescription.find("json.exception"), std::string::npos);
    }
    const auto ok = parse(" {\"data\":[1,\"2\",null]} \n");
    ASSERT_TRUE(ok.value.has_value());
    EXPECT_TRUE(ok.errorDescription.empty());
    EXPECT_EQ(ok.value->at("data").size(), 3u);
}

TEST(JsonAccess, ParseRefusesNestingDeeperThanAWalkCanFollow) {
    auto nested = [](std::size_t levels, std::string_view open, std::string_view close) {
        std::string text;
        for (std::size_t i = 0; i < levels; ++i) {
            text += open;
        }
        for (std::size_t i = 0; i < levels; ++i) {
            text += close;
        }
        return text;
    };
    // 50,000 levels in 100 KB, arrays or objects: refused, naming where the limit was passed.
    for (const auto& deep : {nested(50000, "[", "]"), nested(50000, "{\"a\":", "}")}) {
        const auto parsed = parse(deep);
        EXPECT_FALSE(parsed.value.has_value());
        const std::string at = deep[0] == '[' ? "257" : "1281";
        EXPECT_EQ(
            parsed.errorDescription,
            std::string(kFormatError) + " (nested deeper than 256 levels at byte " + at + ")");
    }
    const auto limit = parse(nested(256, "[", "]"));
    ASSERT_TRUE(limit.value.has_value()) << limit.errorDescription;
    EXPECT_FALSE(limit.value->dump().empty());
    EXPECT_FALSE(parse(nested(257, "[", "]")).value.has_value());
    // Brackets inside strings, escaped quotes included, are text, not levels.
    const auto text = parse("[\"" + nested(300, "[\\\"", "]") + "\"]");
    ASSERT_TRUE(text.value.has_value()) << text.errorDescription;
    // Closers beyond the openers do not lend depth to what follows.
    EXPECT_FALSE(parse(std::string(300, ']') + nested(200, "[", "]")).value.has_value());
    EXPECT_EQ(parse(std::string(300, ']') + nested(300, "[", "]")).errorDescription,
              std::string(kFormatError) + " (nested deeper than 256 levels at byte 557)");
}

TEST(JsonAccess, WalkThrowsNamingWhatWasFound) {
    const Value root = doc(R"({"obj":{"k":"v"},"arr":[1,2],"nul":null,"num":3,"str":"s",
                               "yes":true})");
    auto at = [&](const char* key) -> const Value& { return root.at(key); };
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[&] { member(at("arr"), "k"); }, "expected an object, found array"},
        {[&] { member(at("nul"), "k"); }, "expected an object, found null"},
        {[&] { member(at("str"), "k"); }, "expected an object, found string"},
        {[&] { element(at("obj"), 0); }, "expected an array, found object"},
        {[&] { element(at("nul"), 0); }, "expected an array, found null"},
        {[&] { element(at("arr"), 2); }, "index 2 beyond the end of an array of 2 elements"},
        {[&] { arrayItems(at("num")); }, "expected an array, found number"},
        {[&] { arrayItems(at("nul")); }, "expected an array, found null"},
        {[&] { stringValue(at("num")); }, "expected a string, found number"},
        {[&] { stringValue(at("yes")); }, "expected a string, found boolean"},
        {[&] { stringValue(at("arr")); }, "expected a string, found array"},
        {[&] { requireNumeric(at("nul"), "lat"); },
         "lat: expected a number or a string, found null"},
        {[&] { requireNumeric(at("obj")); }, "expected a number or a string, found object"},
        {[&] { requireNumeric(at("arr"), "lon"); },
         "lon: expected a number or a string, found array"},
        {[&] { requireText(at("nul"), "icon"); }, "icon: expected a string, found null"},
        {[&] { requireText(at("num"), "icon"); }, "icon: expected a string, found number"},
        {[&] { requireText(at("yes")); }, "expected a string, found boolean"},
        // A null in the answer is a value of the wrong kind, not an absent member.
        {[&] { stringValue(at("nul")); }, "expected a string, found null"},
        {[&] { integerValue(at("nul")); }, "expected a number, found null"},
        {[&] { doubleValue(at("nul")); }, "expected a number, found null"},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(reasonOf(cases[i].first), cases[i].second) << "case " << i;
    }
}

// Members a walk reads as numbers or as text: what passes, and the textual forms.
TEST(JsonAccess, RequiredKindsPassWhatTheWalkCanReadAndTextualFormsOfScalars) {
    const Value root = doc(R"({"n":3.5,"s":"x","b":false,"i":-12,"f":12.0,"z":null,"a":[]})");
    for (const char* key : {"n", "s", "b", "i"}) {
        EXPECT_EQ(&requireNumeric(root.at(key)), &root.at(key)) << key;
    }
    EXPECT_EQ(&requireNumeric(member(root, "gone")), &missing());
    EXPECT_EQ(&requireText(root.at("s")), &root.at("s"));
    EXPECT_EQ(&requireText(member(root, "gone")), &missing());
    EXPECT_EQ(textualForm(root.at("s")), "x");
    EXPECT_EQ(textualForm(root.at("i")), "-12");
    EXPECT_EQ(textualForm(root.at("f")), "12");
    EXPECT_EQ(textualForm(root.at("n")), "3.5");
    EXPECT_EQ(textualForm(root.at("b")), "0");
    EXPECT_EQ(textualForm(root.at("z")), std::nullopt);
    EXPECT_EQ(textualForm(root.at("a")), std::nullopt);
    EXPECT_EQ(textualForm(member(root, "gone")), std::nullopt);
}

TEST(JsonAccess, MissingBranchesReadAsNothing) {
    const Value root = doc(R"({"obj":{"k":"v"},"nul":null,"arr":["a"]})");
    const Value& absent = member(root, "absent");
    EXPECT_TRUE(absent.is_null());
    EXPECT_TRUE(isMissing(absent));
    EXPECT_FALSE(isMissing(member(root, "nul")));  // a JSON null is not missing
    EXPECT_TRUE(isMissing(element(member(member(absent, "a"), "b"), 7)));
    EXPECT_TRUE(arrayItems(absent).empty());
    EXPECT_EQ(stringValue(absent), std::nullopt);
    EXPECT_EQ(integerValue(absent), 0);
    EXPECT_EQ(doubleValue(absent), 0.0);
    // Absent all the way down reads as nothing too, however deep the walk went.
    EXPECT_EQ(integerValue(member(member(absent, "a"), "b")), 0);
    EXPECT_EQ(stringValue(element(absent, 3)), std::nullopt);
    EXPECT_EQ(stringValue(member(member(root, "obj"), "k")), "v");
    EXPECT_EQ(stringValue(element(member(root, "arr"), 0)), "a");
    ASSERT_EQ(arrayItems(member(root, "arr")).size(), 1u);
}

TEST(JsonAccess, IntegerValueCoercions) {
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
    const Value root = doc(R"([3.7, -3.7, 42, -0.0, 1e300, -1e300, 18446744073709551615, true,
        false, {}, [], "3.9", "  -12abc", "+7", "- 5", "-  5", "1e3", "0x1A", "abc", "",
        " ", "+", "-", "\t\n 8", "007", "9223372036854775807", "9223372036854775808",
        "99999999999999999999999", "-9223372036854775808", "-9223372036854775809",
        "-99999999999999999999999", "12 34", "+-3", "٣"])");
    const std::vector<std::int64_t> expected = {
        3, -3, 42, 0, kMax, kMin, kMax, 1, 0,    0,    0,    3,    -12,  7,    -5, -5, 1,
        0, 0,  0,  0, 0,    0,    8,    7, kMax, kMax, kMax, kMin, kMin, kMin, 12, 0,  0};
    ASSERT_EQ(root.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(integerValue(root[i]), expected[i]) << root[i].dump();
    }
    EXPECT_EQ(integerValue(missing()), 0);
}

TEST(JsonAccess, DoubleValueCoercions) {
    const Value root = doc(R"([2.5, -7, 18446744073709551615, true, false, {}, [],
        "1,5", "inf", "nan", "  -2.5e3x", "+.5", ".", "1e", "1e+", "1.2.3", "0x1A", "abc",
        "", "\t3", "--1", "- 1", "1E2", "5e-1", "1e400"])");
    const std::vector<double> expected = {2.5,     -7,    18446744073709551615.0,
                                          1,       0,     0,
                                          0,       1.0,   0,
                                          0,       -2500, 0.5,
                                          0,       1,     1,
                                          1.2,     0,     0,
                                          0,       3,     0,
                                          0,       100,   0.5,
                                          HUGE_VAL};
    ASSERT_EQ(root.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(doubleValue(root[i]), expected[i]) << root[i].dump();
    }
}

TEST(JsonAccess, EqualAsStringComparesTextualForms) {
    // [a, b, equal]: doubles print shortest round-trip, integral ones without ".0"; booleans
    // are 1 and 0; null, objects and arrays have no textual form; nothing is trimmed.
    const Value cases = doc(R"([[12, "12", true], [12.0, "12", true], [12, 12.0, true],
        [12.0, "12.0", false], [12.5, "12.5", true], [-3, "-3", true], [0.1, "0.1", true],
        [1e21, "1e+21", true], [18446744073709551615, "18446744073709551615", true],
        [true, "1", true], [false, "0", true], [true, "true", false], [null, "null", false],
        [null, null, false], [{}, {}, false], [[], "", false], ["", "", true], ["", "x", false],
        [12, " 12", false]])");
    for (const auto& c : cases) {
        EXPECT_EQ(equalAsString(c[0], c[1]), c[2].get<bool>()) << c.dump();
    }
    EXPECT_FALSE(equalAsString(missing(), missing()));
}

}  // namespace
}  // namespace sorvan::json
