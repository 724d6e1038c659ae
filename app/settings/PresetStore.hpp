// The application's owner of everything about presets: the overrides of built-in presets, the
// custom presets, and the encoder policy with its optional user-chosen software HEVC toolchain.
// It reads them at launch, writes them back after every change, and answers which presets are
// effective for the window, the queue and URL intake.
//
//   auto defaults = std::make_shared<engine::SettingsStore>(engine::SettingsStore::standard());
//   PresetStore store(defaults, engine::ExternalSoftwareHEVCValidator{},
//                     PresetStore::bundledSoftwareHEVCQuery(tools.ffmpeg));
//   QObject::connect(&store, &PresetStore::effectivePresetsChanged, window, &Window::reload);
//   store.setOverride("mp4-h264", edited);  // saved at once
//
// Threads: a PresetStore lives on the main thread (QCoreApplication's) and every member must be
// called there; calling from another thread stops the process. Slow work (asking the helper
// folder's ffmpeg for its encoders, checking a toolchain) runs on worker threads, and its result
// comes back through the main thread's event loop. A check is tagged with a generation; a result
// of an older generation than the latest check is dropped.
//
// Storage: settings writes happen on the calling (main) thread. A write that fails is logged and
// the in-memory state stands; after construction nothing here throws but std::bad_alloc and, in
// addCustom, std::system_error when the system has no randomness for an id.
#pragma once

#include <QObject>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/encoders/ExternalSoftwareHEVCValidator.hpp"
#include "engine/model/ExternalSoftwareHEVCToolchain.hpp"
#include "engine/model/Preset.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "presets/CustomPreset.hpp"
#include "presets/PresetParameters.hpp"

namespace tessarin::app {

class MainThreadHandoff;

inline constexpr std::string_view kExternalSoftwareHEVCToolchainKey =
    "externalSoftwareHEVCToolchain.v1";
inline constexpr std::string_view kDidMigrateFromOrchardineDefaultsKey =
    "didMigrateFromOrchardineDefaults";
// The earlier program's settings suite, read once by the migration and never written.
inline constexpr std::string_view kOrchardineSuiteName = "com.orchardine.tessarin";

class PresetStore : public QObject {
    Q_OBJECT

public:
    // Where the user-chosen toolchain stands. `toolchain` is set for `ready`; `sentence`, the
    // text to show, for `changed` and `failed`.
    struct ExternalSoftwareHEVCStatus {
        enum class Kind { ready, changed, failed, notConfigured, checking };

        Kind kind = Kind::notConfigured;
        std::optional<engine::ExternalSoftwareHEVCToolchain> toolchain;
        std::string sentence;

        [[nodiscard]] static ExternalSoftwareHEVCStatus ready(
            engine::ExternalSoftwareHEVCToolchain toolchain);
        [[nodiscard]] static ExternalSoftwareHEVCStatus changed(std::string sentence);
        [[nodiscard]] static ExternalSoftwareHEVCStatus failed(std::string sentence);
        [[nodiscard]] static ExternalSoftwareHEVCStatus notConfigured();
        [[nodiscard]] static ExternalSoftwareHEVCStatus checking();

        bool operator==(const ExternalSoftwareHEVCStatus&) const = default;
    };

    // Where a software H.265 encoder comes from when no external toolchain is ready. Runs on a
    // worker thread and may block; it must not throw.
    using SoftwareHEVCSourceQuery = std::function<engine::SoftwareHEVCSource()>;

    // Reads the stores, migrates the earlier program's settings once (only when `defaults` is the
    // standard store), repairs and re-saves what needs it, and starts the background checks: the
    // query of `bundledSoftwareHEVC` (none: `unavailable`, without asking) and, when a toolchain
    // is stored, its revalidation. Until a check answers, the policy is `unavailable` and the
    // status of a stored toolchain is `checking`. `defaults` must not be null
    // (std::invalid_argument); nothing else throws but std::bad_alloc.
    PresetStore(std::shared_ptr<engine::SettingsStore> defaults,
                engine::ExternalSoftwareHEVCValidator validator,
                SoftwareHEVCSourceQuery bundledSoftwareHEVC, QObject* parent = nullptr);
    // Results still on their way are dropped; running checks finish on their own threads.
    ~PresetStore() override;

    PresetStore(const PresetStore&) = delete;
    PresetStore& operator=(const PresetStore&) = delete;

    // Asks the ffmpeg at `ffmpeg` (the helper folder's) through EncoderInventory::shared().
    [[nodiscard]] static SoftwareHEVCSourceQuery bundledSoftwareHEVCQuery(
        std::filesystem::path ffmpeg);

    // The one-time copy of presets and a few application keys from the earlier program's suite:
    // a key is copied only when `defaults` has nothing under it and `oldSuite` has, and only
    // while kDidMigrateFromOrchardineDefaultsKey is unset; the flag is set at the end. `oldSuite`
    // is only read. One locked read-modify-write of `defaults`; throws what
    // SettingsStore::update throws.
    static void migrateFromOrchardineDefaults(engine::SettingsStore& defaults,
                                              const engine::SettingsStore& oldSuite);

