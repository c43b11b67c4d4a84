#include "kro/kro_json.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "kro/kro_err.h"

namespace kro_json {

namespace {

using Json = nlohmann::ordered_json;

// Deeper texts are refused, because values are converted and destroyed recursively.
constexpr int kMaxDepth = 64;

Json ToJson(const Value& value);

Json ToJson(const Array& array) {
    Json json = Json::array();
    for (const Value& each : array) json.push_back(ToJson(each));
    return json;
}

Json ToJson(const Object& object) {
    Json json = Json::object();
    for (const Member& member : object) json[member.key] = ToJson(member.value);
    return json;
}

Json ToJson(const Value& value) {
    if (const bool* content = value.AsBool()) return *content;
    if (const std::int64_t* content = value.AsInt()) return *content;
    if (const double* content = value.AsDouble()) return *content;
    if (const std::string* content = value.AsText()) return *content;
    if (const Array* content = value.AsArray()) return ToJson(*content);
    if (const Object* content = value.AsObject()) return ToJson(*content);
    return nullptr;
}

Value NumberOf(const Json& json) {
    const bool fits = !json.is_number_unsigned() ||
                      json.get<std::uint64_t>() <= std::numeric_limits<std::int64_t>::max();
    if (json.is_number_integer() && fits) return json.get<std::int64_t>();
    return json.get<double>();
}

Value ToValue(const Json& json) {
    if (json.is_boolean()) return json.get<bool>();
    if (json.is_number()) return NumberOf(json);
    if (json.is_string()) return json.get<std::string>();
    if (json.is_array()) {
        Array array;
        for (const Json& each : json) array.push_back(ToValue(each));
        return array;
    }
    if (json.is_object()) {
        Object object;
        for (const auto& [key, each] : json.items()) object.push_back({key, ToValue(each)});
        return object;
    }
    return {};
}

}  // namespace

Value::Value() noexcept = default;
Value::Value(bool value) : value_(value) {}
Value::Value(std::int64_t value) : value_(value) {}
Value::Value(double value) : value_(value) {}
Value::Value(const char* value) : value_(std::string(value)) {}
Value::Value(std::string_view value) : value_(std::string(value)) {}
Value::Value(std::string value) : value_(std::move(value)) {}
Value::Value(Array value) : value_(std::move(value)) {}
Value::Value(Object value) : value_(std::move(value)) {}
Value::~Value() = default;
Value::Value(const Value& other) = default;
Value::Value(Value&& other) noexcept = default;
Value& Value::operator=(const Value& other) = default;
Value& Value::operator=(Value&& other) noexcept = default;

const Value* Value::Find(std::string_view key) const noexcept {
    const Object* object = AsObject();
    if (object == nullptr) return nullptr;
    const auto found = std::find_if(object->begin(), object->end(),
                                    [&](const Member& member) { return member.key == key; });
    return found == object->end() ? nullptr : &found->value;
}

std::string Format(const Value& value) {
    return ToJson(value).dump(-1, ' ', false, Json::error_handler_t::replace);
}

Value Parse(std::string_view text) {
    const auto check_depth = [](int depth, Json::parse_event_t /*event*/, Json& /*parsed*/) {
        if (depth > kMaxDepth)
            throw kro_err::Error(kro_err::Kind::kFailed, "the JSON is nested too deeply");
        return true;
    };
    try {
        return ToValue(Json::parse(text, check_depth));
    } catch (const Json::exception&) {
        throw kro_err::Error(kro_err::Kind::kFailed, "this is not valid JSON");
    }
}

}  // namespace kro_json
