// The flat document must read every text exactly as the tree parser does: the same texts
// accepted with the same values, the same refused with the same description, and the same
// coercions and faults through its accessors.
#include "foundation/json_document.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace sorvan::json {
namespace {

// Runs f and returns the StructureError's reason, "no throw", or the value f gives as text.
template <typename F>
std::string outcomeOf(F f) {
    try {
        return "= " + f();
    } catch (const StructureError& e) {
        return "raised " + e.reason();
    }
}

// Whether both parsers agree on text: both refuse it with one description, or both accept it
// and hold the same value (compared by its dump, which tells -0.0 from 0 and keeps number
// kinds apart).
::testing::AssertionResult agree(std::string_view text) {
    std::string why;
    const auto doc = Document::parse(text, &why);
    const auto tree = parse(text);
    if (!doc && !tree.value) {
        if (why == tree.errorDescription) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << "descriptions differ: " << why << " | " << tree.errorDescription;
    }
    if (!doc || !tree.value) {
        return ::testing::AssertionFailure()
               << (doc ? "only the document accepts " : "only the tree accepts ") << text;
    }
    const auto mine = doc->root().toValue().dump();
    const auto theirs = tree.value->dump();
    if (mine != theirs) {
        return ::testing::AssertionFailure() << mine << " != " << theirs;
    }
    return ::testing::AssertionSuccess();
}

const std::vector<std::string>& acceptedTexts() {
    static const std::vector<std::string> texts = {
        R"({"data":[{"id":"A001","name":"สยาม","lat":13.7462,"lon":100.5347,"icon":"mall.png"}]})",
        " [ ] ",
        "{}",
        "\xEF\xBB\xBF{\"bom\":1}",
        R"({"a":1,"a":2,"b":{"a":3},"a":[4]})",
        R"(["\"\\\/\b\f\n\r\t","\u0041\u00e9\u0e2a","\ud83d\ude00","\u0000x","\uD834\uDD1E"])",
        "[\"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF\""
        "]",
        "[0,-0,1,-1,9223372036854775807,-9223372036854775808,18446744073709551615]",
        "[18446744073709551616,-9223372036854775809,123456789012345678901234567890]",
        "[0.0,-0.0,1.5,-1.5e3,1E2,1e-2,2.5E+3,1e22,1e23,9007199254740993,0.1,3.141592653589793]",
        "[1e-400,4.9e-324,2.2250738585072014e-308,1.7976931348623157e308,-1e-400]",
        "[123456789012345678901.5,0.00000000000000000000000000001,1.00000000000000000001]",
        // At the edges of 19 gathered digits, of 64-bit integers and of exact doubles.
        "[9999999999999999999,-9999999999999999999,10000000000000000000,-9223372036854775807]",
        "[1234567890123456789.5,0.1234567890123456789,0.000123,-0.0e5,9007199254740992.5]",
        "[99999999999999999999,-99999999999999999999,1.7976931348623157e308,1e-22,1e-23]",
        "[true,false,null,{\"t\":true,\"n\":null}]",
        "\t\r\n[\n1 ,\t2\r]\n",
        "[\"\x7F\"]",
    };
    return texts;
}

