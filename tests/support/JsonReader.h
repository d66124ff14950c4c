#ifndef PZ_TESTS_SUPPORT_JSONREADER_H
#define PZ_TESTS_SUPPORT_JSONREADER_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pztest {

/// A JSON value.
struct JsonValue {
    enum class Kind { Object, Array, String, Number, Boolean, Null };

    Kind kind = Kind::Object;
    std::string text;      ///< of a string, its escapes resolved to single bytes
    long long number = 0;  ///< whole part of a number; 1 for true
    double real = 0;       ///< of a number
    std::vector<std::pair<std::string, JsonValue>> members;  ///< of an object; in an array unnamed

    /// The member of that name; aborts the test process when there is none.
    const JsonValue& At(const std::string& name) const;
};

/// Reads a whole text as one value; nothing when a single character is not as JSON wants it, when
/// a member comes twice, or when an escape is above \u00ff.
std::optional<JsonValue> read_json(const std::string& text);

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_JSONREADER_H
