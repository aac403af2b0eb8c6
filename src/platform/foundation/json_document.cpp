#include "foundation/json_document.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include "foundation/json_coerce.hpp"

namespace sorvan::json {

// A recursive descent over the text, one entry per value in document order, so that an
// array's elements and an object's members follow their container and a container's end
// skips all of it. It checks everything the tree parser checks (well-formed UTF-8, escapes and
// surrogate pairs, numbers that stay finite), but decodes only numbers: strings are unescaped
// when they are read.
// The text is a std::string, so the byte at end_ is its terminating '\0': no rule takes that
// byte, so the loops over space, digits and plain string bytes stop there without comparing
// with end_ at every step.
class Parser {
  public:
    explicit Parser(Document& doc)
        : doc_(doc),
          p_(doc.text_.data()),
          begin_(doc.text_.data()),
          end_(doc.text_.data() + doc.text_.size()) {
        // Answers hold about one value in six or seven bytes: with room for one in four, the
        // list rarely grows (the memory is what the former list of 32-byte entries reserved).
        capacity_ = doc.text_.size() / 4 + 16;
        doc_.entries_.reset(new Entry[capacity_]);
        entries_ = doc_.entries_.get();
    }

    bool run() {
        // A byte-order mark is skipped; a text starting with part of one is refused.
        if (end_ - p_ >= 1 && static_cast<unsigned char>(*p_) == 0xEF) {
            if (end_ - p_ < 3 || static_cast<unsigned char>(p_[1]) != 0xBB ||
                static_cast<unsigned char>(p_[2]) != 0xBF) {
                return false;
            }
            p_ += 3;
        }
        skipSpace();
        if (p_ == end_ || (*p_ != '{' && *p_ != '[')) {
            return false;
        }
        if (!value(0)) {
            return false;
        }
        skipSpace();
        return p_ == end_;
    }

  private:
    static constexpr std::size_t kMaxDepth = 256;
    using Entry = detail::Entry;

    Document& doc_;
    Entry* entries_;  // doc_'s, filled up to size_
    std::size_t size_ = 0;
    std::size_t capacity_;
    const char* p_;
    const char* const begin_;
    const char* const end_;

    void skipSpace() {
        while (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t') {
            ++p_;
        }
    }

    std::uint32_t add(Kind kind) {
        if (size_ == capacity_) {
            grow();
        }
        entries_[size_] = Entry{};
        entries_[size_].kind = kind;
        return static_cast<std::uint32_t>(size_++);
    }

    [[gnu::noinline]] void grow() {
        capacity_ *= 2;
        std::unique_ptr<Entry[]> larger(new Entry[capacity_]);
        std::copy(entries_, entries_ + size_, larger.get());
        doc_.entries_ = std::move(larger);
        entries_ = doc_.entries_.get();
    }

    // The end of a container, after its last descendant.
    void close(std::uint32_t index) { entries_[index].end = static_cast<std::uint32_t>(size_); }

    bool literal(std::string_view word) {
        if (static_cast<std::size_t>(end_ - p_) < word.size() ||
            std::memcmp(p_, word.data(), word.size()) != 0) {
            return false;
        }
        p_ += word.size();
        return true;
    }

    // value() and the steps for a key, a string and a number are inlined into the loop over a
    // container's items: most values are short, and a call for each cost more than its work.
    [[gnu::always_inline]] bool value(std::size_t depth) {
        if (p_ == end_) {
            return false;
        }
        switch (*p_) {
            case '{':
                return container(depth + 1, Kind::Object);
            case '[':
                return container(depth + 1, Kind::Array);
            case '"':
                return string();
            case 't':
            case 'f': {
                const bool flag = *p_ == 't';
                if (!literal(flag ? "true" : "false")) {
                    return false;
                }
                const auto index = add(Kind::Boolean);  // before entries_ is read: it may move
                entries_[index].flag = flag;
                return true;
            }
            case 'n':
                if (!literal("null")) {
                    return false;
                }
                add(Kind::Null);
                return true;
            default:
                return number();
        }
    }

