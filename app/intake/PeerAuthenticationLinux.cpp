#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <mutex>
#include <system_error>
#include <tuple>

#include "app/intake/PeerAuthentication.hpp"
#include "engine/encoders/FileDigest.hpp"
#include "engine/intake/HelperActions.hpp"

namespace tessarin::app {

namespace {

constexpr std::string_view kDeletedMark = " (deleted)";

// The first argument of process `pid`, or nothing.
std::optional<std::string> firstArgument(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    std::string program;
    std::string first;
    if (!std::getline(file, program, '\0') || !std::getline(file, first, '\0')) {
        return std::nullopt;
    }
    return first;
}

// Hashing the helper on every connection would cost a full read; the digest is kept per exact
// stamp of the file (device, inode, size, modification and change times).
using FileStamp = std::tuple<dev_t, ino_t, off_t, long, long, long, long>;

std::optional<std::string> digestOf(int fd) {
    static std::mutex mutex;
    static std::optional<std::pair<FileStamp, std::string>> last;
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        return std::nullopt;
    }
    const FileStamp stamp{status.st_dev,          status.st_ino,          status.st_size,
                          status.st_mtim.tv_sec,  status.st_mtim.tv_nsec, status.st_ctim.tv_sec,
                          status.st_ctim.tv_nsec};
    {
        std::lock_guard lock(mutex);
        if (last && last->first == stamp) {
            return last->second;
        }
    }
    std::string digest;
    try {
        digest = engine::sha256Hex(fd);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    std::lock_guard lock(mutex);
    last = std::make_pair(stamp, digest);
    return digest;
}

}  // namespace

std::optional<ActionHelperIdentity> installedActionHelper(const std::filesystem::path& helperFolder) {
    ActionHelperIdentity identity;
    std::error_code error;
    identity.executable =
        std::filesystem::canonical(helperFolder / engine::kActionHelperName, error);
    if (error) {
        return std::nullopt;
    }
    std::ifstream file(helperFolder / engine::kActionHelperDigestName);
    if (!(file >> identity.sha256) || identity.sha256.size() != 64 ||
        !std::all_of(identity.sha256.begin(), identity.sha256.end(),
                     [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); })) {
        return std::nullopt;
    }
    std::transform(identity.sha256.begin(), identity.sha256.end(), identity.sha256.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return identity;
}

std::filesystem::path runningHelperFolder() {
    std::error_code error;
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
    return executable.parent_path().parent_path() / "libexec" / "tessarin";
}

PeerAuthentication authenticatePeer(int socket, const std::optional<ActionHelperIdentity>& helper) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
        length != sizeof peer || peer.pid <= 0 || peer.uid != ::geteuid() || !helper) {
        return PeerAuthentication::refused;
    }
    const std::string exeLink = "/proc/" + std::to_string(peer.pid) + "/exe";
    std::error_code error;
    const std::string executable = std::filesystem::read_symlink(exeLink, error).string();
    if (error) {
        return PeerAuthentication::refused;
    }
    if (executable.ends_with(kDeletedMark)) {
        const std::string_view formerPath =
            std::string_view(executable).substr(0, executable.size() - kDeletedMark.size());
        return formerPath == helper->executable.string() ? PeerAuthentication::replaced
                                                         : PeerAuthentication::refused;
    }
    if (executable != helper->executable.string()) {
        return PeerAuthentication::refused;
    }
    const std::optional<std::string> action = firstArgument(peer.pid);
    if (!action || !engine::helperAction(*action)) {
        return PeerAuthentication::refused;
    }
    // The open descriptor reaches the very file the process runs, even if the path changes.
    const int fd = ::open(exeLink.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return PeerAuthentication::refused;
    }
    const std::optional<std::string> digest = digestOf(fd);
    ::close(fd);
    if (!digest) {
        return PeerAuthentication::refused;
    }
    return *digest == helper->sha256 ? PeerAuthentication::accepted : PeerAuthentication::replaced;
}

const char* text(PeerAuthentication outcome) {
    switch (outcome) {
        case PeerAuthentication::accepted:
            return "accepted";
        case PeerAuthentication::replaced:
            return "replaced";
        case PeerAuthentication::refused:
            return "refused";
    }
    return "refused";
}

}  // namespace tessarin::app
