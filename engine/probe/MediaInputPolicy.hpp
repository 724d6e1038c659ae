// Which container formats and protocols the tools may open for a source.
#pragma once

namespace tessarin::engine {

// `transcription` narrows ffprobe and ffmpeg to an allow-list of formats and the file protocol,
// for files that arrive on a less trusted path.
enum class MediaInputPolicy { unrestricted, transcription };

}  // namespace tessarin::engine
