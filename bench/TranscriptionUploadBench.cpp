// Upload of a 100 MB audio file to a scripted HTTPS server on loopback: the client's peak
// resident memory against the largest chunk the pipeline holds (the file's base64 parts), and
// its wall time against `curl --data-binary @body` sending the same body bytes to the same
// server. Each side runs in a process of its own, measured by wait4. The client carries the
// media in both ways a body can: base64 parts held in memory, and base64 made from the file while
// the body is read.
//
//   tessarin_transcription_upload_bench [RUNS]
//
// The client side is this program started again with "--client parts|file FILE" (and, once,
// "--write-body FILE OUT" to give curl the same bytes).
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/BenchSupport.hpp"
#include "bench/LoopbackService.hpp"
#include "engine/transcription/Base64Parts.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterClient.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
namespace engine = tessarin::engine;


engine::MediaBodyRequest mediaOf(const fs::path& file, bool streamed = false) {
    engine::JSONString media;
    if (streamed) {
        media.file = engine::Base64FileSource::open(file);
    } else {
        media.parts = engine::readBase64Parts(file, nullptr);
    }
    return {"mistralai/voxtral-mini-transcribe", media, std::nullopt, std::nullopt};
}

// The client: reads the file as base64 parts (as the pipeline does) or opens it for encoding
// while sending, splices the speech body and uploads it.
int runClient(const fs::path& file, bool streamed) {
    const engine::OpenRouterClient client(
        std::make_shared<engine::CurlOpenRouterTransport>(engine::OpenRouterConfig::endpoint()));
    engine::RequestBody body =
        engine::OpenRouterClient::speechBody(mediaOf(file, streamed), "wav", {}, std::nullopt, nullptr);
    const std::string answer = client.sendWithRetry(
        engine::OpenRouterClient::mediaRequest(engine::TranscriptionRoute::stt, std::move(body),
                                               "sk-bench"),
        nullptr);
    return engine::speechText(answer) == "ok" ? 0 : 1;
}

int writeBody(const fs::path& file, const fs::path& out) {
    const engine::RequestBody body =
        engine::OpenRouterClient::speechBody(mediaOf(file), "wav", {}, std::nullopt, nullptr);
    std::ofstream stream(out, std::ios::binary);
    engine::RequestBody::Reader reader = body.reader(nullptr);
    std::vector<char> buffer(1 << 20);
    while (const std::size_t count = reader.read(buffer.data(), buffer.size())) {
        stream.write(buffer.data(), static_cast<std::streamsize>(count));
    }
    return stream ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--client") {
        return runClient(argv[3], std::string(argv[2]) == "file");
    }
    if (argc == 4 && std::string(argv[1]) == "--write-body") {
        return writeBody(argv[2], argv[3]);
    }
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const auto tools = tessarin::bench::locateTools();
    const auto folder = tessarin::bench::makeFolder("tessarin-upload-bench");
    if (!tools || !folder) {
        return 1;
    }
    const fs::path audio = *folder / "speech.wav";
    // White noise, 48 kHz stereo 16-bit: 192,000 bytes a second, so 520.8 s make 100 MB.
    if (!tessarin::bench::runQuietly(
            tools->ffmpeg, {"-y", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                            "anoisesrc=color=white:sample_rate=48000:duration=520.8", "-ac", "2",
                            "-c:a", "pcm_s16le", audio.string()})) {
        return 1;
    }
    tessarin::bench::LoopbackServer loopback =
        tessarin::bench::startLoopbackServer(*folder, R"([{"status":200,"body":"{\"text\":\"ok\"}"}])");
    if (!loopback.running()) {
        std::fprintf(stderr, "the loopback server did not start\n");
        return 1;
    }
    const std::string baseURL = loopback.baseURL();
    setenv("TESSARIN_OPENROUTER_BASE_URL", baseURL.c_str(), 1);
    setenv("TESSARIN_OPENROUTER_CA_FILE", loopback.certificate.c_str(), 1);

    using tessarin::bench::measure;
    using tessarin::bench::Measured;
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    const fs::path bodyFile = *folder / "body.json";
    if (!measure({self, "--write-body", audio.string(), bodyFile.string()}, false).ok) {
        loopback.stop();
        return 1;
    }
    const double fileBytes = static_cast<double>(fs::file_size(audio));
    const double bodyBytes = static_cast<double>(fs::file_size(bodyFile));
    const double chunkBytes = 4.0 * std::ceil(fileBytes / 3.0);  // the base64 parts held
    std::vector<double> partsSeconds, fileSeconds, curlSeconds, partsPeak, filePeak, curlPeak;
    bool ok = true;
    for (int run = 0; run < runs && ok; ++run) {
        const Measured parts = measure({self, "--client", "parts", audio.string()}, true);
        const Measured streamed = measure({self, "--client", "file", audio.string()}, true);
        const Measured curl = measure(
            {"/usr/bin/curl", "-sS", "-o", "/dev/null", "--cacert", (*folder / "ca.pem").string(),
             "-H", "Content-Type: application/json", "-H", "Authorization: Bearer sk-bench", "-H",
             "Expect:", "--data-binary", "@" + bodyFile.string(),
             baseURL + "/api/v1/audio/transcriptions"},
            true);
        ok = parts.ok && streamed.ok && curl.ok;
        partsSeconds.push_back(parts.seconds);
        fileSeconds.push_back(streamed.seconds);
        curlSeconds.push_back(curl.seconds);
        partsPeak.push_back(static_cast<double>(parts.peakKiB) * 1024);
        filePeak.push_back(static_cast<double>(streamed.peakKiB) * 1024);
        curlPeak.push_back(static_cast<double>(curl.peakKiB) * 1024);
    }
    loopback.stop();
    fs::remove_all(*folder);
    if (!ok) {
        std::fprintf(stderr, "an upload failed\n");
        return 1;
    }
    using tessarin::bench::median;
    std::printf("file %.1f MB, body %.1f MB, base64 parts held %.1f MB (median of %d runs)\n",
                fileBytes / 1e6, bodyBytes / 1e6, chunkBytes / 1e6, runs);
    const double curlTime = median(curlSeconds);
    std::printf("curl --data-binary @body: %.2f s, peak RSS %.1f MB\n", curlTime,
                median(curlPeak) / 1e6);
    std::printf("client, parts held:    %.2f s = %.2f x curl (target <= 1.20), peak RSS %.1f MB = "
                "%.2f x the parts (target <= 1.10)\n",
                median(partsSeconds), median(partsSeconds) / curlTime, median(partsPeak) / 1e6,
                median(partsPeak) / chunkBytes);
    std::printf("client, file streamed: %.2f s = %.2f x curl, peak RSS %.1f MB = %.2f x the parts\n",
                median(fileSeconds), median(fileSeconds) / curlTime, median(filePeak) / 1e6,
                median(filePeak) / chunkBytes);
    return 0;
}
