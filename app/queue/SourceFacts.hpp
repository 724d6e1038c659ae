// What a queue row shows about its source before anything runs: length, picture size and file
// size from the probe the queue runs when a row comes in, and a thumbnail the window asks for
// once the probe found a picture. A loader does one of the two tasks, on one worker thread, one
// file at a time, in the order asked; each result comes back through the event loop.
//
// Threads: lives on the main thread, and every member must be called there. Destruction stops
// the running tool and drops what waits.
#pragma once

#include <QObject>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "engine/clips/Uuid.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::app {

class MainThreadHandoff;

struct SourceFacts {
    std::optional<double> durationSeconds;
    std::optional<int64_t> width;
    std::optional<int64_t> height;
    std::optional<int64_t> bytes;
    std::string thumbnailPng;  // a thumbnail task's result; empty when there is none

    // "0:42 · 1920×1080 · 12.3 MB", with what is known.
    [[nodiscard]] std::string summary() const;
};

class SourceFactsLoader : public QObject {
    Q_OBJECT

public:
    static constexpr int kThumbnailWidth = 128;

    // `probe`: the file size, and the media probe's length and picture size. `thumbnail`: the
    // first frame as a PNG kThumbnailWidth wide.
    enum class Task { probe, thumbnail };

    // Without `tools` a probe knows the file size only and a thumbnail is never made.
    SourceFactsLoader(std::optional<engine::Tools> tools, Task task, QObject* parent = nullptr);
    ~SourceFactsLoader() override;
    SourceFactsLoader(const SourceFactsLoader&) = delete;
    SourceFactsLoader& operator=(const SourceFactsLoader&) = delete;

    // Asks for the facts of row `id` once; later calls for the same id do nothing.
    void request(const engine::Uuid& id, const std::filesystem::path& source);
    // Stops the tool now running and drops what waits; nothing is looked at from then on.
    void close();
    // The facts of row `id` once they came, or nothing.
    [[nodiscard]] const SourceFacts* facts(const engine::Uuid& id) const;

    [[nodiscard]] bool waitUntilIdle(std::chrono::milliseconds limit);

    struct Pending;

signals:
    void factsReady(const QString& id);

private slots:
    void deliverBackgroundResults();

private:
    std::optional<engine::Tools> tools_;
    Task task_;
    std::map<engine::Uuid, std::optional<SourceFacts>> facts_;
    std::shared_ptr<Pending> pending_;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
