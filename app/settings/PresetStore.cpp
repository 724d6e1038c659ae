#include "app/settings/PresetStore.hpp"

#include <QCoreApplication>
#include <QThread>
#include <algorithm>
#include <array>
#include <exception>
#include <stdexcept>
#include <utility>

#include "app/settings/internal/ToolchainJSON.hpp"
#include "app/support/MainThreadHandoff.hpp"
#include "engine/encoders/EncoderInventory.hpp"
#include "engine/log/Log.hpp"
#include "presets/PresetFormat.hpp"
#include "presets/PresetResolver.hpp"

namespace tessarin::app {

namespace {

using engine::ExternalSoftwareHEVCToolchain;
using engine::ExternalSoftwareHEVCValidationError;
using presets::CustomPreset;
using presets::PresetParameters;
using presets::PresetResolver;

const engine::Logger& log() {
    static const engine::Logger logger("com.tessarin.app", "presets");
    return logger;
}

// The keys the migration carries over, each only into an empty place.
constexpr std::array<std::string_view, 5> kMigratedKeys = {
    presets::kPresetOverridesKey, presets::kCustomPresetsKey, "uiScale",
    "diagnosticsConsent",         "recentEngineErrors",
};

void logWriteFailure(std::string_view key, const std::exception& error) {
    log().error(engine::KeyValues()
                    .add("event", "settings write failed")
                    .add("key", key)
                    .add("error", error.what())
                    .str());
}

bool isStandardStore(const engine::SettingsStore& store) {
    try {
        return store.file() == engine::SettingsStore::standard().file();
    } catch (const std::exception&) {
        return false;  // no home folder: there is no standard store to compare with
    }
}

}  // namespace

using Status = PresetStore::ExternalSoftwareHEVCStatus;

Status Status::ready(ExternalSoftwareHEVCToolchain toolchain) {
    return {Kind::ready, std::move(toolchain), {}};
}
Status Status::changed(std::string sentence) {
    return {Kind::changed, {}, std::move(sentence)};
}
Status Status::failed(std::string sentence) {
    return {Kind::failed, {}, std::move(sentence)};
}
Status Status::notConfigured() {
    return {Kind::notConfigured, {}, {}};
}
Status Status::checking() {
    return {Kind::checking, {}, {}};
}

PresetStore::PresetStore(std::shared_ptr<engine::SettingsStore> defaults,
                         engine::ExternalSoftwareHEVCValidator validator,
                         SoftwareHEVCSourceQuery bundledSoftwareHEVC, QObject* parent)
    : QObject(parent),
      defaults_(std::move(defaults)),
      externalValidator_(std::move(validator)),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", log())) {
    if (!defaults_) {
        throw std::invalid_argument("PresetStore needs a settings store");
    }
    requireMainThread();
    loadPersistedToolchain();
    migrateWhenStandard();
    loadPresets();
    startBundledQuery(std::move(bundledSoftwareHEVC));
    if (persistedExternalSoftwareHEVC_) {
        const engine::ExternalSoftwareHEVCValidator validator = externalValidator_;
        const ExternalSoftwareHEVCToolchain stored = *persistedExternalSoftwareHEVC_;
        startValidation(
            [validator, stored] {
                validator.revalidate(stored);
                return stored;
            },
            /*storeOnSuccess=*/false);
    }
}

PresetStore::~PresetStore() {
    handoff_->detach();
}

PresetStore::SoftwareHEVCSourceQuery PresetStore::bundledSoftwareHEVCQuery(
    std::filesystem::path ffmpeg) {
    return [ffmpeg = std::move(ffmpeg)] {
        return engine::bundledSoftwareHEVCSource(engine::EncoderInventory::shared(), ffmpeg);
    };
}

void PresetStore::requireMainThread() const {
    const QCoreApplication* application = QCoreApplication::instance();
    if (application == nullptr || QThread::currentThread() != application->thread() ||
        QThread::currentThread() != thread()) {
        qFatal("PresetStore used outside the main thread");
    }
}

// ---- launch

void PresetStore::loadPersistedToolchain() {
    const std::optional<std::string> text = defaults_->dataValue(kExternalSoftwareHEVCToolchainKey);
    if (!text) {
        return;
    }
    persistedExternalSoftwareHEVC_ = settings_internal::toolchainFromJSON(
        nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false));
    if (!persistedExternalSoftwareHEVC_) {
        log().notice("event=\"stored toolchain unreadable\"");
    }
}

