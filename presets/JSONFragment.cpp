#include "presets/JSONFragment.hpp"

#include <limits>

namespace tessarin::presets {

JSONFragment JSONFragment::fromJSON(const nlohmann::json& json) {
    using Type = nlohmann::json::value_t;
    switch (json.type()) {
        case Type::null:
        case Type::discarded:
            return {nullptr};
        case Type::boolean:
            return {json.get<bool>()};
        case Type::number_integer:
            return {json.get<int64_t>()};
        case Type::number_unsigned: {
            const auto unsignedValue = json.get<uint64_t>();
            if (unsignedValue <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
                return {static_cast<int64_t>(unsignedValue)};
            }
            return {static_cast<double>(unsignedValue)};
        }
        case Type::number_float:
            return {json.get<double>()};
        case Type::string:
            return {json.get<std::string>()};
        case Type::array: {
            Array elements;
            elements.reserve(json.size());
            for (const nlohmann::json& element : json) {
                elements.push_back(fromJSON(element));
            }
            return {std::move(elements)};
        }
        case Type::object: {
            Object members;
            for (const auto& [key, member] : json.items()) {
                members.emplace(key, fromJSON(member));
            }
            return {std::move(members)};
        }
        case Type::binary: {
            // The parser never produces binary values; keep the bytes as an array of integers.
            Array bytes;
            for (const auto byte : json.get_binary()) {
                bytes.push_back({static_cast<int64_t>(byte)});
            }
            return {std::move(bytes)};
        }
    }
    return {nullptr};
}

nlohmann::json JSONFragment::toJSON() const {
    struct Encoder {
        nlohmann::json operator()(bool b) const { return b; }
        nlohmann::json operator()(int64_t i) const { return i; }
        nlohmann::json operator()(double d) const { return d; }
        nlohmann::json operator()(const std::string& s) const { return s; }
        nlohmann::json operator()(const Array& elements) const {
            nlohmann::json array = nlohmann::json::array();
            for (const JSONFragment& element : elements) {
                array.push_back(element.toJSON());
            }
            return array;
        }
        nlohmann::json operator()(const Object& members) const {
            nlohmann::json object = nlohmann::json::object();
            for (const auto& [key, member] : members) {
                object[key] = member.toJSON();
            }
            return object;
        }
        nlohmann::json operator()(std::nullptr_t) const { return nullptr; }
    };
    return std::visit(Encoder{}, value);
}

}  // namespace tessarin::presets
