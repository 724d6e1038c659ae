#include "engine/clips/ClipListFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>

#include "engine/text/UnicodeText.hpp"

namespace tessarin::engine {

namespace {

namespace fs = std::filesystem;
using Kind = ClipListFile::Invalid::Kind;
using nlohmann::json;

[[noreturn]] void fail(Kind kind) {
    throw ClipListFile::Invalid(kind);
}

[[noreturn]] void failSystem(const std::string& what, const fs::path& path, int error) {
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

// The same file: one path leads to the other through links, or both name one inode.
bool sameFile(const fs::path& a, const fs::path& b) {
    std::error_code error;
    const fs::path left = fs::weakly_canonical(fs::absolute(a), error);
    const fs::path right = fs::weakly_canonical(fs::absolute(b), error);
    if (!left.empty() && left.lexically_normal() == right.lexically_normal()) {
        return true;
    }
    return fs::equivalent(a, b, error);
}

std::string temporaryName() {
    return ".tessarin-cliplist-" + Uuid::random().text();
}

// `data` into a new file beside `destination`, then renamed onto it (or, keeping what exists,
// only to a free name).
void writeAtomically(const std::string& data, const fs::path& destination,
                     ClipListFile::Existing existing) {
    const fs::path folder = fs::absolute(destination).parent_path();
    const fs::path temporary = folder / temporaryName();
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        failSystem("cannot create the clip list", destination, errno);
    }
    std::size_t written = 0;
    int error = 0;
    while (written < data.size()) {
        const ssize_t count = ::write(fd, data.data() + written, data.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            break;
        }
        written += static_cast<std::size_t>(count);
    }
    if (error == 0 && ::fsync(fd) != 0) {
        error = errno;
    }
    if (::close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error == 0) {
        if (existing == ClipListFile::Existing::replace) {
            error = ::rename(temporary.c_str(), destination.c_str()) == 0 ? 0 : errno;
        } else {
            // A hard link never replaces; the temporary name then goes away.
            error = ::link(temporary.c_str(), destination.c_str()) == 0 ? 0 : errno;
            ::unlink(temporary.c_str());
        }
    }
    if (error != 0) {
        ::unlink(temporary.c_str());
        failSystem("cannot write the clip list", destination, error);
    }
}

std::string readBounded(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        failSystem("cannot open the clip list", file, errno);
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        const int error = errno;
        ::close(fd);
        failSystem("cannot read the clip list", file, error);
    }
    if (!S_ISREG(status.st_mode) || status.st_size > static_cast<off_t>(ClipListFile::kSizeLimit)) {
        ::close(fd);
        fail(Kind::size);
    }
    std::string data(ClipListFile::kSizeLimit + 1, '\0');
    std::size_t total = 0;
    int error = 0;
    while (total < data.size()) {
        const ssize_t count = ::read(fd, data.data() + total, data.size() - total);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            break;
        }
        if (count == 0) {
            break;
        }
        total += static_cast<std::size_t>(count);
    }
    if (::close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        failSystem("cannot read the clip list", file, error);
    }
    data.resize(total);
    return data;
}

const json* member(const json& object, const char* key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

const std::string& requireString(const json* value) {
    if (value == nullptr || !value->is_string()) {
        fail(Kind::document);
    }
    return value->get_ref<const std::string&>();
}

std::optional<std::string> optionalString(const json& entry, const char* key) {
    const json* value = member(entry, key);
    if (value == nullptr) {
        return std::nullopt;
    }
    return requireString(value);
}

ClipListFile::Stamp stampOf(const json& document) {
    const json* source = member(document, "source");
    if (source == nullptr || !source->is_object()) {
        fail(Kind::document);
    }
    const json* bytes = member(*source, "bytes");
    const json* modified = member(*source, "modified");
    if (bytes == nullptr || !bytes->is_number_integer() || modified == nullptr ||
        !modified->is_number()) {
        fail(Kind::document);
    }
    ClipListFile::Stamp stamp;
    stamp.name = requireString(member(*source, "name"));
    stamp.bytes = bytes->is_number_unsigned() && bytes->get<uint64_t>() > INT64_MAX
                      ? -1
                      : bytes->get<int64_t>();
    stamp.modified = modified->get<double>();
    return stamp;
}

}  // namespace

const char* ClipListFile::Invalid::what() const noexcept {
    switch (kind_) {
        case Kind::document:
            return "Not a supported Tessarin clip list.";
        case Kind::size:
            return "Clip lists must be regular JSON files no larger than 1 MB.";
        case Kind::source:
            return "This clip list belongs to a different or changed source. Check its filename, "
                   "size and modification time.";
        case Kind::overwriteSource:
            return "Choose a different file. A clip list cannot replace its source video.";
    }
    return "Clip list failed.";
}

