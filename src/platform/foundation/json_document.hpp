// Service answers read without building a tree of nlohmann values: one parse into a flat list
// of nodes that point into the document's own copy of the text, and accessors with exactly the
// rules of json_access.hpp (what reads as 0, what raises, the reasons given). Search and routing
// answers are read this way because building a general tree cost more than the whole round trip
// to a nearby server.
//
// The document accepts exactly the texts json::parse accepts (RFC 8259, at most 256 levels, an
// object or an array at the top, a leading UTF-8 byte-order mark skipped); on a refusal it asks
// json::parse for the description, so both give the same words.
// Private to the SDK. A Document is immutable once made, so it and its Nodes may be read from
// any thread; a Node is valid while its document lives.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/json_access.hpp"

namespace sorvan::json {

class Document;
class Items;

enum class Kind : std::uint8_t { Null, Boolean, Number, String, Array, Object };

namespace detail {

/// How a number was written: as the tree parser stores it.
enum class Number : std::uint8_t { Integer, Unsigned, Float };

/// One value of a document, in document order: 16 bytes, as a value needs either a place in
/// the text, a container's extent or a number, never two of them.
struct Entry {
    Kind kind;
    Number number;  // a number's kind
    bool escaped;   // a string with backslash escapes in its text
    bool flag;      // a boolean's value
    union {
        std::uint32_t length;  // a string's text, between its quotes
        std::uint32_t count;   // elements of an array, members of an object
    };
    union {
        std::uint32_t offset;  // a string's text
        std::uint32_t end;     // of an array or an object: one past its last descendant
        std::int64_t i;
        std::uint64_t u;
        double d;
    };
    bool isContainer() const { return kind == Kind::Array || kind == Kind::Object; }
};
static_assert(sizeof(Entry) == 16);

}  // namespace detail

/// One value of a document, or the missing value (what an absent member reads as, as
/// json::missing() is for trees): a null-like nothing that reads as zeros and empties, unlike a
/// JSON null in the text, which raises when read as a number or a string.
class Node {
  public:
    Node() = default;  // the missing value

    bool isMissing() const { return doc_ == nullptr; }
    /// Kind::Null for the missing value too.
    Kind kind() const;
    /// The names json::Value::type_name() gives: "null", "object", "array", "string",
    /// "boolean", "number".
    const char* typeName() const;
    bool isObject() const { return kind() == Kind::Object; }
    bool isArray() const { return kind() == Kind::Array; }
    bool isString() const { return kind() == Kind::String; }

    /// The number of elements of an array or members of an object, else 0.
    std::size_t size() const;
    /// Whether an object has the member (a null member included).
    bool contains(std::string_view key) const;

    /// The value as a tree, for the rare reads that need one (a member's JSON text) and for
    /// checks. The missing value gives a null.
    Value toValue() const;

  private:
    friend class Document;
    friend class Items;
    friend Node member(const Node&, std::string_view);
    friend void members(const Node&, const std::string_view*, Node*, std::size_t);
    friend Items items(const Node&);
    friend std::optional<std::string> stringValue(const Node&);
    friend std::int64_t integerValue(const Node&);
    friend double doubleValue(const Node&);
    Node(const Document* doc, std::uint32_t index) : doc_(doc), index_(index) {}
    // Of a node that is not the missing value: its entry, its text as written (a string's,
    // between the quotes) and that text decoded; at() is another node of the same document.
    const detail::Entry& entry() const;
    std::string_view raw() const;
    std::string text() const;
    Node at(std::uint32_t index) const { return Node(doc_, index); }

    const Document* doc_ = nullptr;
    std::uint32_t index_ = 0;
};

/// The elements of an array, in order.
class Items {
  public:
    class Iterator {
      public:
        Node operator*() const { return Node(doc_, index_); }
        Iterator& operator++();
        bool operator!=(const Iterator& other) const { return index_ != other.index_; }

      private:
        friend class Items;
        Iterator(const Document* doc, std::uint32_t index) : doc_(doc), index_(index) {}
        const Document* doc_;
        std::uint32_t index_;
    };
    Iterator begin() const { return {doc_, first_}; }
    Iterator end() const { return {doc_, end_}; }
    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }

  private:
    friend Items items(const Node& arr);
    Items() = default;
    const Document* doc_ = nullptr;
    std::uint32_t first_ = 0, end_ = 0, count_ = 0;
};

class Document {
  public:
    /// Parses a copy of bytes. Never throws: a refused text gives nullptr and its description
    /// in *error (the same description json::parse gives).
    static std::shared_ptr<const Document> parse(std::string_view bytes, std::string* error);

    Node root() const { return Node(this, 0); }

    /// A document holding "{}", for answers that read as an empty object.
    static const Document& emptyObject();

    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

  private:
    // Only parse() makes documents; the key lets it do so through std::make_shared, which
    // puts a document and its count in one allocation.
    struct Key {
        explicit Key() = default;
    };

  public:
    explicit Document(Key) {}

  private:
    friend class Node;
    friend class Items;
    friend class Parser;
    friend Node member(const Node&, std::string_view);
    friend void members(const Node&, const std::string_view*, Node*, std::size_t);

    std::string text_;
    std::unique_ptr<detail::Entry[]> entries_;

    const detail::Entry& entry(std::uint32_t index) const { return entries_[index]; }
    // The index after the entry at index and all its descendants.
    std::uint32_t next(std::uint32_t index) const {
        const auto& e = entries_[index];
        return e.isContainer() ? e.end : index + 1;
    }
    std::string_view raw(const detail::Entry& e) const {
        return {text_.data() + e.offset, e.length};
    }
    std::string stringOf(const detail::Entry& e) const;
    // Of the object at index object: into found[k], the value of the last member named
    // keys[k]; found[k] is left as it is for a key no member has.
    void lookUp(std::uint32_t object, const std::string_view* keys, Node* found,
                std::size_t count) const;
    // The part of lookUp() for a key k written with escapes, whose value is at index value.
    void matchDecoded(const detail::Entry& k, std::uint32_t value, const std::string_view* keys,
                      Node* found, std::size_t count) const;
};

/// The rules of the same-named functions of json_access.hpp, over a document's nodes.
/// obj[key], the last of equal keys; missing for an absent key or a missing obj; raises
/// StructureError ("expected an object, found ...") for other kinds, a JSON null included.
Node member(const Node& obj, std::string_view key);
/// member(obj, keys[k]) into found[k] for each of count keys, in one walk over the members:
/// the same values and the same fault as count calls of member(), for the price of one.
void members(const Node& obj, const std::string_view* keys, Node* found, std::size_t count);
/// The same, for a list of keys written out: auto [a, b] = members(obj, {"a", "b"}).
template <std::size_t N>
std::array<Node, N> members(const Node& obj, const std::string_view (&keys)[N]) {
    std::array<Node, N> found;
    members(obj, keys, found.data(), N);
    return found;
}
/// The elements of an array; none for the missing value; raises for other kinds.
Items items(const Node& arr);
/// arr[index]; raises for other kinds and for an index beyond the end.
Node element(const Node& arr, std::size_t index);
/// A string; nullopt for the missing value; raises for other kinds.
std::optional<std::string> stringValue(const Node& v);
std::int64_t integerValue(const Node& v);
double doubleValue(const Node& v);

}  // namespace sorvan::json
