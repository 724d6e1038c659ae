// Publication against the shell's own tools, on a 1 GiB file in the temporary directory:
//   same volume: publish of a finished file from a private folder vs `mv`;
//   copying publish (a shared source, no clone) vs `cp`.
// Prints the median of each and the ratio publish / tool. Deletes its files afterwards.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "engine/publish/Publish.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using tessarin::engine::publish;

constexpr std::size_t kFileBytes = std::size_t{1} << 30;
constexpr int kRepetitions = 5;

bool run(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

template <typename F>
double seconds(F&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void writeBigFile(const fs::path& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::vector<char> block(std::size_t{1} << 20);
    for (std::size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>(i * 131 % 251);
    }
    for (std::size_t written = 0; written < kFileBytes; written += block.size()) {
        if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
            std::fprintf(stderr, "write failed\n");
            std::exit(1);
        }
    }
    fsync(fd);
    close(fd);
}

}  // namespace

int main() {
    std::string pattern = (fs::temp_directory_path() / "tessarin-publish-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        return 1;
    }
    const fs::path root(pattern);
    fs::create_directory(root / "out");
    fs::permissions(root / "out", fs::perms(0755));
    fs::create_directory(root / "private");
    fs::permissions(root / "private", fs::perms(0700));
    fs::create_directory(root / "shared");
    fs::permissions(root / "shared", fs::perms(0755));
    const fs::path privateFile = root / "private" / ".converting-0000beef-clip.mp4";
    const fs::path sharedMaster = root / "shared" / "master.mp4";
    const fs::path final = root / "out" / "clip-h264_crf33.mp4";
    writeBigFile(privateFile);
    writeBigFile(sharedMaster);
    const auto noClone = [](int, int) { return EOPNOTSUPP; };
    bool ok = true;

    std::vector<double> publishRename;
    std::vector<double> mv;
    for (int i = 0; i < kRepetitions && ok; ++i) {
        publishRename.push_back(
            seconds([&] { ok = ok && publish(privateFile, final, {}, noClone).code == 0; }));
        fs::rename(final, privateFile);
        mv.push_back(seconds([&] {
            ok = ok && run({"/bin/mv", privateFile.string(), final.string()});
        }));
        fs::rename(final, privateFile);
    }

    std::vector<double> publishCopy;
    std::vector<double> cp;
    const fs::path sharedSource = root / "shared" / ".converting-0000cafe-clip.mp4";
    for (int i = 0; i < kRepetitions && ok; ++i) {
        fs::create_hard_link(sharedMaster, sharedSource);
        publishCopy.push_back(
            seconds([&] { ok = ok && publish(sharedSource, final, {}, noClone).code == 0; }));
        ok = ok && fs::file_size(final) == kFileBytes;
        fs::remove(final);
        cp.push_back(seconds([&] {
            ok = ok && run({"/bin/cp", sharedMaster.string(), final.string()});
        }));
        fs::remove(final);
    }
    std::error_code ignored;
    fs::remove_all(root, ignored);
    if (!ok) {
        std::fprintf(stderr, "a publication or a tool run failed\n");
        return 1;
    }
    const double rename = median(publishRename);
    const double move = median(mv);
    const double copy = median(publishCopy);
    const double plainCopy = median(cp);
    std::printf("1 GiB, median of %d\n", kRepetitions);
    std::printf("same volume: publish %.4f s, mv %.4f s, ratio publish/mv %.2f\n", rename, move,
                rename / move);
    std::printf("copying:     publish %.3f s, cp %.3f s, ratio publish/cp %.2f\n", copy, plainCopy,
                copy / plainCopy);
    return 0;
}
