#include "tags/tag_registry.hpp"

#include <cmath>
#include <cstdio>

namespace sorvan::tags {
namespace {

// Numbers compare by value whatever their JSON spelling; strings and numbers never equal.
std::string numberKey(double v) {
    char text[40];
    if (std::isfinite(v) && v == std::trunc(v) && std::fabs(v) < 9.2e18) {
        std::snprintf(text, sizeof text, "n%lld", static_cast<long long>(v));
    } else {
        std::snprintf(text, sizeof text, "n%.17g", v);
    }
    return text;
}

std::string valueKey(const json::Value& v) {
    switch (v.type()) {
        case json::Value::value_t::string:
            return "s" + v.get_ref<const std::string&>();
        case json::Value::value_t::number_integer:
            return "n" + std::to_string(v.get<std::int64_t>());
        case json::Value::value_t::number_unsigned: {
            auto u = v.get<std::uint64_t>();
            return u <= static_cast<std::uint64_t>(INT64_MAX) ? "n" + std::to_string(u)
                                                              : numberKey(static_cast<double>(u));
        }
        case json::Value::value_t::number_float:
            return numberKey(v.get<double>());
        case json::Value::value_t::boolean:
            return v.get<bool>() ? "n1" : "n0";
        case json::Value::value_t::null:
            return "z";
        default:
            return "j" + v.dump();
    }
}

}  // namespace

std::string TagRegistry::keyOf(const json::Value& id, std::int64_t zoom) {
    return std::to_string(zoom) + "|" + valueKey(id);
}

bool TagRegistry::contains(const std::string& key) const {
    std::lock_guard lock(mutex_);
    return keys_.count(key) != 0;
}

bool TagRegistry::insert(const json::Value& id, std::int64_t zoom) {
    return insertKey(keyOf(id, zoom), id, zoom);
}

bool TagRegistry::insertKey(const std::string& key, const json::Value& id, std::int64_t zoom) {
    std::lock_guard lock(mutex_);
    if (!keys_.insert(key).second) {
        return false;
    }
    entries_.push_back(json::Value{{"id", id}, {"zoom", zoom}});
    return true;
}

std::size_t TagRegistry::size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

std::vector<json::Value> TagRegistry::entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
}

}  // namespace sorvan::tags
