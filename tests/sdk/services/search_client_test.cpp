#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "SorvanMapSDK/SMSuggestOptions.hpp"
#include "foundation/json_access.hpp"
#include "support/services_fixtures.hpp"

namespace sorvan {
namespace {

using testing::CallbackProbe;
using testing::reasonOf;
using Lines = std::vector<std::string>;
using PinsOutcome = testing::Outcome<std::optional<services::Pins>>;
using WordsOutcome = testing::Outcome<std::optional<services::Words>>;

constexpr const char* kSearch = "/mapsearch/json/search";
constexpr const char* kSuggest = "/mapsearch/json/suggest";
const std::string kLine = "searchWithKeyword Error (k,13.750000,100.500000): ";

class SearchClientTest : public testing::ServicesTest {
  protected:
    // Runs one completion-style search and waits until its completion is over.
    std::unique_ptr<PinsOutcome> search(const std::string& keyword,
                                        const SMSearchOptions* options = nullptr) {
        auto out = std::make_unique<PinsOutcome>(capture);
        searchClient().searchKeyword(keyword, options, out->block());
        out->probe.wait();
        settle();
        return out;
    }
    std::unique_ptr<WordsOutcome> suggest(const std::string& keyword,
                                          const SMSuggestOptions* options = nullptr) {
        auto out = std::make_unique<WordsOutcome>(capture);
        searchClient().suggestKeyword(keyword, options, out->block());
        out->probe.wait();
        settle();
        return out;
    }
};

TEST_F(SearchClientTest, SendsTheQueryTextOfEachForm) {
    // The delegate form sends a position but no span, offset or limit.
    CallbackProbe probe(capture);
    searchClient().searchWithKeyword("wat", {13.7465, 100.493},
                                     [&](const services::Pins&) { probe.hit(); });
    probe.wait();
    EXPECT_EQ(lastQuery(kSearch),
              "keyword=wat&lat=13.746500&lon=100.493000&locale=th&key=test-key");

    search("wat");
    EXPECT_EQ(lastQuery(kSearch), "keyword=wat&locale=th&key=test-key");
    // Default options: the map's centre stands in for the (0, 0) location.
    SMSearchOptions options;
    search("wat", &options);
    EXPECT_EQ(lastQuery(kSearch),
              "keyword=wat&locale=th&key=test-key&lat=13.750000&lon=100.500000&span=&offset=0&"
              "limit=10");
    // Only both zero means "no location".
    options.setLocation({0, 5});
    options.setSpan("5km");
    options.setOffset(20);
    options.setLimit(-1);
    search("wat", &options);
    EXPECT_EQ(lastQuery(kSearch),
              "keyword=wat&locale=th&key=test-key&lat=0.000000&lon=5.000000&span=5km&offset=20&"
              "limit=-1");
    options.setLocation({5, 0});
    search("wat", &options);
    EXPECT_NE(lastQuery(kSearch).find("&lat=5.000000&lon=0.000000&"), std::string::npos);

    suggest("wa");
    EXPECT_EQ(lastQuery(kSuggest), "keyword=wa&locale=th&key=test-key");
    SMSuggestOptions paging;
    paging.setOffset(3);
    suggest("wa", &paging);
    EXPECT_EQ(lastQuery(kSuggest), "keyword=wa&locale=th&key=test-key&offset=3&limit=10");
    CallbackProbe suggested(capture);
    searchClient().suggestWithKeyword("wa", [&](const services::Words&) { suggested.hit(); });
    suggested.wait();
    EXPECT_EQ(lastQuery(kSuggest), "keyword=wa&locale=th&key=test-key");

    for (const auto& request : service().requests("/mapsearch")) {
        EXPECT_EQ(request.method, "GET");
        EXPECT_EQ(request.headers.at("referer"), "sorvan://org.sorvan.tests");
    }
}

TEST_F(SearchClientTest, EncodesOnlyWhatAQueryCannotHold) {
    search("วัด");
    EXPECT_EQ(lastQuery(kSearch), "keyword=%E0%B8%A7%E0%B8%B1%E0%B8%94&locale=th&key=test-key");
    EXPECT_EQ(service().requests(kSearch).back().queryItem("keyword"), "วัด");
    search("wat pho #1+2");
    EXPECT_EQ(lastQuery(kSearch), "keyword=wat%20pho%20%231+2&locale=th&key=test-key");
    // "&" is not escaped: it splits the keyword off into a parameter of its own.
    search("T&K");
    EXPECT_EQ(lastQuery(kSearch), "keyword=T&K&locale=th&key=test-key");
    EXPECT_EQ(service().requests(kSearch).back().queryItem("keyword"), "T");
}

TEST_F(SearchClientTest, DeliversPinsByItsRulesOnTheRightQueue) {
    answer(kSearch, R"({"data":[
        {"id":"A1","name":"Wat Pho","address":"Phra Nakhon","icon":"temple.png","lat":13.7465,
         "lon":"100.493"},
        {"id":42,"icon":"pin","lat":1,"lon":2},
        {"id":"A3","icon":"a.png"}]})");
    auto out = search("x");
    EXPECT_TRUE(out->probe.ranOnSessionQueue());
    EXPECT_FALSE(out->error);
    ASSERT_TRUE(out->value);
    const auto& pins = *out->value;
    ASSERT_EQ(pins.size(), 3u);
    EXPECT_EQ(pins[0]->poiid(), "A1");
    EXPECT_EQ(pins[0]->name(), "Wat Pho");
    EXPECT_EQ(pins[0]->address(), "Phra Nakhon");
    EXPECT_EQ(pins[0]->type(), "temple");
    EXPECT_EQ(pins[0]->coordinate(), (map::Coordinate{13.7465, 100.493}));
    EXPECT_EQ(pins[1]->poiid(), "42");
    EXPECT_EQ(pins[1]->type(), std::nullopt);  // four characters name no type
    EXPECT_EQ(pins[1]->name(), std::nullopt);
    EXPECT_EQ(pins[2]->type(), "a");
    EXPECT_EQ(pins[2]->coordinate(), (map::Coordinate{0, 0}));
    EXPECT_TRUE(capture.lines().empty());