void PresetStore::migrateWhenStandard() {
    if (!isStandardStore(*defaults_)) {
        return;
    }
    try {
        const engine::SettingsStore oldSuite = engine::SettingsStore::suite(kOrchardineSuiteName);
        migrateFromOrchardineDefaults(*defaults_, oldSuite);
    } catch (const std::exception& error) {
        logWriteFailure(kDidMigrateFromOrchardineDefaultsKey, error);
    }
}

void PresetStore::migrateFromOrchardineDefaults(engine::SettingsStore& defaults,
                                                const engine::SettingsStore& oldSuite) {
    if (defaults.boolValue(kDidMigrateFromOrchardineDefaultsKey).value_or(false)) {
        return;
    }
    std::vector<std::pair<std::string, nlohmann::json>> found;
    for (const std::string_view key : kMigratedKeys) {
        if (const std::optional<std::string> text = oldSuite.dataValue(key)) {
            found.emplace_back(std::string(key), nlohmann::json::parse(*text));
        }
    }
    int copied = 0;
    // Checked again under the file lock, so that a second instance starting at the same moment
    // neither copies twice nor overwrites what the first one wrote.
    defaults.update([&](nlohmann::json& object) {
        const auto flag = object.find(kDidMigrateFromOrchardineDefaultsKey);
        if (flag != object.end() && flag->is_boolean() && flag->get<bool>()) {
            return;
        }
        for (const auto& [key, value] : found) {
            if (!object.contains(key)) {
                object[key] = value;
                ++copied;
            }
        }
        object[std::string(kDidMigrateFromOrchardineDefaultsKey)] = true;
    });
    log().notice(engine::KeyValues().add("event", "migrated").add("keys", copied).str());
}

void PresetStore::loadPresets() {
    PresetResolver resolver =
        PresetResolver::load(defaults_->dataValue(presets::kPresetOverridesKey),
                             defaults_->dataValue(presets::kCustomPresetsKey));
    overrides_ = std::move(resolver.overrides);
    customs_ = std::move(resolver.customs);

    if (!resolver.repairedSummaries.empty()) {
        std::string notice;
        for (const std::string& sentence : resolver.repairedSummaries) {
            if (!notice.empty()) {
                notice += '\n';
            }
            notice += sentence;
        }
        repairNotice_ = std::move(notice);
        log().notice(engine::KeyValues()
                         .add("event", "presets repaired")
                         .add("count", resolver.repairedSummaries.size())
                         .str());
    }
    const bool needsIDWriteBack = std::any_of(
        customs_.begin(), customs_.end(), [](const CustomPreset& c) { return c.needsIDWriteBack; });
    if (resolver.repairedSummaries.empty() && !needsIDWriteBack) {
        return;
    }
    // Both collections in one write, so the repaired form replaces the bad one and a made-up id
    // of a read-only record is the same at the next launch.
    try {
        const nlohmann::json overridesJSON =
            nlohmann::json::parse(PresetResolver::encodeOverrides(overrides_));
        const nlohmann::json customsJSON =
            nlohmann::json::parse(PresetResolver::encodeCustoms(customs_));
        defaults_->update([&](nlohmann::json& object) {
            object[std::string(presets::kPresetOverridesKey)] = overridesJSON;
            object[std::string(presets::kCustomPresetsKey)] = customsJSON;
        });
        for (CustomPreset& custom : customs_) {
            custom.needsIDWriteBack = false;
        }
    } catch (const std::exception& error) {
        logWriteFailure(presets::kCustomPresetsKey, error);
    }
}

void PresetStore::startBundledQuery(SoftwareHEVCSourceQuery query) {
    if (!query) {
        return;
    }
    try {
        handoff_->start([query = std::move(query), store = this] {
            const engine::SoftwareHEVCSource source = query();
            return MainThreadHandoff::Completion([store, source] {
                store->bundledSoftwareHEVC_ = source;
                store->updateEncoderPolicy();
            });
        });
    } catch (const std::exception& error) {
        log().error(engine::KeyValues()
                        .add("event", "encoder query not started")
                        .add("error", error.what())
                        .str());
    }
}

// ---- effective presets

const std::vector<engine::Preset>& PresetStore::effectivePresets() {
    requireMainThread();
    if (!cachedEffectivePresets_) {
        PresetResolver resolver;
        resolver.overrides = overrides_;
        resolver.customs = customs_;
        cachedEffectivePresets_ =
            resolver.effectivePresets(engine::Preset::builtins(), encoderPolicy_);
    }
    return *cachedEffectivePresets_;
}

