#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/graphics/image.hpp"

#include <gtest/gtest.h>
#include <locale.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "support/foundation_support.hpp"

namespace sorvan {
namespace {

using test::ScopedEnv;
using test::TempDir;

// Writes a gettext catalogue (no hash table; originals sorted, as lookups bisect them).
void writeCatalogue(const std::string& path, std::map<std::string, std::string> messages) {
    messages[""] = "Content-Type: text/plain; charset=UTF-8\n";
    const auto n = static_cast<std::uint32_t>(messages.size());
    std::vector<std::uint32_t> header = {0x950412de, 0, n, 28, 28 + 8 * n, 0, 28 + 16 * n};
    std::vector<std::uint32_t> originals, translations;
    std::string strings;
    const std::uint32_t base = 28 + 16 * n;
    for (const auto& [key, value] : messages) {
        originals.insert(originals.end(), {static_cast<std::uint32_t>(key.size()),
                                           base + static_cast<std::uint32_t>(strings.size())});
        strings += key + '\0';
    }
    for (const auto& [key, value] : messages) {
        translations.insert(translations.end(),
                            {static_cast<std::uint32_t>(value.size()),
                             base + static_cast<std::uint32_t>(strings.size())});
        strings += value + '\0';
    }
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary);
    for (const auto* table : {&header, &originals, &translations}) {
        out.write(reinterpret_cast<const char*>(table->data()),
                  static_cast<std::streamsize>(table->size() * 4));
    }
    out << strings;
}

// Chooses a language with translations for the test's duration (gtest leaves the C locale,
// in which nothing is ever translated).
class MessagesLocale {
  public:
    MessagesLocale() : previous_(::setlocale(LC_MESSAGES, nullptr)) {
        EXPECT_NE(::setlocale(LC_MESSAGES, "C.UTF-8"), nullptr);
    }
    ~MessagesLocale() { ::setlocale(LC_MESSAGES, previous_.c_str()); }

  private:
    std::string previous_;
};

TEST(Bundle, IdentifiersAndInfoValues) {
    Bundle& main = Bundle::main();
    EXPECT_EQ(main.identifier(), "org.sorvan.platform_tests");
    EXPECT_EQ(Bundle::kit().identifier(), "org.sorvan.SorvanMapSDK");
    EXPECT_EQ(Bundle::kit().infoValue("CFBundleShortVersionString"), "3.13");
    EXPECT_EQ(Bundle::kit().infoValue("CFBundleIdentifier"), "org.sorvan.SorvanMapSDK");
    EXPECT_EQ(Bundle::kit().infoValue("NoSuchKey"), std::nullopt);
    EXPECT_EQ(main.infoValue("CFBundleShortVersionString"), std::nullopt);

    main.setIdentifier("com.example.fleet");
    EXPECT_EQ(main.identifier(), "com.example.fleet");
    EXPECT_EQ(main.infoValue("CFBundleIdentifier"), "com.example.fleet");
    main.setIdentifier("org.sorvan.platform_tests");
}

TEST(Bundle, LocalizedStringLooksUpTheBundlesDomainElseFallsBack) {
    TempDir dir;
    ScopedEnv language("LANGUAGE", std::nullopt);
    MessagesLocale locale;
    writeCatalogue(dir.file("C.UTF-8/LC_MESSAGES/com.example.maps.mo"),
                   {{"Sorvan Map © TV, Kerova, OSM", "แผนที่ของเรา"}});
    writeCatalogue(dir.file("C.UTF-8/LC_MESSAGES/sorvan.mo"), {{"Close", "ปิด"}});

    Bundle& main = Bundle::main();
    const std::string label = "Sorvan Map © TV, Kerova, OSM";
    // Nothing bound yet: the key, or the value given.
    EXPECT_EQ(main.localizedString(label), label);
    EXPECT_EQ(main.localizedString(label, "fallback"), "fallback");

    main.setIdentifier("com.example.maps");
    main.setLocalizationDirectory(dir.path());
    Bundle::kit().setLocalizationDirectory(dir.path());
    EXPECT_EQ(main.localizedString(label), "แผนที่ของเรา");
    EXPECT_EQ(main.localizedString(label, "fallback"), "แผนที่ของเรา");
    EXPECT_EQ(main.localizedString("Close"), "Close");  // the kit's domain is not the host's
    EXPECT_EQ(Bundle::kit().localizedString("Close"), "ปิด");
    EXPECT_EQ(Bundle::kit().localizedString(label, "v"), "v");
    EXPECT_EQ(main.localizedString(""), "");  // never the catalogue's header
    EXPECT_EQ(main.localizedString("", "v"), "v");
    main.setIdentifier("org.sorvan.platform_tests");
}

bool waitForFile(const std::string& path) {
    for (int i = 0; i < 500 && !std::filesystem::exists(path); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return std::filesystem::exists(path);
}

TEST(Application, OpenURLUsesTheHostsHandlerElseXdgOpen) {
    TempDir dir;
    const std::string opened = dir.file("opened");
    {
        std::ofstream script(dir.file("xdg-open"));
        script << "#!/bin/sh\nprintf '%s' \"$1\" > " << opened << ".tmp && mv " << opened << ".tmp "
               << opened << "\n";
    }
    ::chmod(dir.file("xdg-open").c_str(), 0755);
    const std::string url = "https://example.com/terms?a=1&b=two words";
    {
        ScopedEnv path("PATH", dir.path() + ":/usr/bin:/bin");
        EXPECT_TRUE(Application::openURL(url));
        ASSERT_TRUE(waitForFile(opened));
        std::ifstream in(opened);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), url);
    }
    {
        TempDir empty;
        ScopedEnv path("PATH", empty.path());
        EXPECT_FALSE(Application::openURL(url));

        std::vector<std::string> seen;
        Application::setOpenURLHandler([&](const std::string& u) {
            seen.push_back(u);
            return u.starts_with("https:");
        });
        EXPECT_TRUE(Application::openURL(url));
        EXPECT_FALSE(Application::openURL("mailto:x@example.com"));
        Application::setOpenURLHandler(nullptr);
        EXPECT_EQ(seen, (std::vector<std::string>{url, "mailto:x@example.com"}));
    }
}

TEST(Bundle, KitPicturesLoadThroughTheKitBundleOnly) {
    // The pictures themselves are the kit images' business.
    auto image = Bundle::kit().image("reddot");
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(Bundle::kit().image("reddot"), image);
    EXPECT_EQ(Bundle::kit().image("no-such-picture"), nullptr);
    EXPECT_EQ(Bundle::main().image("reddot"), nullptr);
}

}  // namespace
}  // namespace sorvan
