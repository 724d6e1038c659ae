#include "app/destinations/OutputAvailabilityModel.hpp"

#include <QCoreApplication>
#include <QThread>
#include <exception>
#include <utility>

#include "app/destinations/OutputDestinationTexts.hpp"
#include "app/support/MainThreadHandoff.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::app {
namespace {

const engine::Logger& log() {
    static const engine::Logger logger("com.tessarin.app", "destinations");
    return logger;
}

}  // namespace

OutputAvailabilityModel::OutputAvailabilityModel(OutputDestination destination, QObject* parent)
    : QObject(parent),
      destination_(std::move(destination)),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", log())) {
    requireMainThread();
}

OutputAvailabilityModel::~OutputAvailabilityModel() {
    handoff_->detach();
}

void OutputAvailabilityModel::requireMainThread() const {
    const QCoreApplication* application = QCoreApplication::instance();
    if (application == nullptr || QThread::currentThread() != application->thread() ||
        QThread::currentThread() != thread()) {
        qFatal("OutputAvailabilityModel used outside the main thread");
    }
}

std::optional<std::string_view> OutputAvailabilityModel::statusSentence() const {
    if (availability_ != Availability::missing) {
        return std::nullopt;
    }
    return displayedPath_ ? kFolderMissingSentence : kNoFolderChosenSentence;
}

void OutputAvailabilityModel::refresh() {
    requireMainThread();
    setAvailability(Availability::checking);
    const uint64_t generation = ++generation_;
    using Completion = MainThreadHandoff::Completion;
    try {
        handoff_->start([destination = destination_, model = this, generation]() -> Completion {
            OutputDestination::FolderCheck check = destination.checkFolder();
            return [model, generation, check = std::move(check)] {
                model->publish(generation, check);
            };
        });
    } catch (const std::exception& error) {
        log().error(engine::KeyValues()
                        .add("event", "availability check not started")
                        .add("error", error.what())
                        .str());
        publish(generation, {});
    }
}

std::optional<std::string> OutputAvailabilityModel::chooseFolder(
    const std::filesystem::path& folder) {
    requireMainThread();
    std::optional<std::string> failure = destination_.chooseFolder(folder);
    if (!failure) {
        refresh();
    }
    return failure;
}

void OutputAvailabilityModel::publish(uint64_t generation,
                                      const OutputDestination::FolderCheck& check) {
    if (generation != generation_) {
        log().info(engine::KeyValues()
                       .add("event", "stale availability dropped")
                       .add("generation", generation)
                       .str());
        return;
    }
    setDisplayedPath(check.path ? std::optional<std::string>(check.path->string()) : std::nullopt);
    setAvailability(check.present ? Availability::present : Availability::missing);
}

void OutputAvailabilityModel::setAvailability(Availability availability) {
    if (availability == availability_) {
        return;
    }
    availability_ = availability;
    emit availabilityChanged();
}

void OutputAvailabilityModel::setDisplayedPath(std::optional<std::string> path) {
    if (path == displayedPath_) {
        return;
    }
    displayedPath_ = std::move(path);
    emit displayedPathChanged();
}

void OutputAvailabilityModel::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

bool OutputAvailabilityModel::waitForBackgroundWork(std::chrono::milliseconds limit) {
    return handoff_->waitUntilIdle(limit);
}

}  // namespace tessarin::app
