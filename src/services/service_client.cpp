#include "services/service_client.hpp"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "mapview/globals.hpp"
#include "services/fetch.hpp"
#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/format.hpp"

namespace sorvan::services {
namespace {

// The largest answer a service call reads: a page of hits or a long route is well under a
// megabyte, and an answer that never ends must not fill the memory.
constexpr std::size_t kMaxAnswerBytes = 16 * 1024 * 1024;

// Seconds; 0 leaves the request's own default.
std::atomic<double> idleTimeoutSeconds{0};

}  // namespace

ServiceSettings ServiceSettings::forView(const std::optional<net::URL>& boxDomain,
                                         std::int64_t language, const std::string& defaultBase) {
    ServiceSettings s;
    s.baseAddress = boxDomain ? boxDomain->absoluteString() : defaultBase;
    s.locale = SorvanMapView::localeCode(language);
    s.key = globals::apikey();
    s.bundleIdentifier = Bundle::main().identifier();
    return s;
}

std::optional<net::URLRequest> makeRequest(const ServiceSettings& settings, std::string_view path,
                                           std::string_view query) {
    auto components = net::URLComponents::fromString(settings.baseAddress);
    if (!components) {
        return std::nullopt;
    }
    // Only the base's scheme, host and port survive: a box domain's own path is dropped.
    components->setPath(std::string(path));
    // The query setter's encoding is the only one: "&", "=" and "+" in a keyword pass as they
    // are, which existing services and applications rely on.
    components->setQuery(query);
    auto url = components->url();
    if (!url) {
        return std::nullopt;
    }
    net::URLRequest request(*url);
    request.setValue(strformat("sorvan://%s", settings.bundleIdentifier.c_str()), "Referer");
    return request;
}

void setIdleTimeoutForTesting(std::chrono::duration<double> timeout) {
    idleTimeoutSeconds = timeout.count() > 0 ? timeout.count() : 0.0;
}

net::Error parseError(const std::string& description) {
    return net::Error{net::Error::Code::CannotParseResponse, description, {}};
}

namespace {

struct Observed {
    std::mutex mutex;
    std::shared_ptr<const AnswerObserver> observer;
};

Observed& observed() {
    static Observed* o = new Observed();  // answers may arrive during static destruction
    return *o;
}

void noteAnswer(const std::optional<net::HTTPURLResponse>& response) {
    std::shared_ptr<const AnswerObserver> observer;
    {
        std::lock_guard lock(observed().mutex);
        observer = observed().observer;
    }
    if (!observer || !response) {
        return;
    }
    AnswerNote note;
    note.path = response->url.path();
    note.status = response->statusCode;
    auto type = response->headers.find("content-type");
    if (type != response->headers.end()) {
        note.contentType = type->second;
    }
    (*observer)(note);
}

}  // namespace

void setAnswerObserver(AnswerObserver observer) {
    auto shared = observer ? std::make_shared<const AnswerObserver>(std::move(observer)) : nullptr;
    std::lock_guard lock(observed().mutex);
    observed().observer = std::move(shared);
}

std::shared_ptr<net::DataTask> fetchJSON(std::optional<net::URLRequest> request,
                                         JSONHandler handler) {
    auto& session = net::URLSession::shared();
    if (!request) {
        session.delegateQueue().async([handler = std::move(handler)] {
            handler(nullptr, net::Error{net::Error::Code::BadURL, "unsupported URL", {}});
        });
        return nullptr;
    }
    request->setMaximumBodySize(kMaxAnswerBytes);
    request->setAllowsStoringResponse(false);
    if (double idle = idleTimeoutSeconds; idle > 0) {
        request->setTimeoutInterval(std::chrono::duration<double>(idle));
    }
    // Status codes are not looked at: an error page that is JSON is read like any answer.
    return session.dataTask(*request, [handler = std::move(handler)](
                                          const std::optional<net::Data>& data,
                                          const std::optional<net::HTTPURLResponse>& response,
                                          const std::optional<net::Error>& error) {
        noteAnswer(response);
        if (error) {
            handler(nullptr, error);
            return;
        }
        std::string_view bytes;
        if (data) {
            bytes = std::string_view(reinterpret_cast<const char*>(data->data()), data->size());
        }
        std::string why;
        auto answer = json::Document::parse(bytes, &why);
        if (!answer) {
            handler(nullptr, parseError(why));
            return;
        }
        handler(std::move(answer), std::nullopt);
    });
}

}  // namespace sorvan::services