const std::vector<std::string>& refusedTexts() {
    static const std::vector<std::string> texts = {
        "",
        "   ",
        "{",
        "}",
        "[1,]",
        "{\"a\":}",
        "{\"a\" 1}",
        "{a:1}",
        "{'a':1}",
        "[1] x",
        "[1][2]",
        "\"text\"",
        "12",
        "null",
        "true",
        "nul",
        "[tru]",
        "[nulll]",
        "[01]",
        "[-]",
        "[1.]",
        "[.5]",
        "[+1]",
        "[1e]",
        "[1e+]",
        "[0x10]",
        "[1e400]",
        "[-1e400]",
        "[123456789012345678901234567890e300]",
        "[NaN]",
        "[Infinity]",
        "[\"\\x\"]",
        "[\"\\u12\"]",
        "[\"\\uD800\"]",
        "[\"\\uD800x\"]",
        "[\"\\uD800\\u0041\"]",
        "[\"\\uDC00\"]",
        "[\"a\nb\"]",
        "[\"\x01\"]",
        "[\"\xFF\"]",
        "[\"\xC0\x80\"]",
        "[\"\xC1\xBF\"]",
        "[\"\xE0\x80\x80\"]",
        "[\"\xED\xA0\x80\"]",
        "[\"\xF4\x90\x80\x80\"]",
        "[\"\xF5\x80\x80\x80\"]",
        "[\"\xC3\"]",
        "[\"\xE2\x82\"]",
        "[\"abc",
        std::string("[1,\0 2]", 7),
        "\xEF\xBB{}",
        "\xEF{}",
        "\xEF\xBB\xBF",
        "[1,2",
        "[1",
        "[-",
        "[1.",
        "[1e5",
        "[0.0e",
        "[1e-",
        "{\"a\":1,}",
        "[,1]",
        "\v[]",
        "[1]\f",
    };
    return texts;
}

std::string nested(std::size_t levels) {
    return std::string(levels, '[') + std::string(levels, ']');
}

TEST(JsonDocument, AcceptsAndRefusesWhatTheTreeParserDoes) {
    for (const auto& text : acceptedTexts()) {
        EXPECT_TRUE(Document::parse(text, nullptr)) << text;
        EXPECT_TRUE(agree(text)) << text;
    }
    for (const auto& text : refusedTexts()) {
        std::string why;
        EXPECT_FALSE(Document::parse(text, &why)) << text;
        EXPECT_EQ(why.rfind("The data couldn't be read because it isn't in the correct format.", 0),
                  0u)
            << text;
        EXPECT_TRUE(agree(text)) << text;
    }
    EXPECT_TRUE(Document::parse(nested(256), nullptr));
    EXPECT_FALSE(Document::parse(nested(257), nullptr));
    EXPECT_TRUE(agree(nested(257)));
    EXPECT_TRUE(agree("{\"a\":" + nested(255) + "}"));
    EXPECT_TRUE(agree("{\"a\":" + nested(256) + "}"));
    // Values denser than answers are (one in two bytes) outgrow the first guess of the list.
    std::string dense = "[";
    for (int k = 0; k < 5000; ++k) {
        dense += std::to_string(k % 10) + (k % 7 == 0 ? ",[]," : ",");
    }
    EXPECT_TRUE(agree(dense + "{}]"));
}

// Strings are scanned a word at a time: a byte that needs a look of its own (a quote, an escape,
// a control character, the first byte of a multi-byte character, a malformed one) is found at
// every place within a word, and plain bytes at the edges of the ranges are let through.
TEST(JsonDocument, FindsEveryByteOfAStringThatNeedsALookAtAnyPlace) {
    const std::vector<std::string> bytes = {"\"",
                                            "\\n",
                                            "\\u00e9",
                                            "\\x",
                                            "\x01",
                                            "\x1F",
                                            " ",
                                            "\x7F",
                                            "\xC3\xA9",
                                            "\xE0\xA0\x80",
                                            "\xF0\x9F\x98\x80",
                                            "\xC3",
                                            "\x80",
                                            "\xFF",
                                            "!",
                                            "#",
                                            "[",
                                            "]"};
    for (const auto& special : bytes) {
        for (std::size_t at = 0; at < 20; ++at) {
            for (std::size_t after = 0; after < 10; after += 3) {
                const std::string text =
                    "[\"" + std::string(at, 'a') + special + std::string(after, 'b') + "\",1]";
                EXPECT_TRUE(agree(text)) << text;
            }
        }
    }
}

