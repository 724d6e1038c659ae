// What the command line tells its user about each job: a progress bar and paths for people,
// or one JSON object per event for programs (--json).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "cli/ProgressLine.hpp"

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

private:
    void emit(const std::string& line);

    bool json_;
    std::filesystem::path file_;
    std::unique_ptr<ProgressLine> bar_;
    int lastPercent_ = -1;
};

}  // namespace tessarin::cli
