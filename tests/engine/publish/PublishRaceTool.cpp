// Publishes one file for the cross-process race test: waits for one byte on standard input as
// the starting signal, then prints the published path. Arguments: file, naming source, folder.
#include <unistd.h>

#include <cstdio>

#include "engine/model/JobFailure.hpp"
#include "engine/publish/Publish.hpp"

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s FILE NAMING-SOURCE FOLDER\n", argv[0]);
        return 2;
    }
    char go = 0;
    if (::read(STDIN_FILENO, &go, 1) != 1) {
        return 2;
    }
    try {
        const auto published = tessarin::engine::publishUnderFreeName(
            argv[1], argv[2], {"-h264_crf33", "mp4"}, std::filesystem::path(argv[3]),
            [] { return false; });
        std::printf("%s\n", published.c_str());
        return 0;
    } catch (const tessarin::engine::JobFailure& failure) {
        std::fprintf(stderr, "%s: %s\n", failure.step.c_str(), failure.stderrTail.c_str());
        return 1;
    }
}
