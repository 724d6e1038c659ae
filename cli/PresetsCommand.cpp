#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/PresetCatalog.hpp"
#include "cli/PresetGate.hpp"
#include "cli/ToolLookup.hpp"
#include "presets/PresetSettings.hpp"

namespace tessarin::cli {

namespace {

// The export file: a marked object, so an import can tell it from any other JSON.
constexpr const char* kExportFormat = "tessarin-presets";
constexpr int kExportVersion = 1;

void printRepairs(const PresetCatalog& catalog) {
    for (const std::string& sentence : catalog.repairs()) {
        std::cerr << "tessarin: " << sentence << "\n";
    }
}

int listPresets(PresetCatalog& catalog) {
    const std::optional<engine::Tools> tools = locateTools();
    if (!tools) {
        return kExitToolsMissing;
    }
    const PresetGate gate(*tools);
    printRepairs(catalog);
    for (const CatalogEntry& entry : catalog.entries()) {
        std::string line = fmt::format("{:<15} {}", entry.preset.id, entry.preset.displayName);
        if (entry.edited) {
            line += " (edited)";
        }
        if (entry.readOnly) {
            line += " (read-only)";
        }
        if (const auto reason = gate.disabledReason(entry.preset)) {
            line += " (unavailable: " + *reason + ")";
        }
        std::cout << line << "\n";
    }
    return kExitSuccess;
}

int showPreset(PresetCatalog& catalog, const std::string& id) {
    const CatalogEntry* entry = catalog.find(id);
    if (entry == nullptr) {
        std::cerr << "tessarin: unknown preset \"" << id << "\"; `tessarin presets` lists them.\n";
        return kExitUsage;
    }
    nlohmann::json stored;
    if (entry->custom) {
        const auto& customs = catalog.resolver().customs;
        const auto custom = std::find_if(customs.begin(), customs.end(),
                                         [&](const auto& item) { return item.id == id; });
        stored = custom->toJSON();
    } else {
        const presets::PresetFormat format = presets::presetFormat(entry->preset.options.format);
        const auto& overrides = catalog.resolver().overrides;
        const auto found = overrides.find(id);
        stored = {{"id", id},
                  {"format", std::string(presets::rawValue(format))},
                  {"edited", entry->edited},
                  {"parameters", found != overrides.end()
                                     ? found->second.toJSON()
                                     : presets::parameters(entry->preset, format).toJSON()}};
    }
    std::cout << stored.dump(2) << "\n";
    return kExitSuccess;
}

// Writes a new file only: an export never replaces what is already there.
int exportPresets(PresetCatalog& catalog, const std::filesystem::path& file) {
    nlohmann::json customs = nlohmann::json::array();
    for (const presets::CustomPreset& custom : catalog.resolver().customs) {
        customs.push_back(custom.toJSON());
    }
    const std::string text =
        nlohmann::json{
            {"format", kExportFormat}, {"version", kExportVersion}, {"customPresets", customs}}
            .dump(2) +
        "\n";
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::cerr << "tessarin: could not create " << file.string() << ": " << std::strerror(errno)
                  << (errno == EEXIST ? " (nothing was overwritten)" : "") << "\n";
        return kExitFailure;
    }
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const bool closed = ::close(fd) == 0;
    if (!written || !closed) {
        std::cerr << "tessarin: could not write " << file.string() << "\n";
        std::filesystem::remove(file);
        return kExitFailure;
    }
    std::cerr << "tessarin: exported " << customs.size() << " custom preset"
              << (customs.size() == 1 ? "" : "s") << "\n";
    return kExitSuccess;
}

int importPresets(PresetCatalog& catalog, const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::cerr << "tessarin: could not read " << file.string() << "\n";
        return kExitFailure;
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    const std::string text = buffer.str();
    // The JSON reader takes a NUL byte for the end of its input, which would let a damaged file
    // import whatever stands before it.
    const nlohmann::json document = text.find('\0') == std::string::npos
                                        ? nlohmann::json::parse(text, nullptr, false)
                                        : nlohmann::json(nlohmann::json::value_t::discarded);
    const nlohmann::json* records = nullptr;
    if (document.is_array()) {
        records = &document;
    } else if (document.is_object() && document.value("format", "") == kExportFormat &&
               document.contains("customPresets") && document["customPresets"].is_array()) {
        records = &document["customPresets"];
    }
    if (records == nullptr) {
        std::cerr << "tessarin: " << file.string()
                  << " is not a preset export; nothing was imported.\n";
        return kExitFailure;
    }
    // The imported records join the stored ones and go through the same reading and repair as
    // at every launch, so a hand-edited or newer record is treated exactly as a stored one.
    nlohmann::json combined =
        nlohmann::json::parse(presets::PresetResolver::encodeCustoms(catalog.resolver().customs));
    int imported = 0;
    for (nlohmann::json record : *records) {
        if (!record.is_object()) {
            std::cerr << "tessarin: skipped an entry that is not a preset record\n";
            continue;
        }
        // An import adds; it never replaces a preset that is already here.
        const std::string id = record.value("id", "");
        const bool taken =
            id.empty() || engine::Preset::builtin(id) != nullptr ||
            std::any_of(combined.begin(), combined.end(),
                        [&](const nlohmann::json& item) { return item.value("id", "") == id; });
        if (taken) {
            record["id"] = presets::makeCustomPresetID();
        }
        combined.push_back(std::move(record));
        ++imported;
    }
    const presets::PresetResolver merged =
        presets::PresetResolver::load(std::nullopt, combined.dump());
    for (const std::string& sentence : merged.repairedSummaries) {
        std::cerr << "tessarin: " << sentence << "\n";
    }
    const std::vector<presets::CustomPreset>& customs = merged.customs;
    try {
        presets::saveCustoms(catalog.store(), customs);
    } catch (const std::exception& error) {
        std::cerr << "tessarin: could not save the presets: " << error.what()
                  << "; nothing was imported.\n";
        return kExitFailure;
    }
    std::cerr << "tessarin: imported " << imported << " custom preset" << (imported == 1 ? "" : "s")
              << "\n";
    return kExitSuccess;
}

}  // namespace

int runPresets(const PresetsRequest& request) {
    std::optional<PresetCatalog> catalog = PresetCatalog::open();
    if (!catalog) {
        return kExitFailure;
    }
    switch (request.action) {
        case PresetsRequest::Action::list:
            return listPresets(*catalog);
        case PresetsRequest::Action::show:
            return showPreset(*catalog, request.argument);
        case PresetsRequest::Action::exportFile:
            return exportPresets(*catalog, request.argument);
        case PresetsRequest::Action::importFile:
            return importPresets(*catalog, request.argument);
    }
    return kExitUsage;
}

}  // namespace tessarin::cli
