#include "tests/engine/recording/RecordingTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "engine/process/ProcessRunner.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::test {

namespace fs = std::filesystem;

fs::path fragmentedSegment() {
    return makeClip("segment-fragmented.mp4",
                    {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=30:duration=2", "-f", "lavfi",
                     "-i", "sine=frequency=440:sample_rate=48000:duration=2", "-c:v", "libx264",
                     "-preset", "ultrafast", "-g", "30", "-pix_fmt", "yuv420p", "-c:a", "aac",
                     "-b:a", "64k", "-shortest", "-movflags",
                     "frag_keyframe+empty_moov+default_base_moof", "-frag_duration", "1000000"});
}

RecordingPlace::RecordingPlace() {
    fs::create_directories(destination);
}

engine::RecordingFiles makeTake(const RecordingPlace& place, int segments,
                                const std::string& filename) {
    engine::RecordingFiles files =
        engine::RecordingFiles::create(place.root, place.destination, filename, 30, 1);
    for (int index = 0; index < segments; ++index) {
        fs::copy_file(fragmentedSegment(), files.nextSegmentURL());
    }
    files.ownership.reset();
    return files;
}

std::string folderSnapshot(const fs::path& folder) {
    std::vector<std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        std::string line = fs::relative(entry.path(), folder).string();
        if (entry.is_regular_file() && !entry.is_symlink()) {
            line += ":" + std::to_string(entry.file_size());
        }
        entries.push_back(line);
    }
    std::sort(entries.begin(), entries.end());
    std::ostringstream out;
    for (const std::string& entry : entries) {
        out << entry << "\n";
    }
    return out.str();
}

double videoSeconds(const fs::path& file) {
    engine::ProcessRunner runner;
    const engine::ProcessResult result = runner.run(
        helperDirectory() / "ffprobe",
        {"-v", "quiet", "-select_streams", "v:0", "-show_entries", "packet=pts_time,duration_time",
         "-of", "csv=p=0", file.string()},
        true);
    std::istringstream lines(result.stdoutData.value_or(""));
    std::string line;
    double first = 1e18;
    double end = -1;
    while (std::getline(lines, line)) {
        const std::size_t comma = line.find(',');
        if (comma == std::string::npos) {
            continue;
        }
        const double pts = std::strtod(line.c_str(), nullptr);
        const double duration = std::strtod(line.c_str() + comma + 1, nullptr);
        first = std::min(first, pts);
        end = std::max(end, pts + duration);
    }
    return end < 0 ? 0 : end - first;
}

}  // namespace tessarin::test
