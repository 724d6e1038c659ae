#include "app/settings/FramesSettings.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "engine/log/Log.hpp"

namespace tessarin::app {

namespace {

using Options = engine::FrameExtractionOptions;

const engine::Logger& framesSettingsLog() {
    static const engine::Logger log("com.tessarin.app", "frames-settings");
    return log;
}

}  // namespace

FramesSettings::FramesSettings(std::shared_ptr<engine::SettingsStore> store, QObject* parent)
    : QObject(parent), store_(std::move(store)) {
    if (!store_) {
        throw std::invalid_argument("FramesSettings needs a settings store");
    }
}

engine::FrameSelectionMode FramesSettings::mode() const {
    const std::optional<std::string> raw = store_->stringValue(kFramesModeKey);
    return engine::frameSelectionModeFromRaw(raw.value_or(""))
        .value_or(engine::FrameSelectionMode::changes);
}

std::optional<int64_t> FramesSettings::maxFrames() const {
    const std::optional<int64_t> stored = store_->integerValue(kFramesMaxFramesKey);
    if (stored && *stored >= Options::kMinimumFrames && *stored <= Options::kMaximumFrames) {
        return stored;
    }
    return std::nullopt;
}

int64_t FramesSettings::maxSize() const {
    const std::optional<int64_t> stored = store_->integerValue(kFramesMaxSizeKey);
    if (stored && *stored >= Options::kMinimumSize && *stored <= Options::kMaximumSize) {
        return *stored;
    }
    return Options::kDefaultSize;
}

engine::FrameImageFormat FramesSettings::format() const {
    const std::optional<std::string> raw = store_->stringValue(kFramesFormatKey);
    return engine::frameImageFormatFromRaw(raw.value_or(""))
        .value_or(engine::FrameImageFormat::jpeg);
}

bool FramesSettings::contactSheet() const {
    return store_->boolValue(kFramesContactSheetKey).value_or(true);
}

engine::FrameExtractionOptions FramesSettings::options() const {
    engine::FrameExtractionOptions options;
    options.mode = mode();
    options.maxFrames = maxFrames();
    options.maxSize = maxSize();
    options.format = format();
    options.contactSheet = contactSheet();
    return options;
}

void FramesSettings::setMode(engine::FrameSelectionMode mode) {
    write("mode", [mode](engine::SettingsStore& store) {
        store.setString(kFramesModeKey, engine::rawValue(mode));
    });
}

void FramesSettings::setMaxFrames(std::optional<int64_t> frames) {
    const int64_t stored = frames.value_or(0) == 0 ? 0
                                                   : std::clamp(*frames, Options::kMinimumFrames,
                                                                Options::kMaximumFrames);
    write("frame budget", [stored](engine::SettingsStore& store) {
        store.setInteger(kFramesMaxFramesKey, stored);
    });
}

void FramesSettings::setMaxSize(int64_t pixels) {
    const int64_t stored = std::clamp(pixels, Options::kMinimumSize, Options::kMaximumSize);
    write("maximum size",
          [stored](engine::SettingsStore& store) { store.setInteger(kFramesMaxSizeKey, stored); });
}

void FramesSettings::setFormat(engine::FrameImageFormat format) {
    write("format", [format](engine::SettingsStore& store) {
        store.setString(kFramesFormatKey, engine::rawValue(format));
    });
}

void FramesSettings::setContactSheet(bool drawn) {
    write("contact sheets",
          [drawn](engine::SettingsStore& store) { store.setBool(kFramesContactSheetKey, drawn); });
}

void FramesSettings::write(std::string_view what,
                           const std::function<void(engine::SettingsStore&)>& change) {
    try {
        change(*store_);
    } catch (const std::exception& error) {
        framesSettingsLog().error(engine::KeyValues()
                                      .add("event", "frames setting not saved")
                                      .add("setting", what)
                                      .add("error", error.what())
                                      .str());
        return;
    }
    emit changed();
}

}  // namespace tessarin::app
