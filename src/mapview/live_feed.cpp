#include "mapview/live_feed.hpp"

#include <utility>

#include "sorvan/platform/foundation/bundle.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/url_session.hpp"

namespace sorvan::mapview {

void fetchFeed(const std::string& address, void (*fail)(const std::string& description),
               std::function<void(json::Value feed)> parsed) {
    auto url = net::URL::fromString(address);
    if (!url) {
        fail("unsupported URL");
        return;
    }
    net::URLRequest request(*url);
    request.setValue(strformat("sorvan://%s", Bundle::main().identifier().c_str()), "Referer");
    net::URLSession::shared().dataTask(
        request,
        [fail, parsed = std::move(parsed), token = beginLiveRequest()](
            const std::optional<net::Data>& data, const std::optional<net::HTTPURLResponse>&,
            const std::optional<net::Error>& error) {
            if (error) {
                fail(error->localizedDescription);
                return;
            }
            std::string_view bytes;
            if (data) {
                bytes = {reinterpret_cast<const char*>(data->data()), data->size()};
            }
            json::ParseResult result = json::parse(bytes);
            if (!result.value) {
                fail(result.errorDescription);
                return;
            }
            parsed(std::move(*result.value));
        });
}

}  // namespace sorvan::mapview
