// What the command line tells its user about each job: a progress bar and paths for people,
// or one JSON object per event for programs (--json).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "cli/ProgressLine.hpp"
#include "engine/clips/FastCut.hpp"

namespace tessarin::cli {

class EventSink {
public:
    // `json`: one object per line on stdout, nothing else on stdout; otherwise the published
    // paths on stdout and, on a terminal, a progress bar on stderr.
    explicit EventSink(bool json);

    void start(const std::filesystem::path& file, const std::string& action);
    void progress(std::optional<double> fraction);
    void warning(const std::string& text);
    void done(const std::filesystem::path& published);
    void failed(const std::string& step, const std::string& text, std::optional<int32_t> exitCode);
    void cancelled();

    // Before any job starts: the review of a planned cut (`part` names a segment's cut, empty
    // for a whole --trim), a file refused while planning, and a file whose planning was
    // interrupted.
    void plan(const std::filesystem::path& file, const std::string& part,
              const engine::FastCut::Plan& plan);
    void refused(const std::filesystem::path& file, const std::string& step,
                 const std::string& text);
    void interrupted(const std::filesystem::path& file);

private:
    void emit(const std::string& line);

    bool json_;
    std::filesystem::path file_;
    std::unique_ptr<ProgressLine> bar_;
    int lastPercent_ = -1;
};

}  // namespace tessarin::cli
