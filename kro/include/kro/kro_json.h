// JSON: values, their text in one line, and a parser.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace kro_json {

class Value;
struct Member;

using Array = std::vector<Value>;

// The members of an object, in the order in which they are written.
using Object = std::vector<Member>;

// A JSON value. The default is null. Texts are UTF-8.
class Value {
  public:
    Value() noexcept;
    Value(bool value);
    Value(std::int64_t value);
    template <std::integral T>
    requires(!std::same_as<T, bool> && !std::same_as<T, std::int64_t>) Value(T value)
        : Value(static_cast<std::int64_t>(value)) {}
    Value(double value);
    Value(const char* value);
    Value(std::string_view value);
    Value(std::string value);
    Value(Array value);
    Value(Object value);
    ~Value();
    Value(const Value& other);
    Value(Value&& other) noexcept;
    Value& operator=(const Value& other);
    Value& operator=(Value&& other) noexcept;

    bool IsNull() const noexcept { return std::holds_alternative<std::monostate>(value_); }

    // Each returns the content, or null if the value has another type. The pointer is valid as long
    // as the value is unchanged.
    const bool* AsBool() const noexcept { return std::get_if<bool>(&value_); }
    const std::int64_t* AsInt() const noexcept { return std::get_if<std::int64_t>(&value_); }
    const double* AsDouble() const noexcept { return std::get_if<double>(&value_); }
    const std::string* AsText() const noexcept { return std::get_if<std::string>(&value_); }
    const Array* AsArray() const noexcept { return std::get_if<Array>(&value_); }
    const Object* AsObject() const noexcept { return std::get_if<Object>(&value_); }

    // The value of the member `key`. Returns null if there is no such member or the value is not an
    // object.
    const Value* Find(std::string_view key) const noexcept;

  private:
    std::variant<std::monostate, bool, std::int64_t, double, std::string, Array, Object> value_;
};

struct Member {
    std::string key;
    Value value;
};

// The value as a text without line ends. A byte that is not valid UTF-8 becomes U+FFFD.
std::string Format(const Value& value);

// Parses one JSON text. A number that does not fit in a signed 64-bit integer becomes a double.
// When an object repeats a key, the last value counts. Throws kro_err::Error with kFailed if the
// text is not JSON, or if it is nested more than 64 levels deep.
Value Parse(std::string_view text);

}  // namespace kro_json
