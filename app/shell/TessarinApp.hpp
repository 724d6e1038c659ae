// The application core: makes the long-lived models, wires them together, runs the launch
// sequence, routes what the desktop hands over (files and links) and answers whether quitting
// needs the user's word. It holds little logic of its own; the window (gui/) takes the models
// from here by reference.
//
//   QApplication qt(argc, argv);
//   TessarinApp app(TessarinApp::Environment::standard());
//   app.launch();
//   MainWindow window(app);  // binds to app.queue(), app.presetStore()...
//   app.openURLs(urlsFromTheCommandLine);
//
// Threads: everything here is called on the main thread. The models it owns do their slow work
// on worker threads (see each of them).
#pragma once

#include <QList>
#include <QObject>
#include <QUrl>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/destinations/OutputDestination.hpp"
#include "app/intake/IntakeHandoffServer.hpp"
#include "app/intake/URLIntake.hpp"
#include "app/queue/QueueModel.hpp"
#include "app/recording/RecordingRecoveryModel.hpp"
#include "app/recording/RecordingSessionModel.hpp"
#include "app/settings/FramesSettings.hpp"
#include "app/settings/PresetStore.hpp"
#include "app/shell/DesktopServices.hpp"
#include "app/shell/FileManagerActionsModel.hpp"
#include "app/transcription/TranscriptionSettingsModel.hpp"
#include "engine/desktop/StaleScanScheduler.hpp"
#include "engine/encoders/HardwareEncoderProbe.hpp"
#include "engine/process/Tools.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::app {

class DesktopNotifier;
class MainThreadHandoff;

// One persisted setting: the whole persisted state outside files and the keyring is this list.
struct SettingsKey {
    std::string_view key;
    std::string_view owner;
    std::string_view meaning;
};

// Every key of the settings store, in the order of the settings table.
[[nodiscard]] const std::vector<SettingsKey>& settingsKeys();

inline constexpr std::string_view kUIScaleKey = "uiScale";
inline constexpr std::string_view kDiagnosticsConsentKey = "diagnosticsConsent";
inline constexpr std::string_view kRecentEngineErrorsKey = "recentEngineErrors";
// How many redacted failures the diagnostics report keeps.
inline constexpr std::size_t kRecentEngineErrorsLimit = 20;

// Shown instead of the queue when the helper folder lacks a tool.
inline constexpr const char* kMissingToolsSentence =
    "ffmpeg/ffprobe/gifsicle not found — reinstall Tessarin so that its helper folder "
    "(libexec/tessarin) holds them, or install them with `sudo apt install ffmpeg gifsicle`";

class TessarinApp : public QObject {
    Q_OBJECT

public:
    // What the core is made from; tests replace parts of it.
    struct Environment {
        std::shared_ptr<engine::SettingsStore> settings;
        // Nothing when the helper folder is incomplete: the queue then refuses all work.
        std::optional<engine::Tools> tools;
        // Probes the hardware encoders once, on a worker thread. Empty: none.
        std::function<engine::HardwareEncoderSupport(const engine::Tools&)> probeHardware;
        // Whether the window is the active one (for notifications). Empty: never active.
        std::function<bool()> isApplicationActive;
        // Posts a desktop notification. Empty: over D-Bus (org.freedesktop.Notifications).
        std::function<void(const std::string& title, const std::string& body)> postNotification;
        // Launch hooks of subsystems that arrive later, each empty until then: publishing the
        // local socket through which file-manager actions hand files over (false: it could
        // not be published, and the application goes on without it), and the start of the
        // file-manager action registrar.
        std::function<bool()> publishHandoffSocket;
        std::function<void()> startQuickActionRegistrar;
        // The recording root whose unfinished takes are offered for recovery at launch. Empty:
        // none are looked for.
        std::optional<std::filesystem::path> recordingRoot;
        // Without a publishHandoffSocket hook: the folder of the handoff socket (nothing: no
        // socket), and the helper folder whose `tessarin-action` may hand files over.
        std::optional<std::filesystem::path> handoffFolder;
        std::filesystem::path helperFolder;
        // Where the OpenRouter API key is kept. Empty: transcription is not set up (its chip
        // stays disabled and no transcription settings exist).
        std::shared_ptr<engine::OpenRouterKeyStoring> transcriptionKeyStore;
        // The folder of the file-manager actions ($XDG_DATA_HOME). Without one the registrar
        // doesn't run at launch (its model still answers the window).
        std::optional<std::filesystem::path> actionsDataHome;
        // The home folder whose ~/.local/bin and ~/.profile the command-line tool installer
        // uses. Without one, the account's.
        std::optional<std::filesystem::path> home;

        // The standard settings file, the helper folder's tools, the real hardware probe.
        [[nodiscard]] static Environment standard();
    };

