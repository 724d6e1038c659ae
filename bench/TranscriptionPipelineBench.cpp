// A 30-minute talk transcribed end to end against a scripted HTTPS server on loopback that
// answers at once: the pipeline's wall time (audio prepared through the conversion job, chunks
// uploaded from their files) against the same work done by hand (ffmpeg extracting the same
// chunks, then `curl` uploading the same request bodies), and the pipeline process's peak
// resident memory. Each side runs in processes of its own.
//
//   tessarin_transcription_pipeline_bench [RUNS]
//
// The pipeline side is this program started again with "--pipeline TALK FOLDER"; the bodies for
// curl come from "--write-body CHUNK OUT".
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "bench/BenchSupport.hpp"
#include "bench/LoopbackService.hpp"
#include "engine/ffmpeg/FFmpegCommandBuilder.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "engine/transcription/AudioChunk.hpp"
#include "engine/transcription/Base64Parts.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/OpenRouterKeyStore.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionInput.hpp"
#include "engine/transcription/TranscriptionMediaBackend.hpp"
#include "engine/transcription/TranscriptionPipeline.hpp"

namespace {

namespace fs = std::filesystem;
namespace engine = tessarin::engine;

constexpr const char* kModel = "google/gemini-3.6-flash";  // a chat model: m4a, 1,200 s chunks
constexpr int kTalkSeconds = 1800;

// The peak resident memory of this process alone, from /proc (kB).
long ownPeakKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

int runPipeline(const fs::path& talk, const fs::path& folder) {
    const auto tools = tessarin::bench::locateTools();
    if (!tools) {
        return 1;
    }
    engine::SettingsStore settings(folder / "settings.json");
    engine::CatalogSnapshot snapshot;
    snapshot.fetchedAt = engine::secondsSince1970();
    snapshot.entries = {engine::CatalogEntry{kModel, std::nullopt, {"audio"}, {"text"}, {}, {}, {}}};
    settings.setData(engine::OpenRouterCatalog::kSettingsKey, snapshot.toJSONText());
    const engine::OpenRouterClient client(
        std::make_shared<engine::CurlOpenRouterTransport>(engine::OpenRouterConfig::endpoint()));
    engine::OpenRouterCatalog catalog(client, settings);
    fs::create_directories(folder / "out");
    engine::TranscriptionPipeline pipeline(
        client, catalog, std::make_shared<engine::InMemoryOpenRouterKeyStore>("sk-bench"),
        std::make_shared<engine::EngineTranscriptionBackend>(*tools),
        [](engine::TranscriptionRoute) { return engine::TranscriptionConsent::grant(); }, folder);
    auto input = engine::TranscriptionInput::open(fs::absolute(talk));
    engine::TranscriptionControl control;
    const engine::TranscriptionOutcome outcome = pipeline.run(
        *input, {.modelID = kModel},
        {engine::TranscriptionDestination::Kind::folder, folder / "out"}, control);
    if (!outcome.succeeded()) {
        std::fprintf(stderr, "pipeline: %s\n", outcome.error->text().c_str());
        return 1;
    }
    std::printf("%ld\n", ownPeakKiB());
    return 0;
}

int writeBody(const fs::path& chunk, const fs::path& out) {
    engine::JSONString media;
    media.file = engine::Base64FileSource::open(chunk);
    const engine::RequestBody body = engine::OpenRouterClient::audioChatBody(
        {kModel, media, std::nullopt, std::nullopt},
        std::string(engine::kBuiltInTranscriptionPrompt), "m4a", nullptr);
    std::ofstream stream(out, std::ios::binary);
    engine::RequestBody::Reader reader = body.reader(nullptr);
    std::vector<char> buffer(1 << 20);
    while (const std::size_t count = reader.read(buffer.data(), buffer.size())) {
        stream.write(buffer.data(), static_cast<std::streamsize>(count));
    }
    return stream ? 0 : 1;
}

// The pipeline's own run, started as a child; its wall time, peak memory with its tools, and the
// process's own peak as it printed it.
struct PipelineRun {
    tessarin::bench::Measured measured;
    long ownKiB = 0;
};

PipelineRun measurePipeline(const std::string& self, const fs::path& talk, const fs::path& folder) {
    fs::remove_all(folder);
    fs::create_directories(folder);
    const fs::path report = folder / "peak.txt";
    // The child's standard output is its peak; measure() can only silence it, so a shell-free
    // redirection goes through a file the child writes itself.
    PipelineRun run;
    setenv("TESSARIN_BENCH_PEAK_FILE", report.c_str(), 1);
    run.measured = tessarin::bench::measure({self, "--pipeline", talk.string(), folder.string()}, false);
    std::ifstream(report) >> run.ownKiB;
    return run;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--pipeline") {
        if (const char* peakFile = std::getenv("TESSARIN_BENCH_PEAK_FILE")) {
            // Standard output is where runPipeline prints the peak; send it to the file.
            if (std::freopen(peakFile, "w", stdout) == nullptr) {
                return 1;
            }
        }
        return runPipeline(argv[2], argv[3]);
    }
    if (argc == 4 && std::string(argv[1]) == "--write-body") {
        return writeBody(argv[2], argv[3]);
    }
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1;
    const auto tools = tessarin::bench::locateTools();
    const auto folder = tessarin::bench::makeFolder("tessarin-pipeline-bench");
    if (!tools || !folder) {
        return 1;
    }
    // A talk: a still picture at 2 fps and half an hour of a voice-band tone.
    const fs::path talk = *folder / "talk.mp4";
    if (!tessarin::bench::runQuietly(
            tools->ffmpeg,
            {"-y", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
             fmt::format("color=c=gray:s=160x120:r=2:d={}", kTalkSeconds), "-f", "lavfi", "-i",
             fmt::format("sine=frequency=180:sample_rate=44100:duration={}", kTalkSeconds),
             "-c:v", "libx264", "-preset", "ultrafast", "-c:a", "aac", "-b:a", "96k", "-shortest",
             talk.string()})) {
        return 1;
    }
    tessarin::bench::LoopbackServer server = tessarin::bench::startLoopbackServer(
        *folder, R"([{"status":200,"body":"{\"choices\":[{\"message\":{\"content\":\"words\"}}]}"}])");
    if (!server.running()) {
        std::fprintf(stderr, "the loopback server did not start\n");
        return 1;
    }
    setenv("TESSARIN_OPENROUTER_BASE_URL", server.baseURL().c_str(), 1);
    setenv("TESSARIN_OPENROUTER_CA_FILE", server.certificate.c_str(), 1);
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    const std::vector<engine::AudioChunk> chunks =
        engine::AudioChunk::plan(kTalkSeconds, 1200.0, engine::SpeechAudioPlan::kOverlapSeconds);

    std::vector<double> pipelineSeconds, baselineSeconds, extractSeconds, curlSeconds;
    std::vector<double> withToolsPeak, ownPeak;
    bool ok = true;
    for (int run = 0; run < runs && ok; ++run) {
        const PipelineRun pipeline = measurePipeline(self, talk, *folder / "pipeline");
        ok = pipeline.measured.ok;
        pipelineSeconds.push_back(pipeline.measured.seconds);
        withToolsPeak.push_back(static_cast<double>(pipeline.measured.peakKiB) / 1024);
        ownPeak.push_back(static_cast<double>(pipeline.ownKiB) / 1024);

        // By hand: ffmpeg extracts each chunk with the pipeline's arguments, then curl sends
        // each chunk's body (made beforehand, not timed).
        double extract = 0;
        double curl = 0;
        std::vector<fs::path> bodies;
        for (const engine::AudioChunk& chunk : chunks) {
            const fs::path file = *folder / fmt::format("chunk{}.m4a", chunk.index);
            // The very arguments the conversion job gives ffmpeg for this chunk.
            std::vector<std::string> arguments{tools->ffmpeg.string()};
            const engine::AudioExtractionOptions options = engine::AudioExtractionOptions::make(
                engine::AudioExtractionCodec::aac, 48, 16'000, 1,
                engine::Trim{fmt::format("{:.3f}", chunk.start), fmt::format("{:.3f}", chunk.end())});
            for (std::string& argument : engine::FFmpegCommandBuilder::audioExtractionArguments(
                     talk, file, options, std::nullopt)) {
                arguments.push_back(std::move(argument));
            }
            const tessarin::bench::Measured extracted = tessarin::bench::measure(arguments, true);
            ok = ok && extracted.ok;
            extract += extracted.seconds;
            bodies.push_back(*folder / fmt::format("body{}.json", chunk.index));
            ok = ok && tessarin::bench::measure({self, "--write-body", file.string(),
                                                 bodies.back().string()},
                                                true)
                           .ok;
        }
        for (const fs::path& body : bodies) {
            const tessarin::bench::Measured sent = tessarin::bench::measure(
                {"/usr/bin/curl", "-sS", "-o", "/dev/null", "--cacert", server.certificate.string(),
                 "-H", "Content-Type: application/json", "-H", "Authorization: Bearer sk-bench",
                 "-H", "Expect:", "--data-binary", "@" + body.string(),
                 server.baseURL() + "/api/v1/chat/completions"},
                true);
            ok = ok && sent.ok;
            curl += sent.seconds;
        }
        extractSeconds.push_back(extract);
        curlSeconds.push_back(curl);
        baselineSeconds.push_back(extract + curl);
    }
    server.stop();
    fs::remove_all(*folder);
    if (!ok) {
        std::fprintf(stderr, "a run failed\n");
        return 1;
    }
    using tessarin::bench::median;
    std::printf("30-minute talk, %zu chunks of at most 1200 s (median of %d runs)\n", chunks.size(),
                runs);
    std::printf("by hand: ffmpeg %.2f s + curl %.2f s = %.2f s\n", median(extractSeconds),
                median(curlSeconds), median(baselineSeconds));
    std::printf("pipeline: %.2f s = %.2f x by hand (target <= 1.20)\n", median(pipelineSeconds),
                median(pipelineSeconds) / median(baselineSeconds));
    std::printf("pipeline peak RSS: %.1f MiB own (target <= 150), %.1f MiB with its tools\n",
                median(ownPeak), median(withToolsPeak));
    return 0;
}
