#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "SorvanMapSDK/SMPinAnnotation.hpp"
#include "SorvanMapSDK/SMSearchOptions.hpp"
#include "SorvanMapSDK/SMSuggestOptions.hpp"
#include "services/answers.hpp"
#include "services/fetch.hpp"
#include "services/service_client.hpp"
#include "services/service_task_access.hpp"
#include "sorvan/platform/foundation/dispatch.hpp"
#include "sorvan/platform/foundation/format.hpp"
#include "sorvan/platform/foundation/log.hpp"

namespace sorvan::services {
namespace {

constexpr const char* kSearchPath = "/mapsearch/json/search";
constexpr const char* kSuggestPath = "/mapsearch/json/suggest";

void logSearchError(const std::string& keyword, map::Coordinate position,
                    const std::string& description) {
    log::writef("searchWithKeyword Error (%s,%f,%f): %s", keyword.c_str(), position.latitude,
                position.longitude, description.c_str());
}

void logSuggestError(const std::string& keyword, const std::string& description) {
    log::writef("suggestWithKeyword Error (%s): %s", keyword.c_str(), description.c_str());
}

// A member taken as decoded: strings as they are, other values in their JSON text.
std::optional<std::string> decodedText(const json::Node& v) {
    switch (v.kind()) {
        case json::Kind::Null:
            return std::nullopt;
        case json::Kind::String:
            return json::stringValue(v);
        case json::Kind::Boolean:
            return json::integerValue(v) ? "1" : "0";
        default:
            return v.toValue().dump();
    }
}

// Text lengths are counted in UTF-16 units, as the icon names always were.
std::size_t utf16Length(const std::string& s) {
    std::size_t units = 0;
    for (unsigned char c : s) {
        if ((c & 0xC0) != 0x80) {
            units += (c >= 0xF0) ? 2 : 1;
        }
    }
    return units;
}

std::string dropLastUnits(const std::string& s, std::size_t units) {
    std::size_t end = s.size();
    while (units > 0 && end > 0) {
        std::size_t start = end - 1;
        while (start > 0 && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) {
            --start;
        }
        std::size_t width = static_cast<unsigned char>(s[start]) >= 0xF0 ? 2 : 1;
        units = units > width ? units - width : 0;
        end = start;
    }
    return s.substr(0, end);
}

std::shared_ptr<SMPinAnnotation> pinFromHit(const json::Node& hit) {
    // One walk over the hit's members finds them all; they are read in this order, so that a
    // hit with several faults reports the same one.
    const auto [id, name, address, iconName, lat, lon] =
        json::members(hit, {"id", "name", "address", "icon", "lat", "lon"});
    auto pin = std::make_shared<SMPinAnnotation>();
    pin->setPoiid(decodedText(id));
    pin->setName(decodedText(name));
    pin->setAddress(decodedText(address));
    // "abc.png" names the icon type "abc"; shorter names (a bare "pin") name none.
    auto icon = json::stringValue(iconName);
    if (icon && utf16Length(*icon) >= 5) {
        pin->setType(dropLastUnits(*icon, 4));
    }
    pin->setCoordinate({json::doubleValue(lat), json::doubleValue(lon)});
    return pin;
}

}  // namespace

// The hits before a fault in the answer's structure are still a result: the fault is only
// logged (with its reason) and the walk stops there.
Pins readPins(json::Node root, const std::string& keyword, map::Coordinate position) {
    Pins pins;
    try {
        const auto hits = json::items(json::member(root, "data"));
        pins.reserve(hits.size());
        for (const json::Node hit : hits) {
            pins.push_back(pinFromHit(hit));
        }
    } catch (const std::exception& e) {
        logSearchError(keyword, position, e.what());
    }
    return pins;
}

Words readWords(json::Node root, const std::string& keyword) {
    Words words;
    try {
        for (const json::Node item : json::items(json::member(root, "data"))) {
            const json::Node word = json::member(item, "w");
            // A suggestion without a word cannot be put in the list; it ends the walk.
            if (word.isMissing()) {
                throw json::StructureError("a suggestion without \"w\"");
            }
            words.push_back(decodedText(word).value_or(""));
        }
    } catch (const std::exception& e) {
        logSuggestError(keyword, e.what());
    }
    return words;
}

SearchClient::SearchClient(ServiceSettings settings, CenterProvider center)
    : settings_(std::move(settings)), center_(std::move(center)) {}

std::string SearchClient::searchQuery(const std::string& keyword,
                                      map::Coordinate coordinate) const {
    return strformat("keyword=%s&lat=%f&lon=%f&locale=%s&key=%s", keyword.c_str(),
                     coordinate.latitude, coordinate.longitude, settings_.locale.c_str(),
                     settings_.key.c_str());
}

std::string SearchClient::optionsSearchQuery(const std::string& keyword,
                                             const SMSearchOptions* options,
                                             map::Coordinate position) const {
    std::string query = strformat("keyword=%s&locale=%s&key=%s", keyword.c_str(),
                                  settings_.locale.c_str(), settings_.key.c_str());
    if (options) {
        query +=
            strformat("&lat=%f&lon=%f&span=%s&offset=%ld&limit=%ld", position.latitude,
                      position.longitude, options->span().c_str(),
                      static_cast<long>(options->offset()), static_cast<long>(options->limit()));
    }
    return query;
}

std::string SearchClient::suggestQuery(const std::string& keyword,
                                       const SMSuggestOptions* options) const {
    std::string query = strformat("keyword=%s&locale=%s&key=%s", keyword.c_str(),
                                  settings_.locale.c_str(), settings_.key.c_str());
    if (options) {
        query += strformat("&offset=%ld&limit=%ld", static_cast<long>(options->offset()),
                           static_cast<long>(options->limit()));
    }
    return query;
}

std::shared_ptr<SMServiceTask> SearchClient::searchWithKeyword(const std::string& keyword,
                                                               map::Coordinate coordinate,
                                                               PinsSink onMain) const {
    auto task = ServiceTaskAccess::create();
    auto request = makeRequest(settings_, kSearchPath, searchQuery(keyword, coordinate));
    auto transfer = fetchJSON(
        std::move(request),
        [task, keyword, coordinate, onMain = std::move(onMain)](
            std::shared_ptr<const json::Document> answer, std::optional<net::Error> error) {
            Step step(*task);
            if (!step) {
                return;
            }
            // A failed request reaches the log only; the delegate hears nothing.
            if (error) {
                logSearchError(keyword, coordinate, error->localizedDescription);
                return;
            }
            auto pins = readPins(answer->root(), keyword, coordinate);
            dispatch::RunLoop::main().async([task, onMain, pins = std::move(pins)] {
                Step onMainStep(*task);
                if (onMainStep && onMain) {
                    onMain(pins);
                }
            });
        });
    ServiceTaskAccess::attach(*task, std::move(transfer));
    return task;
}

std::shared_ptr<SMServiceTask> SearchClient::suggestWithKeyword(const std::string& keyword,
                                                                WordsSink onMain) const {
    auto task = ServiceTaskAccess::create();
    auto request = makeRequest(settings_, kSuggestPath, suggestQuery(keyword, nullptr));
    auto transfer = fetchJSON(std::move(request), [task, keyword, onMain = std::move(onMain)](
                                                      std::shared_ptr<const json::Document> answer,
                                                      std::optional<net::Error> error) {
        Step step(*task);
        if (!step) {
            return;
        }
        if (error) {
            logSuggestError(keyword, error->localizedDescription);
            return;
        }
        auto words = readWords(answer->root(), keyword);
        dispatch::RunLoop::main().async([task, onMain, words = std::move(words)] {
            Step onMainStep(*task);
            if (onMainStep && onMain) {
                onMain(words);
            }
        });
    });
    ServiceTaskAccess::attach(*task, std::move(transfer));
    return task;
}

std::shared_ptr<SMServiceTask> SearchClient::searchKeyword(const std::string& keyword,
                                                           const SMSearchOptions* options,
                                                           SMSearchResult result) const {
    // The position kept for the log line is the map's centre unless the options name one,
    // even when no options (and so no position) are sent at all.
    map::Coordinate position{0, 0};
    if (options && !(options->location().latitude == 0.0 && options->location().longitude == 0.0)) {
        position = options->location();
    } else if (center_) {
        position = center_();
    }
    auto task = ServiceTaskAccess::create();
    auto request =
        makeRequest(settings_, kSearchPath, optionsSearchQuery(keyword, options, position));
    auto transfer = fetchJSON(
        std::move(request),
        resultHandler(
            task, std::move(result),
            [keyword, position](const std::string& why) { logSearchError(keyword, position, why); },
            // The caller hears of a failure before it is logged.
            FailureLog::AfterBlock,
            [keyword, position](const Answer& answer, const SMSearchResult& block) {
                auto pins = readPins(answer->root(), keyword, position);
                if (block) {
                    block(std::move(pins), std::nullopt);
                }
            }));
    ServiceTaskAccess::attach(*task, std::move(transfer));
    return task;
}

std::shared_ptr<SMServiceTask> SearchClient::suggestKeyword(const std::string& keyword,
                                                            const SMSuggestOptions* options,
                                                            SMSuggestResult result) const {
    auto task = ServiceTaskAccess::create();
    auto request = makeRequest(settings_, kSuggestPath, suggestQuery(keyword, options));
    auto transfer =
        fetchJSON(std::move(request),
                  resultHandler(
                      task, std::move(result),
                      [keyword](const std::string& why) { logSuggestError(keyword, why); },
                      FailureLog::AfterBlock,
                      [keyword](const Answer& answer, const SMSuggestResult& block) {
                          auto words = readWords(answer->root(), keyword);
                          if (block) {
                              block(std::move(words), std::nullopt);
                          }
                      }));
    ServiceTaskAccess::attach(*task, std::move(transfer));
    return task;
}

}  // namespace sorvan::services
