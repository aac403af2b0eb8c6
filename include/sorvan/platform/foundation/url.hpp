// URL and URLComponents: strict validity and query encoding. Value types; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sorvan/platform/export.hpp"

namespace sorvan::net {

/// An absolute or relative URL. A string is a URL only when every character is an ASCII
/// letter or digit, one of !$&'()*+,-./:;=?@_~[] , a '%' followed by two hex digits, or a
/// single '#'. The empty string is no URL.
class SORVAN_EXPORT URL {
  public:
    /// nullopt when the text is no URL.
    static std::optional<URL> fromString(std::string_view text);

    const std::string& absoluteString() const { return text_; }
    std::string scheme() const;  // "" for a relative URL
    /// Without the brackets of an IPv6 literal; "" when there is no authority.
    std::string host() const;
    /// nullopt when absent or not a number from 0 to 65535.
    std::optional<int> port() const;
    std::string path() const;   // percent-encoded as written; "" when there is none
    std::string query() const;  // without '?', "" when there is none
    /// The URL with a path component appended ("a/b" + "c" -> "a/b/c"; one slash between
    /// them). Characters a path may not hold are percent-encoded; '/' stays.
    URL appendingPathComponent(std::string_view component) const;

    bool operator==(const URL& other) const { return text_ == other.text_; }

  private:
    explicit URL(std::string text) : text_(std::move(text)) {}
    std::string text_;
};

/// Builds a URL from parts. Setting the query percent-encodes every byte except ASCII
/// letters, digits and !$&'()*+,-./:;=?@_~ (so '&', '=', '+' pass and '%', '#', '[', ']',
/// space and non-ASCII bytes are encoded).
///
///   auto c = URLComponents::fromString("https://box.example:8443/anything");
///   c->setPath("/mapsearch/json/search");
///   c->setQuery("keyword=ร้าน กาแฟ&limit=10");
///   c->string();  // https://box.example:8443/mapsearch/json/search?keyword=%E0%B8%A3...
class SORVAN_EXPORT URLComponents {
  public:
    /// nullopt when the text is no URL, or its port is not a number from 0 to 65535.
    static std::optional<URLComponents> fromString(std::string_view text);

    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }  // IPv6 without brackets
    std::optional<int> port() const { return port_; }
    /// Percent-encoded, as it will appear in the URL.
    const std::string& path() const { return path_; }
    /// Replaces the path with unencoded text (every byte outside ASCII letters, digits and
    /// !$&'()*+,-./:;=@_~ is percent-encoded, '%' included); scheme, user, host and port stay.
    void setPath(std::string_view path);
    void setScheme(std::string scheme) { scheme_ = std::move(scheme); }
    /// Gives the URL an authority when it had none.
    void setHost(std::string host);
    void setPort(std::optional<int> port) { port_ = port; }
    /// Sets the query from unencoded text (see the class comment); nullopt removes it.
    void setQuery(std::optional<std::string_view> query);
    /// The percent-encoded query as it will appear in the URL, if any.
    const std::optional<std::string>& percentEncodedQuery() const { return query_; }

    std::optional<URL> url() const;
    std::string string() const;

  private:
    URLComponents() = default;
    std::string scheme_, host_, path_;
    std::string userInfo_;  // with its trailing '@', "" when absent
    bool hasAuthority_ = false;
    std::optional<int> port_;
    std::optional<std::string> query_, fragment_;
};

/// Percent-encodes text for a query (the rule of URLComponents::setQuery).
SORVAN_EXPORT std::string percentEncodeQuery(std::string_view text);
/// Percent-encodes text for a path (the rule of URLComponents::setPath).
SORVAN_EXPORT std::string percentEncodePath(std::string_view text);
/// Decodes %XX sequences; a '%' not followed by two hex digits stays as it is, '+' stays '+'.
SORVAN_EXPORT std::string percentDecode(std::string_view text);

}  // namespace sorvan::net
