#include "app/destinations/FolderBookmark.hpp"

#include <cstring>
#include <nlohmann/json.hpp>

#include "app/destinations/internal/FolderIdentity.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::app {
namespace {

using destinations_internal::FolderLookup;
using destinations_internal::lookUpFolder;

const engine::Logger& log() {
    static const engine::Logger logger("com.tessarin.app", "destinations");
    return logger;
}

void logUnresolvable(const std::filesystem::path& path, std::string_view reason) {
    log().info(engine::KeyValues()
                   .add("event", "bookmark not resolvable")
                   .add("path", engine::privateValue(path.string()))
                   .add("reason", reason)
                   .str());
}

}  // namespace

FolderBookmark FolderBookmark::make(const std::filesystem::path& folder) {
    const FolderLookup lookup = lookUpFolder(folder);
    if (!lookup.identity) {
        throw MakeError(std::string("no bookmark of that folder: ") + std::strerror(lookup.error));
    }
    FolderBookmark bookmark;
    bookmark.path_ = lookup.identity->path;
    bookmark.device_ = lookup.identity->device;
    bookmark.inode_ = lookup.identity->inode;
    bookmark.birthTime_ = lookup.identity->birthTime;
    bookmark.mountRoot_ = lookup.identity->mountRoot;
    // The settings store keeps JSON text, which can't carry a path that isn't UTF-8.
    try {
        (void)bookmark.data();
    } catch (const nlohmann::json::exception&) {
        throw MakeError("no bookmark of that folder: its path is not UTF-8");
    }
    return bookmark;
}

std::optional<FolderBookmark> FolderBookmark::fromData(std::string_view data) {
    const nlohmann::json object = nlohmann::json::parse(data, nullptr, /*allow_exceptions=*/false);
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto path = object.find("path");
    const auto device = object.find("device");
    const auto inode = object.find("inode");
    if (path == object.end() || !path->is_string() || device == object.end() ||
        !device->is_number_unsigned() || inode == object.end() || !inode->is_number_unsigned()) {
        return std::nullopt;
    }
    FolderBookmark bookmark;
    bookmark.path_ = path->get<std::string>();
    if (!bookmark.path_.is_absolute()) {
        return std::nullopt;
    }
    bookmark.device_ = device->get<uint64_t>();
    bookmark.inode_ = inode->get<uint64_t>();
    if (const auto birth = object.find("birthTime"); birth != object.end() && birth->is_object()) {
        const auto seconds = birth->find("seconds");
        const auto nanoseconds = birth->find("nanoseconds");
        if (seconds != birth->end() && seconds->is_number_integer() &&
            nanoseconds != birth->end() && nanoseconds->is_number_unsigned() &&
            nanoseconds->get<uint64_t>() < 1'000'000'000) {
            bookmark.birthTime_ = BirthTime{seconds->get<int64_t>(), nanoseconds->get<uint32_t>()};
        }
    }
    if (const auto root = object.find("mountRoot"); root != object.end() && root->is_boolean()) {
        bookmark.mountRoot_ = root->get<bool>();
    }
    return bookmark;
}

std::optional<ResolvedBookmark> FolderBookmark::resolve(std::string_view data) {
    const std::optional<FolderBookmark> bookmark = fromData(data);
    if (!bookmark) {
        logUnresolvable({}, "unreadable data");
        return std::nullopt;
    }
    const FolderLookup lookup = lookUpFolder(bookmark->path_);
    if (!lookup.identity) {
        logUnresolvable(bookmark->path_, std::strerror(lookup.error));
        return std::nullopt;
    }
    const destinations_internal::FolderIdentity& found = *lookup.identity;
    // A drive's folder that was the root of its file system leaves an empty mount point behind
    // when the drive goes; that folder is not the one chosen, and files must not land in it.
    if (bookmark->mountRoot_ && !found.mountRoot) {
        logUnresolvable(bookmark->path_, "file system not mounted");
        return std::nullopt;
    }
    const bool sameObject = found.device == bookmark->device_ && found.inode == bookmark->inode_ &&
                            found.birthTime == bookmark->birthTime_;
    return ResolvedBookmark{found.path, !sameObject || found.path != bookmark->path_};
}

std::string FolderBookmark::data() const {
    nlohmann::json object = {
        {"path", path_.string()},
        {"device", device_},
        {"inode", inode_},
        {"mountRoot", mountRoot_},
    };
    if (birthTime_) {
        object["birthTime"] = {{"seconds", birthTime_->seconds},
                               {"nanoseconds", birthTime_->nanoseconds}};
    }
    return object.dump();
}

}  // namespace tessarin::app