    // The delegate style hops to the main queue.
    CallbackProbe probe(capture);
    std::size_t delivered = 0;
    searchClient().searchWithKeyword("x", {}, [&](const services::Pins& p) {
        delivered = p.size();
        probe.hit();
    });
    ASSERT_TRUE(probe.wait());
    EXPECT_TRUE(probe.ranOnMainQueue());
    EXPECT_EQ(delivered, 3u);
}

TEST_F(SearchClientTest, FailuresReachTheBlockBeforeTheLogAndTheDelegateNever) {
    auto s = settings();
    s.baseAddress = "http://127.0.0.1:" + std::to_string(testing::closedPort());
    services::SearchClient closed(s, [] { return map::Coordinate{13.5, 100.25}; });
    PinsOutcome out(capture);
    closed.searchKeyword("wat", nullptr, out.block());
    ASSERT_TRUE(out.probe.wait());
    settle();
    EXPECT_EQ(out.probe.linesBefore(), 0u);
    EXPECT_FALSE(out.value);
    ASSERT_TRUE(out.error);
    // Without options the centre at call time is what the line reports.
    EXPECT_EQ(capture.lines(), Lines{"searchWithKeyword Error (wat,13.500000,100.250000): " +
                                     out.error->localizedDescription});
    EXPECT_EQ(capture.entries()[0].level, log::Level::error);

    // A body that is no JSON fails with the decoder's own description.
    answer(kSuggest, "<html>502 Bad Gateway</html>", 502);
    capture.clear();
    auto garbled = suggest("k");
    ASSERT_TRUE(garbled->error);
    EXPECT_EQ(garbled->error->code, net::Error::Code::CannotParseResponse);
    EXPECT_EQ(garbled->error->localizedDescription,
              json::parse("<html>502 Bad Gateway</html>").errorDescription);
    EXPECT_EQ(garbled->probe.linesBefore(), 0u);
    EXPECT_EQ(capture.lines(),
              Lines{"suggestWithKeyword Error (k): " + garbled->error->localizedDescription});

    // An answer nested 50,000 levels deep in 100 KB is a decoding failure like any other,
    // not a stack overflow while the hit's text is read.
    answer(kSearch,
           "{\"data\":[{\"id\":" + std::string(50000, '[') + std::string(50000, ']') + "}]}");
    capture.clear();
    auto deep = search("k");
    ASSERT_TRUE(deep->error);
    EXPECT_EQ(deep->error->code, net::Error::Code::CannotParseResponse);
    EXPECT_EQ(deep->error->localizedDescription,
              std::string("The data couldn't be read because it isn't in the correct format. "
                          "(nested deeper than 256 levels at byte 269)"));
    EXPECT_EQ(capture.lines(), Lines{kLine + deep->error->localizedDescription});

    // A dropped connection; delegates hear nothing of any failure.
    server::Fault drop;
    drop.count = -1;
    drop.dropConnection = true;
    service().injectFault(kSearch, drop);
    int delegateCalls = 0;
    capture.clear();
    searchClient().searchWithKeyword("k", {1, 2}, [&](const services::Pins&) { ++delegateCalls; });
    searchClient().suggestWithKeyword("k", [&](const services::Words&) { ++delegateCalls; });
    ASSERT_TRUE(testing::waitForLines(capture, 2));
    settle();
    dispatch::RunLoop::main().drain();
    EXPECT_EQ(delegateCalls, 0);
    auto lines = capture.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines[0].rfind("searchWithKeyword Error (k,1.000000,2.000000): ", 0), 0u);
    EXPECT_EQ(lines[1].rfind("suggestWithKeyword Error (k): ", 0), 0u);
}