    [[nodiscard]] const std::map<std::string, presets::PresetParameters>& overrides() const {
        return overrides_;
    }
    [[nodiscard]] const std::vector<presets::CustomPreset>& customs() const { return customs_; }
    [[nodiscard]] const engine::EncoderCapabilityPolicy& encoderPolicy() const {
        return encoderPolicy_;
    }
    [[nodiscard]] const ExternalSoftwareHEVCStatus& externalSoftwareHEVCStatus() const {
        return externalSoftwareHEVCStatus_;
    }
    // One sentence per preset repaired at launch, joined with newlines.
    [[nodiscard]] const std::optional<std::string>& repairNotice() const { return repairNotice_; }
    // The toolchain last validated and stored; what jobs run `h265` with under `external`.
    [[nodiscard]] const std::optional<engine::ExternalSoftwareHEVCToolchain>&
    persistedExternalSoftwareHEVC() const {
        return persistedExternalSoftwareHEVC_;
    }
    // The folder being checked, while a choice is checked.
    [[nodiscard]] const std::optional<std::filesystem::path>&
    externalSoftwareHEVCCandidateDirectory() const {
        return externalSoftwareHEVCCandidateDirectory_;
    }
    [[nodiscard]] uint64_t externalSoftwareHEVCValidationGeneration() const {
        return externalSoftwareHEVCValidationGeneration_;
    }

    // The built-ins with their overrides, then the customs, without what the encoder policy does
    // not allow. Computed once per change.
    [[nodiscard]] const std::vector<engine::Preset>& effectivePresets();
    // The built-ins with their overrides, then the customs, also those the encoder policy does
    // not allow: what the chips show, the refused ones with their reason.
    [[nodiscard]] std::vector<engine::Preset> allPresets() const;
    // An effective preset by id: the queue's preset lookup.
    [[nodiscard]] std::optional<engine::Preset> preset(std::string_view id);
    // The override of a built-in, or the parameters of the shipped preset; nothing for an id
    // that is neither.
    [[nodiscard]] std::optional<presets::PresetParameters> parameters(
        std::string_view builtinID) const;
    // Whether the row shows " (edited)".
    [[nodiscard]] bool hasOverride(std::string_view id) const;

    // Stores `parameters` as the override of `id`; the shipped preset is never modified.
    void setOverride(const std::string& id, const presets::PresetParameters& parameters);
    // Deletes the override of `id`; without one, nothing changes.
    void revert(std::string_view id);

    // Appends "New Preset", H.264 with its default parameters, under a fresh id; returns it.
    presets::CustomPreset addCustom();
    // Replaces the custom with the same id. Refused (false) when there is none or the stored one
    // is read-only, since saving over it would lose what this version doesn't understand.
    bool updateCustom(const presets::CustomPreset& custom);
    // Removes the custom with this id (read-only ones too); false when there is none.
    bool deleteCustom(std::string_view id);
    // Written by a newer version: shown " (read-only)" and never edited here.
    [[nodiscard]] static bool isReadOnly(const presets::CustomPreset& custom) {
        return custom.isReadOnly();
    }

    // Checks `folder` on a worker thread; the status is `checking` meanwhile. Success stores
    // the toolchain and makes it `ready`; a refusal makes the status `failed` with its sentence
    // and leaves what is stored alone. A later choice or a clear supersedes this one.
    void chooseExternalSoftwareHEVC(const std::filesystem::path& folder);
    // Forgets the toolchain (stored and pending): `notConfigured`.
    void clearExternalSoftwareHEVC();
    // The notice has been shown.
    void clearRepairNotice();

    // Blocks the calling thread until no background check runs, at most `limit`; true if none
    // runs. Results still arrive through the event loop afterwards. For orderly shutdown and
    // tests.
    [[nodiscard]] bool waitForBackgroundWork(std::chrono::milliseconds limit);

signals:
    void overridesChanged();
    void customsChanged();
    void encoderPolicyChanged();
    void externalSoftwareHEVCStatusChanged();
    void repairNoticeChanged();
    // After any of overrides, customs or the encoder policy changed.
    void effectivePresetsChanged();

private slots:
    // Runs the results that worker threads handed back.
    void deliverBackgroundResults();

private:
    void requireMainThread() const;
    void loadPersistedToolchain();
    void migrateWhenStandard();
    void loadPresets();
    void startBundledQuery(SoftwareHEVCSourceQuery query);
    // Raises the generation, shows `checking`, and runs `check` (which returns the toolchain
    // to store or throws) on a worker.
    void startValidation(std::function<engine::ExternalSoftwareHEVCToolchain()> check,
                         bool storeOnSuccess);
    void finishValidation(uint64_t generation, engine::ExternalSoftwareHEVCToolchain toolchain,
                          bool storeOnSuccess);
    void failValidation(uint64_t generation, ExternalSoftwareHEVCStatus status);
    // A result of an older check than the latest; logged.
    [[nodiscard]] bool isStaleValidation(uint64_t generation) const;
    void setStatus(ExternalSoftwareHEVCStatus status);
    void updateEncoderPolicy();
    void presetsChanged();
    void saveOverrides();
    void saveCustoms();
    void saveToolchain(const engine::ExternalSoftwareHEVCToolchain& toolchain);
    void removeStoredToolchain();

    std::map<std::string, presets::PresetParameters> overrides_;
    std::vector<presets::CustomPreset> customs_;
    engine::EncoderCapabilityPolicy encoderPolicy_;
    ExternalSoftwareHEVCStatus externalSoftwareHEVCStatus_;
    std::optional<std::string> repairNotice_;
    const std::shared_ptr<engine::SettingsStore> defaults_;
    const engine::ExternalSoftwareHEVCValidator externalValidator_;
    std::optional<engine::ExternalSoftwareHEVCToolchain> persistedExternalSoftwareHEVC_;
    std::optional<std::filesystem::path> externalSoftwareHEVCCandidateDirectory_;
    uint64_t externalSoftwareHEVCValidationGeneration_ = 0;
    std::optional<std::vector<engine::Preset>> cachedEffectivePresets_;

    // What the helper folder offers; `unavailable` until its query answers.
    engine::SoftwareHEVCSource bundledSoftwareHEVC_ = engine::SoftwareHEVCSource::unavailable;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