std::vector<engine::Preset> PresetStore::allPresets() const {
    requireMainThread();
    PresetResolver resolver;
    resolver.overrides = overrides_;
    resolver.customs = customs_;
    return resolver.effectivePresets(engine::Preset::builtins());
}

std::optional<engine::Preset> PresetStore::preset(std::string_view id) {
    const std::vector<engine::Preset>& presets = effectivePresets();
    const auto found = std::find_if(presets.begin(), presets.end(),
                                    [&](const engine::Preset& p) { return p.id == id; });
    if (found == presets.end()) {
        return std::nullopt;
    }
    return *found;
}

std::optional<PresetParameters> PresetStore::parameters(std::string_view builtinID) const {
    requireMainThread();
    if (const auto found = overrides_.find(std::string(builtinID)); found != overrides_.end()) {
        return found->second;
    }
    if (const engine::Preset* builtin = engine::Preset::builtin(builtinID)) {
        return presets::parameters(*builtin, presets::presetFormat(builtin->options.format));
    }
    return std::nullopt;
}

bool PresetStore::hasOverride(std::string_view id) const {
    requireMainThread();
    return overrides_.contains(std::string(id));
}

void PresetStore::presetsChanged() {
    cachedEffectivePresets_.reset();
    emit effectivePresetsChanged();
}

// ---- overrides and customs

void PresetStore::setOverride(const std::string& id, const PresetParameters& parameters) {
    requireMainThread();
    overrides_[id] = parameters;
    saveOverrides();
    emit overridesChanged();
    presetsChanged();
}

void PresetStore::revert(std::string_view id) {
    requireMainThread();
    const auto found = overrides_.find(std::string(id));
    if (found == overrides_.end()) {
        return;
    }
    overrides_.erase(found);
    saveOverrides();
    emit overridesChanged();
    presetsChanged();
}

CustomPreset PresetStore::addCustom() {
    requireMainThread();
    CustomPreset custom;
    custom.id = presets::makeCustomPresetID();
    custom.name = "New Preset";
    custom.format = presets::PresetFormat::h264;
    custom.parameters = presets::defaultParameters(presets::PresetFormat::h264);
    custom.schemaVersion = CustomPreset::kCurrentSchemaVersion;
    customs_.push_back(custom);
    saveCustoms();
    emit customsChanged();
    presetsChanged();
    return custom;
}

bool PresetStore::updateCustom(const CustomPreset& custom) {
    requireMainThread();
    const auto found = std::find_if(customs_.begin(), customs_.end(),
                                    [&](const CustomPreset& c) { return c.id == custom.id; });
    if (found == customs_.end() || found->isReadOnly()) {
        return false;
    }
    *found = custom;
    saveCustoms();
    emit customsChanged();
    presetsChanged();
    return true;
}

bool PresetStore::deleteCustom(std::string_view id) {
    requireMainThread();
    const auto found = std::find_if(customs_.begin(), customs_.end(),
                                    [&](const CustomPreset& c) { return c.id == id; });
    if (found == customs_.end()) {
        return false;
    }
    customs_.erase(found);
    saveCustoms();
    emit customsChanged();
    presetsChanged();
    return true;
}

void PresetStore::clearRepairNotice() {
    requireMainThread();
    if (!repairNotice_) {
        return;
    }
    repairNotice_.reset();
    emit repairNoticeChanged();
}

void PresetStore::saveOverrides() {
    try {
        defaults_->setData(presets::kPresetOverridesKey,
                           PresetResolver::encodeOverrides(overrides_));
    } catch (const std::exception& error) {
        logWriteFailure(presets::kPresetOverridesKey, error);
    }
}

void PresetStore::saveCustoms() {
    try {
        defaults_->setData(presets::kCustomPresetsKey, PresetResolver::encodeCustoms(customs_));
        for (CustomPreset& custom : customs_) {
            custom.needsIDWriteBack = false;
        }
    } catch (const std::exception& error) {
        logWriteFailure(presets::kCustomPresetsKey, error);
    }
}

// ---- external software HEVC

void PresetStore::chooseExternalSoftwareHEVC(const std::filesystem::path& folder) {
    requireMainThread();
    externalSoftwareHEVCCandidateDirectory_ = folder;
    const engine::ExternalSoftwareHEVCValidator validator = externalValidator_;
    startValidation([validator, folder] { return validator.validate(folder); },
                    /*storeOnSuccess=*/true);
}