// Random edits of answers, biased toward the bytes that matter to a JSON reader, so that the
// two parsers meet every kind of broken text, not only the ones listed above.
TEST(JsonDocument, AgreesWithTheTreeParserOnEditedAnswers) {
    static const std::string kBytes =
        "{}[]\",:\\/-+.eE0123456789 \t\nabfnrtu\x01\x7F\xC2\xE0\xED\xF0\xF4\xFF\x80\xBF";
    std::mt19937 random(20261123);
    std::size_t accepted = 0, refused = 0;
    for (const auto& seed : acceptedTexts()) {
        for (int round = 0; round < 1500; ++round) {
            std::string text = seed;
            const int edits = 1 + static_cast<int>(random() % 3);
            for (int k = 0; k < edits && !text.empty(); ++k) {
                const std::size_t at = random() % text.size();
                const char byte = kBytes[random() % kBytes.size()];
                switch (random() % 4) {
                    case 0:
                        text[at] = byte;
                        break;
                    case 1:
                        text.insert(text.begin() + static_cast<std::ptrdiff_t>(at), byte);
                        break;
                    case 2:
                        text.erase(at, 1);
                        break;
                    default:
                        text.resize(at);
                        break;
                }
            }
            ASSERT_TRUE(agree(text)) << "text: " << text;
            (Document::parse(text, nullptr) ? accepted : refused) += 1;
        }
    }
    // Both outcomes must be well represented for the agreement to mean something.
    EXPECT_GT(accepted, 1000u);
    EXPECT_GT(refused, 1000u);
}

TEST(JsonDocument, AccessorsReadLikeTheTreeAccessors) {
    const std::string text = R"({"int":-12,"big":18446744073709551615,"float":-2.75,"huge":1e300,
        "t":true,"f":false,"null":null,"s":"  -42.5e1xyz","e":"\u0031\u0032","empty":"",
        "arr":[1,"2",{"k":3}],"obj":{"k":"v","k":"w"},"sp":"- 7","eu":"1,5"})";
    const auto doc = Document::parse(text, nullptr);
    ASSERT_TRUE(doc);
    const auto tree = *parse(text).value;
    std::vector<std::string> keys = {"int", "big",   "float", "huge", "t",  "f",  "null",  "s",
                                     "e",   "empty", "arr",   "obj",  "sp", "eu", "absent"};
    for (const auto& key : keys) {
        const Node mine = member(doc->root(), key);
        const Value& theirs = member(tree, key);
        EXPECT_EQ(mine.isMissing(), isMissing(theirs)) << key;
        EXPECT_EQ(outcomeOf([&] { return std::to_string(integerValue(mine)); }),
                  outcomeOf([&] { return std::to_string(integerValue(theirs)); }))
            << key;
        EXPECT_EQ(outcomeOf([&] { return std::to_string(doubleValue(mine)); }),
                  outcomeOf([&] { return std::to_string(doubleValue(theirs)); }))
            << key;
        EXPECT_EQ(outcomeOf([&] { return stringValue(mine).value_or("(none)"); }),
                  outcomeOf([&] { return stringValue(theirs).value_or("(none)"); }))
            << key;
        EXPECT_EQ(outcomeOf([&] { return std::to_string(member(mine, "k").isMissing()); }),
                  outcomeOf([&] { return std::to_string(isMissing(member(theirs, "k"))); }))
            << key;
        EXPECT_EQ(outcomeOf([&] { return std::to_string(items(mine).size()); }),
                  outcomeOf([&] { return std::to_string(arrayItems(theirs).size()); }))
            << key;
        for (std::size_t index : {0u, 2u, 3u}) {
            EXPECT_EQ(outcomeOf([&] { return element(mine, index).toValue().dump(); }),
                      outcomeOf([&] { return element(theirs, index).dump(); }))
                << key << "[" << index << "]";
        }
    }
    // An absent branch reads as zeros and empties however deep the walk goes.
    const Node absent = member(member(doc->root(), "absent"), "deeper");
    EXPECT_TRUE(absent.isMissing());
    EXPECT_EQ(integerValue(absent), 0);
    EXPECT_TRUE(items(absent).empty());
    EXPECT_EQ(stringValue(member(member(doc->root(), "obj"), "k")), "w");
}

