// A list of clips for one source video, saved as a small JSON document and read back. The list
// carries a stamp of the source's name, size and modification time, so it is never applied to a
// different or a changed video; no folder is stored, so it survives a move of the video.
//
//   ClipListFile::write(clips, "talk.clips.json", "talk.mp4");
//   std::vector<ClipSelection> again = ClipListFile::read("talk.clips.json", "talk.mp4");
//
// A namespace of blocking functions with no state; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clips/ClipSelection.hpp"

namespace tessarin::engine {

class ClipListFile {
public:
    // Why a list was refused; what() is the sentence shown in the editor's file line.
    class Invalid : public std::exception {
    public:
        enum class Kind { document, size, source, overwriteSource };

        explicit Invalid(Kind kind) noexcept : kind_(kind) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;

        bool operator==(const Invalid& other) const noexcept { return kind_ == other.kind_; }

    private:
        Kind kind_;
    };

    // What ties a list to its source video.
    struct Stamp {
        std::string name;     // the last path component
        int64_t bytes = 0;    // the file's size
        double modified = 0;  // content modification time, seconds since 1970 UTC

        // The stamp of `source` fresh from the file system (symbolic links followed, the name
        // kept as given). Throws Invalid(source) unless it is a regular file.
        [[nodiscard]] static Stamp of(const std::filesystem::path& source);

        bool operator==(const Stamp&) const = default;
    };

    static constexpr std::size_t kSizeLimit = 1'048'576;
    static constexpr int kVersion = 1;
    static constexpr std::string_view kExtension = ".clips.json";

    enum class Existing { replace, keep };

    // The name proposed for the list of `source`: its base name and ".clips.json", in its folder.
    [[nodiscard]] static std::filesystem::path proposedPath(const std::filesystem::path& source);

    // Writes `clips` for `source` to `destination`, atomically: a temporary file in the
    // destination's folder renamed over it, so a failure leaves an earlier file intact. With
    // Existing::keep an existing destination is never replaced (filesystem_error EEXIST).
    // Throws Invalid (overwriteSource when the destination is the source, through links too;
    // document for 0 or more than 500 clips or repeated ids; source; size) or
    // std::filesystem::filesystem_error.
    static void write(std::span<const ClipSelection> clips,
                      const std::filesystem::path& destination, const std::filesystem::path& source,
                      Existing existing = Existing::replace);

    // The clips of the list in `file`, which must belong to `source` as it is now. Opens without
    // blocking on a named pipe and reads at most kSizeLimit + 1 bytes. Throws Invalid (size,
    // document, source), ClipSelection::Invalid for an entry the clip rules refuse, or
    // std::filesystem::filesystem_error when the file can't be opened or read. All or nothing.
    [[nodiscard]] static std::vector<ClipSelection> read(const std::filesystem::path& file,
                                                         const std::filesystem::path& source);

    // The document's text for `clips` and `stamp`: pretty-printed JSON with sorted keys. Throws
    // Invalid (document, size).
    [[nodiscard]] static std::string encode(std::span<const ClipSelection> clips,
                                            const Stamp& stamp);
    // The clips of a document's text that must carry `stamp`, as read() takes them apart. Pure.
    // Throws Invalid (size, document, source) or ClipSelection::Invalid.
    [[nodiscard]] static std::vector<ClipSelection> decode(std::string_view text,
                                                           const Stamp& stamp);
};

}  // namespace tessarin::engine