void PresetStore::clearExternalSoftwareHEVC() {
    requireMainThread();
    ++externalSoftwareHEVCValidationGeneration_;  // whatever is still checking is now stale
    externalSoftwareHEVCCandidateDirectory_.reset();
    persistedExternalSoftwareHEVC_.reset();
    removeStoredToolchain();
    setStatus(Status::notConfigured());
    updateEncoderPolicy();
}

void PresetStore::startValidation(std::function<ExternalSoftwareHEVCToolchain()> check,
                                  bool storeOnSuccess) {
    const uint64_t generation = ++externalSoftwareHEVCValidationGeneration_;
    setStatus(Status::checking());
    updateEncoderPolicy();
    using Completion = MainThreadHandoff::Completion;
    try {
        handoff_->start(
            [check = std::move(check), store = this, generation, storeOnSuccess]() -> Completion {
                try {
                    ExternalSoftwareHEVCToolchain toolchain = check();
                    return [store, generation, storeOnSuccess, toolchain = std::move(toolchain)] {
                        store->finishValidation(generation, toolchain, storeOnSuccess);
                    };
                } catch (const ExternalSoftwareHEVCValidationError& error) {
                    Status status =
                        error.kind() == ExternalSoftwareHEVCValidationError::Kind::identityChanged
                            ? Status::changed(error.what())
                            : Status::failed(error.what());
                    return [store, generation, status = std::move(status)] {
                        store->failValidation(generation, status);
                    };
                } catch (const std::exception& error) {
                    // A file that can't be read: the system's own words are the best we have.
                    return [store, generation, status = Status::failed(error.what())] {
                        store->failValidation(generation, status);
                    };
                }
            });
    } catch (const std::exception& error) {
        failValidation(generation, Status::failed(error.what()));
    }
}

bool PresetStore::isStaleValidation(uint64_t generation) const {
    if (generation == externalSoftwareHEVCValidationGeneration_) {
        return false;
    }
    log().info(engine::KeyValues()
                   .add("event", "stale validation dropped")
                   .add("generation", generation)
                   .str());
    return true;
}

void PresetStore::finishValidation(uint64_t generation, ExternalSoftwareHEVCToolchain toolchain,
                                   bool storeOnSuccess) {
    if (isStaleValidation(generation)) {
        return;
    }
    if (storeOnSuccess) {
        persistedExternalSoftwareHEVC_ = toolchain;
        saveToolchain(toolchain);
    }
    externalSoftwareHEVCCandidateDirectory_.reset();
    setStatus(Status::ready(std::move(toolchain)));
    updateEncoderPolicy();
}

void PresetStore::failValidation(uint64_t generation, Status status) {
    if (isStaleValidation(generation)) {
        return;
    }
    externalSoftwareHEVCCandidateDirectory_.reset();
    setStatus(std::move(status));
    updateEncoderPolicy();
}

void PresetStore::setStatus(Status status) {
    if (status == externalSoftwareHEVCStatus_) {
        return;
    }
    externalSoftwareHEVCStatus_ = std::move(status);
    emit externalSoftwareHEVCStatusChanged();
}

void PresetStore::updateEncoderPolicy() {
    engine::EncoderCapabilityPolicy policy;
    policy.softwareHEVC = externalSoftwareHEVCStatus_.kind == Status::Kind::ready
                              ? engine::SoftwareHEVCSource::external
                              : bundledSoftwareHEVC_;
    if (policy == encoderPolicy_) {
        return;
    }
    encoderPolicy_ = policy;
    emit encoderPolicyChanged();
    presetsChanged();
}

void PresetStore::saveToolchain(const ExternalSoftwareHEVCToolchain& toolchain) {
    try {
        defaults_->setData(kExternalSoftwareHEVCToolchainKey,
                           settings_internal::toolchainToJSON(toolchain).dump());
    } catch (const std::exception& error) {
        logWriteFailure(kExternalSoftwareHEVCToolchainKey, error);
    }
}

void PresetStore::removeStoredToolchain() {
    try {
        defaults_->remove(kExternalSoftwareHEVCToolchainKey);
    } catch (const std::exception& error) {
        logWriteFailure(kExternalSoftwareHEVCToolchainKey, error);
    }
}

// ---- background hand-off

void PresetStore::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

bool PresetStore::waitForBackgroundWork(std::chrono::milliseconds limit) {
    return handoff_->waitUntilIdle(limit);
}

}  // namespace tessarin::app
