#include "app/queue/FastCutReview.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <mutex>
#include <system_error>
#include <utility>
#include <variant>

#include "app/queue/ActionCatalog.hpp"
#include "app/support/MainThreadHandoff.hpp"
#include "engine/clips/KeyframeProbe.hpp"
#include "engine/log/Log.hpp"
#include "engine/probe/MediaProbe.hpp"

namespace tessarin::app {

namespace {

// A closed review gives its ffprobe this long beyond the cancel grace to end.
constexpr std::chrono::milliseconds kCloseWait{8000};

constexpr const char* kNotPlanned = "This file's cut could not be planned.";
constexpr const char* kPlanningNotStarted =
    "Planning could not start. Close this review and try again.";

const engine::Logger& reviewLog() {
    static const engine::Logger log("com.tessarin.queue", "fast-cut-review");
    return log;
}

// The sentence of a probe that gave no facts; a cancelled probe shows nothing.
const char* probeFailureSentence(engine::MediaProbeError::Kind kind) {
    using Kind = engine::MediaProbeError::Kind;
    switch (kind) {
        case Kind::ffprobeFailed:
            return "ffprobe could not read this file, so its cut can't be planned. Use a "
                   "conversion preset or check the file.";
        case Kind::timedOut:
            return "Reading this file took too long, so its cut can't be planned.";
        case Kind::outputTooLarge:
            return "This file has too much metadata to plan its cut.";
        case Kind::unparseableOutput:
            return "ffprobe returned malformed metadata for this file, so its cut can't be "
                   "planned.";
        case Kind::cancelled:
            break;
    }
    return "";
}

using Outcome = std::variant<FastCutReview::Plans::mapped_type, std::string>;

bool keepsWholeVideo(const std::vector<FastCutReview::Piece>& pieces) {
    return std::any_of(pieces.begin(), pieces.end(), [](const FastCutReview::Piece& piece) {
        return piece.plan.keepsWholeVideo();
    });
}

}  // namespace

// What the planning thread shares with the review: whether it was closed, and the runner of
// the ffprobe now running, so that closing stops it.
struct FastCutReview::Planning {
    std::mutex mutex;
    bool cancelled = false;                                // guarded by mutex
    std::shared_ptr<engine::ProcessRunner> currentRunner;  // guarded by mutex

    // A cancel() either finds the runner here or is seen by the check that follows.
    void install(std::shared_ptr<engine::ProcessRunner> runner) {
        bool wasCancelled = false;
        {
            std::lock_guard lock(mutex);
            currentRunner = runner;
            wasCancelled = cancelled;
        }
        if (wasCancelled) {
            runner->cancel(engine::ProcessRunner::kUserCancelGrace);
        }
    }

    void cancel() {
        std::shared_ptr<engine::ProcessRunner> runner;
        {
            std::lock_guard lock(mutex);
            cancelled = true;
            runner = currentRunner;
        }
        if (runner) {
            runner->cancel(engine::ProcessRunner::kUserCancelGrace);
        }
    }

    bool isCancelled() {
        std::lock_guard lock(mutex);
        return cancelled;
    }