    // An array or an object: its items separated by commas up to the closing bracket, each
    // item an object's "key": value or an array's value.
    bool container(std::size_t depth, Kind kind) {
        if (depth > kMaxDepth) {
            return false;
        }
        const bool isObject = kind == Kind::Object;
        const char closing = isObject ? '}' : ']';
        const auto index = add(kind);
        ++p_;
        skipSpace();
        std::uint32_t count = 0;
        if (p_ != end_ && *p_ == closing) {
            ++p_;
        } else {
            for (;;) {
                skipSpace();
                if (isObject && !key()) {
                    return false;
                }
                if (!value(depth)) {
                    return false;
                }
                ++count;
                skipSpace();
                if (p_ == end_) {
                    return false;
                }
                if (*p_ == closing) {
                    ++p_;
                    break;
                }
                if (*p_ != ',') {
                    return false;
                }
                ++p_;
            }
        }
        entries_[index].count = count;
        close(index);
        return true;
    }

    // A member's key and its colon, and the space before its value.
    [[gnu::always_inline]] bool key() {
        if (p_ == end_ || *p_ != '"' || !string()) {
            return false;
        }
        skipSpace();
        if (p_ == end_ || *p_ != ':') {
            return false;
        }
        ++p_;
        skipSpace();
        return true;
    }

    static int hexDigit(char c) {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        return -1;
    }

    // Four hex digits after "\u", or -1.
    int codeUnit() {
        if (end_ - p_ < 4) {
            return -1;
        }
        int unit = 0;
        for (int k = 0; k < 4; ++k) {
            const int digit = hexDigit(p_[k]);
            if (digit < 0) {
                return -1;
            }
            unit = unit * 16 + digit;
        }
        p_ += 4;
        return unit;
    }

    bool escape() {
        if (p_ == end_) {
            return false;
        }
        const char c = *p_++;
        switch (c) {
            case '"':
            case '\\':
            case '/':
            case 'b':
            case 'f':
            case 'n':
            case 'r':
            case 't':
                return true;
            case 'u': {
                const int unit = codeUnit();
                if (unit < 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) {
                    return false;
                }
                if (unit >= 0xD800 && unit <= 0xDBFF) {
                    // A high surrogate stands only before a low one.
                    if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') {
                        return false;
                    }
                    p_ += 2;
                    const int low = codeUnit();
                    return low >= 0xDC00 && low <= 0xDFFF;
                }
                return true;
            }
            default:
                return false;
        }
    }

    static bool continuation(unsigned char c, unsigned char low = 0x80, unsigned char high = 0xBF) {
        return c >= low && c <= high;
    }

