// URL and URLComponents: strict validity and query encoding. Value types; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sorvan::net {

/// An absolute or relative URL. A string is a URL only when every character is an ASCII
/// letter or digit, one of !$&'()*+,-./:;=?@_~[] , a '%' followed by two hex digits, or a
/// single '#'. The empty string is no URL.
class URL {
  public:
    /// nullopt when the text is no URL.
    static std::optional<URL> fromString(std::string_view text);

    const std::string& absoluteString() const { return text_; }
    std::string scheme() const;
    std::string host() const;
    std::optional<int> port() const;
    std::string path() const;   // "" when there is none
    std::string query() const;  // without '?', "" when there is none
    /// The URL with a path component appended ("a/b" + "c" -> "a/b/c").
    URL appendingPathComponent(std::string_view component) const;

    bool operator==(const URL& other) const { return text_ == other.text_; }

  private:
    explicit URL(std::string text) : text_(std::move(text)) {}
    std::string text_;
};

/// Builds a URL from parts. Setting the query percent-encodes every byte except ASCII
/// letters, digits and !$&'()*+,-./:;=?@_~ (so '&', '=', '+' pass and '%', '#', '[', ']',
/// space and non-ASCII bytes are encoded).
class URLComponents {
  public:
    /// nullopt when the text is no URL.
    static std::optional<URLComponents> fromString(std::string_view text);

    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }
    std::optional<int> port() const { return port_; }
    const std::string& path() const { return path_; }
    /// Replaces the path; scheme, user, host and port stay.
    void setPath(std::string path) { path_ = std::move(path); }
    /// Sets the query from unencoded text (see the class comment); nullopt removes it.
    void setQuery(std::optional<std::string_view> query);
    /// The percent-encoded query as it will appear in the URL, if any.
    const std::optional<std::string>& percentEncodedQuery() const { return query_; }

    std::optional<URL> url() const;
    std::string string() const;

  private:
    URLComponents() = default;
    std::string scheme_, userInfo_, host_, path_;
    std::optional<int> port_;
    std::optional<std::string> query_, fragment_;
};

/// Percent-encodes text for a query (the rule of URLComponents::setQuery).
std::string percentEncodeQuery(std::string_view text);

}  // namespace sorvan::net
