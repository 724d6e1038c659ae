// tessarin: the command-line sibling of the desktop application.
#include <CLI/CLI.hpp>
#include <iostream>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"

namespace {

constexpr const char* kExitStatusHelp =
    "Exit status: 0 all done, 1 a file failed (or the transcription service refused), 2 bad "
    "command line (or no OPENROUTER_API_KEY), 3 ffmpeg/ffprobe/gifsicle "
    "not found, 4 cuts planned but not confirmed (nothing written), 5 transcription upload not "
    "approved (nothing sent), 130 cancelled.\n"
    "The tools are taken from CONVERTER_TOOLS_DIR when it is set, otherwise from the helper "
    "folder beside this program (../libexec/tessarin).";

// --trim, --segment and --join, shared by the commands that take ranges. Returns --join.
CLI::Option* addRangeOptions(CLI::App& command, tessarin::cli::RangeOptions& ranges,
                             const std::string& verb, const std::string& joinHelp) {
    command.add_option("--trim", ranges.trim,
                       "START,END: " + verb + " only this range (either side may be empty)");
    command
        .add_option("--segment", ranges.segments,
                    "START,END[,NAME]: a clip; repeat for several (one file each)")
        ->allow_extra_args(false);
    command.add_option("--clip-list", ranges.clipList,
                       "A clip list file of the one FILE (see `tessarin silence`): its clips as "
                       "segments");
    return command.add_option("--join", ranges.join, joinHelp);
}

// --output-dir, --json and the files, last on every converting command.
void addOutputOptions(CLI::App& command, std::optional<std::filesystem::path>& outputDirectory,
                      bool& json, std::vector<std::filesystem::path>& files,
                      const std::string& filesHelp) {
    command.add_option("--output-dir", outputDirectory,
                       "Folder for the results (default: beside each original)");
    command.add_flag("--json", json, "One JSON object per event on stdout");
    command.add_option("FILE", files, filesHelp)->required();
}

}  // namespace

