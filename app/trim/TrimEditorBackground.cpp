// The trim editor's work off the main thread: the probe on opening, keyframe searches, silence
// scans and waveforms. Each hands its answer back through the event loop, where an answer to an
// outdated request is dropped.
#include <fmt/format.h>

#include <cmath>
#include <string>

#include "app/support/MainThreadHandoff.hpp"
#include "app/trim/TrimEditor.hpp"
#include "app/trim/internal/TrimEditorWork.hpp"
#include "engine/clips/WaveformPreview.hpp"
#include "engine/model/TimeText.hpp"
#include "engine/probe/MediaProbe.hpp"

namespace tessarin::app {

namespace {

using Slot = TrimEditor::Work::Slot;
using Direction = engine::KeyframeProbe::Direction;

constexpr const char* kNoTools = "Video tools unavailable.";
constexpr const char* kKeyframeUnavailable =
    "Keyframe timing is unavailable. Use the numeric trim fields.";
constexpr const char* kRangeChanged = "The range changed. Choose the keyframe action again.";
constexpr const char* kPlayheadOutside = "Move the playhead within this video, then try again.";
constexpr const char* kNoLength = "Video length is unavailable.";

}  // namespace

const engine::Logger& trimEditorLog() {
    static const engine::Logger log("com.tessarin.clips", "trim-editor");
    return log;
}

void TrimEditor::open() {
    if (!tools_) {
        probeMessage_ = kNoTools;
        emit changed();
        return;
    }
    probeSource();
}

void TrimEditor::probeSource() {
    probing_ = true;
    probeMessage_ = "Reading video length…";
    emit changed();
    const std::shared_ptr<engine::ProcessRunner> runner = work_->install(Slot::probe);
    handoff_->start([this, runner, source = request_.source, tools = *tools_]() {
        std::optional<engine::MediaInfo> info;
        bool cancelled = false;
        try {
            info = engine::MediaProbe::probe(source, tools, engine::MediaInputPolicy::unrestricted,
                                             *runner, engine::MediaProbe::kTimeoutSeconds, true);
        } catch (const engine::MediaProbeError& error) {
            cancelled = error.kind == engine::MediaProbeError::Kind::cancelled;
        }
        return [this, info = std::move(info), cancelled] {
            probing_ = false;
            if (cancelled) {
                probeMessage_.clear();
            } else if (!info) {
                probeMessage_ =
                    "Could not read video length. The range will be checked during conversion.";
            } else {
                duration_ = info->durationSeconds;
                chapters_ = info->chapters;
                hasAudio_ = info->hasAudio;
                timelineStart_ = info->timelineStart;
                keyframeOrigin_ = info->videoStart.value_or(info->timelineStart.value_or(0));
                probeMessage_ = duration_ ? ""
                                          : "Length unknown. The range will be checked during "
                                            "conversion.";
            }
            emit changed();
        };
    });
}

// ---- Keyframes ----------------------------------------------------------------------------------

void TrimEditor::keyframe(KeyframeAction action, double playhead) {
    keyframeMessage_.clear();
    if (!tools_) {
        keyframeMessage_ = kKeyframeUnavailable;
        emit changed();
        return;
    }
    if (!duration_) {
        keyframeMessage_ = kNoLength;
        emit changed();
        return;
    }
    const double length = *duration_;
    const ClipDraft& draft = snapshot_.clips[snapshot_.selected];
    double time = playhead;
    Direction direction = Direction::next;
    switch (action) {
        case KeyframeAction::previous:
            direction = Direction::previous;
            break;
        case KeyframeAction::next:
            direction = Direction::next;
            break;
        case KeyframeAction::snapStart:
            time = draft.start.empty() ? 0 : engine::parseTimeSeconds(draft.start).value_or(NAN);
            direction = Direction::atOrBefore;
            break;
        case KeyframeAction::snapEnd:
            time = draft.end.empty() ? length : engine::parseTimeSeconds(draft.end).value_or(NAN);
            direction = Direction::atOrAfter;
            break;
        case KeyframeAction::viewedAsStart:
            direction = Direction::atOrBefore;
            break;
        case KeyframeAction::viewedAsEnd:
            direction = Direction::atOrAfter;
            break;
    }
    if (!std::isfinite(time) || time < 0 || time > length) {
        keyframeMessage_ = kPlayheadOutside;
        emit changed();
        return;
    }
    const uint64_t id = ++keyframeRequest_;
    keyframeSearching_ = true;
    emit changed();
    const std::shared_ptr<engine::ProcessRunner> runner = work_->install(Slot::keyframe);
    handoff_->start([this, id, action, basis = snapshot_, runner, time, direction, length,
                     origin = keyframeOrigin_, source = request_.source, tools = *tools_]() {
        std::optional<double> found;
        std::string failure;
        try {
            found = engine::KeyframeProbe::find(source, tools, time, origin, direction, length,
                                                *runner);
        } catch (const engine::KeyframeProbe::Failure& error) {
            if (error.kind() != engine::KeyframeProbe::Failure::Kind::cancelled) {
                failure = kKeyframeUnavailable;
            }
        }
        return [this, id, action, basis, found, failure] {
            finishKeyframe(id, action, basis, found, failure);
        };
    });
}

void TrimEditor::finishKeyframe(uint64_t id, KeyframeAction action, TrimEditorSnapshot basis,
                                std::optional<double> time, std::string failure) {
    if (id != keyframeRequest_) {
        return;  // a newer request is on its way
    }
    keyframeSearching_ = false;
    const ClipDraft& before = basis.clips[basis.selected];
    const bool sameRange = snapshot_.selected == basis.selected &&
                           snapshot_.selected < snapshot_.clips.size() &&
                           snapshot_.clips[snapshot_.selected] == before;
    if (!time) {
        keyframeMessage_ = failure;
    } else if (action == KeyframeAction::previous || action == KeyframeAction::next) {
        keyframePlayhead_ = *time;
        emit seekRequested(*time);
    } else if (!sameRange) {
        keyframeMessage_ = kRangeChanged;
    } else if (action == KeyframeAction::snapStart || action == KeyframeAction::viewedAsStart) {
        setStart(snapshot_.selected, *time <= 0 ? "" : editorTimeText(*time));
    } else {
        setEnd(snapshot_.selected, duration_ && *time >= *duration_ ? "" : editorTimeText(*time));
    }
    emit changed();
}

// ---- Suggestions
// ----------------------------------------------------------------------------------

void TrimEditor::useSuggestedClips(const engine::SilenceSettings& settings) {
    if (editingLocked()) {
        return;
    }
    if (!tools_) {
        fileMessage_ = kNoTools;
        emit changed();
        return;
    }
    const uint64_t id = ++suggestionRequest_;
    suggesting_ = true;
    fileMessage_ = "Finding pauses…";
    emit changed();
    const std::shared_ptr<engine::ProcessRunner> runner = work_->install(Slot::suggestions);
    handoff_->start([this, id, runner, settings, duration = duration_, hasAudio = hasAudio_,
                     source = request_.source, tools = *tools_]() {
        std::optional<std::vector<engine::ClipSelection>> clips;
        std::string failure;
        try {
            clips = engine::SilenceSuggestions::analyze(source, tools, settings, duration, hasAudio,
                                                        *runner);
        } catch (const engine::SilenceSuggestions::Failure& error) {
            failure = error.what();
        }
        return [this, id, clips = std::move(clips), failure] {
            if (id != suggestionRequest_) {
                return;
            }
            suggesting_ = false;
            if (!clips) {
                // The list stays as it was.
                fileMessage_ = failure;
                emit changed();
                return;
            }
            if (clips->empty()) {
                fileMessage_ =
                    "No sound was found above the noise threshold; the clip list is "
                    "unchanged.";
                emit changed();
                return;
            }
            std::vector<ClipDraft> drafts;
            for (const engine::ClipSelection& clip : *clips) {
                drafts.push_back(ClipDraft::from(clip));
            }
            replaceClips(std::move(drafts),
                         "Suggested keep clips loaded. Review them before Apply.");
        };
    });
}

void TrimEditor::cancelSuggestions() {
    ++suggestionRequest_;
    suggesting_ = false;
    work_->cancel(Slot::suggestions);
    fileMessage_ =
        engine::SilenceSuggestions::Failure(engine::SilenceSuggestions::Failure::Kind::cancelled)
            .what();
    emit changed();
}

// ---- Waveform
// --------------------------------------------------------------------------------------

void TrimEditor::requestWaveform(double start, double length) {
    const uint64_t revision = ++waveformRevision_;
    waveformWindow_ = {start, length};
    if (!tools_) {
        waveformPng_.clear();
        waveformMessage_ = kNoTools;
        emit changed();
        return;
    }
    const std::shared_ptr<engine::ProcessRunner> runner = work_->install(Slot::waveform);
    handoff_->start(
        [this, revision, runner, start, length, source = request_.source, tools = *tools_]() {
            std::string png;
            std::string failure;
            try {
                png = engine::WaveformPreview::render(source, tools, start, length, *runner);
            } catch (const engine::WaveformPreview::Failure& error) {
                failure = error.what();
            }
            return [this, revision, png = std::move(png), failure] {
                if (revision != waveformRevision_) {
                    return;  // the window moved on
                }
                waveformPng_ = png;
                waveformMessage_ = failure;
                emit changed();
            };
        });
}

}  // namespace tessarin::app
