#include "support/JsonReader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace pztest {

namespace {

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

/// Every function answers false, and stops anywhere, at the first character that is wrong.
class Reader {
public:
    explicit Reader(const std::string& text) : text_(text) {}

    bool ReadAll(JsonValue& value) { return Value(value) && (Space(), at_ == text_.size()); }

private:
    char Peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }

    bool Take(char c) {
        if (at_ >= text_.size() || text_[at_] != c) return false;
        ++at_;
        return true;
    }

    void Space() {
        while (at_ < text_.size() && std::strchr(" \t\r\n", text_[at_]) != nullptr) ++at_;
    }

    bool Value(JsonValue& value) {
        Space();
        switch (Peek()) {
            case '{':
                return List(value, JsonValue::Kind::Object, '{', '}');
            case '[':
                return List(value, JsonValue::Kind::Array, '[', ']');
            case '"':
                value.kind = JsonValue::Kind::String;
                return String(value.text);
            case 't':
                value.kind = JsonValue::Kind::Boolean;
                value.number = 1;
                return Word("true");
            case 'f':
                value.kind = JsonValue::Kind::Boolean;
                return Word("false");
            case 'n':
                value.kind = JsonValue::Kind::Null;
                return Word("null");
            default:
                value.kind = JsonValue::Kind::Number;
                return Number(value);
        }
    }

    bool Word(const char* word) {
        while (*word != '\0' && Take(*word)) ++word;
        return *word == '\0';
    }

    bool List(JsonValue& value, JsonValue::Kind kind, char open, char close) {
        value.kind = kind;
        if (!Take(open)) return false;
        Space();
        if (Take(close)) return true;
        do {
            if (!Member(value)) return false;
            Space();
        } while (Take(','));
        return Take(close);
    }

    bool Member(JsonValue& list) {
        std::string name;
        if (list.kind == JsonValue::Kind::Object) {
            Space();
            if (!String(name)) return false;
            Space();
            const bool twice = std::any_of(list.members.begin(), list.members.end(),
                                           [&name](const auto& m) { return m.first == name; });
            if (twice || !Take(':')) return false;
        }
        list.members.emplace_back(name, JsonValue());
        return Value(list.members.back().second);
    }

    bool String(std::string& text) {
        if (!Take('"')) return false;
        while (at_ < text_.size() && text_[at_] != '"') {
            const char c = text_[at_++];
            if (static_cast<unsigned char>(c) < ' ') return false;
            if (c == '\\') {
                if (!Escape(text)) return false;
            } else {
                text += c;
            }
        }
        return Take('"');
    }

    bool Escape(std::string& text) {
        static constexpr char kEscapes[] = "\"\\/bfnrt";
        static constexpr char kMeanings[] = "\"\\/\b\f\n\r\t";
        const char c = Peek();
        ++at_;
        if (c == 'u') return Code(text);
        const char* const escape = c != '\0' ? std::strchr(kEscapes, c) : nullptr;
        if (escape == nullptr) return false;
        text += kMeanings[escape - kEscapes];
        return true;
    }

    bool Code(std::string& text) {
        constexpr size_t kDigits = 4;
        if (text_.size() - std::min(at_, text_.size()) < kDigits) return false;
        const std::string digits = text_.substr(at_, kDigits);
        if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
        at_ += kDigits;
        const unsigned long code = std::strtoul(digits.c_str(), nullptr, 16);
        text += static_cast<char>(code);
        return code <= 0xff;
    }

    bool Number(JsonValue& value) {
        const size_t start = at_;
        Take('-');
        if (!is_digit(Peek())) return false;
        const bool zero = Take('0');
        if (zero && is_digit(Peek())) return false;
        while (is_digit(Peek())) ++at_;
        if (Take('.')) {
            if (!is_digit(Peek())) return false;
            while (is_digit(Peek())) ++at_;
        }
        const std::string number = text_.substr(start, at_ - start);
        value.number = std::strtoll(number.c_str(), nullptr, 10);
        value.real = std::strtod(number.c_str(), nullptr);
        return true;
    }

    const std::string& text_;
    size_t at_ = 0;
};

}  // namespace

const JsonValue& JsonValue::At(const std::string& name) const {
    for (const auto& member : members) {
        if (member.first == name) return member.second;
    }
    std::abort();
}

std::optional<JsonValue> read_json(const std::string& text) {
    JsonValue value;
    if (!Reader(text).ReadAll(value)) return std::nullopt;
    return value;
}

}  // namespace pztest
