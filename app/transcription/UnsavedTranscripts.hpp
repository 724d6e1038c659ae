// Transcripts that were made but couldn't be stored at their destination, kept until the user
// saves them elsewhere or lets them go, so that nothing received is lost while the window runs.
// Jobs hand them over from their worker threads; the list lives on the main thread.
#pragma once

#include <QObject>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/support/MainThreadHandoff.hpp"
#include "engine/transcription/TranscriptionPipeline.hpp"

namespace tessarin::app {

struct UnsavedTranscript {
    uint64_t id = 0;
    std::string sourceName;  // the source's file name, for the prompt and the suggested name
    std::string text;        // the rendered file, whole
    engine::TranscriptFormat format = engine::TranscriptFormat::text;
    bool isPartial = false;  // only what arrived before a failure

    // "{stem}.transcript.{ext}", the name it would have had.
    [[nodiscard]] std::string suggestedName() const;
};

class UnsavedTranscripts : public QObject {
    Q_OBJECT

public:
    explicit UnsavedTranscripts(QObject* parent = nullptr);
    ~UnsavedTranscripts() override;

    // What a job calls, from any thread, with a transcript it couldn't store. Dropped once this
    // list is gone.
    using Sink = std::function<void(const engine::CompletedTranscriptSaveFailure&,
                                    const std::string& sourceName)>;
    [[nodiscard]] Sink sink();

    [[nodiscard]] const std::vector<UnsavedTranscript>& entries() const { return entries_; }

    // Writes entry `id` to `file` (the user confirmed replacing it) and forgets it. Returns the
    // sentence to show when that fails; the entry is kept then.
    [[nodiscard]] std::optional<std::string> save(uint64_t id, const std::filesystem::path& file);
    void discard(uint64_t id);

signals:
    void changed();

private slots:
    void deliver();

private:
    std::vector<UnsavedTranscript> entries_;
    uint64_t nextID_ = 1;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