// Several keys looked up in one walk read exactly as one member() call for each: the last of
// equal keys, keys written with escapes, keys of equal length that differ first or last, long
// keys, the empty key, absent keys, keys asked for twice, many keys, and the same fault for
// what is no object.
TEST(JsonDocument, MembersReadAsOneMemberCallForEachKey) {
    std::string text =
        R"({"lat":1,"lon":2,"lat":3,"l\u0061t":4,"\u006Con":5,"":6,"nested":{"lat":7},"Lat":8,)"
        R"("lbt":9,"a_key_longer_than_twenty_four_bytes":10,"a_key_longer_than_twenty_four_byteZ":11)";
    const std::string longer = "a_key_longer_than_twenty_four_bytes";
    std::vector<std::string> keys = {"lat", "lon", "",    "nested", "absent", "lat",
                                     "la",  "Lat", "lbt", "lct",    longer,   longer + "Z"};
    for (int k = 0; k < 20; ++k) {
        text += ",\"k" + std::to_string(k) + "\":" + std::to_string(k);
        keys.push_back("k" + std::to_string(k));
    }
    const auto doc = Document::parse(text + "}", nullptr);
    ASSERT_TRUE(doc);
    const std::vector<std::string_view> views(keys.begin(), keys.end());
    std::vector<Node> found(views.size());
    // Few keys, several, and more than are sorted by length at once.
    for (const std::size_t count : {std::size_t{2}, std::size_t{12}, views.size()}) {
        members(doc->root(), views.data(), found.data(), count);
        for (std::size_t k = 0; k < count; ++k) {
            EXPECT_EQ(found[k].toValue().dump(), member(doc->root(), views[k]).toValue().dump())
                << count << " keys: " << views[k];
        }
    }
    EXPECT_EQ(found[0].toValue().dump(), "4");  // the escaped "lat" comes last
    EXPECT_EQ(found[1].toValue().dump(), "5");
    EXPECT_TRUE(found[4].isMissing());
    EXPECT_EQ(found[8].toValue().dump(), "9");
    EXPECT_TRUE(found[9].isMissing());

    const auto [lat, lon] = members(member(doc->root(), "nested"), {"lat", "lon"});
    EXPECT_EQ(integerValue(lat), 7);
    EXPECT_TRUE(lon.isMissing());
    const auto [none] = members(Node(), {"lat"});
    EXPECT_TRUE(none.isMissing());
    for (const char* wrong : {"[1]", R"({"a":null})", R"({"a":"s"})", R"({"a":2.5})"}) {
        const auto other = Document::parse(wrong, nullptr);
        ASSERT_TRUE(other);
        const Node value = other->root().isArray() ? other->root() : member(other->root(), "a");
        EXPECT_EQ(outcomeOf([&] { return member(value, "a").toValue().dump(); }), outcomeOf([&] {
                      return members(value, {"a", "b"})[0].toValue().dump();
                  }))
            << wrong;
    }
}

TEST(JsonDocument, ItemsWalkNestedElementsInOrderAndSkipTheirInsides) {
    const auto doc = Document::parse(R"([[1,[2,3]],{"a":[4,{"b":5}]},"x",[],{},6])", nullptr);
    ASSERT_TRUE(doc);
    std::vector<std::string> seen;
    for (const Node item : items(doc->root())) {
        seen.push_back(item.toValue().dump());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"[1,[2,3]]", R"({"a":[4,{"b":5}]})", "\"x\"", "[]",
                                              "{}", "6"}));
    EXPECT_EQ(doc->root().size(), 6u);
    EXPECT_EQ(Document::emptyObject().root().toValue().dump(), "{}");
    EXPECT_FALSE(Document::emptyObject().root().contains("data"));
}

}  // namespace
}  // namespace sorvan::json
