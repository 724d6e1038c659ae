// The phases' names and accessibility texts, one row a phase.
#include "engine/recording/session/RecordingSession.hpp"

namespace tessarin::engine {

namespace {

struct PhaseRow {
    RecordingPhase phase;
    const char* name;
    const char* status;
};

constexpr PhaseRow kPhases[] = {
    {RecordingPhase::idle, "idle", "Ready to choose a source"},
    {RecordingPhase::selecting, "selecting", "Choosing a source"},
    {RecordingPhase::countdown, "countdown", "Starting after countdown"},
    {RecordingPhase::starting, "starting", "Starting recording"},
    {RecordingPhase::recording, "recording", "Recording"},
    {RecordingPhase::pausing, "pausing", "Pausing recording"},
    {RecordingPhase::paused, "paused", "Recording paused"},
    {RecordingPhase::resuming, "resuming", "Resuming recording"},
    {RecordingPhase::finishing, "finishing", "Saving recording"},
    {RecordingPhase::saved, "saved", "Recording saved"},
    {RecordingPhase::failed, "failed", "Recording needs attention"},
};

}  // namespace

bool isLive(RecordingPhase phase) {
    return phase >= RecordingPhase::countdown && phase <= RecordingPhase::finishing;
}

const char* recordingPhaseName(RecordingPhase phase) {
    return kPhases[static_cast<int>(phase)].name;
}

const char* recordingPhaseStatus(RecordingPhase phase) {
    return kPhases[static_cast<int>(phase)].status;
}

std::string sourceGoneSentence(RecordingMode mode) {
    return mode == RecordingMode::display || mode == RecordingMode::area
               ? "The selected display disconnected."
               : "The selected source is no longer available.";
}

}  // namespace tessarin::engine
