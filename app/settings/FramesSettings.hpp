// The frame-export choices of Settings ▸ General: how frames are picked, how many at most, the
// pictures' size and format, and whether contact sheets are drawn. Stored under versioned keys
// and read tolerantly: a value that is missing, of another type, unknown or out of range reads as
// its default, so a file edited by hand or written by another version never stops an export.
//
//   FramesSettings frames(store);
//   frames.setMode(engine::FrameSelectionMode::interval);
//   engine::FrameExtractionOptions options = frames.options();  // with an empty trim
//
// Threads: the setters write the settings file (blocking) and emit changed(); call them on the
// main thread. The getters read the store's copy in memory and are safe from any thread. A write
// that fails is logged and leaves the stored choice as it was; nothing here throws but
// std::bad_alloc.
#pragma once

#include <QObject>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "engine/frames/FrameExtractionOptions.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::app {

// "changes" or "interval".
inline constexpr std::string_view kFramesModeKey = "frames.mode.v1";
// 2 to 1000; absent or 0 means automatic (chosen from the video's length).
inline constexpr std::string_view kFramesMaxFramesKey = "frames.maxFrames.v1";
// The long edge of the pictures, 64 to 2576 pixels.
inline constexpr std::string_view kFramesMaxSizeKey = "frames.maxSize.v1";
// "jpeg" or "png".
inline constexpr std::string_view kFramesFormatKey = "frames.format.v1";
inline constexpr std::string_view kFramesContactSheetKey = "frames.contactSheet.v1";

class FramesSettings : public QObject {
    Q_OBJECT

public:
    explicit FramesSettings(std::shared_ptr<engine::SettingsStore> store,
                            QObject* parent = nullptr);

    [[nodiscard]] engine::FrameSelectionMode mode() const;
    // Nothing: automatic.
    [[nodiscard]] std::optional<int64_t> maxFrames() const;
    [[nodiscard]] int64_t maxSize() const;
    [[nodiscard]] engine::FrameImageFormat format() const;
    [[nodiscard]] bool contactSheet() const;
    // All of the above as the options of an export, with no trim.
    [[nodiscard]] engine::FrameExtractionOptions options() const;

    void setMode(engine::FrameSelectionMode mode);
    // Nothing or 0 stores automatic; any other count is held to 2–1000.
    void setMaxFrames(std::optional<int64_t> frames);
    // Held to 64–2576.
    void setMaxSize(int64_t pixels);
    void setFormat(engine::FrameImageFormat format);
    void setContactSheet(bool drawn);

signals:
    // A choice was stored.
    void changed();

private:
    // Runs one write; logs a failure under `what`.
    void write(std::string_view what, const std::function<void(engine::SettingsStore&)>& change);

    std::shared_ptr<engine::SettingsStore> store_;
};

}  // namespace tessarin::app
