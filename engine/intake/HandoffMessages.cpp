#include "engine/intake/HandoffMessages.hpp"

#include <fmt/format.h>

#include <limits>
#include <nlohmann/json.hpp>

namespace tessarin::engine {

std::optional<uint32_t> frameBodyLength(const unsigned char (&header)[4], uint32_t limit) {
    const uint32_t length = (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) |
                            (uint32_t{header[2]} << 8) | uint32_t{header[3]};
    if (length == 0 || length > limit) {
        return std::nullopt;
    }
    return length;
}

std::optional<uint32_t> requestBodyLength(const unsigned char (&header)[4]) {
    return frameBodyLength(header, kHandoffRequestLimit);
}

std::optional<std::string> frame(std::string_view body, uint32_t limit) {
    if (body.empty() || body.size() > limit) {
        return std::nullopt;
    }
    const auto length = static_cast<uint32_t>(body.size());
    std::string out;
    out.reserve(4 + body.size());
    for (int shift = 24; shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>((length >> shift) & 0xFF));
    }
    out.append(body);
    return out;
}

std::string encodeRequest(const IntakeHandoffRequest& request) {
    // Written by hand so that the keys keep the order of the format.
    std::string out = fmt::format(R"({{"presetID":{},"fileCount":{},"files":{},"actionKind":{})",
                                  nlohmann::json(request.presetID).dump(), request.fileCount,
                                  nlohmann::json(request.files).dump(),
                                  nlohmann::json(request.actionKind).dump());
    if (request.requestID) {
        out += fmt::format(R"(,"requestID":{})", nlohmann::json(*request.requestID).dump());
    }
    out += "}";
    return out;
}

std::optional<IntakeHandoffRequest> decodeRequest(std::string_view body) {
    // The parser stops at a NUL byte as if the text ended; JSON has none anywhere.
    if (body.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    const nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        return std::nullopt;
    }
    try {
        IntakeHandoffRequest request;
        const nlohmann::json& count = json.at("fileCount");
        if (count.is_number_unsigned()) {
            if (count.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
                return std::nullopt;
            }
        } else if (!count.is_number_integer()) {
            return std::nullopt;
        }
        request.presetID = json.at("presetID").get<std::string>();
        request.fileCount = count.get<int64_t>();
        request.files = json.at("files").get<std::vector<std::string>>();
        request.actionKind = json.at("actionKind").get<std::string>();
        if (const auto id = json.find("requestID"); id != json.end() && !id->is_null()) {
            request.requestID = id->get<std::string>();
        }
        return request;
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

std::string encodeResponse(const IntakeHandoffResponse& response) {
    nlohmann::json json = nlohmann::json::object();
    if (response.nonce) {
        json["nonce"] = *response.nonce;
    }
    if (response.delivered) {
        json["delivered"] = *response.delivered;
    }
    return json.dump();
}

std::optional<IntakeHandoffResponse> decodeResponse(std::string_view body) {
    if (body.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    const nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        return std::nullopt;
    }
    IntakeHandoffResponse response;
    if (const auto nonce = json.find("nonce"); nonce != json.end()) {
        if (!nonce->is_string()) {
            return std::nullopt;
        }
        response.nonce = nonce->get<std::string>();
    }
    if (const auto delivered = json.find("delivered"); delivered != json.end()) {
        if (!delivered->is_boolean()) {
            return std::nullopt;
        }
        response.delivered = delivered->get<bool>();
    }
    return response;
}

std::string percentEncode(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
            (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' ||
            byte == '~') {
            out.push_back(c);
        } else {
            out += fmt::format("%{:02X}", byte);
        }
    }
    return out;
}

std::string deliveryURL(IntakeActionKind kind, std::string_view presetID, std::string_view nonce) {
    if (kind == IntakeActionKind::transcribe) {
        return fmt::format("tessarin://convert?action=transcribe&token={}", percentEncode(nonce));
    }
    return fmt::format("tessarin://convert?preset={}&token={}", percentEncode(presetID),
                       percentEncode(nonce));
}

std::string plainIntakeURL(IntakeActionKind kind, std::string_view presetID,
                           const std::vector<std::string>& files) {
    std::string url = kind == IntakeActionKind::transcribe
                          ? std::string("tessarin://convert?action=transcribe")
                          : fmt::format("tessarin://convert?preset={}", percentEncode(presetID));
    for (const std::string& file : files) {
        url += "&file=" + percentEncode(file);
    }
    return url;
}

}  // namespace tessarin::engine
