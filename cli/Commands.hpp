// The subcommands of `tessarin`. Each returns the process exit status (ExitStatus.hpp).
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "cli/JobPlan.hpp"
#include "engine/clips/SilenceSuggestions.hpp"
#include "engine/frames/FrameExtractionOptions.hpp"

namespace tessarin::cli {

// `tessarin probe FILE`: the facts of FILE as one JSON object on stdout.
int runProbe(const std::filesystem::path& file);

struct PresetsRequest {
    enum class Action { list, show, exportFile, importFile };
    Action action = Action::list;
    std::string argument;  // the id for show, the file for export and import
};

// `tessarin presets [show ID | export FILE | import FILE]`: the effective presets (built-ins
// with the user's edits, then custom presets), one preset's stored form, or custom presets moved
// between machines through a file.
int runPresets(const PresetsRequest& request);

struct ConvertRequest {
    std::string presetId;
    std::vector<std::filesystem::path> files;
    std::optional<std::filesystem::path> outputDirectory;
    RangeOptions ranges;
    bool json = false;
};

// `tessarin convert --preset ID FILE...`: converts the files one at a time.
int runConvert(const ConvertRequest& request);

struct CutRequest {
    std::vector<std::filesystem::path> files;
    std::optional<std::filesystem::path> outputDirectory;
    RangeOptions ranges;  // --join keep only
    bool yes = false;     // export without asking
    bool json = false;
};

// `tessarin cut --trim START,END FILE...`: plans lossless cuts on keyframes, shows the plans,
// and after a yes (or --yes) copies them without re-encoding.
int runCut(const CutRequest& request);

struct ExtractAudioRequest {
    std::string codec = "aac";
    std::vector<std::filesystem::path> files;
    std::optional<std::filesystem::path> outputDirectory;
    std::optional<std::string> trim;
    bool json = false;
};

// `tessarin extract-audio FILE...`: writes each file's first audio track to a file of its own.
int runExtractAudio(const ExtractAudioRequest& request);

struct FramesRequest {
    std::string mode = "changes";      // or "interval"
    std::optional<int64_t> maxFrames;  // absent: the engine's automatic budget
    int64_t maxSize = engine::FrameExtractionOptions::kDefaultSize;
    std::string format = "jpeg";  // or "png"
    bool contactSheet = true;
    std::optional<std::string> trim;  // START,END
    std::vector<std::filesystem::path> files;
    std::optional<std::filesystem::path> outputDirectory;
    bool json = false;
};

// `tessarin frames FILE...`: exports stills of each file into a new NAME-frames folder with
// frames.json and a contact sheet, one file at a time.
int runFrames(const FramesRequest& request);

struct TranscribeModelsRequest {
    bool refresh = false;  // fetch the service's model list even when the stored one is fresh
    bool json = false;
};

// `tessarin transcribe models`: the roster of transcription models with each one's route, price
// unit and whether it is enabled. Needs OPENROUTER_API_KEY.
int runTranscribeModels(const TranscribeModelsRequest& request);

struct TranscribeRequest {
    std::optional<std::string> model;     // default: the active model of the settings
    std::optional<std::string> format;    // txt, srt or vtt; default: the settings'
    std::optional<std::string> language;  // default: the settings'
    std::optional<std::string> trim;      // START,END
    std::optional<std::filesystem::path> outputDirectory;
    std::optional<std::string> consent;   // audio or video: approve that upload now
    std::vector<std::filesystem::path> files;
    bool json = false;
};

// `tessarin transcribe FILE...`: a transcript of each file beside it (or in --output-dir), with
// the key from the keyring or OPENROUTER_API_KEY. Without an approval of the upload, stored or
// given with --consent, prints what would be sent where, sends nothing and exits 5.
int runTranscribe(const TranscribeRequest& request);
struct RecordingsRequest {
    enum class Action { list, recover, discard };
    Action action = Action::list;
    std::string take;  // an id or folder name; empty: every unfinished take (recover)
    bool json = false;
};

// `tessarin recordings list|recover [TAKE]|discard TAKE`: unfinished screen recordings, listed,
// saved to their recording folder, or moved to the Trash.
int runRecordings(const RecordingsRequest& request);

struct RecordRequest {
    std::optional<uint32_t> display;  // RandR monitor index
    std::optional<std::string> window;  // X11 window id, decimal or 0x hex
    std::optional<std::string> area;    // X,Y,W,H
    int64_t framesPerSecond = 30;
    bool systemAudio = false;
    std::optional<std::string> microphone;  // PulseAudio source name, or "default"
    std::optional<int64_t> maximumDimension;
    std::optional<double> duration;  // seconds of recording, pauses not counted
    std::optional<std::filesystem::path> outputDirectory;
    bool json = false;
};

// `tessarin record`: one screen recording, saved into the recording folder (or --output-dir).
// SIGINT/SIGTERM stop and save, SIGUSR1 pauses, SIGUSR2 resumes.
int runRecord(const RecordRequest& request);

struct SilenceRequest {
    engine::SilenceSettings settings;  // the editor's starting values unless given
    std::optional<std::filesystem::path> writeClipList;
    std::filesystem::path file;
    bool json = false;
};

// `tessarin silence FILE`: the spoken parts of FILE as keep clips, one "START END" line each,
// and with --write-clip-list a new clip list file of them.
int runSilence(const SilenceRequest& request);

struct ActionsRequest {
    std::string verb = "status";  // status, install, repair, remove
    bool json = false;
};

// `tessarin actions status|install|repair|remove`: the file-manager actions of this copy.
int runActions(const ActionsRequest& request);

// `tessarin report`: the plain-text support report (no paths, names or keys) on stdout; with
// --json one "done" event carrying it under "report".
int runReport(bool json);

struct CliToolRequest {
    std::string verb = "status";  // status, install, install-all-users
    bool json = false;
};

// `tessarin cli-tool status|install|install-all-users`: a link to this program in ~/.local/bin
// (with the ~/.profile lines when that isn't on PATH), or in /usr/local/bin through pkexec.
int runCliTool(const CliToolRequest& request);

struct UpdatesRequest {
    std::string verb = "check";            // check, auto
    std::optional<std::string> automatic;  // auto: "on" or "off"; absent shows the setting
    bool json = false;
};

// `tessarin updates check|auto [on|off]`: whether the release feed lists a newer version, and
// the setting "Automatically check for updates".
int runUpdates(const UpdatesRequest& request);

struct SharesRequest {
    std::string verb = "list";  // list, mount
    double seconds = 3.0;       // list: how long to browse
    std::string host;           // mount: a host name such as nas.local
    bool json = false;
};

// `tessarin shares list|mount HOST`: SMB hosts on the local network (Avahi), and mounting one
// with `gio mount smb://HOST/`.
int runShares(const SharesRequest& request);

}  // namespace tessarin::cli
