#include "place_catalogue.hpp"

#include <algorithm>
#include <set>

#include <gtest/gtest.h>

namespace sorvan::server {
namespace {

PlaceCatalogue::Query keyword(std::string text, std::size_t limit = 20) {
    PlaceCatalogue::Query q;
    q.keyword = std::move(text);
    q.limit = limit;
    return q;
}

bool found(const std::vector<PlaceCatalogue::Hit>& hits, const std::string& nameEn) {
    return std::any_of(hits.begin(), hits.end(),
                       [&](const auto& h) { return h.place->nameEn == nameEn; });
}

TEST(PlaceCatalogue, BuiltinPlacesAreCompleteAndInsideThailand) {
    const auto& places = PlaceCatalogue::builtin().places();
    ASSERT_GE(places.size(), 300u);
    std::set<std::string> ids;
    for (const auto& p : places) {
        SCOPED_TRACE(p.nameEn);
        EXPECT_TRUE(ids.insert(p.id).second);
        EXPECT_FALSE(p.nameTh.empty() || p.addressTh.empty() || p.addressEn.empty());
        EXPECT_TRUE(p.icon.size() >= 5 && p.icon.ends_with(".png"));
        EXPECT_TRUE(p.latitude > 5.5 && p.latitude < 20.5 && p.longitude > 97.3 &&
                    p.longitude < 105.7);
    }
}

TEST(PlaceCatalogue, SearchesEitherLanguageIgnoringCaseNearestFirstWhenLocated) {
    const auto& catalogue = PlaceCatalogue::builtin();
    EXPECT_TRUE(
        found(catalogue.search(keyword("WAT PHO")), "Wat Pho (Temple of the Reclining Buddha)"));
    EXPECT_TRUE(
        found(catalogue.search(keyword("โพธิ์")), "Wat Pho (Temple of the Reclining Buddha)"));
    EXPECT_EQ(catalogue.search(keyword("siam"))[0].place->nameEn.rfind("Siam", 0), 0u);
    EXPECT_TRUE(found(catalogue.search(keyword("hotel", 100)), "Mandarin Oriental, Bangkok"));
    EXPECT_TRUE(catalogue.search(keyword("no such place anywhere")).empty());

    auto q = keyword("", 1000);
    q.latitude = 13.7462;
    q.longitude = 100.5347;
    q.spanMeters = 1500;
    std::size_t total = 0;
    auto all = catalogue.search(q, &total);
    ASSERT_GT(all.size(), 10u);
    EXPECT_EQ(total, all.size());
    EXPECT_EQ(all[0].place->nameEn, "Siam Paragon");
    EXPECT_LE(*all.back().distance, 1500.0);
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(), [](const auto& a, const auto& b) {
        return *a.distance < *b.distance;
    }));
    q.offset = 3;
    q.limit = 4;
    auto page = catalogue.search(q, &total);
    EXPECT_EQ(total, all.size());
    ASSERT_EQ(page.size(), 4u);
    EXPECT_EQ(page[0].place, all[3].place);
}

TEST(PlaceCatalogue, SpanTexts) {
    EXPECT_EQ(parseSpanMeters("20000km"), 2e7);
    EXPECT_EQ(parseSpanMeters("1.5 KM"), 1500.0);
    EXPECT_EQ(parseSpanMeters("250"), 250.0);
    for (const char* bad : {"", "far", "5 miles", "-3km"}) {
        EXPECT_EQ(parseSpanMeters(bad), std::nullopt) << bad;
    }
}

TEST(PlaceCatalogue, SuggestsWholeNamesFirstInBothLanguagesWithoutRepeats) {
    const auto& catalogue = PlaceCatalogue::builtin();
    auto words = catalogue.suggest("central", 0, 100);
    ASSERT_GT(words.size(), 5u);
    EXPECT_EQ(words[0].rfind("Central", 0), 0u);
    EXPECT_EQ(std::set<std::string>(words.begin(), words.end()).size(), words.size());
    // A later word may match too, after the whole-name matches.
    auto pattaya = catalogue.suggest("pattaya", 0, 100);
    EXPECT_NE(std::find(pattaya.begin(), pattaya.end(), "Central Pattaya"), pattaya.end());
    auto thai = catalogue.suggest("วัด", 0, 5);
    ASSERT_EQ(thai.size(), 5u);
    EXPECT_EQ(catalogue.suggest("วัด", 2, 3)[0], thai[2]);
    EXPECT_TRUE(catalogue.suggest("", 0, 10).empty());
}

TEST(PlaceCatalogue, SkipsMalformedLines) {
    auto catalogue = PlaceCatalogue::parse(
        "# comment\nA1\tx.png\t13.5\t100.5\tZZ\tก\tA\nA2\tx.png\tnorth\t100.5\tZZ\tข\tB\n"
        "A3\tx.png\t13.5\n\nA4\ty.png\t14\t101\tQQ\tค\tC\r\n",
        "ZZ\tที่ไหน\tSomewhere\n");
    ASSERT_EQ(catalogue.places().size(), 2u);
    EXPECT_EQ(catalogue.places()[0].addressEn, "Somewhere");
    EXPECT_EQ(catalogue.places()[1].nameEn, "C");
}

}  // namespace
}  // namespace sorvan::server
