// The application bundle (identifier, localised strings) and the kit's own resources.
// Thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sorvan/platform/export.hpp"

namespace sorvan {
namespace gfx {
class Image;
}

class SORVAN_EXPORT Bundle {
  public:
    /// The host application's bundle.
    static Bundle& main();
    /// The kit's own bundle (its pictures and version).
    static Bundle& kit();

    /// The host sets it at start-up; default "org.sorvan." + the executable's name.
    std::string identifier() const;
    void setIdentifier(std::string identifier);

    /// Looks key up in the bundle's gettext domain ("sorvan" for the kit, the identifier for
    /// the main bundle). Returns value (or the key itself when value is empty) when the key is
    /// not translated.
    std::string localizedString(const std::string& key, const std::string& value = "") const;
    /// Where the bundle's translations live (<path>/<language>/LC_MESSAGES/<domain>.mo); unset,
    /// the system's locale directory. The host also chooses the language, with setlocale.
    void setLocalizationDirectory(std::string path);

    /// "CFBundleShortVersionString" and friends: the kit answers "3.13" (also under
    /// "CFBundleVersion"); both bundles answer "CFBundleIdentifier". Others give nullopt.
    std::optional<std::string> infoValue(const std::string& key) const;

    /// A picture of the kit ("crosshair", "reddot", "information", "marker", "heading"), at the
    /// scale it was drawn for; nullptr when there is none with that name.
    std::shared_ptr<gfx::Image> image(const std::string& name) const;

    ~Bundle();

  private:
    explicit Bundle(bool kit);
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Opening a URL with the desktop (xdg-open) or a handler the host sets.
class SORVAN_EXPORT Application {
  public:
    using Handler = std::function<bool(const std::string& url)>;
    /// nullptr restores xdg-open. The handler runs on the caller's thread.
    static void setOpenURLHandler(Handler handler);
    /// Calls the host's handler and returns its answer; without one, starts `xdg-open url`
    /// without waiting for it and returns whether it could be started. Never blocks.
    static bool openURL(const std::string& url);
};

}  // namespace sorvan