    // One file: its facts with chapters, then the plan of each of its ranges. Never throws but
    // std::bad_alloc.
    Outcome plan(const FastCutReviewRequest::Entry& entry, const engine::Tools& tools) {
        try {
            auto runner = std::make_shared<engine::ProcessRunner>();
            install(runner);
            const engine::MediaInfo info = engine::MediaProbe::probe(
                entry.source, tools, engine::MediaInputPolicy::unrestricted, *runner,
                engine::MediaProbe::kTimeoutSeconds, true);
            const auto installed = [this](std::shared_ptr<engine::ProcessRunner> next) {
                install(std::move(next));
            };
            std::vector<FastCutReview::Piece> pieces;
            if (!entry.clips) {
                pieces.push_back({entry.trim, engine::FastCut::plan(entry.source, entry.trim, info,
                                                                    tools, installed)});
            } else if (entry.clipMode == ClipExportMode::separate) {
                for (const engine::ClipSelection& clip : *entry.clips) {
                    if (isCancelled()) {
                        break;
                    }
                    pieces.push_back({clip.trim(), engine::FastCut::plan(entry.source, clip.trim(),
                                                                         info, tools, installed)});
                }
            } else {
                pieces = engine::JoinedFastCut::plan(entry.source, *entry.clips,
                                                     entry.clipMode == ClipExportMode::remove, info,
                                                     tools, installed);
            }
            return pieces;
        } catch (const engine::FastCut::Failure& failure) {
            return std::string(failure.what());
        } catch (const engine::KeyframeProbe::Failure& failure) {
            return std::string(failure.what());
        } catch (const engine::ClipSelection::Invalid& invalid) {
            return std::string(invalid.what());
        } catch (const engine::MediaProbeError& error) {
            return std::string(probeFailureSentence(error.kind));
        } catch (const std::exception&) {
            // Whatever else went wrong, the file still needs its row in the review.
            return std::string(kNotPlanned);
        }
    }
};

FastCutReview::FastCutReview(FastCutReviewRequest request, engine::Tools tools, QObject* parent)
    : QObject(parent),
      request_(std::move(request)),
      tools_(std::move(tools)),
      planning_(std::make_shared<Planning>()),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", reviewLog())) {
    for (const FastCutReviewRequest::Entry& entry : request_.entries) {
        if (entry.issue) {
            failures_[entry.id] = *entry.issue;
        }
    }
    startPlanning();
}

FastCutReview::~FastCutReview() {
    handoff_->detach();
    ++generation_;
    planning_->cancel();
    (void)handoff_->waitUntilIdle(kCloseWait);
}

void FastCutReview::startPlanning() {
    std::vector<FastCutReviewRequest::Entry> entries;
    std::copy_if(request_.entries.begin(), request_.entries.end(), std::back_inserter(entries),
                 [](const FastCutReviewRequest::Entry& entry) { return !entry.issue; });
    if (entries.empty()) {
        return;
    }
    loading_ = true;
    // The thread holds `this` only inside the completions it hands back, which run on the main
    // thread while the handoff is attached, that is while this review lives.
    auto work = [this, generation = generation_, entries = std::move(entries), planning = planning_,
                 handoff = handoff_, tools = tools_] {
        for (const FastCutReviewRequest::Entry& entry : entries) {
            if (planning->isCancelled()) {
                break;
            }
            handoff->post([this, generation, id = entry.id] {
                if (generation == generation_) {
                    checking_ = id;
                    emit reviewChanged();
                }
            });
            Outcome outcome = planning->plan(entry, tools);
            if (planning->isCancelled()) {
                break;
            }
            handoff->post([this, generation, id = entry.id, outcome = std::move(outcome)] {
                if (generation != generation_) {
                    return;
                }
                if (const auto* pieces = std::get_if<Plans::mapped_type>(&outcome)) {
                    plans_[id] = *pieces;
                } else {
                    failures_[id] = std::get<std::string>(outcome);
                }
                emit reviewChanged();
            });
        }
        return MainThreadHandoff::Completion([this, generation] {
            if (generation == generation_) {
                loading_ = false;
                checking_.reset();
                reviewLog().notice(engine::KeyValues()
                                       .add("event", "fast cut review planned")
                                       .add("action", logToken(ActionID::fastCut()))
                                       .add("planned", plans_.size())
                                       .add("failed", failures_.size())
                                       .str());
                emit reviewChanged();
            }
        });
    };
    try {
        handoff_->start(std::move(work));
    } catch (const std::system_error&) {
        loading_ = false;
        for (const FastCutReviewRequest::Entry& entry : request_.entries) {
            failures_.try_emplace(entry.id, kPlanningNotStarted);
        }
    }
}

void FastCutReview::setAcceptWholeFile(bool accept) {
    if (completed_ || acceptWholeFile_ == accept) {
        return;
    }
    acceptWholeFile_ = accept;
    emit reviewChanged();
}

