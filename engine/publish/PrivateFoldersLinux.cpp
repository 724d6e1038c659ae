#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "engine/model/JobFailure.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/internal/FileSystemLinux.hpp"

namespace tessarin::engine {

namespace {

using internal::UniqueFd;

bool ownedByRootOrUs(const struct stat& st) {
    return st.st_uid == 0 || st.st_uid == ::geteuid();
}

// One of the two checks of isProtectedDirectory: for the path as given, and for its real path.
bool isProtectedOne(const std::filesystem::path& path) {
    struct stat linkStat {};
    if (::lstat(path.c_str(), &linkStat) != 0 || !ownedByRootOrUs(linkStat)) {
        return false;
    }
    const int noFollow = S_ISLNK(linkStat.st_mode) ? 0 : O_NOFOLLOW;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | noFollow));
    if (!fd.valid()) {
        return false;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISDIR(st.st_mode) || !ownedByRootOrUs(st)) {
        return false;
    }
    // A sticky directory (like /tmp) lets others add names but never remove or replace ours.
    const bool sticky = (st.st_mode & S_ISVTX) != 0;
    if ((st.st_mode & 022) != 0 && !sticky) {
        return false;
    }
    const std::optional<VolumeFacts> facts = volumeFactsOf(fd.get());
    if (!facts || !facts->isLocal || facts->ignoresOwnership) {
        return false;
    }
    return sticky || internal::accessAclGrantsNoWrite(fd.get());
}

}  // namespace

bool isProtectedDirectory(const std::filesystem::path& path) {
    std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    if (!real) {
        return false;
    }
    return isProtectedOne(path) && isProtectedOne(real.get());
}

void makePrivateFolder(const std::filesystem::path& path) {
    std::filesystem::path parent = path.parent_path();
    if (parent.empty()) {
        parent = ".";
    }
    if (!isProtectedDirectory(parent)) {
        throw std::system_error(EACCES, std::generic_category(), "unprotected parent folder");
    }
    if (const int error = internal::createPrivateDirectory(path); error != 0) {
        throw std::system_error(error, std::generic_category(), "private folder");
    }
}

std::filesystem::path makeScratch(const std::filesystem::path& parent,
                                  const VolumeOverrides& overrides) {
    std::optional<VolumeFacts> facts;
    if (overrides.volumeFactsOverride) {
        facts = overrides.volumeFactsOverride(parent);
    }
    if (!facts) {
        facts = volumeFactsAt(parent);
    }
    if (facts && (!facts->isLocal || facts->ignoresOwnership)) {
        throw JobFailure("destination", EOPNOTSUPP, std::string(kCannotProtectUnfinishedMedia));
    }
    if (!isProtectedDirectory(parent)) {
        throw JobFailure("scratch", EACCES, std::string(kNoProtectedNamespace));
    }
    const std::filesystem::path scratch = parent / newScratchName();
    if (const int error = internal::createPrivateDirectory(scratch); error != 0) {
        if (error == EACCES) {
            throw JobFailure("scratch", EACCES, std::string(kNoProtectedNamespace));
        }
        throw JobFailure(
            "scratch", error,
            fmt::format("could not create the private scratch folder (errno {})", error));
    }
    return scratch;
}

std::filesystem::path temporaryRoot(const std::map<std::string, std::string>& environment) {
    const std::filesystem::path fallback("/tmp");
    const auto found = environment.find("TMPDIR");
    if (found == environment.end() || found->second.empty()) {
        return fallback;
    }
    const std::filesystem::path candidate(found->second);
    struct stat st {};
    if (!candidate.is_absolute() || ::stat(candidate.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
        st.st_uid != ::geteuid() || !isProtectedDirectory(candidate)) {
        return fallback;
    }
    return candidate;
}

std::filesystem::path temporaryRoot() {
    std::map<std::string, std::string> environment;
    if (const char* value = std::getenv("TMPDIR")) {
        environment.emplace("TMPDIR", value);
    }
    return temporaryRoot(environment);
}

}  // namespace tessarin::engine
