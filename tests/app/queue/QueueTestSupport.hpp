// Helpers for the queue tests: an event loop to wait on, files to drop, and URL lists.
#pragma once

#include <QList>
#include <QUrl>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "app/queue/QueueModel.hpp"

namespace tessarin::test {

// Runs the main event loop until `done` holds, at most `limit`; returns whether it held.
[[nodiscard]] bool waitFor(const std::function<bool()>& done,
                           std::chrono::milliseconds limit = std::chrono::seconds(60));

// A URL per path.
[[nodiscard]] QList<QUrl> urlsOf(const std::vector<std::filesystem::path>& paths);

// `count` empty files "<stem>-<i>.mp4" in `folder` (enough for intake, which reads no content).
[[nodiscard]] std::vector<std::filesystem::path> emptyVideos(const std::filesystem::path& folder,
                                                             std::size_t count,
                                                             const std::string& stem = "v");

// A copy of a generated clip at `destination` (folders made).
std::filesystem::path copyClip(const std::filesystem::path& clip,
                               const std::filesystem::path& destination);

// Intake options with an action; asking to start; from outside the window.
[[nodiscard]] app::IntakeOptions withAction(app::ActionID action);
[[nodiscard]] app::IntakeOptions startRequested();
[[nodiscard]] app::IntakeOptions external();

// The rows in a given state.
[[nodiscard]] std::size_t countIn(const app::QueueModel& queue, app::QueueItem::StateKind kind);

}  // namespace tessarin::test
