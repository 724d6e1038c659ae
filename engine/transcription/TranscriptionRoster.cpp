#include "engine/transcription/TranscriptionRoster.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "engine/settings/SettingsStore.hpp"
#include "engine/text/UnicodeText.hpp"

namespace tessarin::engine {

namespace {

using nlohmann::json;

std::vector<TranscriptionRosterEntry> seeded() {
    std::vector<TranscriptionRosterEntry> out;
    for (const std::string_view id : kSeededModels) {
        out.push_back({std::string(id), true, TranscriptionRosterOrigin::seeded});
    }
    return out;
}

bool sameID(std::string_view a, std::string_view b) { return lowercasedText(a) == lowercasedText(b); }

bool canTranscribe(std::string_view id, const std::optional<CatalogSnapshot>& catalog) {
    if (!catalog) {
        return true;
    }
    const CatalogEntry* entry = catalog->find(id);
    return entry != nullptr && route(*entry) != TranscriptionRoute::unsupported;
}

}  // namespace

std::vector<TranscriptionRosterEntry> TranscriptionRoster::roster() const {
    std::vector<TranscriptionRosterEntry> entries;
    const std::optional<std::string> stored = defaults_->dataValue(kRosterKey);
    const json document = stored ? json::parse(*stored, nullptr, false) : json();
    if (document.is_array()) {
        for (const json& value : document) {
            if (!value.is_object() || !value.contains("id") || !value["id"].is_string() ||
                !value.contains("enabled") || !value["enabled"].is_boolean() ||
                !value.contains("origin") || !value["origin"].is_string()) {
                continue;
            }
            const std::string origin = value["origin"].get<std::string>();
            if (origin != "seeded" && origin != "userAdded") {
                continue;
            }
            TranscriptionRosterEntry entry{value["id"].get<std::string>(),
                                           value["enabled"].get<bool>(),
                                           origin == "seeded" ? TranscriptionRosterOrigin::seeded
                                                              : TranscriptionRosterOrigin::userAdded};
            const bool duplicate = std::any_of(entries.begin(), entries.end(), [&](const auto& e) {
                return sameID(e.id, entry.id);
            });
            if (!duplicate) {
                entries.push_back(std::move(entry));
            }
        }
    }
    for (TranscriptionRosterEntry& seed : seeded()) {
        const auto found = std::find_if(entries.begin(), entries.end(),
                                        [&](const auto& e) { return sameID(e.id, seed.id); });
        if (found == entries.end()) {
            entries.push_back(std::move(seed));
        } else {
            found->origin = TranscriptionRosterOrigin::seeded;
        }
    }
    return entries;
}

void TranscriptionRoster::store(const std::vector<TranscriptionRosterEntry>& entries) {
    json list = json::array();
    for (const TranscriptionRosterEntry& entry : entries) {
        list.push_back({{"id", entry.id},
                        {"enabled", entry.enabled},
                        {"origin", entry.origin == TranscriptionRosterOrigin::seeded ? "seeded"
                                                                                      : "userAdded"}});
    }
    defaults_->setData(kRosterKey, list.dump());
}

std::optional<std::string> TranscriptionRoster::addModel(
    std::string_view rawID, const std::optional<CatalogSnapshot>& catalog) {
    const std::u32string scalars = decodeUtf8Lossy(rawID);
    const std::string id = encodeUtf8(trimmed(std::u32string_view(scalars), isWhitespaceOrNewline));
    if (!isValidModelID(id)) {
        return "Enter the model’s ID in the form “author/model”.";
    }
    std::vector<TranscriptionRosterEntry> entries = roster();
    if (std::any_of(entries.begin(), entries.end(),
                    [&](const auto& entry) { return sameID(entry.id, id); })) {
        return "That model is already in the list.";
    }
    if (!catalog) {
        return "The model list couldn’t be checked, so this ID can’t be verified yet. Refresh the "
               "list and try again.";
    }
    const CatalogEntry* entry = catalog->find(id);
    if (entry == nullptr) {
        return "OpenRouter doesn’t list a model with that ID. Check that you entered its exact "
               "“author/model” ID.";
    }
    if (route(*entry) == TranscriptionRoute::unsupported) {
        return "That model doesn’t accept audio or video, so it can’t transcribe.";
    }
    entries.push_back({id, true, TranscriptionRosterOrigin::userAdded});
    store(entries);
    return std::nullopt;
}

bool TranscriptionRoster::remove(std::string_view id) {
    std::vector<TranscriptionRosterEntry> entries = roster();
    const auto found = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) {
        return entry.id == id && entry.origin == TranscriptionRosterOrigin::userAdded;
    });
    if (found == entries.end()) {
        return false;
    }
    entries.erase(found);
    store(entries);
    return true;
}

bool TranscriptionRoster::setEnabled(std::string_view id, bool enabled) {
    std::vector<TranscriptionRosterEntry> entries = roster();
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const auto& entry) { return entry.id == id; });
    if (found == entries.end()) {
        return false;
    }
    found->enabled = enabled;
    store(entries);
    return true;
}

void TranscriptionRoster::restoreDefaults() {
    std::vector<TranscriptionRosterEntry> entries = seeded();
    for (const TranscriptionRosterEntry& entry : roster()) {
        if (entry.origin == TranscriptionRosterOrigin::userAdded) {
            entries.push_back(entry);
        }
    }
    store(entries);
}

ActiveModelResolution TranscriptionRoster::resolveActive(
    const std::optional<CatalogSnapshot>& catalog) const {
    const std::vector<TranscriptionRosterEntry> entries = roster();
    const std::string stored = defaults_->stringValue(kActiveKey).value_or(std::string(kDefaultModel));
    const auto usable = [&](const TranscriptionRosterEntry& entry) {
        return entry.enabled && canTranscribe(entry.id, catalog);
    };
    const auto chosen = std::find_if(entries.begin(), entries.end(),
                                     [&](const auto& entry) { return entry.id == stored; });
    if (chosen != entries.end() && usable(*chosen)) {
        return {ActiveModelResolution::Kind::active, chosen->id, {}};
    }
    const auto first = std::find_if(entries.begin(), entries.end(), usable);
    if (first != entries.end()) {
        return {ActiveModelResolution::Kind::fellBack, first->id, stored};
    }
    return {};
}

void TranscriptionRoster::setActiveModel(std::string_view id) {
    defaults_->setString(kActiveKey, id);
}

}  // namespace tessarin::engine
