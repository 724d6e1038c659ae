#include "engine/probe/MediaInfo.hpp"

namespace tessarin::engine {

namespace {

template <typename T>
nlohmann::ordered_json optionalJson(const std::optional<T>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

}  // namespace

nlohmann::ordered_json toJson(const MediaTrack& track) {
    nlohmann::ordered_json object;
    object["index"] = track.index;
    object["kind"] = track.kind;
    object["codec"] = optionalJson(track.codec);
    object["title"] = optionalJson(track.title);
    object["language"] = optionalJson(track.language);
    object["attachedPicture"] = track.attachedPicture;
    return object;
}

nlohmann::ordered_json toJson(const MediaChapter& chapter) {
    nlohmann::ordered_json object;
    object["start"] = optionalJson(chapter.start);
    object["end"] = optionalJson(chapter.end);
    object["title"] = optionalJson(chapter.title);
    return object;
}

nlohmann::ordered_json toJson(const MediaInfo& info) {
    nlohmann::ordered_json tracks = nlohmann::ordered_json::array();
    for (const MediaTrack& track : info.tracks) {
        tracks.push_back(toJson(track));
    }
    nlohmann::ordered_json chapters = nlohmann::ordered_json::array();
    for (const MediaChapter& chapter : info.chapters) {
        chapters.push_back(toJson(chapter));
    }
    nlohmann::ordered_json videoCodecs = nlohmann::ordered_json::array();
    for (const std::optional<std::string>& codec : info.videoCodecs) {
        videoCodecs.push_back(optionalJson(codec));
    }
    nlohmann::ordered_json object;
    object["tracks"] = std::move(tracks);
    object["videoCodec"] = optionalJson(info.videoCodec);
    object["videoStart"] = optionalJson(info.videoStart);
    object["videoDuration"] = optionalJson(info.videoDuration);
    object["container"] = optionalJson(info.container);
    object["timelineStart"] = optionalJson(info.timelineStart);
    object["durationSeconds"] = optionalJson(info.durationSeconds);
    object["videoFrameCount"] = optionalJson(info.videoFrameCount);
    object["width"] = optionalJson(info.width);
    object["height"] = optionalJson(info.height);
    object["hasAudio"] = info.hasAudio;
    object["audioCodec"] = optionalJson(info.audioCodec);
    object["chapters"] = std::move(chapters);
    object["videoCodecs"] = std::move(videoCodecs);
    object["isHDR"] = info.isHDR;
    return object;
}

}  // namespace tessarin::engine
