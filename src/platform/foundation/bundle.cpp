#include "sorvan/platform/foundation/bundle.hpp"

#include <libintl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "sorvan/platform/foundation/log.hpp"

extern char** environ;

namespace sorvan {
namespace {

constexpr const char* kKitDomain = "sorvan";
constexpr const char* kKitIdentifier = "org.sorvan.SorvanMapSDK";

std::string executableName() {
    std::string path(4096, '\0');
    const ssize_t n = ::readlink("/proc/self/exe", path.data(), path.size());
    if (n <= 0) {
        return program_invocation_short_name;
    }
    path.resize(static_cast<std::size_t>(n));
    // A binary replaced while it runs reads back as "<path> (deleted)".
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.size() > kDeleted.size() && path.ends_with(kDeleted)) {
        path.resize(path.size() - kDeleted.size());
    }
    return path.substr(path.find_last_of('/') + 1);
}

}  // namespace

struct Bundle::Impl {
    const bool kit;
    mutable std::mutex mutex;
    // Guarded by mutex.
    std::string identifier;
    std::string localizationDirectory;
    // The domain and directory last handed to gettext, so it is told only of changes.
    mutable std::string boundDomain, boundDirectory;

    explicit Impl(bool isKit)
        : kit(isKit), identifier(isKit ? kKitIdentifier : "org.sorvan." + executableName()) {}
};

Bundle::Bundle(bool kit) : impl_(std::make_unique<Impl>(kit)) {}

Bundle::~Bundle() = default;

Bundle& Bundle::main() {
    static Bundle bundle(false);
    return bundle;
}

Bundle& Bundle::kit() {
    static Bundle bundle(true);
    return bundle;
}

std::string Bundle::identifier() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->identifier;
}

void Bundle::setIdentifier(std::string identifier) {
    std::lock_guard lock(impl_->mutex);
    impl_->identifier = std::move(identifier);
}

void Bundle::setLocalizationDirectory(std::string path) {
    std::lock_guard lock(impl_->mutex);
    impl_->localizationDirectory = std::move(path);
}

std::string Bundle::localizedString(const std::string& key, const std::string& value) const {
    const std::string& fallback = value.empty() ? key : value;
    // gettext answers the empty key with its catalogue header: never ask it.
    if (key.empty()) {
        return fallback;
    }
    std::string domain;
    {
        std::lock_guard lock(impl_->mutex);
        domain = impl_->kit ? kKitDomain : impl_->identifier;
        if (!impl_->localizationDirectory.empty() &&
            (domain != impl_->boundDomain ||
             impl_->localizationDirectory != impl_->boundDirectory)) {
            ::bindtextdomain(domain.c_str(), impl_->localizationDirectory.c_str());
            ::bind_textdomain_codeset(domain.c_str(), "UTF-8");
            impl_->boundDomain = domain;
            impl_->boundDirectory = impl_->localizationDirectory;
        }
    }
    const char* translated = ::dgettext(domain.c_str(), key.c_str());
    // Untranslated keys come back as the very pointer passed in.
    if (translated == nullptr || translated == key.c_str() || key == translated) {
        return fallback;
    }
    return translated;
}

std::optional<std::string> Bundle::infoValue(const std::string& key) const {
    if (key == "CFBundleIdentifier") {
        return identifier();
    }
    if (impl_->kit && (key == "CFBundleShortVersionString" || key == "CFBundleVersion")) {
        return SORVAN_KIT_VERSION;
    }
    return std::nullopt;
}

namespace {

std::mutex& handlerMutex() {
    static std::mutex m;
    return m;
}

Application::Handler& openURLHandler() {
    static Application::Handler handler;
    return handler;
}

}  // namespace

void Application::setOpenURLHandler(Handler handler) {
    std::lock_guard lock(handlerMutex());
    openURLHandler() = std::move(handler);
}

bool Application::openURL(const std::string& url) {
    Handler handler;
    {
        std::lock_guard lock(handlerMutex());
        handler = openURLHandler();
    }
    if (handler) {
        return handler(url);
    }
    std::string program = "xdg-open";
    std::string argument = url;
    char* argv[] = {program.data(), argument.data(), nullptr};
    pid_t pid = 0;
    const int error = ::posix_spawnp(&pid, program.c_str(), nullptr, nullptr, argv, environ);
    if (error != 0) {
        log::writef("openURL: cannot start xdg-open for %s: %s", url.c_str(), std::strerror(error));
        return false;
    }
    // The opener may run for as long as it likes; reaping it off this thread keeps the call
    // from blocking without leaving a zombie behind.
    std::thread([pid] {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }).detach();
    return true;
}

}  // namespace sorvan
