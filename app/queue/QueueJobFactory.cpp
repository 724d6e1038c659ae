// QueueModel: the job each kind of row runs, one case a JobKind. A new kind of work brings its
// own QueueJob in its own file (as ConversionQueueJob does) and one case here; the visitor
// does not compile while a kind has no case.
#include <memory>
#include <optional>
#include <utility>

#include "app/queue/ConversionQueueJob.hpp"
#include "app/queue/FramesQueueJob.hpp"
#include "app/queue/JoinedFastCutQueueJob.hpp"
#include "app/queue/QueueModel.hpp"

namespace tessarin::app {

namespace {

template <typename... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};
// clang 14 doesn't deduce aggregate template arguments by itself.
template <typename... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

// The chosen folder, or nothing for next to the original.
std::optional<std::filesystem::path> outputDirectoryOf(const QueueItem& item) {
    return item.destination.kind == OutputDestination::Resolution::Kind::folder
               ? std::optional(item.destination.folder)
               : std::nullopt;
}

}  // namespace

std::shared_ptr<QueueJob> QueueModel::makeJob(const QueueItem& item) {
    const std::optional<std::filesystem::path> outputDirectory = outputDirectoryOf(item);
    const engine::EncoderCapabilityPolicy policy = encoderCapabilityPolicy();
    auto conversion = [&](engine::MediaTask task, const engine::Preset* preset,
                          std::optional<engine::FastCut::Plan> plan) -> std::shared_ptr<QueueJob> {
        engine::Tools tools = *tools_;
        if (preset && policy.softwareHEVC == engine::SoftwareHEVCSource::external &&
            preset->options.format.videoCodec() == engine::VideoCodec::h265) {
            if (std::optional<engine::Tools> external = externalSoftwareHEVCTools()) {
                tools = *external;
            }
        }
        return std::make_shared<ConversionQueueJob>(item.source, std::move(task), tools, policy,
                                                    outputDirectory, hardwareEncoders(),
                                                    std::move(plan));
    };
    // Jobs made outside the queue; without a factory the row fails as unavailable.
    auto fromFactory = [&item](const JobFactory& factory) -> std::shared_ptr<QueueJob> {
        return factory ? factory(item) : nullptr;
    };
    return std::visit(
        Overloaded{
            [&](const JobKind::Convert& kind) {
                return conversion(engine::MediaTask::convert(kind.preset), &kind.preset,
                                  std::nullopt);
            },
            [&](const JobKind::Join& kind) {
                return conversion(engine::MediaTask::join(kind.preset, kind.ranges, kind.removing),
                                  &kind.preset, std::nullopt);
            },
            [&](const JobKind::ExtractAudio& kind) {
                return conversion(engine::MediaTask::extractAudio(kind.options), nullptr,
                                  std::nullopt);
            },
            [&](const JobKind::FastCut& kind) {
                return conversion(engine::MediaTask::fastCut(kind.trim), nullptr, kind.plan);
            },
            [&](const JobKind::FastCutJoin& kind) -> std::shared_ptr<QueueJob> {
                return std::make_shared<JoinedFastCutQueueJob>(item.source, kind.pieces, *tools_,
                                                               outputDirectory);
            },
            [&](const JobKind::Transcribe&) { return fromFactory(transcriptionJobFactory); },
            [&](const JobKind::Frames&) { return fromFactory(framesJobFactory); },
        },
        item.kind->value);
}

std::shared_ptr<QueueJob> QueueModel::makeFramesJob(const QueueItem& item) const {
    const auto* frames = item.kind ? std::get_if<JobKind::Frames>(&item.kind->value) : nullptr;
    if (frames == nullptr || !tools_) {
        return nullptr;
    }
    return std::make_shared<FramesQueueJob>(item.source, frames->options, outputDirectoryOf(item),
                                            *tools_);
}

}  // namespace tessarin::app
