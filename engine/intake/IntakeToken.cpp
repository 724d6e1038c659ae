#include "engine/intake/IntakeToken.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace tessarin::engine {

namespace {

constexpr std::string_view kDomainLabel("tessarin-intake-claim\0", 22);

void appendUInt(std::string& out, uint64_t value, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

void appendCounted(std::string& out, std::string_view text) {
    appendUInt(out, text.size(), 8);
    out.append(text);
}

}  // namespace

std::string_view text(IntakeActionKind kind) {
    return kind == IntakeActionKind::convert ? "convert" : "transcribe";
}

std::optional<IntakeActionKind> intakeActionKind(std::string_view text) {
    if (text == "convert") {
        return IntakeActionKind::convert;
    }
    if (text == "transcribe") {
        return IntakeActionKind::transcribe;
    }
    return std::nullopt;
}

void to_json(nlohmann::json& json, const IntakeToken& token) {
    json = nlohmann::json{
        {"nonce", token.nonce},
        {"createdAt", token.createdAt},
        {"presetID", token.presetID},
        {"fileCount", token.fileCount},
        {"actionKind", std::string(text(token.actionKind))},
        {"handoffFiles", token.handoffFiles},
        {"filesFingerprint", token.filesFingerprint},
        {"authenticationVersion", token.authenticationVersion},
        {"authenticationTag", token.authenticationTag},
    };
}

void from_json(const nlohmann::json& json, IntakeToken& token) {
    token = IntakeToken{};
    json.at("nonce").get_to(token.nonce);
    json.at("createdAt").get_to(token.createdAt);
    json.at("presetID").get_to(token.presetID);
    json.at("fileCount").get_to(token.fileCount);
    if (const auto kind = json.find("actionKind"); kind != json.end()) {
        const auto parsed = intakeActionKind(kind->get<std::string>());
        if (!parsed) {
            throw nlohmann::json::other_error::create(501, "unknown actionKind", &json);
        }
        token.actionKind = *parsed;
    }
    if (const auto files = json.find("handoffFiles"); files != json.end()) {
        files->get_to(token.handoffFiles);
    }
    if (const auto print = json.find("filesFingerprint"); print != json.end()) {
        print->get_to(token.filesFingerprint);
    }
    if (const auto version = json.find("authenticationVersion"); version != json.end()) {
        version->get_to(token.authenticationVersion);
    }
    if (const auto tag = json.find("authenticationTag"); tag != json.end()) {
        tag->get_to(token.authenticationTag);
    }
}

std::string fingerprint(std::vector<std::string> files) {
    std::sort(files.begin(), files.end());
    uint64_t hash = 0xCBF29CE484222325ULL;
    const auto mix = [&hash](unsigned char byte) {
        hash ^= byte;
        hash *= 0x100000001B3ULL;
    };
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (i > 0) {
            mix(0);
        }
        for (const char c : files[i]) {
            mix(static_cast<unsigned char>(c));
        }
    }
    return fmt::format("{:X}", hash);
}

std::string signingMessage(const IntakeToken& token) {
    if (token.authenticationVersion < 0 ||
        token.authenticationVersion > std::numeric_limits<uint32_t>::max()) {
        throw std::invalid_argument("authenticationVersion does not fit 32 bits");
    }
    if (token.handoffFiles.size() > std::numeric_limits<uint32_t>::max()) {
        throw std::invalid_argument("too many handoff files");
    }
    std::string out(kDomainLabel);
    appendUInt(out, static_cast<uint64_t>(token.authenticationVersion), 4);
    appendCounted(out, token.nonce);
    appendUInt(out, std::bit_cast<uint64_t>(token.createdAt), 8);
    appendCounted(out, token.presetID);
    appendUInt(out, static_cast<uint64_t>(token.fileCount), 8);
    appendCounted(out, text(token.actionKind));
    appendCounted(out, token.filesFingerprint);
    appendUInt(out, token.handoffFiles.size(), 4);
    for (const std::string& file : token.handoffFiles) {
        appendCounted(out, file);
    }
    return out;
}

bool isPlausibleNonce(std::string_view nonce) {
    if (nonce.empty() || nonce.size() > 64) {
        return false;
    }
    return std::all_of(nonce.begin(), nonce.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') ||
               c == '-';
    });
}

}  // namespace tessarin::engine