    // One well-formed multi-byte UTF-8 sequence starting at p_.
    bool multiByte() {
        const auto* s = reinterpret_cast<const unsigned char*>(p_);
        const auto left = end_ - p_;
        const unsigned char c = s[0];
        int length = 0;
        unsigned char low = 0x80, high = 0xBF;
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            if (c == 0xE0) {
                low = 0xA0;
            } else if (c == 0xED) {
                high = 0x9F;
            }
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            if (c == 0xF0) {
                low = 0x90;
            } else if (c == 0xF4) {
                high = 0x8F;
            }
        } else {
            return false;
        }
        if (left < length || !continuation(s[1], low, high)) {
            return false;
        }
        for (int k = 2; k < length; ++k) {
            if (!continuation(s[k])) {
                return false;
            }
        }
        p_ += length;
        return true;
    }

    // Whether c is a byte a string holds as it is: printable ASCII other than '"' and '\\'.
    static bool plain(char c) {
        const auto u = static_cast<unsigned char>(c);
        return u >= 0x20 && u < 0x80 && c != '"' && c != '\\';
    }

    // The first byte from p on that is not plain, or end_. Eight bytes at a time while they
    // are all plain, as most of an answer's strings are.
    const char* skipPlain(const char* p) const {
        constexpr std::uint64_t kOnes = 0x0101010101010101;
        constexpr std::uint64_t kHigh = 0x8080808080808080;
        while (end_ - p >= 8) {
            std::uint64_t w;
            std::memcpy(&w, p, sizeof w);
            // The high bit of a byte marks it: set in a byte below 0x20 after subtracting 0x20,
            // in a byte equal to '"' or '\\' after xor with it and subtracting 1, and in any
            // byte from 0x80 up. A borrow can mark more bytes, but only where one is marked
            // already, so that a word without a mark is plain throughout.
            const std::uint64_t quote = w ^ (kOnes * '"');
            const std::uint64_t backslash = w ^ (kOnes * '\\');
            const std::uint64_t marks = ((w - kOnes * 0x20) & ~w) | ((quote - kOnes) & ~quote) |
                                        ((backslash - kOnes) & ~backslash) | w;
            if (marks & kHigh) {
                if constexpr (std::endian::native == std::endian::little) {
                    // The first byte in memory is the lowest, where no borrow reaches.
                    return p + std::countr_zero(marks & kHigh) / 8;
                }
                break;
            }
            p += 8;
        }
        while (plain(*p)) {
            ++p;
        }
        return p;
    }

    [[gnu::always_inline]] bool string() {
        const char* const start = p_ + 1;
        const char* p = start;
        bool escaped = false;
        for (;;) {
            p = skipPlain(p);
            if (p == end_) {
                return false;
            }
            const auto c = static_cast<unsigned char>(*p);
            if (c == '"') {
                break;
            }
            if (c < 0x20) {
                return false;
            }
            p_ = p;
            if (c == '\\') {
                ++p_;
                escaped = true;
                if (!escape()) {
                    return false;
                }
            } else if (!multiByte()) {
                return false;
            }
            p = p_;
        }
        const auto index = add(Kind::String);
        auto& e = entries_[index];
        e.offset = static_cast<std::uint32_t>(start - begin_);
        e.length = static_cast<std::uint32_t>(p - start);
        e.escaped = escaped;
        p_ = p + 1;
        return true;
    }

    static bool isDigit(char c) { return c >= '0' && c <= '9'; }

    // Powers of ten a double holds exactly.
    static constexpr double kExact[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                        1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                        1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

    [[gnu::always_inline]] bool number() {
        const char* const start = p_;
        const char* p = p_;
        const bool negative = *p == '-';
        if (negative) {
            ++p;
        }
        if (!isDigit(*p)) {
            return false;
        }
        // Digits are gathered as one integer while they fit, with the decimal exponent that
        // scales it, for the exact conversions below.
        std::uint64_t mantissa = 0;
        int digits = 0;  // significant digits gathered into mantissa
        bool exactMantissa = true;
        int exponent = 0;
        if (*p == '0') {
            ++p;
        } else {
            // The integer part, from a digit that is not 0.
            const char* const first = p;
            for (; isDigit(*p) && p - first < 19; ++p) {
                mantissa = mantissa * 10 + static_cast<std::uint64_t>(*p - '0');
            }
            digits = static_cast<int>(p - first);
            if (isDigit(*p)) {
                exactMantissa = false;
                const char* const rest = p;
                while (isDigit(*p)) {
                    ++p;
                }
                exponent += static_cast<int>(p - rest);
            }
        }
        bool integral = true;
        if (*p == '.') {
            integral = false;
            ++p;
            if (!isDigit(*p)) {
                return false;
            }
            if (mantissa == 0) {
                // Zeros before the first significant digit only scale.
                const char* const zeros = p;
                while (*p == '0') {
                    ++p;
                }
                exponent -= static_cast<int>(p - zeros);
            }
            const char* const first = p;
            for (; isDigit(*p) && digits < 19; ++p, ++digits) {
                mantissa = mantissa * 10 + static_cast<std::uint64_t>(*p - '0');
            }
            exponent -= static_cast<int>(p - first);
            if (isDigit(*p)) {
                exactMantissa = false;
                while (isDigit(*p)) {
                    ++p;
                }
            }
        }
        if (*p == 'e' || *p == 'E') {
            integral = false;
            ++p;
            bool negativeExponent = false;
            if (*p == '+' || *p == '-') {
                negativeExponent = *p == '-';
                ++p;
            }
            if (!isDigit(*p)) {
                return false;
            }
            int written = 0;
            for (; isDigit(*p); ++p) {
                if (written < 100000) {
                    written = written * 10 + (*p - '0');
                }
            }
            exponent += negativeExponent ? -written : written;
        }
        p_ = p;
        const auto index = add(Kind::Number);
        auto& e = entries_[index];
        const std::string_view text(start, static_cast<std::size_t>(p - start));
        if (integral) {
            // As the tree parser stores them: a negative integer signed, any other unsigned,
            // and one beyond 64 bits as a double.
            constexpr std::uint64_t kMinMagnitude = std::uint64_t{1} << 63;  // of INT64_MIN
            if (exactMantissa && !negative) {
                e.number = detail::Number::Unsigned;
                e.u = mantissa;
                return true;
            }
            if (exactMantissa && mantissa <= kMinMagnitude) {
                e.number = detail::Number::Integer;
                // Negated as unsigned: -2^63 has no positive counterpart in an int64_t.
                e.i = static_cast<std::int64_t>(~mantissa + 1);
                return true;
            }
            // Twenty digits or more may still fit an unsigned integer.
            std::uint64_t v = 0;
            const auto r = std::from_chars(text.data(), text.data() + text.size(), v);
            if (!negative && r.ec == std::errc() && r.ptr == text.data() + text.size()) {
                e.number = detail::Number::Unsigned;
                e.u = v;
                return true;
            }
        }
        e.number = detail::Number::Float;
        double d = 0;
        if (exactMantissa && mantissa < (std::uint64_t{1} << 53) && exponent >= -22 &&
            exponent <= 22) {
            // Both the mantissa and the power are exact doubles, so one operation rounds once:
            // the same double strtod gives.
            d = static_cast<double>(mantissa);
            d = exponent < 0 ? d / kExact[-exponent] : d * kExact[exponent];
            d = negative ? -d : d;
        } else {
            d = coerce::parseNumberText(text);
            // The tree parser refuses a number beyond a double's range.
            if (!std::isfinite(d)) {
                return false;
            }
        }
        e.d = d;
        return true;
    }
};