ClipListFile::Stamp ClipListFile::Stamp::of(const fs::path& source) {
    struct stat status {};
    if (::stat(source.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        fail(Kind::source);
    }
    return Stamp{source.filename().string(), static_cast<int64_t>(status.st_size),
                 static_cast<double>(status.st_mtim.tv_sec) +
                     static_cast<double>(status.st_mtim.tv_nsec) / 1e9};
}

fs::path ClipListFile::proposedPath(const fs::path& source) {
    fs::path proposed = source;
    proposed.replace_filename(source.stem().string() + std::string(kExtension));
    return proposed;
}

std::string ClipListFile::encode(std::span<const ClipSelection> clips, const Stamp& stamp) {
    std::set<Uuid> ids;
    for (const ClipSelection& clip : clips) {
        ids.insert(clip.id());
    }
    if (clips.empty() || clips.size() > ClipSelection::kClipLimit || ids.size() != clips.size()) {
        fail(Kind::document);
    }
    json entries = json::array();
    for (const ClipSelection& clip : clips) {
        json entry = {{"id", clip.id().text()}, {"name", clip.name()}};
        if (clip.trim().start) {
            entry["start"] = *clip.trim().start;
        }
        if (clip.trim().end) {
            entry["end"] = *clip.trim().end;
        }
        entries.push_back(std::move(entry));
    }
    const json document = {
        {"clips", std::move(entries)},
        {"source", {{"bytes", stamp.bytes}, {"modified", stamp.modified}, {"name", stamp.name}}},
        {"version", kVersion}};
    std::string text;
    try {
        text = document.dump(2) + "\n";
    } catch (const json::type_error&) {
        fail(Kind::document);  // text that isn't UTF-8
    }
    if (text.size() > kSizeLimit) {
        fail(Kind::size);
    }
    return text;
}

std::vector<ClipSelection> ClipListFile::decode(std::string_view text, const Stamp& stamp) {
    if (text.size() > kSizeLimit) {
        fail(Kind::size);
    }
    // The parser takes a NUL byte for the end of the input; JSON never holds a raw one.
    if (text.find('\0') != std::string_view::npos) {
        fail(Kind::document);
    }
    const json document = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded() || !document.is_object()) {
        fail(Kind::document);
    }
    const json* version = member(document, "version");
    const json* clips = member(document, "clips");
    if (version == nullptr || !version->is_number_integer() || *version != kVersion ||
        clips == nullptr || !clips->is_array() || clips->empty() ||
        clips->size() > ClipSelection::kClipLimit) {
        fail(Kind::document);
    }
    struct Entry {
        Uuid id;
        Trim trim;
        std::string name;
    };
    std::vector<Entry> entries;
    std::set<Uuid> ids;
    for (const json& item : *clips) {
        if (!item.is_object()) {
            fail(Kind::document);
        }
        const std::optional<Uuid> id = Uuid::fromText(requireString(member(item, "id")));
        if (!id || !ids.insert(*id).second) {
            fail(Kind::document);
        }
        entries.push_back({*id, Trim{optionalString(item, "start"), optionalString(item, "end")},
                           requireString(member(item, "name"))});
    }
    const Stamp stored = stampOf(document);
    if (!canonicallyEqual(stored.name, stamp.name) || stored.bytes != stamp.bytes ||
        stored.modified != stamp.modified) {
        fail(Kind::source);
    }
    std::vector<ClipSelection> result;
    result.reserve(entries.size());
    for (const Entry& entry : entries) {
        result.emplace_back(entry.id, entry.trim, entry.name);
    }
    return result;
}

void ClipListFile::write(std::span<const ClipSelection> clips, const fs::path& destination,
                         const fs::path& source, Existing existing) {
    if (sameFile(destination, source)) {
        fail(Kind::overwriteSource);
    }
    std::set<Uuid> ids;
    for (const ClipSelection& clip : clips) {
        ids.insert(clip.id());
    }
    if (clips.empty() || clips.size() > ClipSelection::kClipLimit || ids.size() != clips.size()) {
        fail(Kind::document);
    }
    const Stamp stamp = Stamp::of(source);
    writeAtomically(encode(clips, stamp), destination, existing);
}

std::vector<ClipSelection> ClipListFile::read(const fs::path& file, const fs::path& source) {
    const std::string data = readBounded(file);
    if (data.size() > kSizeLimit) {
        fail(Kind::size);
    }
    // The document is checked before the source is stamped, as a stamp needs the source.
    const Stamp stamp = [&] {
        try {
            return Stamp::of(source);
        } catch (const Invalid&) {
            return Stamp{source.filename().string(), -1, std::nan("")};
        }
    }();
    return decode(data, stamp);
}

}  // namespace tessarin::engine
