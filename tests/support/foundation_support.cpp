#include "support/foundation_support.hpp"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace sorvan::test {

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
    if (const char* old = ::getenv(name_.c_str())) {
        previous_ = old;
    }
    if (value) {
        ::setenv(name_.c_str(), value->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

ScopedEnv::~ScopedEnv() {
    if (previous_) {
        ::setenv(name_.c_str(), previous_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

std::time_t localTime(int year, int month, int day, int hour, int minute) {
    std::tm local{};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_isdst = -1;
    return std::mktime(&local);
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sorvan-test-XXXXXX").string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!::mkdtemp(buffer.data())) {
        throw std::runtime_error("cannot make a temporary directory from " + pattern);
    }
    path_ = buffer.data();
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& name) const {
    return path_ + "/" + name;
}

}  // namespace sorvan::test
