#include "sorvan/platform/foundation/url.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace sorvan::net {
namespace {

TEST(URL, AcceptsOnlyStrictlyValidText) {
    const std::vector<std::string> valid = {
        "http://127.0.0.1:8080/tiles/0/0/0.png",
        "https://ms.example/cgi?mode=icons&x=1&y=2&z=3",
        "a",
        "/relative/path",
        "http://[::1]:80/",
        "http://h/p?q=%E0%B8%81#frag",
        "http://h/p#",
        "x:!$&'()*+,-./:;=?@_~[]",
        "%aF",
    };
    for (const auto& text : valid) {
        auto url = URL::fromString(text);
        ASSERT_TRUE(url.has_value()) << text;
        EXPECT_EQ(url->absoluteString(), text);
    }
    const std::vector<std::string> invalid = {
        "",
        "http://h/a b",
        "http://h/{z}/{x}/{y}.png",
        "http://h/100%",
        "http://h/%4",
        "http://h/%zz",
        "http://h/#a#b",
        "http://h/\xE0\xB8\x81",
        "http://h/\"quoted\"",
        "http://h/a|b",
        "http://h/a\\b",
        "http://h/a^b",
        "http://h/`",
        "http://h/<a>",
        std::string("http://h/a\0b", 12),
        "http://h/a\tb",
    };
    for (const auto& text : invalid) {
        EXPECT_FALSE(URL::fromString(text).has_value()) << text;
    }
}

TEST(URL, SplitsIntoSchemeHostPortPathAndQuery) {
    auto url = URL::fromString("https://user:pw@ms.example:8443/a/b.png?x=1&y=2#top");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->scheme(), "https");
    EXPECT_EQ(url->host(), "ms.example");
    EXPECT_EQ(url->port(), 8443);
    EXPECT_EQ(url->path(), "/a/b.png");
    EXPECT_EQ(url->query(), "x=1&y=2");

    auto bare = URL::fromString("http://ms.example");
    EXPECT_EQ(bare->path(), "");
    EXPECT_EQ(bare->query(), "");
    EXPECT_EQ(bare->port(), std::nullopt);

    auto ipv6 = URL::fromString("http://[::1]:9/x");
    EXPECT_EQ(ipv6->host(), "::1");
    EXPECT_EQ(ipv6->port(), 9);

    EXPECT_EQ(URL::fromString("http://h:99999/")->port(), std::nullopt);
    EXPECT_EQ(URL::fromString("http://h:8a/")->port(), std::nullopt);

    auto relative = URL::fromString("tiles/1/2.png?v=3");
    EXPECT_EQ(relative->scheme(), "");
    EXPECT_EQ(relative->host(), "");
    EXPECT_EQ(relative->path(), "tiles/1/2.png");
    EXPECT_EQ(relative->query(), "v=3");
}

TEST(URL, AppendingPathComponentPutsOneSlashBetween) {
    struct Case {
        std::string base, component, expected;
    };
    const std::vector<Case> cases = {
        {"a/b", "c", "a/b/c"},
        {"a/b/", "c", "a/b/c"},
        {"http://h", "c", "http://h/c"},
        {"http://h/", "/c", "http://h/c"},
        {"http://h/a?x=1#f", "b.png", "http://h/a/b.png?x=1#f"},
        {"file:///tmp/cache", "t 1.png", "file:///tmp/cache/t%201.png"},
        {"http://h/a", "x/y", "http://h/a/x/y"},
    };
    for (const auto& c : cases) {
        auto url = URL::fromString(c.base);
        ASSERT_TRUE(url) << c.base;
        EXPECT_EQ(url->appendingPathComponent(c.component).absoluteString(), c.expected)
            << c.base << " + " << c.component;
    }
}

