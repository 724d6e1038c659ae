#include "app/queue/FastCutReview.hpp"

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

using Outcome = std::variant<engine::FastCut::Plan, std::string>;

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

    // One file: its facts with chapters, then its plan. Never throws but std::bad_alloc.
    Outcome plan(const FastCutReviewRequest::Entry& entry, const engine::Tools& tools) {
        try {
            auto runner = std::make_shared<engine::ProcessRunner>();
            install(runner);
            const engine::MediaInfo info = engine::MediaProbe::probe(
                entry.source, tools, engine::MediaInputPolicy::unrestricted, *runner,
                engine::MediaProbe::kTimeoutSeconds, true);
            return engine::FastCut::plan(
                entry.source, entry.trim, info, tools,
                [this](std::shared_ptr<engine::ProcessRunner> next) { install(std::move(next)); });
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
                if (const auto* plan = std::get_if<engine::FastCut::Plan>(&outcome)) {
                    plans_[id] = *plan;
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
    return plan != plans_.end() && (acceptWholeFile_ || !plan->second.keepsWholeVideo());
}

bool FastCutReview::anyKeepsWholeVideo() const {
    return std::any_of(plans_.begin(), plans_.end(),
                       [](const auto& plan) { return plan.second.keepsWholeVideo(); });
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
        std::string text = engine::FastCut::summary(plan->second);
        if (plan->second.keepsWholeVideo()) {
            text += "\n";
            text += kWholeVideoText;
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