std::shared_ptr<const Document> Document::parse(std::string_view bytes, std::string* error) {
    // Offsets into the text are 32-bit; answers are bounded far below that.
    if (bytes.size() >= std::numeric_limits<std::uint32_t>::max()) {
        if (error) {
            *error =
                "The data couldn't be read because it isn't in the correct format. "
                "(larger than 4 GiB)";
        }
        return nullptr;
    }
    auto doc = std::make_shared<Document>(Key());
    doc->text_.assign(bytes);
    if (Parser(*doc).run()) {
        return doc;
    }
    auto tree = json::parse(bytes);
    if (tree.value) {
        // Both parsers are meant to agree; should they not, the tree's own text, which is
        // plain JSON, is read instead of failing a valid answer.
        auto again = std::make_shared<Document>(Key());
        again->text_ = tree.value->dump();
        if (again->text_.size() < std::numeric_limits<std::uint32_t>::max() &&
            Parser(*again).run()) {
            return again;
        }
        if (error) {
            *error = "The data couldn't be read because it isn't in the correct format.";
        }
        return nullptr;
    }
    if (error) {
        *error = std::move(tree.errorDescription);
    }
    return nullptr;
}

const Document& Document::emptyObject() {
    static const auto doc = Document::parse("{}", nullptr);
    return *doc;
}

namespace {

void appendUTF8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

std::uint32_t hexUnit(std::string_view s, std::size_t at) {
    std::uint32_t unit = 0;
    std::from_chars(s.data() + at, s.data() + at + 4, unit, 16);
    return unit;
}

// The text of a string the parser has checked, its escapes decoded.
std::string unescape(std::string_view raw) {
    std::string out;
    out.reserve(raw.size());
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '\\') {
            out += raw[i];
            continue;
        }
        const char c = raw[++i];
        switch (c) {
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'u': {
                std::uint32_t code = hexUnit(raw, i + 1);
                i += 4;
                if (code >= 0xD800 && code <= 0xDBFF) {
                    const std::uint32_t low = hexUnit(raw, i + 3);
                    i += 6;
                    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                }
                appendUTF8(out, code);
                break;
            }
            default:  // '"', '\\', '/'
                out += c;
                break;
        }
    }
    return out;
}

// Whether the key at s, of length bytes, is key. Keys are short: comparing them here costs
// less than a call to memcmp.
bool sameKey(const char* s, std::uint32_t length, std::string_view key) {
    if (length != key.size()) {
        return false;
    }
    if (length == 0) {
        return true;
    }
    // The last byte first: keys that differ mostly differ there ("lat" and "lon", "fdistance"
    // and "tdistance").
    if (s[length - 1] != key[length - 1]) {
        return false;
    }
    if (length > 16) {
        return std::memcmp(s, key.data(), length) == 0;
    }
    for (std::size_t n = 0; n + 1 < length; ++n) {
        if (s[n] != key[n]) {
            return false;
        }
    }
    return true;
}

