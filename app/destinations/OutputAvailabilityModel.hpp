// Whether the chosen output folder is there, for the settings view.
//
//   OutputAvailabilityModel availability(destinations);
//   QObject::connect(&availability, &OutputAvailabilityModel::availabilityChanged, view,
//                    &OutputSettingsView::reload);
//   availability.refresh();  // `checking` now; `present` or `missing` shortly
//
// Threads: lives on the main thread (QCoreApplication's) and every member must be called there;
// calling from another thread stops the process. The check runs on a worker thread and its
// result comes back through the event loop. Each refresh raises `generation`; a result of an
// older generation than the latest refresh is dropped.
#pragma once

#include <QObject>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/destinations/OutputDestination.hpp"

namespace tessarin::app {

class MainThreadHandoff;

class OutputAvailabilityModel : public QObject {
    Q_OBJECT

public:
    enum class Availability { checking, present, missing };

    // `checking`, with no path, until the first refresh() answers.
    explicit OutputAvailabilityModel(OutputDestination destination, QObject* parent = nullptr);
    // Results still on their way are dropped; a running check finishes on its own thread.
    ~OutputAvailabilityModel() override;

    OutputAvailabilityModel(const OutputAvailabilityModel&) = delete;
    OutputAvailabilityModel& operator=(const OutputAvailabilityModel&) = delete;

    [[nodiscard]] Availability availability() const { return availability_; }
    [[nodiscard]] const std::optional<std::string>& displayedPath() const { return displayedPath_; }
    [[nodiscard]] uint64_t generation() const { return generation_; }

    // The line under the folder in the settings view: kNoFolderChosenSentence when missing with
    // no folder to show, kFolderMissingSentence when missing, otherwise nothing.
    [[nodiscard]] std::optional<std::string_view> statusSentence() const;

    // Sets `checking`, raises `generation`, and checks on a worker thread.
    void refresh();

    // The settings action, after the folder panel answered: OutputDestination::chooseFolder,
    // then a refresh when the choice was saved. Blocking briefly (a lookup and a settings
    // write).
    [[nodiscard]] std::optional<std::string> chooseFolder(const std::filesystem::path& folder);

    // Blocks until no check runs, at most `limit`; true if none runs. Results still arrive
    // through the event loop afterwards. For orderly shutdown and tests.
    [[nodiscard]] bool waitForBackgroundWork(std::chrono::milliseconds limit);

signals:
    void availabilityChanged();
    void displayedPathChanged();

private slots:
    // Runs the results that worker threads handed back.
    void deliverBackgroundResults();

private:
    void requireMainThread() const;
    void publish(uint64_t generation, const OutputDestination::FolderCheck& check);
    void setAvailability(Availability availability);
    void setDisplayedPath(std::optional<std::string> path);

    OutputDestination destination_;
    Availability availability_ = Availability::checking;
    std::optional<std::string> displayedPath_;
    uint64_t generation_ = 0;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
