// The description of one frame export, written as `frames.json` beside the pictures so that a
// person or an AI tool can tell what each picture shows, when, and for how long it stayed valid;
// the compact FrameIndex view of it; the names of the files in a frames folder; and the two disk
// steps that finish a staging folder (naming the pictures and writing `frames.json`).
//
//   FrameManifest manifest = ...;                 // built by the extraction job
//   nameFrames(staging, manifest, true);          // 000001.jpg -> frame-001-1.500s.jpg, 0600
//   writeFramesJson(staging, manifest, true);     // frames.json, created exclusively, 0600
//   FrameIndex index(manifest, published);        // for the command-line tool's output
//
// JSON form: one object, keys sorted, pretty-printed, slashes not escaped, absent optional values
// left out, every time rounded to the nearest microsecond. All times are seconds on the source's
// timeline. Everything here except the two disk functions is pure value work, safe from any
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "engine/frames/FrameExtractionOptions.hpp"
#include "engine/frames/FrameTypes.hpp"

namespace tessarin::engine {

struct FrameManifest {
    using Reason = FrameReason;

    static constexpr int64_t kVersion = 1;
    // The manifest's name in the frames folder.
    static constexpr std::string_view kFileName = "frames.json";

    struct Source {
        std::string name;  // the last path component
        int64_t bytes = 0;
        double modified = 0;  // seconds since 1970
        double durationSeconds = 0;
        int64_t width = 0;
        int64_t height = 0;
        std::optional<std::string> videoCodec;

        bool operator==(const Source&) const = default;
    };

    // The range that was looked at.
    struct Window {
        double start = 0;
        double end = 0;

        bool operator==(const Window&) const = default;
    };

    // What was asked for.
    struct Settings {
        FrameSelectionMode mode = FrameSelectionMode::changes;
        int64_t maxFrames = 0;  // the budget actually used
        int64_t maxSize = 0;    // long edge in pixels
        FrameImageFormat format = FrameImageFormat::jpeg;
        FrameAnalysisSettings analysis;

        bool operator==(const Settings&) const = default;
    };

    struct Summary {
        int64_t candidates = 0;
        int64_t kept = 0;
        int64_t prunedByBudget = 0;

        bool operator==(const Summary&) const = default;
    };

    // One contact sheet and the one-based frame indexes it shows.
    struct Sheet {
        std::string file;
        int64_t firstFrame = 0;
        int64_t lastFrame = 0;

        bool operator==(const Sheet&) const = default;
    };

    struct Frame {
        int64_t index = 0;  // one-based position
        std::string file;   // file name in the folder
        double time = 0;
        int64_t pts = 0;       // in timeBase units, as ffmpeg gave it
        std::string timeBase;  // "{numerator}/{denominator}"
        int64_t width = 0;     // of the written picture
        int64_t height = 0;
        Reason reason = Reason::first;
        std::optional<int64_t> changedCells;  // cells changed on the analysis grid
        double holdsUntil = 0;                // until when this picture stands for the video
        bool followingSpanPruned = false;     // a budget removal between this frame and the next

        bool operator==(const Frame&) const = default;
    };

    // Thrown by decoded(): the data does not describe a manifest (a missing key, a wrong type, an
    // unknown raw value, or text that is not JSON). what() names the key path and the problem,
    // e.g. "frames[2].reason: unknown value \"sideways\"".
    class DecodingError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // Thrown by nameFrames() and writeFramesJson(). what() is the sentence for the user;
    // errorNumber is the errno behind it when a system call failed.
    class WriteFailure : public std::runtime_error {
    public:
        WriteFailure(const std::string& sentence, std::optional<int> errorNumber)
            : std::runtime_error(sentence), errorNumber(errorNumber) {}

        std::optional<int> errorNumber;
    };

    int64_t version = kVersion;
    Source source;
    Window window;
    double decodedUntil = 0;  // below window.end on a short decode
    Settings settings;
    Summary summary;
    std::vector<Frame> frames;                        // kept frames, in time order
    std::vector<FrameWarning> warnings;               // in order of discovery
    std::optional<std::vector<Sheet>> contactSheets;  // absent when not asked for or skipped

    // The JSON form. Throws std::invalid_argument, naming the key, when a double is not finite
    // (JSON has no way to write it).
    [[nodiscard]] nlohmann::json encoded() const;
    // encoded() as UTF-8 text, indented by two spaces, with a final newline. Bytes of text fields
    // that are not UTF-8 (a file name can hold any bytes) are written as U+FFFD. Throws as
    // encoded().
    [[nodiscard]] std::string encodedText() const;