void FastCutReview::markChanged() {
    if (completed_ || changed_) {
        return;
    }
    changed_ = true;
    reviewLog().notice(engine::logLine(
        {{"event", "fast cut review outdated"}, {"action", logToken(ActionID::fastCut())}}));
    emit reviewChanged();
}

bool FastCutReview::isReady(const engine::Uuid& id) const {
    const auto plan = plans_.find(id);
    return plan != plans_.end() && !plan->second.empty() &&
           (acceptWholeFile_ || !keepsWholeVideo(plan->second));
}

bool FastCutReview::anyKeepsWholeVideo() const {
    return std::any_of(plans_.begin(), plans_.end(),
                       [](const auto& plan) { return keepsWholeVideo(plan.second); });
}

bool FastCutReview::canExport() const {
    if (changed_ || completed_) {
        return false;
    }
    return std::any_of(plans_.begin(), plans_.end(),
                       [this](const auto& plan) { return isReady(plan.first); });
}

std::string FastCutReview::statusText(const engine::Uuid& id) const {
    if (const auto failure = failures_.find(id); failure != failures_.end()) {
        return failure->second;
    }
    if (const auto plan = plans_.find(id); plan != plans_.end()) {
        const auto entry =
            std::find_if(request_.entries.begin(), request_.entries.end(),
                         [&id](const auto& candidate) { return candidate.id == id; });
        const bool clips = entry != request_.entries.end() && entry->clips;
        const bool joined = clips && entry->clipMode != ClipExportMode::separate;
        std::string text;
        if (joined) {
            text = fmt::format("One joined output of {} {}.", plan->second.size(),
                               plan->second.size() == 1 ? "part" : "parts");
        }
        for (std::size_t index = 0; index < plan->second.size(); ++index) {
            const engine::FastCut::Plan& piece = plan->second[index].plan;
            if (!text.empty()) {
                text += "\n";
            }
            if (clips) {
                text += fmt::format("{} {}: ", joined ? "Part" : "Clip", index + 1);
            }
            text += engine::FastCut::summary(piece);
            if (piece.keepsWholeVideo()) {
                text += "\n";
                text += kWholeVideoText;
            }
        }
        return text;
    }
    if (loading_ && checking_ == id) {
        return kCheckingText;
    }
    return {};
}

bool FastCutReview::wasHandedBack(const engine::Uuid& id) const {
    return std::find(handedBack_.begin(), handedBack_.end(), id) != handedBack_.end();
}

void FastCutReview::chooseConversion(const engine::Uuid& id) {
    if (completed_ || !failures_.contains(id) || wasHandedBack(id)) {
        return;
    }
    const auto entry = std::find_if(request_.entries.begin(), request_.entries.end(),
                                    [&id](const auto& candidate) { return candidate.id == id; });
    if (entry == request_.entries.end()) {
        return;
    }
    handedBack_.push_back(id);
    if (onConversion) {
        onConversion(id, entry->trim);
    }
    emit reviewChanged();
}

void FastCutReview::exportReady() {
    if (!canExport()) {
        return;
    }
    Plans ready;
    for (const auto& [id, plan] : plans_) {
        if (isReady(id)) {
            ready.emplace(id, plan);
        }
    }
    const bool accept = acceptWholeFile_;
    complete();
    if (onExport) {
        onExport(accept, ready);
    }
    emit reviewChanged();
    emit closed();
}

void FastCutReview::cancel() {
    if (completed_) {
        return;
    }
    complete();
    emit reviewChanged();
    emit closed();
}

void FastCutReview::complete() {
    completed_ = true;
    ++generation_;
    planning_->cancel();
    loading_ = false;
    checking_.reset();
}

bool FastCutReview::waitForPlanning(std::chrono::milliseconds limit) {
    return handoff_->waitUntilIdle(limit);
}

void FastCutReview::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

}  // namespace tessarin::app
