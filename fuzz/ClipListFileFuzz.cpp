// Clip list documents as ClipListFile reads them. A refusal is ClipListFile::Invalid or
// ClipSelection::Invalid; an accepted list holds 1 to 500 clips with distinct ids, each of which
// the clip rules accept again as it stands, and writing it and reading it back gives the same
// clips and, written once more, the same text.
//
// The input is the document's text; the source it must belong to is fixed (the seeds carry its
// stamp), so that the fuzzer reaches the entries.

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clips/ClipListFile.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::ClipListFile;
using tessarin::engine::ClipSelection;
using tessarin::engine::Uuid;
using tessarin::fuzz::require;

const ClipListFile::Stamp kStamp{"talk.mp4", 1234, 1700000000.25};

bool sameClips(const std::vector<ClipSelection>& a, const std::vector<ClipSelection>& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t index = 0; index < a.size(); ++index) {
        if (a[index].id() != b[index].id() || a[index].trim() != b[index].trim() ||
            a[index].name() != b[index].name()) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<ClipSelection> clips;
    try {
        clips = ClipListFile::decode(text, kStamp);
    } catch (const ClipListFile::Invalid&) {
        return 0;
    } catch (const ClipSelection::Invalid&) {
        return 0;
    }
    require(!clips.empty() && clips.size() <= ClipSelection::kClipLimit,
            "an accepted list holds 1 to 500 clips");
    std::set<Uuid> ids;
    for (const ClipSelection& clip : clips) {
        ids.insert(clip.id());
        // The clip rules accept every clip again exactly as it was stored.
        const ClipSelection again(clip.id(), clip.trim(), clip.name());
        require(again.trim() == clip.trim() && again.name() == clip.name(),
                "an accepted clip is already normal");
    }
    require(ids.size() == clips.size(), "an accepted list has distinct ids");

    std::string written;
    try {
        written = ClipListFile::encode(clips, kStamp);
    } catch (const ClipListFile::Invalid& invalid) {
        // Blanks in the input can make a list that fits the limit only as it was read.
        require(invalid.kind() == ClipListFile::Invalid::Kind::size,
                "an accepted list can be written");
        return 0;
    }
    const std::vector<ClipSelection> reread = ClipListFile::decode(written, kStamp);
    require(sameClips(clips, reread), "a written list reads back as the same clips");
    require(ClipListFile::encode(reread, kStamp) == written, "writing is stable");
    // The same text refuses another source.
    bool refused = false;
    try {
        (void)ClipListFile::decode(written, {"talk.mp4", 1234, 1700000000.5});
    } catch (const ClipListFile::Invalid& invalid) {
        refused = invalid.kind() == ClipListFile::Invalid::Kind::source;
    }
    require(refused, "a list refuses a source with another stamp");
    return 0;
}
