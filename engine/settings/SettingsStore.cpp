#include "engine/settings/SettingsStore.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "engine/log/Log.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using nlohmann::json;
using settings_internal::ReadResult;

namespace {

const Logger& settingsLog() {
    static const Logger logger("com.tessarin.settings", "store");
    return logger;
}

// "yyyyMMdd-HHmmss" in UTC, for the name of a corrupt file kept aside.
std::string utcStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &parts);
    return std::string(text, length);
}

// The settings file as written: two-space indentation, keys sorted, a final line break.
// Text that isn't UTF-8 can't be written as JSON; that is the caller's mistake.
std::string serialize(const json& object) {
    try {
        return object.dump(2) + "\n";
    } catch (const json::type_error& error) {
        throw std::invalid_argument(std::string("settings value is not UTF-8 text: ") +
                                    error.what());
    }
}

std::string errnoName(int error) {
    const char* name = ::strerrorname_np(error);
    return name != nullptr ? name : std::to_string(error);
}

std::optional<fs::path> homeFolder() {
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        return fs::path(home);
    }
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] != '\0') {
        return fs::path(found->pw_dir);
    }
    return std::nullopt;
}

}  // namespace

namespace settings_internal {

bool parseJsonText(std::string_view text, int maxDepth, json& value, std::string& reason) {
    // The parser takes a NUL byte for the end of the input and would accept whatever came before
    // it; JSON has no raw NUL anywhere, so such text is not JSON.
    if (text.find('\0') != std::string_view::npos) {
        reason = "parse";
        return false;
    }
    // Measure nesting before parsing, outside strings, so that hostile nesting never reaches
    // code that recurses. Malformed text may be misjudged here; the parser rejects it anyway.
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) {
                reason = "too-deep";
                return false;
            }
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    value = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded()) {
        reason = "parse";
        return false;
    }
    return true;
}

}  // namespace settings_internal

SettingsStore::SettingsStore(fs::path file) : file_(std::move(file)), values_(json::object()) {
    reload();
}

SettingsStore::SettingsStore(SettingsStore&& other) noexcept {
    const std::lock_guard lock(other.mutex_);
    file_ = std::move(other.file_);
    values_ = std::move(other.values_);
    reportedCorrupt_ = other.reportedCorrupt_;
    other.values_ = json::object();
}

SettingsStore& SettingsStore::operator=(SettingsStore&& other) noexcept {
    if (this != &other) {
        const std::scoped_lock lock(mutex_, other.mutex_);
        file_ = std::move(other.file_);
        values_ = std::move(other.values_);
        reportedCorrupt_ = other.reportedCorrupt_;
        other.values_ = json::object();
    }
    return *this;
}

fs::path SettingsStore::configHome() {
    // Relative values are to be ignored, as the XDG base directory rules say.
    if (const char* config = std::getenv("XDG_CONFIG_HOME");
        config != nullptr && fs::path(config).is_absolute()) {
        return fs::path(config);
    }
    if (const std::optional<fs::path> home = homeFolder()) {
        return *home / ".config";
    }
    throw std::runtime_error("no configuration folder: XDG_CONFIG_HOME and HOME are unset");
}

SettingsStore SettingsStore::standard() {
    return suite("tessarin");
}

SettingsStore SettingsStore::suite(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos ||
        name.find('\0') != std::string_view::npos) {
        throw std::invalid_argument("a settings suite name must be one path component");
    }
    return SettingsStore(configHome() / name / "settings.json");
}

json SettingsStore::objectFromRead(const ReadResult& read) {
    switch (read.state) {
        case ReadResult::State::valid:
            return read.object;
        case ReadResult::State::missing:
            return json::object();
        case ReadResult::State::unreadable:
            settingsLog().error(KeyValues()
                                    .add("event", "settings-unreadable")
                                    .add("error", errnoName(read.error))
                                    .add("file", privateValue(file_.filename().string()))
                                    .str());
            return json::object();
        case ReadResult::State::corrupt: {
            bool reported = false;
            {
                const std::lock_guard lock(mutex_);
                reported = reportedCorrupt_ == read.stamp;
                reportedCorrupt_ = read.stamp;
            }
            if (!reported) {
                settingsLog().error(KeyValues()
                                        .add("event", "settings-corrupt-read-as-empty")
                                        .add("reason", read.reason)
                                        .add("bytes", read.stamp.size)
                                        .add("file", privateValue(file_.filename().string()))
                                        .str());
            }
            return json::object();
        }
    }
    return json::object();
}

void SettingsStore::install(json object) {
    const std::lock_guard lock(mutex_);
    values_ = std::move(object);
}

void SettingsStore::reload() {
    install(objectFromRead(
        settings_internal::readSettingsFile(file_, kMaxSettingsFileBytes, kMaxSettingsDepth)));
}

bool SettingsStore::exists() const {
    std::error_code error;
    return fs::exists(file_, error);
}