const char* kindName(const Node& v) {
    return v.isMissing() ? "nothing" : v.typeName();
}

}  // namespace

std::string Document::stringOf(const detail::Entry& e) const {
    return e.escaped ? unescape(raw(e)) : std::string(raw(e));
}

namespace {

// The keys asked for, by length: the bits of byLength[size] tell which have that size, those of
// longer which are longer than the table. Up to 16 keys.
struct KeysByLength {
    static constexpr std::size_t kShort = 24;
    std::array<std::uint16_t, kShort> byLength{};
    std::uint16_t longer = 0;

    KeysByLength(const std::string_view* keys, std::size_t count) {
        for (std::size_t n = 0; n < count; ++n) {
            (keys[n].size() < kShort ? byLength[keys[n].size()] : longer) |=
                static_cast<std::uint16_t>(1u << n);
        }
    }
    unsigned withLength(std::uint32_t size) const {
        return size < kShort ? byLength[size] : longer;
    }
};

}  // namespace

void Document::lookUp(std::uint32_t object, const std::string_view* keys, Node* found,
                      std::size_t count) const {
    const detail::Entry* entries = entries_.get();
    const char* text = text_.data();
    const std::uint32_t end = entries[object].end;
    if (count > 3 && count <= 16) {
        // With more than a few keys, a member's key is compared with only those of its own
        // length, not with every one asked for; with a few, sorting them costs more.
        const KeysByLength sizes(keys, count);
        for (std::uint32_t i = object + 1; i < end; i = next(i + 1)) {
            const detail::Entry& k = entries[i];
            if (k.escaped) {
                matchDecoded(k, i + 1, keys, found, count);
                continue;
            }
            for (unsigned candidates = sizes.withLength(k.length); candidates != 0;
                 candidates &= candidates - 1) {
                const auto n = static_cast<std::size_t>(std::countr_zero(candidates));
                if (sameKey(text + k.offset, k.length, keys[n])) {
                    found[n] = Node(this, i + 1);  // the last of equal keys wins
                }
            }
        }
        return;
    }
    for (std::uint32_t i = object + 1; i < end; i = next(i + 1)) {
        const detail::Entry& k = entries[i];
        if (k.escaped) {
            matchDecoded(k, i + 1, keys, found, count);
            continue;
        }
        for (std::size_t n = 0; n < count; ++n) {
            if (sameKey(text + k.offset, k.length, keys[n])) {
                found[n] = Node(this, i + 1);
            }
        }
    }
}

void Document::matchDecoded(const detail::Entry& k, std::uint32_t value,
                            const std::string_view* keys, Node* found, std::size_t count) const {
    // A key with escapes is compared as it reads (rare in answers).
    const std::string decoded = stringOf(k);
    for (std::size_t n = 0; n < count; ++n) {
        if (decoded == keys[n]) {
            found[n] = Node(this, value);
        }
    }
}

const detail::Entry& Node::entry() const {
    return doc_->entry(index_);
}

std::string_view Node::raw() const {
    return doc_->raw(entry());
}

std::string Node::text() const {
    return doc_->stringOf(entry());
}

Kind Node::kind() const {
    return doc_ ? entry().kind : Kind::Null;
}

const char* Node::typeName() const {
    switch (kind()) {
        case Kind::Null:
            return "null";
        case Kind::Boolean:
            return "boolean";
        case Kind::Number:
            return "number";
        case Kind::String:
            return "string";
        case Kind::Array:
            return "array";
        case Kind::Object:
            return "object";
    }
    return "null";
}

std::size_t Node::size() const {
    const auto k = kind();
    return (k == Kind::Array || k == Kind::Object) ? entry().count : 0;
}

bool Node::contains(std::string_view key) const {
    return isObject() && !member(*this, key).isMissing();
}

