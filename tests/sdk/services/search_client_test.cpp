#include <functional>
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
using testing::waitForLines;

constexpr const char* kSearch = "/mapsearch/json/search";
constexpr const char* kSuggest = "/mapsearch/json/suggest";

std::string reasonOf(const std::function<void()>& walk) {
    try {
        walk();
    } catch (const json::StructureError& e) {
        return e.reason();
    }
    ADD_FAILURE() << "the walk raised nothing";
    return "";
}

// The outcome of one completion-style call.
template <class T>
struct Outcome {
    explicit Outcome(const log::Capture& capture) : probe(capture) {}
    std::optional<T> value;
    std::optional<net::Error> error;
    CallbackProbe probe;
    auto block() {
        return [this](const std::optional<T>& v, const std::optional<net::Error>& e) {
            value = v;
            error = e;
            probe.hit();
        };
    }
};
using PinsOutcome = Outcome<services::Pins>;
using WordsOutcome = Outcome<services::Words>;

class SearchClientTest : public testing::ServicesTest {
  protected:
    // The query the service saw for one completion-style search.
    std::string searchQueryOf(const std::string& keyword, const SMSearchOptions* options) {
        PinsOutcome out(capture);
        searchClient().searchKeyword(keyword, options, out.block());
        out.probe.wait();
        return lastQuery(kSearch);
    }
    std::string suggestQueryOf(const std::string& keyword, const SMSuggestOptions* options) {
        WordsOutcome out(capture);
        searchClient().suggestKeyword(keyword, options, out.block());
        out.probe.wait();
        return lastQuery(kSuggest);
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

    EXPECT_EQ(searchQueryOf("wat", nullptr), "keyword=wat&locale=th&key=test-key");
    // Default options: the map's centre stands in for the (0, 0) location.
    SMSearchOptions options;
    EXPECT_EQ(searchQueryOf("wat", &options),
              "keyword=wat&locale=th&key=test-key&lat=13.750000&lon=100.500000&span=&offset=0&"
              "limit=10");
    // Only both zero means "no location".
    options.setLocation({0, 5});
    options.setSpan("5km");
    options.setOffset(20);
    options.setLimit(-1);
    EXPECT_EQ(searchQueryOf("wat", &options),
              "keyword=wat&locale=th&key=test-key&lat=0.000000&lon=5.000000&span=5km&offset=20&"
              "limit=-1");
    options.setLocation({5, 0});
    EXPECT_NE(searchQueryOf("wat", &options).find("&lat=5.000000&lon=0.000000&"),
              std::string::npos);

    EXPECT_EQ(suggestQueryOf("wa", nullptr), "keyword=wa&locale=th&key=test-key");
    SMSuggestOptions paging;
    EXPECT_EQ(suggestQueryOf("wa", &paging), "keyword=wa&locale=th&key=test-key&offset=0&limit=10");
    paging.setOffset(3);
    paging.setLimit(7);
    EXPECT_EQ(suggestQueryOf("wa", &paging), "keyword=wa&locale=th&key=test-key&offset=3&limit=7");

    CallbackProbe suggested(capture);
    searchClient().suggestWithKeyword("wa", [&](const services::Words&) { suggested.hit(); });
    suggested.wait();
    EXPECT_EQ(lastQuery(kSuggest), "keyword=wa&locale=th&key=test-key");

    // Every request is a GET with the Referer naming the application.
    for (const auto& request : service().requests("/mapsearch")) {
        EXPECT_EQ(request.method, "GET");
        EXPECT_EQ(request.headers.at("referer"), "sorvan://org.sorvan.tests");
    }
}

TEST_F(SearchClientTest, EncodesOnlyWhatAQueryCannotHold) {
    EXPECT_EQ(searchQueryOf("วัด", nullptr),
              "keyword=%E0%B8%A7%E0%B8%B1%E0%B8%94&locale=th&key=test-key");
    EXPECT_EQ(service().requests(kSearch).back().queryItem("keyword"), "วัด");
    EXPECT_EQ(searchQueryOf("wat pho #1+2", nullptr),
              "keyword=wat%20pho%20%231+2&locale=th&key=test-key");
    // "&" is not escaped: it splits the keyword off into a parameter of its own.
    EXPECT_EQ(searchQueryOf("T&K", nullptr), "keyword=T&K&locale=th&key=test-key");
    auto request = service().requests(kSearch).back();
    EXPECT_EQ(request.queryItem("keyword"), "T");
    EXPECT_EQ(request.queryItem("K"), "");
}

TEST_F(SearchClientTest, SettingsOfAViewPickLocaleAndBase) {
    auto english = services::ServiceSettings::forView(std::nullopt, 2, origin());
    EXPECT_EQ(english.locale, "en");
    EXPECT_EQ(english.baseAddress, origin());
    for (std::int64_t language : {0, 1, 3, -2}) {
        EXPECT_EQ(services::ServiceSettings::forView(std::nullopt, language, origin()).locale,
                  "th");
    }
    // A box domain keeps its scheme, host and port; its path gives way to the service's.
    auto box = net::URL::fromString(origin() + "/private/maps/?x=1");
    ASSERT_TRUE(box);
    auto s = services::ServiceSettings::forView(box, 2, "https://unused.example");
    s.key = "k";
    PinsOutcome out(capture);
    services::SearchClient(s, [] {
        return map::Coordinate{};
    }).searchKeyword("a", nullptr, out.block());
    ASSERT_TRUE(out.probe.wait());
    auto requests = service().requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].target, "/mapsearch/json/search?keyword=a&locale=en&key=k");
}

