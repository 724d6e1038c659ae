#include "app/queue/SourceFacts.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cmath>
#include <deque>
#include <mutex>
#include <system_error>

#include "app/support/MainThreadHandoff.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "engine/probe/Thumbnail.hpp"
#include "engine/publish/Destination.hpp"

namespace tessarin::app {

namespace {

constexpr std::chrono::milliseconds kCloseWait{8000};
constexpr double kProbeTimeout = 15;

const engine::Logger& factsLog() {
    static const engine::Logger log("com.tessarin.queue", "source-facts");
    return log;
}

std::string durationText(double seconds) {
    const auto total = static_cast<int64_t>(std::llround(seconds));
    if (total >= 3600) {
        return fmt::format("{}:{:02}:{:02}", total / 3600, total / 60 % 60, total % 60);
    }
    return fmt::format("{}:{:02}", total / 60, total % 60);
}

SourceFacts gather(const std::filesystem::path& source, const std::optional<engine::Tools>& tools,
                   SourceFactsLoader::Task task, engine::ProcessRunner& runner) {
    SourceFacts facts;
    if (task == SourceFactsLoader::Task::thumbnail) {
        if (tools) {
            facts.thumbnailPng = engine::Thumbnail::render(
                                     source, *tools, 0, SourceFactsLoader::kThumbnailWidth, runner)
                                     .value_or("");
        }
        return facts;
    }
    std::error_code error;
    const auto size = std::filesystem::file_size(source, error);
    if (!error) {
        facts.bytes = static_cast<int64_t>(size);
    }
    if (!tools) {
        return facts;
    }
    try {
        const engine::MediaInfo info = engine::MediaProbe::probe(
            source, *tools, engine::MediaInputPolicy::unrestricted, runner, kProbeTimeout, false);
        facts.durationSeconds = info.durationSeconds;
        facts.width = info.width;
        facts.height = info.height;
    } catch (const engine::MediaProbeError&) {
        // The row shows the size alone; the job will say what is wrong with the file.
    }
    return facts;
}

}  // namespace

std::string SourceFacts::summary() const {
    std::vector<std::string> parts;
    if (durationSeconds) {
        parts.push_back(durationText(*durationSeconds));
    }
    if (width && height) {
        parts.push_back(fmt::format("{}×{}", *width, *height));
    }
    if (bytes) {
        parts.push_back(engine::formatByteCount(*bytes));
    }
    return fmt::format("{}", fmt::join(parts, " · "));
}

// The files still to look at, and the tool running now, so that closing stops it.
struct SourceFactsLoader::Pending {
    std::mutex mutex;
    std::deque<std::pair<engine::Uuid, std::filesystem::path>> files;  // guarded by mutex
    bool working = false;                                              // guarded by mutex
    bool closed = false;                                               // guarded by mutex
    std::shared_ptr<engine::ProcessRunner> runner;                     // guarded by mutex

    void close() {
        std::shared_ptr<engine::ProcessRunner> running;
        {
            std::lock_guard lock(mutex);
            closed = true;
            files.clear();
            running = runner;
        }
        if (running) {
            running->cancel(engine::ProcessRunner::kUserCancelGrace);
        }
    }
};

SourceFactsLoader::SourceFactsLoader(std::optional<engine::Tools> tools, Task task, QObject* parent)
    : QObject(parent),
      tools_(std::move(tools)),
      task_(task),
      pending_(std::make_shared<Pending>()),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", factsLog())) {}

SourceFactsLoader::~SourceFactsLoader() {
    handoff_->detach();
    pending_->close();
    (void)handoff_->waitUntilIdle(kCloseWait);
}

void SourceFactsLoader::close() {
    pending_->close();
}

void SourceFactsLoader::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

bool SourceFactsLoader::waitUntilIdle(std::chrono::milliseconds limit) {
    return handoff_->waitUntilIdle(limit);
}

const SourceFacts* SourceFactsLoader::facts(const engine::Uuid& id) const {
    const auto found = facts_.find(id);
    return found == facts_.end() || !found->second ? nullptr : &*found->second;
}

void SourceFactsLoader::request(const engine::Uuid& id, const std::filesystem::path& source) {
    if (!facts_.emplace(id, std::nullopt).second) {
        return;
    }
    {
        std::lock_guard lock(pending_->mutex);
        if (pending_->closed) {
            return;
        }
        pending_->files.emplace_back(id, source);
        if (pending_->working) {
            return;
        }
        pending_->working = true;
    }
    handoff_->start([this, pending = pending_, handoff = handoff_, tools = tools_, task = task_]() {
        for (;;) {
            std::pair<engine::Uuid, std::filesystem::path> next;
            auto runner = std::make_shared<engine::ProcessRunner>();
            {
                std::lock_guard lock(pending->mutex);
                if (pending->files.empty() || pending->closed) {
                    pending->working = false;
                    break;
                }
                next = pending->files.front();
                pending->files.pop_front();
                pending->runner = runner;
            }
            SourceFacts facts = gather(next.second, tools, task, *runner);
            handoff->post([this, id = next.first, facts = std::move(facts)] {
                facts_[id] = facts;
                emit factsReady(QString::fromStdString(id.text()));
            });
        }
        return MainThreadHandoff::Completion([] {});
    });
}

}  // namespace tessarin::app