int main(int argc, char** argv) {
    using namespace tessarin::cli;

    CLI::App app{"Tessarin: turns video files into other media with ffmpeg.", "tessarin"};
    app.footer(kExitStatusHelp);
    app.set_version_flag("--version", TESSARIN_VERSION);
    app.require_subcommand(1);

    std::filesystem::path probeFile;
    CLI::App* probe = app.add_subcommand("probe", "Print the facts of a media file as JSON");
    probe->add_option("FILE", probeFile, "The media file")->required();

    PresetsRequest presetsRequest;
    CLI::App* presets = app.add_subcommand(
        "presets", "List the presets: built-ins with your edits, then your custom presets");
    CLI::App* showPreset = presets->add_subcommand("show", "Print a preset's stored form as JSON");
    showPreset->add_option("ID", presetsRequest.argument, "Preset id")->required();
    CLI::App* exportPresets =
        presets->add_subcommand("export", "Write your custom presets to a new file");
    exportPresets->add_option("FILE", presetsRequest.argument, "File to create")->required();
    CLI::App* importPresets =
        presets->add_subcommand("import", "Add the custom presets of an exported file");
    importPresets->add_option("FILE", presetsRequest.argument, "File to read")->required();

    ConvertRequest convert;
    CLI::App* convertCommand =
        app.add_subcommand("convert", "Convert files with a preset, one at a time");
    convertCommand->add_option("--preset", convert.presetId, "Preset id (see `tessarin presets`)")
        ->required();
    addRangeOptions(*convertCommand, convert.ranges, "convert",
                    "keep: join the segments into one file; remove: cut them out")
        ->check(CLI::IsMember({"keep", "remove"}));
    addOutputOptions(*convertCommand, convert.outputDirectory, convert.json, convert.files,
                     "Files to convert");

    CutRequest cut;
    CLI::App* cutCommand = app.add_subcommand(
        "cut", "Cut without re-encoding, on keyframes: plan, review, then export");
    addRangeOptions(*cutCommand, cut.ranges, "cut",
                    "keep: the segments one after another in one file; remove: the rest of the "
                    "video without them")
        ->check(CLI::IsMember({"keep", "remove"}));
    cutCommand->add_flag("--yes", cut.yes, "Export the plans without asking");
    addOutputOptions(*cutCommand, cut.outputDirectory, cut.json, cut.files, "Files to cut");

    ExtractAudioRequest extract;
    CLI::App* extractCommand = app.add_subcommand(
        "extract-audio", "Write each file's first audio track to a file of its own");
    extractCommand->add_option("--codec", extract.codec, "aac (M4A, default), wav or flac")
        ->check(CLI::IsMember({"aac", "wav", "flac"}));
    extractCommand->add_option("--trim", extract.trim, "START,END: extract only this range");
    addOutputOptions(*extractCommand, extract.outputDirectory, extract.json, extract.files,
                     "Files to read");

    FramesRequest frames;
    CLI::App* framesCommand = app.add_subcommand(
        "frames", "Export stills of each file into a new NAME-frames folder, with frames.json");
    // Any --mode and --format reach the command, which refuses unknown ones in one sentence.
    framesCommand->add_option("--mode", frames.mode,
                              "changes: where the picture changes (default); interval: evenly");
    framesCommand->add_option("--max-frames", frames.maxFrames,
                              "At most N frames, 2 to 1000 (default: one per 5 s, at least 24)");
    framesCommand->add_option("--max-size", frames.maxSize,
                              "Long edge of the pictures in pixels, 64 to 2576 (default 1568)");
    framesCommand->add_option("--format", frames.format, "jpeg (default) or png");
    framesCommand->add_flag_callback(
        "--no-contact-sheet", [&frames] { frames.contactSheet = false; },
        "Leave out contact-sheet.jpg");
    framesCommand->add_option("--trim", frames.trim, "START,END: only this range");
    addOutputOptions(*framesCommand, frames.outputDirectory, frames.json, frames.files,
                     "Videos to read");

    TranscribeModelsRequest transcribeModels;
    TranscribeRequest transcribeFiles;
    CLI::App* transcribe = app.add_subcommand(
        "transcribe", "Transcripts of the files with OpenRouter (`transcribe models` lists models)");
    transcribe->require_subcommand(0, 1);
    transcribe->add_option("--model", transcribeFiles.model,
                           "Model id (default: the active model of the settings)");
    transcribe->add_option("--format", transcribeFiles.format,
                           "txt, srt or vtt (srt and vtt need microsoft/mai-transcribe-2)");
    transcribe->add_option("--language", transcribeFiles.language,
                           "Language hint such as en (default: the settings', or detection)");
    transcribe->add_option("--trim", transcribeFiles.trim, "START,END: only this range");
    transcribe->add_option("--consent", transcribeFiles.consent,
                           "audio or video: approve that upload to OpenRouter (stored)");
    transcribe->add_option("--output-dir", transcribeFiles.outputDirectory,
                           "Folder for the transcripts (default: beside each file)");
    transcribe->add_flag("--json", transcribeFiles.json, "One JSON object per event on stdout");
    transcribe->add_option("FILE", transcribeFiles.files, "Videos or audio files to transcribe");
    CLI::App* models = transcribe->add_subcommand(
        "models", "List the transcription models: route, price unit, enabled");
    models->add_flag("--refresh", transcribeModels.refresh,
                     "Fetch the model list again even when the stored one is less than a day old");
    models->add_flag("--json", transcribeModels.json, "One JSON object per event on stdout");

    RecordingsRequest recordings;
    CLI::App* recordingsCommand = app.add_subcommand(
        "recordings", "Unfinished screen recordings left by a crash: list, recover or discard");
    recordingsCommand->require_subcommand(1);
    CLI::App* listRecordings =
        recordingsCommand->add_subcommand("list", "List unfinished recordings");
    listRecordings->add_flag("--json", recordings.json, "One JSON object per recording on stdout");
    CLI::App* recoverRecordings = recordingsCommand->add_subcommand(
        "recover", "Save unfinished recordings (all, or one) to their recording folder");
    recoverRecordings->add_option("TAKE", recordings.take, "A recording id from `list`");
    recoverRecordings->add_flag("--json", recordings.json, "One JSON object per event on stdout");
    CLI::App* discardRecording =
        recordingsCommand->add_subcommand("discard", "Move one unfinished recording to the Trash");
    discardRecording->add_option("TAKE", recordings.take, "A recording id from `list`")->required();

    RecordRequest record;
    CLI::App* recordCommand = app.add_subcommand(
        "record", "Record the screen until --duration or Ctrl-C (SIGUSR1 pauses, SIGUSR2 resumes)");
    recordCommand->add_option("--display", record.display, "RandR monitor number (default 0)");
    recordCommand->add_option("--window", record.window, "X11 window id (decimal or 0x hex)");
    recordCommand->add_option("--area", record.area, "X,Y,WIDTH,HEIGHT in screen pixels");
    recordCommand->add_option("--fps", record.framesPerSecond, "30 or 60 (default 30)");
    recordCommand->add_flag("--system-audio", record.systemAudio,
                            "Record what the default output plays");
    recordCommand->add_option("--mic", record.microphone,
                              "Record this PulseAudio source (\"default\" for the default one)");
    recordCommand->add_option("--max-dimension", record.maximumDimension,
                              "Longest side of the video in pixels (default: the stored setting)");
    recordCommand->add_option("--duration", record.duration, "Stop after this many seconds");
    recordCommand->add_option("--output-dir", record.outputDirectory,
                              "Folder for the recording (default: the recording folder)");
    recordCommand->add_flag("--json", record.json, "One JSON object per event on stdout");

    SilenceRequest silence;
    CLI::App* silenceCommand = app.add_subcommand(
        "silence", "Suggest keep clips: the parts of a video between its silent stretches");
    silenceCommand->add_option("--noise-db", silence.settings.noiseDB,
                               "What counts as silence, -80 to -10 dB (default -35)");
    silenceCommand->add_option("--min-silence", silence.settings.minimumSilence,
                               "Seconds of silence that count as a pause, 0.1 to 60 (default 0.5)");
    silenceCommand->add_option("--padding", silence.settings.padding,
                               "Seconds of a pause kept beside the sound, 0 to 2 (default 0.15)");
    silenceCommand->add_option("--min-clip", silence.settings.minimumClip,
                               "Shorter keep clips are dropped, 0.1 to 60 seconds (default 0.5)");
    silenceCommand->add_option("--write-clip-list", silence.writeClipList,
                               "Also save the clips as a new clip list file (never replaces one)");
    silenceCommand->add_flag("--json", silence.json, "One JSON object per event on stdout");
    silenceCommand->add_option("FILE", silence.file, "The video to scan")->required();

    ActionsRequest actions;
    CLI::App* actionsCommand = app.add_subcommand(
        "actions", "The file-manager actions (Nautilus, Dolphin, Nemo): status, install, repair, "
                   "remove");
    actionsCommand->require_subcommand(1);
    for (const char* verb : {"status", "install", "repair", "remove"}) {
        CLI::App* sub = actionsCommand->add_subcommand(
            verb, std::string(verb) == "status"    ? "Show each action file's state"
                  : std::string(verb) == "install" ? "Write every action file, also ones you removed"
                  : std::string(verb) == "repair"  ? "Restore edited or missing files you didn't remove"
                                                   : "Remove the action files Tessarin wrote");
        sub->add_flag("--json", actions.json, "One JSON object per event on stdout");
        sub->callback([&actions, verb] { actions.verb = verb; });
    }

    bool reportJson = false;
    CLI::App* reportCommand = app.add_subcommand(
        "report", "Print the support report: versions, actions, settings, recent errors and log "
                  "(no paths, file names or keys)");
    reportCommand->add_flag("--json", reportJson, "One JSON object with the report on stdout");

    CliToolRequest cliTool;
    CLI::App* cliToolCommand = app.add_subcommand(
        "cli-tool", "Put this tessarin on your PATH: status, install (~/.local/bin), "
                    "install-all-users (/usr/local/bin, asks for an administrator)");
    cliToolCommand->require_subcommand(1);
    for (const char* verb : {"status", "install", "install-all-users"}) {
        CLI::App* sub = cliToolCommand->add_subcommand(
            verb, std::string(verb) == "status"    ? "Show whether ~/.local/bin/tessarin is ours"
                  : std::string(verb) == "install" ? "Link ~/.local/bin/tessarin to this program"
                                                   : "Link /usr/local/bin/tessarin (pkexec)");
        sub->add_flag("--json", cliTool.json, "One JSON object per event on stdout");
        sub->callback([&cliTool, verb] { cliTool.verb = verb; });
    }

    UpdatesRequest updates;
    CLI::App* updatesCommand = app.add_subcommand(
        "updates", "Check the release feed for a newer version, or set automatic checks");
    updatesCommand->require_subcommand(1);
    CLI::App* checkUpdates = updatesCommand->add_subcommand("check", "Check for updates now");
    checkUpdates->add_flag("--json", updates.json, "One JSON object per event on stdout");
    CLI::App* autoUpdates = updatesCommand->add_subcommand(
        "auto", "Show or set \"Automatically check for updates\" (off by default)");
    autoUpdates->add_option("STATE", updates.automatic, "on or off")
        ->check(CLI::IsMember({"on", "off"}));
    autoUpdates->add_flag("--json", updates.json, "One JSON object on stdout");
    autoUpdates->callback([&updates] { updates.verb = "auto"; });

    SharesRequest shares;
    CLI::App* sharesCommand = app.add_subcommand(
        "shares", "SMB shares on the local network: list them, or mount one for --output-dir");
    sharesCommand->require_subcommand(1);
    CLI::App* listShares = sharesCommand->add_subcommand("list", "Browse the network for SMB hosts");
    listShares->add_option("--seconds", shares.seconds, "How long to browse (default 3)")
        ->check(CLI::Range(0.1, 60.0));
    listShares->add_flag("--json", shares.json, "One JSON object per event on stdout");
    CLI::App* mountShare = sharesCommand->add_subcommand("mount", "Mount smb://HOST/ with gio");
    mountShare->add_option("HOST", shares.host, "A host name ending in .local")->required();
    mountShare->add_flag("--json", shares.json, "One JSON object per event on stdout");
    mountShare->callback([&shares] { shares.verb = "mount"; });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error);
        return status == 0 ? kExitSuccess : kExitUsage;
    }

    if (*probe) {
        return runProbe(probeFile);
    }
    if (*presets) {
        using Action = PresetsRequest::Action;
        presetsRequest.action = *showPreset      ? Action::show
                                : *exportPresets ? Action::exportFile
                                : *importPresets ? Action::importFile
                                                 : Action::list;
        return runPresets(presetsRequest);
    }
    if (*convertCommand) {
        return runConvert(convert);
    }
    if (*cutCommand) {
        return runCut(cut);
    }
    if (*framesCommand) {
        return runFrames(frames);
    }
    if (*models) {
        return runTranscribeModels(transcribeModels);
    }
    if (*transcribe) {
        if (transcribeFiles.files.empty()) {
            std::cerr << "tessarin: transcribe needs at least one FILE (or `transcribe models`).\n";
            return kExitUsage;
        }
        return runTranscribe(transcribeFiles);
    }
    if (*recordingsCommand) {
        using Action = RecordingsRequest::Action;
        recordings.action = *recoverRecordings  ? Action::recover
                            : *discardRecording ? Action::discard
                                                : Action::list;
        return runRecordings(recordings);
    }
    if (*recordCommand) {
        return runRecord(record);
    }
    if (*sharesCommand) {
        return runShares(shares);
    }
    if (*updatesCommand) {
        return runUpdates(updates);
    }
    if (*cliToolCommand) {
        return runCliTool(cliTool);
    }
    if (*reportCommand) {
        return runReport(reportJson);
    }
    if (*actionsCommand) {
        return runActions(actions);
    }
    if (*silenceCommand) {
        return runSilence(silence);
    }
    return runExtractAudio(extract);
}
