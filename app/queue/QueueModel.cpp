// QueueModel: construction, the rows and their removal, the selected action and batch trim,
// the notice, and quitting. Intake, scheduling and job making live in their own files.
#include "app/queue/QueueModel.hpp"

#include <fmt/format.h>

#include <QThread>
#include <algorithm>
#include <cstdlib>
#include <utility>

#include "app/queue/internal/QueueModelInternals.hpp"
#include "app/support/MainThreadHandoff.hpp"
#include "engine/model/TimeText.hpp"

namespace tessarin::app {

using queue_internal::queueLog;

namespace {

constexpr const char* kNotATime = "Not a time — use SS, MM:SS, or HH:MM:SS (ignored until fixed)";
constexpr const char* kStartNotBeforeEnd = "Trim start must be before end (ignored until fixed)";

// A running job gets this long beyond the cancel grace to end when the queue goes away.
constexpr std::chrono::milliseconds kShutdownWait{8000};

// A batch-trim time: "^\d+(:[0-5]?\d){0,2}(\.\d+)?$".
bool isTimeText(std::string_view text) {
    std::size_t i = 0;
    auto digits = [&](std::size_t most) {
        const std::size_t from = i;
        while (i < text.size() && i - from < most && text[i] >= '0' && text[i] <= '9') {
            ++i;
        }
        return i - from;
    };
    if (digits(std::string_view::npos) == 0) {
        return false;
    }
    for (int group = 0; group < 2 && i < text.size() && text[i] == ':'; ++group) {
        ++i;
        const std::size_t from = i;
        const std::size_t n = digits(2);
        if (n == 0 || (n == 2 && text[from] > '5')) {
            return false;
        }
    }
    if (i < text.size() && text[i] == '.') {
        ++i;
        if (digits(std::string_view::npos) == 0) {
            return false;
        }
    }
    return i == text.size();
}

}  // namespace

namespace queue_internal {

const engine::Logger& queueLog() {
    static const engine::Logger log("com.tessarin.queue", "queue");
    return log;
}

const engine::Logger& intakeLog() {
    static const engine::Logger log("com.tessarin.queue", "intake");
    return log;
}

std::string trimLabelOf(const engine::Trim& trim) {
    return fmt::format("{}–{}", trim.start.value_or("start"), trim.end.value_or("end"));
}

std::vector<QueueItem> clipRows(const QueueItem& original, const std::vector<JobKind>& kinds,
                                const std::vector<engine::Trim>& ranges,
                                const std::optional<ActionDescriptor>& descriptor) {
    std::vector<QueueItem> rows;
    for (std::size_t index = 0; index < kinds.size(); ++index) {
        QueueItem row = original;
        row.id = index == 0 ? original.id : engine::Uuid::random();
        row.pendingClips.reset();
        row.pendingTrim = ranges[index];  // what the editor opens this row with
        row.kind = kinds[index];
        row.descriptor = descriptor;
        row.trimLabel =
            fmt::format("Clip {} of {} · {}", index + 1, kinds.size(), trimLabelOf(ranges[index]));
        row.state = {QueueItem::StateKind::waiting, {}, {}, {}};
        rows.push_back(std::move(row));
    }
    return rows;
}

}  // namespace queue_internal

// ---------------------------------------------------------------------------------------------

std::string QueueItem::stateLabel() const {
    switch (state.kind) {
        case StateKind::running:
            return kind ? runningLabel(*kind) : "Converting";
        case StateKind::done:
            return kind ? doneLabel(*kind) : "Converted";
        case StateKind::failed:
            return state.failure && state.failure->wasCancelled ? "Cancelled" : "Failed";
        case StateKind::needsPreset:
            return "Waiting for an action";
        case StateKind::waiting:
            return "Waiting";
    }
    return {};
}

// ---------------------------------------------------------------------------------------------

QueueModel::QueueModel(std::optional<engine::Tools> tools, QObject* parent)
    : QObject(parent),
      tools_(std::move(tools)),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", queueLog())) {
    encoderCapabilityPolicy = [] { return engine::EncoderCapabilityPolicy{}; };
    presetLookup = [](std::string_view id) -> std::optional<engine::Preset> {
        if (const engine::Preset* preset = engine::Preset::builtin(id)) {
            return *preset;
        }
        return std::nullopt;
    };
    hardwareEncoders = [] { return engine::HardwareEncoderSupport{}; };
    externalSoftwareHEVCTools = [] { return std::optional<engine::Tools>(); };
    destinationResolver = [](const std::optional<std::filesystem::path>&) {
        return OutputDestination::Resolution::sameFolder();
    };
    transcriptionPrerequisites = [] { return TranscriptionPrerequisites{}; };
    framesJobFactory = [this](const QueueItem& item) { return makeFramesJob(item); };
    framesOptions = [] { return engine::FrameExtractionOptions{}; };
    folderWalker = walkFolders;
    sourceProbes_ = std::make_unique<SourceFactsLoader>(tools_, SourceFactsLoader::Task::probe);
    connect(sourceProbes_.get(), &SourceFactsLoader::factsReady, this, [this](const QString& id) {
        const auto uuid = engine::Uuid::fromText(id.toStdString());
        const SourceFacts* facts = uuid ? sourceProbes_->facts(*uuid) : nullptr;
        const QueueItem* probed = uuid ? item(*uuid) : nullptr;
        if (facts == nullptr || probed == nullptr) {
            return;
        }
        // Rows split from this one meanwhile share its source.
        const std::filesystem::path source = probed->source;
        for (QueueItem& row : items_) {
            if (row.source != source) {
                continue;
            }
            row.sourceWidth = facts->width;
            row.sourceHeight = facts->height;
            if (!row.sourceDurationSeconds) {
                row.sourceDurationSeconds = facts->durationSeconds;
            }
            if (!row.sourceBytes) {
                row.sourceBytes = facts->bytes;
            }
            emit itemChanged(QString::fromStdString(row.id.text()));
        }
    });
}

