// What the command line tells its user about each job: a progress bar and paths for people,
// or one JSON object per event for programs (--json).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/ProgressLine.hpp"
#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/FastCut.hpp"

namespace tessarin::cli {

class EventSink {
public:
    // `json`: one object per line on stdout, nothing else on stdout; otherwise the published
    // paths on stdout and, on a terminal, a progress bar on stderr.
    explicit EventSink(bool json);

    void start(const std::filesystem::path& file, const std::string& action);
    void progress(std::optional<double> fraction);
    // A warning sentence; with a `code` as well, --json gives the code as "text" and the
    // sentence as "message", and people read the sentence.
    void warning(const std::string& text);
    void warning(const std::string& code, const std::string& sentence);
    // `index`, when given, goes into --json's done event under "index"; people get the path.
    void done(const std::filesystem::path& published,
              const std::optional<nlohmann::json>& index = std::nullopt);
    void failed(const std::string& step, const std::string& text, std::optional<int32_t> exitCode);
    void cancelled();
    // The end of a silence scan: the keep clips and the clip list written, if any. --json gives
    // a "done" event with "clips" (start, end, name) and "path" when a list was written; people
    // get one "START END" line per clip on stdout.
    void suggestions(const std::vector<engine::ClipSelection>& clips,
                     const std::optional<std::filesystem::path>& clipList);

    // Before any job starts: the review of a planned cut (`part` names a segment's cut, empty
    // for a whole --trim), a file refused while planning, and a file whose planning was
    // interrupted.
    void plan(const std::filesystem::path& file, const std::string& part,
              const engine::FastCut::Plan& plan);
    void refused(const std::filesystem::path& file, const std::string& step,
                 const std::string& text);
    void interrupted(const std::filesystem::path& file);

private:
    void emit(const nlohmann::json& event);

    bool json_;
    std::filesystem::path file_;
    std::unique_ptr<ProgressLine> bar_;
    int lastPercent_ = -1;
};

}  // namespace tessarin::cli
