// Links and opened files from outside: tessarin:// links are validated off the main thread
// (under a 5-second limit and the public or authenticated capacity gate), then either start
// work (a token of this process vouches for them), ask the user (a conversion without one), or
// are refused (a transcription without one, with a notice). Plain file URLs are staged.
//
//   URLIntake intake(queue, tokens, gates);
//   intake.knownPresets = [&store] { return store.effectivePresets(); };
//   intake.confirmUntrusted = [&window](const URLIntakeConfirmation& c) { return ask(c); };
//   intake.handle({QUrl("tessarin://convert?preset=mp4-h264&file=/videos/a.mov")});
//
// Threads: a URLIntake lives on the main thread; every member is called there, and every
// callback runs there. Each validation runs on a thread of its own holding its capacity lease;
// one that is stuck on a dead volume keeps its lease until it comes back, so stuck volumes use
// up the gate instead of spawning more stuck threads.
#pragma once

#include <QList>
#include <QObject>
#include <QUrl>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "app/intake/IntakeHandoffServer.hpp"
#include "engine/intake/IntakeCapacity.hpp"
#include "engine/intake/IntakeTokenStore.hpp"
#include "engine/intake/URLIntakeParser.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::app {

class MainThreadHandoff;
class QueueModel;

// The question put before an untrusted conversion is added.
struct URLIntakeConfirmation {
    std::string heading;  // "Add “a.mov” to Tessarin?" or "Add 3 files to Tessarin?"
    std::string text;     // "Preset: …", an empty line, the first 10 names, "… and n more"
    static constexpr const char* kAdd = "Add";
    static constexpr const char* kCancel = "Cancel";
};

// The notice shown when a transcription arrives without its handoff token.
inline constexpr const char* kUntrustedTranscriptionNotice =
    "Tessarin could not verify that a transcription request came from its own file-manager "
    "action, so it was ignored — the request arrived without its signed handoff token. Start "
    "transcriptions from the Tessarin window, or try the file-manager action again; if it keeps "
    "happening, reinstall Tessarin.";

// The confirmation of an untrusted conversion of `files` with the preset named `displayName`.
[[nodiscard]] URLIntakeConfirmation untrustedConfirmation(const std::vector<std::string>& files,
                                                          const std::string& displayName);

class URLIntake : public QObject {
    Q_OBJECT

public:
    using Parse = std::function<engine::URLIntakeParseResult(
        const std::string& url, const std::set<std::string>& knownPresetIDs,
        const engine::ConsumeToken& consume, double now)>;

    URLIntake(QueueModel& queue, engine::IntakeTokenStore& tokens,
              engine::IntakeValidationAdmissionController& gates, QObject* parent = nullptr);
    ~URLIntake() override;

    // Collaborators, replaceable. knownPresets: the effective presets (empty: none known).
    // bringToFront: raises the window. confirmUntrusted: asks with "Add" and "Cancel", true
    // for Add (empty: never added). parse: parseIntakeURL. now: the wall clock.
    std::function<std::vector<engine::Preset>()> knownPresets;
    std::function<void()> bringToFront;
    std::function<bool(const URLIntakeConfirmation&)> confirmUntrusted;
    Parse parse;
    std::function<double()> now;
    std::chrono::milliseconds validationTimeout{5'000};

    // The open-URLs event: tessarin links are validated, file URLs staged with no action, the
    // rest dropped with a log line.
    void handle(const QList<QUrl>& urls);
    // Validates `url` on a thread of its own, holding `lease` until the parse returns.
    void validate(std::string url, engine::IntakeWorkCapacityLease lease);
    // A handoff the server delivered, as a link through the same validation.
    void deliver(IntakeHandoffDelivery delivery);

signals:
    // One validation ended: its result was handled, or it timed out. For tests and the window.
    void validationSettled();

private slots:
    void deliverBackgroundResults();

private:
    void handleResult(const engine::URLIntakeParseResult& result);
    void enqueue(const engine::URLIntakeRequest& request);

    QueueModel& queue_;
    engine::IntakeTokenStore& tokens_;
    engine::IntakeValidationAdmissionController& gates_;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