TEST(URLComponents, QueryEncodingKeepsOnlyQueryCharacters) {
    struct Case {
        std::string text, encoded;
    };
    const std::vector<Case> cases = {
        {"keyword=กาแฟ", "keyword=%E0%B8%81%E0%B8%B2%E0%B9%81%E0%B8%9F"},
        {"keyword=coffee shop", "keyword=coffee%20shop"},
        {"a=1&b=2", "a=1&b=2"},
        {"q=1+1=2", "q=1+1=2"},
        {"pct=100%", "pct=100%25"},
        {"pct=%41", "pct=%2541"},
        {"tag=#1", "tag=%231"},
        {"arr=[1,2]", "arr=%5B1,2%5D"},
        {"safe=!$'()*,-./:;?@_~", "safe=!$'()*,-./:;?@_~"},
        {"odd=\"<>\\^`{|}", "odd=%22%3C%3E%5C%5E%60%7B%7C%7D"},
        {"ctl=\t\n", "ctl=%09%0A"},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(percentEncodeQuery(c.text), c.encoded) << c.text;
        auto components = URLComponents::fromString("http://h/p");
        components->setQuery(c.text);
        EXPECT_EQ(components->percentEncodedQuery(), c.encoded);
        EXPECT_EQ(components->string(), "http://h/p?" + c.encoded);
        auto url = components->url();
        ASSERT_TRUE(url) << "an encoded query always forms a URL: " << c.text;
        EXPECT_EQ(url->query(), c.encoded);
    }
}

TEST(URLComponents, SetPathKeepsSchemeUserHostAndPort) {
    auto c = URLComponents::fromString("https://me@box.example:8443/private/base?old=1#frag");
    ASSERT_TRUE(c);
    EXPECT_EQ(c->scheme(), "https");
    EXPECT_EQ(c->host(), "box.example");
    EXPECT_EQ(c->port(), 8443);
    EXPECT_EQ(c->path(), "/private/base");
    EXPECT_EQ(c->percentEncodedQuery(), "old=1");

    c->setPath("/mapsearch/json/search");
    c->setQuery("keyword=ร้าน&locale=th");
    EXPECT_EQ(c->string(),
              "https://me@box.example:8443/mapsearch/json/search?keyword=%E0%B8%A3%E0%B9%89%E0%B8%"
              "B2%E0%B8%99&locale=th#frag");
    c->setQuery(std::nullopt);
    EXPECT_EQ(c->string(), "https://me@box.example:8443/mapsearch/json/search#frag");

    c->setPath("/a b/100%");
    EXPECT_EQ(c->path(), "/a%20b/100%25");

    auto noPath = URLComponents::fromString("http://127.0.0.1:5000");
    noPath->setPath("terms");
    EXPECT_EQ(noPath->string(), "http://127.0.0.1:5000/terms");
    EXPECT_EQ(noPath->url()->absoluteString(), "http://127.0.0.1:5000/terms");

    auto ipv6 = URLComponents::fromString("http://[::1]:80/");
    EXPECT_EQ(ipv6->host(), "::1");
    EXPECT_EQ(ipv6->string(), "http://[::1]:80/");
}

TEST(URLComponents, RejectsInvalidTextAndPorts) {
    EXPECT_FALSE(URLComponents::fromString(""));
    EXPECT_FALSE(URLComponents::fromString("http://h/a b"));
    EXPECT_FALSE(URLComponents::fromString("http://h:80x/"));
    EXPECT_FALSE(URLComponents::fromString("http://h:65536/"));
    auto emptyPort = URLComponents::fromString("http://h:/");
    ASSERT_TRUE(emptyPort);
    EXPECT_EQ(emptyPort->port(), std::nullopt);
}

TEST(URLComponents, FragmentOrUserDataCanMakeTheUrlInvalid) {
    // Setters encode, so only a fragment copied from valid text is ever emitted: the result
    // of any sequence of setters still parses.
    auto c = URLComponents::fromString("http://h/p#a");
    c->setPath("ü/#?");
    c->setQuery("#?#");
    ASSERT_TRUE(c->url()) << c->string();
    EXPECT_EQ(c->string(), "http://h/%C3%BC/%23%3F?%23?%23#a");
}

TEST(PercentDecode, DecodesHexPairsAndKeepsTheRest) {
    EXPECT_EQ(percentDecode("a%20b+c"), "a b+c");
    EXPECT_EQ(percentDecode("%E0%B8%81"), "ก");
    EXPECT_EQ(percentDecode("100%"), "100%");
    EXPECT_EQ(percentDecode("%4"), "%4");
    EXPECT_EQ(percentDecode("%zz%2f"), "%zz/");
    EXPECT_EQ(percentDecode(percentEncodeQuery("x=ก ข&%#")), "x=ก ข&%#");
}

}  // namespace
}  // namespace sorvan::net