    enum class QuitDecision { quitNow, askConversionsInProgress, askUnsavedTranscripts };

    explicit TessarinApp(Environment environment, QObject* parent = nullptr);
    ~TessarinApp() override;

    TessarinApp(const TessarinApp&) = delete;
    TessarinApp& operator=(const TessarinApp&) = delete;

    // The launch sequence: the handoff socket, the launch log line, the bookmark refresh, the
    // action registrar, the search for unfinished recordings, the hardware probe.
    // The models stand from construction on.
    void launch();

    [[nodiscard]] engine::SettingsStore& settings() { return *settings_; }
    [[nodiscard]] PresetStore& presetStore() { return *presetStore_; }
    [[nodiscard]] QueueModel& queue() { return *queue_; }
    [[nodiscard]] OutputDestination& outputDestination() { return *outputDestination_; }
    [[nodiscard]] FramesSettings& framesSettings() { return *framesSettings_; }
    [[nodiscard]] RecordingRecoveryModel& recordingRecovery() { return *recordingRecovery_; }
    // The transcription settings; null when the environment gave no key store.
    [[nodiscard]] TranscriptionSettingsModel* transcription() { return transcription_.get(); }
    [[nodiscard]] RecordingSessionModel& recordingSession() { return *recordingSession_; }
    [[nodiscard]] FileManagerActionsModel& fileManagerActions() { return *fileManagerActions_; }
    [[nodiscard]] DesktopServices& desktopServices() { return *desktopServices_; }
    [[nodiscard]] const std::optional<engine::Tools>& tools() const { return tools_; }
    [[nodiscard]] const engine::HardwareEncoderSupport& hardwareEncoders() const {
        return hardware_;
    }
    // What decides which actions can run: the chips' disabled reasons.
    [[nodiscard]] ActionAvailability actionAvailability();
    // The chips: every preset (built-ins with edits, then customs; those this machine can't
    // run carry their reason), then the fixed actions.
    [[nodiscard]] std::vector<ActionDescriptor> actionCatalog();

    // Files and links from the command line, the file manager or a second launch: plain file
    // URLs go to the queue with no action; tessarin:// links through URL intake (validated,
    // then started, confirmed or refused); anything else is dropped with a log line.
    void openURLs(const QList<QUrl>& urls);
    [[nodiscard]] URLIntake& urlIntake() { return *urlIntake_; }
    // The handoff server once launch() published it; null before or when it could not be.
    [[nodiscard]] IntakeHandoffServer* handoffServer() { return handoffServer_.get(); }

    // Whether quitting needs the alert; its texts below.
    [[nodiscard]] QuitDecision quitDecision() const;
    // Cancels the running job and drops what waits.
    void prepareForQuit();

    // The interface scale, 1.0 to 2.0 (stored clamped); never affects output.
    [[nodiscard]] double uiScale() const;
    void setUIScale(double scale);

    static constexpr const char* kQuitAlertTitle = "Conversions in progress";
    static constexpr const char* kQuitAlertUnsavedTitle = "Unsaved transcripts";
    static constexpr const char* kQuitAlertText =
        "Quitting cancels running work and drops waiting files. Finished outputs are kept. Any "
        "unsaved recovered transcripts will be lost.";
    static constexpr const char* kQuitAlertKeep = "Keep Converting";
    static constexpr const char* kQuitAlertQuit = "Quit Anyway";

signals:
    // The hardware probe answered, or presets changed: the chips should be rebuilt.
    void actionCatalogChanged();

private slots:
    void deliverBackgroundResults();

private:
    void recordEngineError(const std::string& redacted);
    bool startHandoffServer();

    std::shared_ptr<engine::SettingsStore> settings_;
    std::optional<engine::Tools> tools_;
    Environment environment_;
    engine::HardwareEncoderSupport hardware_;
    std::unique_ptr<PresetStore> presetStore_;
    std::unique_ptr<OutputDestination> outputDestination_;
    std::unique_ptr<FramesSettings> framesSettings_;
    std::unique_ptr<TranscriptionSettingsModel> transcription_;
    std::unique_ptr<QueueModel> queue_;
    std::unique_ptr<RecordingRecoveryModel> recordingRecovery_;
    std::unique_ptr<RecordingSessionModel> recordingSession_;
    std::unique_ptr<DesktopNotifier> notifier_;
    std::unique_ptr<FileManagerActionsModel> fileManagerActions_;
    std::unique_ptr<DesktopServices> desktopServices_;
    std::shared_ptr<MainThreadHandoff> handoff_;
    std::unique_ptr<URLIntake> urlIntake_;
    // Refused handoff peers ask for a scan for stale helpers; it outlives the server.
    std::unique_ptr<engine::StaleScanScheduler> staleScans_;
    std::unique_ptr<IntakeHandoffServer> handoffServer_;
};

}  // namespace tessarin::app