TEST_F(SearchClientTest, DeliversPinsByItsRulesOnTheRightQueue) {
    answer(kSearch, R"({"data":[
        {"id":"A1","name":"Wat Pho","address":"Phra Nakhon","icon":"temple.png","lat":13.7465,"lon":"100.493"},
        {"id":42,"name":"Pin","icon":"pin","lat":1,"lon":2},
        {"id":"A3","icon":"a.png"},
        {"id":"A4","name":null}]})");
    PinsOutcome out(capture);
    searchClient().searchKeyword("x", nullptr, out.block());
    ASSERT_TRUE(out.probe.wait());
    EXPECT_TRUE(out.probe.ranOnSessionQueue());
    EXPECT_FALSE(out.error);
    ASSERT_TRUE(out.value);
    const auto& pins = *out.value;
    ASSERT_EQ(pins.size(), 4u);
    EXPECT_EQ(pins[0]->poiid(), "A1");
    EXPECT_EQ(pins[0]->name(), "Wat Pho");
    EXPECT_EQ(pins[0]->address(), "Phra Nakhon");
    EXPECT_EQ(pins[0]->type(), "temple");
    EXPECT_EQ(pins[0]->coordinate(), (map::Coordinate{13.7465, 100.493}));
    EXPECT_EQ(pins[0]->icon(), nullptr);
    EXPECT_FALSE(pins[0]->userData().has_value());
    EXPECT_EQ(pins[1]->poiid(), "42");
    EXPECT_EQ(pins[1]->type(), std::nullopt);  // four characters name no type
    EXPECT_EQ(pins[1]->address(), std::nullopt);
    EXPECT_EQ(pins[2]->type(), "a");
    EXPECT_EQ(pins[2]->coordinate(), (map::Coordinate{0, 0}));
    EXPECT_EQ(pins[3]->name(), std::nullopt);
    EXPECT_EQ(pins[3]->type(), std::nullopt);
    EXPECT_TRUE(capture.lines().empty());

    // The delegate style hops to the main queue.
    CallbackProbe probe(capture);
    services::Pins delivered;
    searchClient().searchWithKeyword("x", {}, [&](const services::Pins& p) {
        delivered = p;
        probe.hit();
    });
    ASSERT_TRUE(probe.wait());
    EXPECT_TRUE(probe.ranOnMainQueue());
    EXPECT_EQ(delivered.size(), 4u);
}