TEST_F(SearchClientTest, AFaultInTheAnswerDeliversWhatCameBeforeIt) {
    // A hit that is no object, part-way through: the hits before it are the result.
    answer(kSearch, R"({"data":[{"id":"1"},{"id":"2"},5,{"id":"4"}]})");
    auto out = search("k");
    EXPECT_FALSE(out->error);
    ASSERT_TRUE(out->value);
    ASSERT_EQ(out->value->size(), 2u);
    EXPECT_EQ(out->probe.linesBefore(), 1u);
    EXPECT_EQ(capture.lines(), Lines{kLine + reasonOf([] { json::member(json::Value(5), "id"); })});

    // An icon that is no string ends the walk the same way.
    answer(kSearch, R"({"data":[{"id":"1","icon":7}]})");
    capture.clear();
    out = search("k");
    EXPECT_EQ(out->value, services::Pins{});
    EXPECT_EQ(capture.lines(), Lines{kLine + reasonOf([] { json::stringValue(json::Value(7)); })});

    // A null icon or position is a value of the wrong kind, not an absent one: the walk
    // stops there instead of making a pin without a type or at 0.
    const std::string nullText = reasonOf([] { json::stringValue(json::Value()); });
    const std::string nullNumber = reasonOf([] { json::doubleValue(json::Value()); });
    for (const auto& [body, reason] :
         {std::pair{R"({"data":[{"id":"1","lat":1,"lon":2},{"id":"2","icon":null}]})", nullText},
          std::pair{R"({"data":[{"id":"1","lat":1,"lon":2},{"id":"2","lat":null}]})", nullNumber},
          std::pair{R"({"data":[{"id":"1","lat":1,"lon":2},{"id":"2","lon":null}]})",
                    nullNumber}}) {
        SCOPED_TRACE(body);
        answer(kSearch, body);
        capture.clear();
        out = search("k");
        ASSERT_TRUE(out->value);
        ASSERT_EQ(out->value->size(), 1u);
        EXPECT_EQ(out->value->front()->coordinate().longitude, 2.0);
        EXPECT_EQ(capture.lines(), Lines{kLine + reason});
    }

    // Suggestions: "data" that is not a list, and a suggestion without a word.
    answer(kSuggest, R"({"data":"none"})");
    capture.clear();
    auto words = suggest("w");
    EXPECT_EQ(words->value, services::Words{});
    EXPECT_EQ(capture.lines(), Lines{"suggestWithKeyword Error (w): " +
                                     reasonOf([] { json::arrayItems(json::Value("none")); })});
    answer(kSuggest, R"({"data":[{"w":"one"},{"x":"two"},{"w":"three"}]})");
    capture.clear();
    EXPECT_EQ(suggest("w")->value, services::Words{"one"});
    EXPECT_EQ(capture.lines().size(), 1u);
}

TEST_F(SearchClientTest, EmptyOrMissingDataIsAnEmptySuccessWhateverTheStatus) {
    for (const char* body : {R"({"data":[]})", R"({"error":"no key"})"}) {
        SCOPED_TRACE(body);
        answer(kSearch, body, 403);
        answer(kSuggest, body, 403);
        auto pins = search("k");
        auto words = suggest("k");
        EXPECT_FALSE(pins->error || words->error);
        EXPECT_EQ(pins->value, services::Pins{});
        EXPECT_EQ(words->value, services::Words{});
    }
    EXPECT_TRUE(capture.lines().empty());
}

}  // namespace
}  // namespace sorvan