QueueModel::~QueueModel() {
    handoff_->detach();
    if (scan_) {
        scan_->cancel->cancel();
    }
    if (running_) {
        running_->job->cancel();
    }
    // Job threads hold no pointer to this model, but the children they watch should be gone
    // before the process may end.
    (void)handoff_->waitUntilIdle(kShutdownWait);
}

void QueueModel::requireMainThread() const {
    if (QThread::currentThread() != thread()) {
        queueLog().error("event=\"queue used off the main thread\"");
        std::abort();
    }
}

const QueueItem* QueueModel::item(const engine::Uuid& id) const {
    const auto it = std::find_if(items_.begin(), items_.end(),
                                 [&id](const QueueItem& item) { return item.id == id; });
    return it == items_.end() ? nullptr : &*it;
}

QueueItem* QueueModel::findItem(const engine::Uuid& id) {
    return const_cast<QueueItem*>(std::as_const(*this).item(id));
}

bool QueueModel::hasUnfinishedWork() const {
    return std::any_of(items_.begin(), items_.end(), [](const QueueItem& item) {
        return item.state.kind == QueueItem::StateKind::running ||
               item.state.kind == QueueItem::StateKind::waiting;
    });
}

std::size_t QueueModel::stagedCount() const {
    return static_cast<std::size_t>(
        std::count_if(items_.begin(), items_.end(), [](const QueueItem& item) {
            return item.state.kind == QueueItem::StateKind::needsPreset;
        }));
}

void QueueModel::setSelectedActionID(std::optional<ActionID> id) {
    requireMainThread();
    if (selectedActionID_ == id) {
        return;
    }
    selectedActionID_ = std::move(id);
    emit selectedActionChanged();
}

void QueueModel::setTrim(std::string start, std::string end) {
    requireMainThread();
    if (trimStart_ == start && trimEnd_ == end) {
        return;
    }
    trimStart_ = std::move(start);
    trimEnd_ = std::move(end);
    emit trimChanged();
}

std::optional<std::string> QueueModel::trimValidationText() const {
    const bool hasStart = !trimStart_.empty();
    const bool hasEnd = !trimEnd_.empty();
    if ((hasStart && !isTimeText(trimStart_)) || (hasEnd && !isTimeText(trimEnd_))) {
        return kNotATime;
    }
    if (hasStart && hasEnd) {
        const std::optional<double> start = engine::parseTimeSeconds(trimStart_);
        const std::optional<double> end = engine::parseTimeSeconds(trimEnd_);
        if (!start || !end) {
            return kNotATime;
        }
        if (*start >= *end) {
            return kStartNotBeforeEnd;
        }
    }
    return std::nullopt;
}