TEST_F(SearchClientTest, TheRealServiceAnswersInTheRequestedLanguage) {
    SMSearchOptions near;
    near.setLocation({13.7462, 100.5347});
    near.setSpan("1km");
    near.setLimit(3);
    auto s = settings();
    s.locale = "en";
    PinsOutcome out(capture);
    services::SearchClient(s, {}).searchKeyword("siam", &near, out.block());
    ASSERT_TRUE(out.probe.wait());
    ASSERT_TRUE(out.value);
    ASSERT_EQ(out.value->size(), 3u);
    EXPECT_EQ(out.value->front()->name(), "Siam Paragon");
    EXPECT_EQ(out.value->front()->type(), "mall");
    EXPECT_EQ(out.value->front()->address(), "Pathum Wan, Bangkok");

    WordsOutcome words(capture);
    searchClient().suggestKeyword("สยาม", nullptr, words.block());
    ASSERT_TRUE(words.probe.wait());
    ASSERT_TRUE(words.value);
    ASSERT_FALSE(words.value->empty());
    EXPECT_EQ(words.value->front().rfind("สยาม", 0), 0u);
}

TEST_F(SearchClientTest, TransportErrorReachesTheBlockBeforeTheLogAndTheDelegateNever) {
    auto s = settings();
    s.baseAddress = "http://127.0.0.1:" + std::to_string(testing::closedPort());
    services::SearchClient client(s, [] { return map::Coordinate{13.5, 100.25}; });

    PinsOutcome out(capture);
    client.searchKeyword("wat", nullptr, out.block());
    ASSERT_TRUE(out.probe.wait());
    settle();
    EXPECT_TRUE(out.probe.ranOnSessionQueue());
    EXPECT_EQ(out.probe.linesBefore(), 0u);
    EXPECT_FALSE(out.value);
    ASSERT_TRUE(out.error);
    // Without options the centre at call time is what the line reports.
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"searchWithKeyword Error (wat,13.500000,100.250000): " +
                                       out.error->localizedDescription});

    WordsOutcome words(capture);
    client.suggestKeyword("wa", nullptr, words.block());
    ASSERT_TRUE(words.probe.wait());
    settle();
    EXPECT_EQ(words.probe.linesBefore(), 1u);
    ASSERT_TRUE(words.error);
    EXPECT_EQ(capture.lines().at(1),
              "suggestWithKeyword Error (wa): " + words.error->localizedDescription);

    // A dropped connection is a transport error too; delegates hear nothing of either.
    server::Fault drop;
    drop.count = -1;
    drop.dropConnection = true;
    service().injectFault(kSearch, drop);
    int delegateCalls = 0;
    capture.clear();
    searchClient().searchWithKeyword("wat", {1, 2},
                                     [&](const services::Pins&) { ++delegateCalls; });
    client.suggestWithKeyword("wa", [&](const services::Words&) { ++delegateCalls; });
    ASSERT_TRUE(waitForLines(capture, 2));
    settle();
    dispatch::RunLoop::main().drain();
    EXPECT_EQ(delegateCalls, 0);
    auto lines = capture.lines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines[0].rfind("searchWithKeyword Error (wat,1.000000,2.000000): ", 0), 0u);
    EXPECT_EQ(lines[1].rfind("suggestWithKeyword Error (wa): ", 0), 0u);
}

TEST_F(SearchClientTest, ABodyThatIsNoJSONIsTheDecodersError) {
    answer(kSearch, "<html>502 Bad Gateway</html>", 502);
    auto expected = json::parse("<html>502 Bad Gateway</html>").errorDescription;
    ASSERT_FALSE(expected.empty());
    SMSearchOptions options;
    options.setLocation({7.5, 98.25});
    PinsOutcome out(capture);
    searchClient().searchKeyword("k", &options, out.block());
    ASSERT_TRUE(out.probe.wait());
    settle();
    ASSERT_TRUE(out.error);
    EXPECT_EQ(out.error->code, net::Error::Code::CannotParseResponse);
    EXPECT_EQ(out.error->localizedDescription, expected);
    EXPECT_EQ(out.probe.linesBefore(), 0u);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{
                                   "searchWithKeyword Error (k,7.500000,98.250000): " + expected});
}

