#include "place_catalogue.hpp"

#include <set>

#include <gtest/gtest.h>

namespace sorvan::server {
namespace {

const Place* named(const std::vector<PlaceCatalogue::Hit>& hits, const std::string& nameEn) {
    for (const auto& h : hits) {
        if (h.place->nameEn == nameEn) {
            return h.place;
        }
    }
    return nullptr;
}

PlaceCatalogue::Query keyword(std::string text, std::size_t limit = 20) {
    PlaceCatalogue::Query q;
    q.keyword = std::move(text);
    q.limit = limit;
    return q;
}

TEST(PlaceCatalogue, BuiltinPlacesAreCompleteAndInsideThailand) {
    const auto& places = PlaceCatalogue::builtin().places();
    ASSERT_GE(places.size(), 300u);
    std::set<std::string> ids;
    for (const auto& p : places) {
        SCOPED_TRACE(p.nameEn);
        EXPECT_TRUE(ids.insert(p.id).second);
        EXPECT_FALSE(p.nameTh.empty());
        EXPECT_FALSE(p.nameEn.empty());
        EXPECT_FALSE(p.addressTh.empty());
        EXPECT_FALSE(p.addressEn.empty());
        EXPECT_GE(p.icon.size(), 5u);
        EXPECT_EQ(p.icon.substr(p.icon.size() - 4), ".png");
        EXPECT_TRUE(p.latitude > 5.5 && p.latitude < 20.5) << p.latitude;
        EXPECT_TRUE(p.longitude > 97.3 && p.longitude < 105.7) << p.longitude;
    }
}

TEST(PlaceCatalogue, MatchesKeywordsInEitherLanguageIgnoringCase) {
    const auto& catalogue = PlaceCatalogue::builtin();
    EXPECT_NE(
        named(catalogue.search(keyword("WAT PHO")), "Wat Pho (Temple of the Reclining Buddha)"),
        nullptr);
    EXPECT_NE(named(catalogue.search(keyword("โพธิ์")), "Wat Pho (Temple of the Reclining Buddha)"),
              nullptr);
    // A name that starts with the keyword ranks before one that only contains it.
    auto hits = catalogue.search(keyword("siam"));
    ASSERT_FALSE(hits.empty());
    EXPECT_EQ(hits[0].place->nameEn.rfind("Siam", 0), 0u);
    // The icon's type and the address are searched too.
    auto hotels = catalogue.search(keyword("hotel", 100));
    EXPECT_NE(named(hotels, "Mandarin Oriental, Bangkok"), nullptr);
    EXPECT_FALSE(catalogue.search(keyword("chiang mai", 100)).empty());
    EXPECT_TRUE(catalogue.search(keyword("no such place anywhere")).empty());
}

TEST(PlaceCatalogue, NearbySearchKeepsToTheSpanNearestFirstAndPages) {
    const auto& catalogue = PlaceCatalogue::builtin();
    auto q = keyword("", 1000);
    q.latitude = 13.7462;
    q.longitude = 100.5347;
    q.spanMeters = 1500;
    std::size_t total = 0;
    auto all = catalogue.search(q, &total);
    ASSERT_GT(all.size(), 10u);
    EXPECT_EQ(total, all.size());
    EXPECT_EQ(all[0].place->nameEn, "Siam Paragon");
    for (std::size_t i = 0; i < all.size(); ++i) {
        ASSERT_TRUE(all[i].distance);
        EXPECT_LE(*all[i].distance, 1500.0);
        if (i > 0) {
            EXPECT_LE(*all[i - 1].distance, *all[i].distance);
        }
    }
    q.offset = 3;
    q.limit = 4;
    auto page = catalogue.search(q, &total);
    EXPECT_EQ(total, all.size());
    ASSERT_EQ(page.size(), 4u);
    EXPECT_EQ(page[0].place, all[3].place);
    q.offset = all.size();
    EXPECT_TRUE(catalogue.search(q).empty());
}

TEST(PlaceCatalogue, SpanTexts) {
    EXPECT_EQ(parseSpanMeters("20000km"), 2e7);
    EXPECT_EQ(parseSpanMeters("1.5 KM"), 1500.0);
    EXPECT_EQ(parseSpanMeters("500m"), 500.0);
    EXPECT_EQ(parseSpanMeters("250"), 250.0);
    EXPECT_EQ(parseSpanMeters(""), std::nullopt);
    EXPECT_EQ(parseSpanMeters("far"), std::nullopt);
    EXPECT_EQ(parseSpanMeters("5 miles"), std::nullopt);
    EXPECT_EQ(parseSpanMeters("-3km"), std::nullopt);
}

TEST(PlaceCatalogue, SuggestsWholeNamesFirstInBothLanguagesWithoutRepeats) {
    const auto& catalogue = PlaceCatalogue::builtin();
    auto words = catalogue.suggest("central", 0, 100);
    ASSERT_GT(words.size(), 5u);
    EXPECT_EQ(words[0].rfind("Central", 0), 0u);
    EXPECT_EQ(std::set<std::string>(words.begin(), words.end()).size(), words.size());
    // "Pattaya" starts a later word only: still suggested, after the whole-name matches.
    auto pattaya = catalogue.suggest("pattaya", 0, 100);
    EXPECT_NE(std::find(pattaya.begin(), pattaya.end(), "Central Pattaya"), pattaya.end());
    auto thai = catalogue.suggest("วัด", 0, 5);
    ASSERT_EQ(thai.size(), 5u);
    for (const auto& w : thai) {
        EXPECT_EQ(w.rfind("วัด", 0), 0u) << w;
    }
    EXPECT_EQ(catalogue.suggest("วัด", 2, 3)[0], thai[2]);
    EXPECT_TRUE(catalogue.suggest("", 0, 10).empty());
}

TEST(PlaceCatalogue, SkipsMalformedLines) {
    auto catalogue = PlaceCatalogue::parse(
        "# comment\n"
        "A1\tx.png\t13.5\t100.5\tZZ\tก\tA\n"
        "A2\tx.png\tnorth\t100.5\tZZ\tข\tB\n"
        "A3\tx.png\t13.5\n"
        "\n"
        "A4\ty.png\t14\t101\tQQ\tค\tC\r\n",
        "ZZ\tที่ไหน\tSomewhere\n");
    ASSERT_EQ(catalogue.places().size(), 2u);
    EXPECT_EQ(catalogue.places()[0].addressEn, "Somewhere");
    EXPECT_EQ(catalogue.places()[1].nameEn, "C");
    EXPECT_EQ(catalogue.places()[1].addressEn, "");
}

}  // namespace
}  // namespace sorvan::server