std::optional<engine::Trim> QueueModel::batchTrim() const {
    if (trimValidationText() || (trimStart_.empty() && trimEnd_.empty())) {
        return std::nullopt;
    }
    engine::Trim trim;
    if (!trimStart_.empty()) {
        trim.start = trimStart_;
    }
    if (!trimEnd_.empty()) {
        trim.end = trimEnd_;
    }
    return trim;
}

void QueueModel::notice(const std::string& text) {
    requireMainThread();
    if (intakeNotice_) {
        std::string_view lines = *intakeNotice_;
        for (std::size_t at = 0; at <= lines.size();) {
            const std::size_t next = std::min(lines.find('\n', at), lines.size());
            if (lines.substr(at, next - at) == text) {
                return;
            }
            at = next + 1;
        }
        *intakeNotice_ += "\n" + text;
    } else {
        intakeNotice_ = text;
    }
    emit intakeNoticeChanged();
}

void QueueModel::dismissNotice() {
    requireMainThread();
    if (intakeNotice_) {
        intakeNotice_.reset();
        emit intakeNoticeChanged();
    }
}

ActionAvailability QueueModel::actionAvailability() const {
    ActionAvailability availability;
    availability.encoderPolicy = encoderCapabilityPolicy();
    availability.hardware = hardwareEncoders();
    availability.transcriptionModelUsable = transcriptionPrerequisites().hasUsableModel;
    availability.framesAvailable = static_cast<bool>(framesJobFactory);
    return availability;
}

std::optional<ActionDescriptor> QueueModel::resolveDescriptor(const ActionID& id) {
    if (!id.isPreset()) {
        return fixedDescriptor(id.kind, actionAvailability());
    }
    const std::optional<engine::Preset> preset = presetLookup(id.presetID);
    if (!preset) {
        return std::nullopt;
    }
    return presetDescriptor(*preset, actionAvailability());
}

void QueueModel::updateItem(const engine::Uuid& id, const std::function<void(QueueItem&)>& change) {
    if (QueueItem* item = findItem(id)) {
        change(*item);
        emit itemChanged(QString::fromStdString(id.text()));
    }
}

void QueueModel::cancel(const engine::Uuid& id) {
    requireMainThread();
    const QueueItem* item = this->item(id);
    if (item == nullptr) {
        return;
    }
    if (item->state.kind == QueueItem::StateKind::running) {
        if (running_ && running_->itemID == id) {
            running_->job->cancel();
        }
        return;
    }
    if (item->state.kind == QueueItem::StateKind::waiting ||
        item->state.kind == QueueItem::StateKind::needsPreset) {
        remove(id);
    }
}

void QueueModel::remove(const engine::Uuid& id) {
    requireMainThread();
    const auto removed = std::erase_if(items_, [&id](const QueueItem& item) {
        return item.id == id && item.state.kind != QueueItem::StateKind::running;
    });
    if (removed > 0) {
        emit itemsChanged();
    }
}

void QueueModel::clearFinished() {
    requireMainThread();
    if (std::erase_if(items_, [](const QueueItem& item) { return item.isFinished(); }) > 0) {
        emit itemsChanged();
    }
}

void QueueModel::prepareForQuit() {
    requireMainThread();
    isShuttingDown_ = true;
    sourceProbes_->close();
    if (scan_) {
        scan_->cancel->cancel();
    }
    if (running_) {
        running_->job->cancel();
    }
    const auto dropped = std::erase_if(items_, [](const QueueItem& item) {
        return item.state.kind == QueueItem::StateKind::waiting ||
               item.state.kind == QueueItem::StateKind::needsPreset;
    });
    if (pendingIntake_) {
        pendingIntake_.reset();
        emit pendingIntakeChanged();
    }
    if (fastCutReview_) {
        fastCutReview_.reset();
        emit fastCutReviewChanged();
    }
    queueLog().notice(engine::KeyValues().add("event", "quit").add("dropped", dropped).str());
    emit itemsChanged();
}

bool QueueModel::waitForBackgroundWork(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const bool jobs = handoff_->waitUntilIdle(limit);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return sourceProbes_->waitUntilIdle(std::max(left, std::chrono::milliseconds(0))) && jobs;
}

void QueueModel::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

}  // namespace tessarin::app