    // Decodes the JSON form by the same keys; unknown keys are ignored, an optional key that is
    // null counts as absent. Integers must be JSON integers within int64_t. Times are taken as
    // written. Throws DecodingError.
    [[nodiscard]] static FrameManifest decoded(const nlohmann::json& json);
    // Parses `text` and decodes it. Throws DecodingError, also for text that is not JSON.
    [[nodiscard]] static FrameManifest decodedText(std::string_view text);

    bool operator==(const FrameManifest&) const = default;
};

// The analysis settings' JSON form: all eleven fields under their own names, doubles as they are.
// Throws std::invalid_argument for a non-finite value.
[[nodiscard]] nlohmann::json encoded(const FrameAnalysisSettings& settings);
// All eleven keys are required. Throws FrameManifest::DecodingError.
[[nodiscard]] FrameAnalysisSettings decodedFrameAnalysisSettings(const nlohmann::json& json);

// The compact view of a manifest with the folder's path, for handing to a caller such as the
// command-line tool.
struct FrameIndex {
    using Size = std::array<int64_t, 2>;  // width, height

    struct Entry {
        std::string file;
        double time = 0;
        FrameReason reason = FrameReason::first;
        double holdsUntil = 0;
        bool followingSpanPruned = false;  // the key is written only when true
        std::optional<Size> size;          // only when the index has no frameSize

        bool operator==(const Entry&) const = default;
    };

    // frameSize is set when there are frames and all have one size; otherwise every entry
    // carries its own size.
    FrameIndex(const FrameManifest& manifest, const std::filesystem::path& directory);

    // The JSON form, keys sorted, times rounded to the microsecond. Throws std::invalid_argument
    // for a non-finite time.
    [[nodiscard]] nlohmann::json encoded() const;

    std::string directory;
    int64_t version = FrameManifest::kVersion;
    std::optional<std::vector<FrameManifest::Sheet>> contactSheets;
    std::optional<Size> frameSize;
    FrameManifest::Summary summary;
    std::vector<FrameWarning> warnings;
    std::vector<Entry> frames;

    bool operator==(const FrameIndex&) const = default;
};

// `seconds` rounded to the nearest microsecond; negative zero becomes zero. The rule for every
// time the manifest stores.
[[nodiscard]] double roundedToMicroseconds(double seconds);

// "frame-%03d-%.3fs." and the format's extension, in the POSIX locale whatever the user's:
// frameFileName(1, 1.5, jpeg) is "frame-001-1.500s.jpg". An index above 999 widens to four
// digits. A time that prints as a negative zero (a frame a hair before 0) prints as 0.000.
[[nodiscard]] std::string frameFileName(int64_t index, double time, FrameImageFormat format);

// The name ffmpeg gives the index'th picture in the staging folder: "%06d." and the extension.
[[nodiscard]] std::string scratchFrameFileName(int64_t index, FrameImageFormat format);

// Whether `name` may lie in a frames staging folder: a full match of one of
// "contact-sheet(-[0-9]+)?\.jpg", "[0-9]{6}\.(jpg|png)",
// "frame-[0-9]{3}-[0-9]+\.[0-9]{3}s\.(jpg|png)", or "frames.json". The sweep of abandoned
// folders touches nothing else.
[[nodiscard]] bool isFramesStagingName(std::string_view name);

// Renames each frame's scratch picture (scratchFrameFileName of its index and the manifest's
// format) to its `file`, in manifest order, never replacing an existing name; when
// `privacyEnforced`, gives each picture the mode 0600. Stops at the first failure and throws
// FrameManifest::WriteFailure "Could not name the frames (errno {number})."; pictures renamed
// before it keep their new names (the caller removes the folder). Blocking file work.
void nameFrames(const std::filesystem::path& stagingFolder, const FrameManifest& manifest,
                bool privacyEnforced);

// Writes `frames.json` into `stagingFolder`: encodes the manifest ("Could not write the frame
// list ({error})." on failure), creates the file exclusively without following a link, mode 0600
// when `privacyEnforced` and 0644 otherwise (less what the umask takes), writes every byte and
// flushes it to the disk ("Could not write the frame list (errno {number})." on failure). Then
// flushes the folder, ignoring a failure there. An existing file or link of that name is never
// touched: it fails with EEXIST. On failure a partly written file may be left for the caller,
// who removes the folder. Throws FrameManifest::WriteFailure. Blocking file work.
void writeFramesJson(const std::filesystem::path& stagingFolder, const FrameManifest& manifest,
                     bool privacyEnforced);

}  // namespace tessarin::engine