void SettingsStore::update(const std::function<void(json& object)>& change) {
    fs::path lockFile = file_;
    lockFile += ".lock";
    const settings_internal::FileLock lock(lockFile);

    const ReadResult read =
        settings_internal::readSettingsFile(file_, kMaxSettingsFileBytes, kMaxSettingsDepth);
    if (read.state == ReadResult::State::unreadable) {
        // Writing now would replace settings that may be fine but that we could not see.
        throw std::system_error(read.error, std::generic_category(),
                                "cannot read the settings file " + file_.string());
    }
    json object = objectFromRead(read);
    change(object);
    if (!object.is_object()) {
        throw std::invalid_argument("a settings change must leave a JSON object");
    }
    // JSON's == calls 1 and 1.0 (or 0.0 and -0.0) equal, yet they are written and read back as
    // different values: only the same text counts as unchanged. Equal values hold the file's
    // strings, which are UTF-8, so dumping them cannot throw.
    const bool unchanged = (read.state == ReadResult::State::valid && object == read.object &&
                            object.dump() == read.object.dump()) ||
                           (read.state == ReadResult::State::missing && object.empty());
    if (unchanged) {
        install(std::move(object));
        return;
    }
    const std::string text = serialize(object);

    if (read.state == ReadResult::State::corrupt) {
        const fs::path keptAs = settings_internal::keepAside(file_, utcStamp());
        settingsLog().notice(KeyValues()
                                 .add("event", "settings-corrupt-kept-aside")
                                 .add("file", privateValue(file_.filename().string()))
                                 .add("keptAs", privateValue(keptAs.filename().string()))
                                 .str());
    }
    settings_internal::sweepTemporaries(file_);
    const int folderSyncError = settings_internal::replaceFileAtomically(file_, text);
    install(std::move(object));
    if (folderSyncError != 0) {
        throw std::system_error(folderSyncError, std::generic_category(),
                                "cannot flush the settings folder of " + file_.string());
    }
}

void SettingsStore::setBool(std::string_view key, bool value) {
    update([&](json& object) { object[std::string(key)] = value; });
}

void SettingsStore::setInteger(std::string_view key, int64_t value) {
    update([&](json& object) { object[std::string(key)] = value; });
}

void SettingsStore::setDouble(std::string_view key, double value) {
    if (!std::isfinite(value)) {
        throw std::invalid_argument("a settings double must be finite");
    }
    update([&](json& object) { object[std::string(key)] = value; });
}

void SettingsStore::setString(std::string_view key, std::string_view value) {
    update([&](json& object) { object[std::string(key)] = std::string(value); });
}

void SettingsStore::setStringList(std::string_view key, const std::vector<std::string>& value) {
    update([&](json& object) { object[std::string(key)] = value; });
}

void SettingsStore::setData(std::string_view key, std::string_view jsonText) {
    json value;
    std::string reason;
    if (!settings_internal::parseJsonText(jsonText, kMaxSettingsDepth, value, reason)) {
        throw std::invalid_argument("settings data is not JSON within the limits (" + reason + ")");
    }
    update([&](json& object) { object[std::string(key)] = std::move(value); });
}

void SettingsStore::remove(std::string_view key) {
    update([&](json& object) { object.erase(std::string(key)); });
}

std::optional<bool> SettingsStore::boolValue(std::string_view key) const {
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end() || !found->is_boolean()) {
        return std::nullopt;
    }
    return found->get<bool>();
}

std::optional<int64_t> SettingsStore::integerValue(std::string_view key) const {
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) {
        return std::nullopt;
    }
    if (found->is_number_unsigned()) {
        const auto value = found->get<uint64_t>();
        if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            return std::nullopt;
        }
        return static_cast<int64_t>(value);
    }
    if (found->is_number_integer()) {
        return found->get<int64_t>();
    }
    return std::nullopt;
}

std::optional<double> SettingsStore::doubleValue(std::string_view key) const {
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end() || !found->is_number()) {
        return std::nullopt;
    }
    return found->get<double>();
}

std::optional<std::string> SettingsStore::stringValue(std::string_view key) const {
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

std::optional<std::vector<std::string>> SettingsStore::stringListValue(std::string_view key) const {
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end() || !found->is_array()) {
        return std::nullopt;
    }
    std::vector<std::string> list;
    list.reserve(found->size());
    for (const json& element : *found) {
        if (!element.is_string()) {
            return std::nullopt;
        }
        list.push_back(element.get<std::string>());
    }
    return list;
}

std::optional<std::string> SettingsStore::dataValue(std::string_view key) const {
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    if (found == values_.end()) {
        return std::nullopt;
    }
    // Stored text was valid UTF-8 when it was parsed or written, so replacing never happens.
    return found->dump(-1, ' ', false, json::error_handler_t::replace);
}

bool SettingsStore::contains(std::string_view key) const {
    const std::lock_guard lock(mutex_);
    return values_.contains(key);
}

std::vector<std::string> SettingsStore::keys() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    names.reserve(values_.size());
    for (const auto& [name, value] : values_.items()) {
        names.push_back(name);
    }
    return names;
}

}  // namespace tessarin::engine
