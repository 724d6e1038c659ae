// Exit statuses of the command-line tool, documented in the README and in `tessarin --help`.
#pragma once

namespace tessarin::cli {

inline constexpr int kExitSuccess = 0;  // every file done
inline constexpr int kExitFailure = 1;  // at least one file failed
inline constexpr int kExitUsage = 2;    // bad command line (unknown preset, missing file argument)
inline constexpr int kExitToolsMissing = 3;       // ffmpeg, ffprobe or gifsicle not found
inline constexpr int kExitNeedsConfirmation = 4;  // reviewed plans not confirmed: nothing written
inline constexpr int kExitNeedsConsent = 5;  // transcription upload not approved: nothing sent
inline constexpr int kExitCancelled = 130;        // interrupted (Ctrl-C or SIGTERM)

}  // namespace tessarin::cli