Value Node::toValue() const {
    if (!doc_) {
        return Value();
    }
    const auto& e = entry();
    switch (e.kind) {
        case Kind::Null:
            return Value();
        case Kind::Boolean:
            return Value(e.flag);
        case Kind::Number:
            switch (e.number) {
                case detail::Number::Integer:
                    return Value(e.i);
                case detail::Number::Unsigned:
                    return Value(e.u);
                case detail::Number::Float:
                    return Value(e.d);
            }
            return Value();
        case Kind::String:
            return Value(text());
        case Kind::Array: {
            Value out = Value::array();
            for (const Node item : items(*this)) {
                out.push_back(item.toValue());
            }
            return out;
        }
        case Kind::Object: {
            Value out = Value::object();
            for (std::uint32_t i = index_ + 1; i < e.end; i = doc_->next(i + 1)) {
                // Assigned in order, so that the last of equal keys stays, as in a parsed tree.
                out[at(i).text()] = at(i + 1).toValue();
            }
            return out;
        }
    }
    return Value();
}

Items::Iterator& Items::Iterator::operator++() {
    index_ = doc_->next(index_);
    return *this;
}

Node member(const Node& obj, std::string_view key) {
    if (obj.isMissing()) {
        return obj;
    }
    if (!obj.isObject()) {
        coerce::wrongKind("an object", kindName(obj));
    }
    Node found;
    obj.doc_->lookUp(obj.index_, &key, &found, 1);
    return found;
}

void members(const Node& obj, const std::string_view* keys, Node* found, std::size_t count) {
    std::fill(found, found + count, Node());
    if (obj.isMissing()) {
        return;
    }
    if (!obj.isObject()) {
        coerce::wrongKind("an object", kindName(obj));
    }
    obj.doc_->lookUp(obj.index_, keys, found, count);
}

Items items(const Node& arr) {
    Items range;
    if (arr.isMissing()) {
        return range;
    }
    if (!arr.isArray()) {
        coerce::wrongKind("an array", kindName(arr));
    }
    const auto& e = arr.entry();
    range.doc_ = arr.doc_;
    range.first_ = arr.index_ + 1;
    range.end_ = e.end;
    range.count_ = e.count;
    return range;
}

Node element(const Node& arr, std::size_t index) {
    if (arr.isMissing()) {
        return arr;
    }
    const auto range = items(arr);
    if (index >= range.size()) {
        throw StructureError("index " + std::to_string(index) + " beyond the end of an array of " +
                             std::to_string(range.size()) + " elements");
    }
    auto it = range.begin();
    for (std::size_t k = 0; k < index; ++k) {
        ++it;
    }
    return *it;
}

std::optional<std::string> stringValue(const Node& v) {
    if (v.isMissing()) {
        return std::nullopt;
    }
    if (!v.isString()) {
        coerce::wrongKind("a string", kindName(v));
    }
    // Made in place: moving a short string into the optional would copy its bytes again.
    if (!v.entry().escaped) {
        return std::optional<std::string>(std::in_place, v.raw());
    }
    return v.text();
}

std::int64_t integerValue(const Node& v) {
    if (v.isMissing()) {
        return 0;
    }
    const auto& e = v.entry();
    switch (e.kind) {
        case Kind::Null:
            // A null the answer holds has no number to give; only an absent member reads as 0.
            coerce::wrongKind("a number", "null");
        case Kind::Number:
            switch (e.number) {
                case detail::Number::Integer:
                    return e.i;
                case detail::Number::Unsigned: {
                    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
                    return e.u > static_cast<std::uint64_t>(kMax) ? kMax
                                                                  : static_cast<std::int64_t>(e.u);
                }
                case detail::Number::Float:
                    return coerce::saturatingTruncate(e.d);
            }
            return 0;
        case Kind::Boolean:
            return e.flag ? 1 : 0;
        case Kind::String:
            return e.escaped ? coerce::integerFromText(v.text()) : coerce::integerFromText(v.raw());
        default:
            return 0;
    }
}

double doubleValue(const Node& v) {
    if (v.isMissing()) {
        return 0;
    }
    const auto& e = v.entry();
    switch (e.kind) {
        case Kind::Null:
            coerce::wrongKind("a number", "null");
        case Kind::Number:
            switch (e.number) {
                case detail::Number::Integer:
                    return static_cast<double>(e.i);
                case detail::Number::Unsigned:
                    return static_cast<double>(e.u);
                case detail::Number::Float:
                    return e.d;
            }
            return 0;
        case Kind::Boolean:
            return e.flag ? 1.0 : 0.0;
        case Kind::String:
            return e.escaped ? coerce::doubleFromText(v.text()) : coerce::doubleFromText(v.raw());
        default:
            return 0;
    }
}

}  // namespace sorvan::json