TEST_F(SearchClientTest, AFaultInTheAnswerDeliversWhatCameBeforeIt) {
    // A hit that is no object, part-way through: the hits before it are the result.
    answer(kSearch, R"({"data":[{"id":"1"},{"id":"2"},5,{"id":"4"}]})");
    PinsOutcome out(capture);
    searchClient().searchKeyword("k", nullptr, out.block());
    ASSERT_TRUE(out.probe.wait());
    EXPECT_FALSE(out.error);
    ASSERT_TRUE(out.value);
    ASSERT_EQ(out.value->size(), 2u);
    EXPECT_EQ(out.value->at(1)->poiid(), "2");
    auto reason = reasonOf([] { json::member(json::Value(5), "id"); });
    EXPECT_EQ(out.probe.linesBefore(), 1u);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{
                                   "searchWithKeyword Error (k,13.750000,100.500000): " + reason});

    // An icon that is no string ends the walk the same way, for the delegate as well.
    answer(kSearch, R"({"data":[{"id":"1","icon":7}]})");
    capture.clear();
    CallbackProbe probe(capture);
    services::Pins pins{nullptr};
    searchClient().searchWithKeyword("k", {1, 2}, [&](const services::Pins& p) {
        pins = p;
        probe.hit();
    });
    ASSERT_TRUE(probe.wait());
    EXPECT_TRUE(pins.empty());
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"searchWithKeyword Error (k,1.000000,2.000000): " +
                                       reasonOf([] { json::stringValue(json::Value(7)); })});

    // "data" that is not a list, and suggestions without a word.
    answer(kSuggest, R"({"data":"none"})");
    capture.clear();
    WordsOutcome words(capture);
    searchClient().suggestKeyword("w", nullptr, words.block());
    ASSERT_TRUE(words.probe.wait());
    ASSERT_TRUE(words.value);
    EXPECT_TRUE(words.value->empty());
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"suggestWithKeyword Error (w): " +
                                       reasonOf([] { json::arrayItems(json::Value("none")); })});

    answer(kSuggest, R"({"data":[{"w":"one"},{"x":"two"},{"w":"three"}]})");
    capture.clear();
    WordsOutcome cut(capture);
    searchClient().suggestKeyword("w", nullptr, cut.block());
    ASSERT_TRUE(cut.probe.wait());
    EXPECT_EQ(cut.value, std::vector<std::string>{"one"});
    EXPECT_EQ(capture.lines().size(), 1u);
}

TEST_F(SearchClientTest, EmptyOrMissingDataIsAnEmptySuccessWhateverTheStatus) {
    for (const char* body : {R"({"data":[]})", R"({"error":"no key"})"}) {
        SCOPED_TRACE(body);
        answer(kSearch, body, 403);
        answer(kSuggest, body, 403);
        PinsOutcome pins(capture);
        searchClient().searchKeyword("k", nullptr, pins.block());
        WordsOutcome words(capture);
        searchClient().suggestKeyword("k", nullptr, words.block());
        ASSERT_TRUE(pins.probe.wait());
        ASSERT_TRUE(words.probe.wait());
        EXPECT_FALSE(pins.error);
        EXPECT_FALSE(words.error);
        EXPECT_EQ(pins.value, services::Pins{});
        EXPECT_EQ(words.value, services::Words{});
    }
    settle();
    EXPECT_TRUE(capture.lines().empty());
}

TEST(SMSearchOptions, Defaults) {
    SMSearchOptions search;
    EXPECT_EQ(search.location(), (map::Coordinate{0, 0}));
    EXPECT_EQ(search.span(), "");
    EXPECT_EQ(search.offset(), 0);
    EXPECT_EQ(search.limit(), 10);
    SMSuggestOptions suggest;
    EXPECT_EQ(suggest.offset(), 0);
    EXPECT_EQ(suggest.limit(), 10);
}

}  // namespace
}  // namespace sorvan
