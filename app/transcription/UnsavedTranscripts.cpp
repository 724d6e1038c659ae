#include "app/transcription/UnsavedTranscripts.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "engine/transcription/TranscriptionError.hpp"

namespace tessarin::app {

namespace fs = std::filesystem;

std::string UnsavedTranscript::suggestedName() const {
    return fmt::format("{}.transcript.{}", fs::path(sourceName).stem().string(),
                       engine::fileExtension(format));
}

UnsavedTranscripts::UnsavedTranscripts(QObject* parent)
    : QObject(parent),
      handoff_(std::make_shared<MainThreadHandoff>(
          this, "deliver", engine::Logger("com.tessarin.app", "transcription"))) {}

UnsavedTranscripts::~UnsavedTranscripts() {
    handoff_->detach();
}

UnsavedTranscripts::Sink UnsavedTranscripts::sink() {
    return [this, handoff = handoff_](const engine::CompletedTranscriptSaveFailure& failure,
                                      const std::string& sourceName) {
        UnsavedTranscript entry{0, sourceName, failure.text, failure.format, failure.isPartial};
        handoff->post([this, entry = std::move(entry)]() mutable {
            entry.id = nextID_++;
            entries_.push_back(std::move(entry));
            emit changed();
        });
    };
}

std::optional<std::string> UnsavedTranscripts::save(uint64_t id, const fs::path& file) {
    const auto entry = std::find_if(entries_.begin(), entries_.end(),
                                    [id](const UnsavedTranscript& e) { return e.id == id; });
    if (entry == entries_.end()) {
        return std::nullopt;
    }
    // Whole or not at all: a hidden file beside the target, renamed over it once written.
    const fs::path temporary =
        file.parent_path() / fmt::format(".tessarin-transcript-{}-{}", ::getpid(), id);
    bool written = false;
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << entry->text;
        out.flush();
        written = static_cast<bool>(out);
    }
    std::error_code error;
    if (written) {
        fs::rename(temporary, file, error);
    }
    if (!written || error) {
        fs::remove(temporary, error);
        return engine::TranscriptionError(engine::TranscriptionError::Code::writeFailed).text();
    }
    entries_.erase(entry);
    emit changed();
    return std::nullopt;
}

void UnsavedTranscripts::discard(uint64_t id) {
    const auto erased = std::erase_if(entries_, [id](const UnsavedTranscript& e) { return e.id == id; });
    if (erased > 0) {
        emit changed();
    }
}

void UnsavedTranscripts::deliver() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

}  // namespace tessarin::app
