#include "app/shell/TessarinApp.hpp"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
#include <utility>

#include "app/shell/DesktopNotifier.hpp"
#include "app/support/MainThreadHandoff.hpp"
#include "engine/desktop/DesktopPaths.hpp"
#include "engine/desktop/StaleActionProcesses.hpp"
#include "engine/encoders/ExternalSoftwareHEVCValidator.hpp"
#include "engine/intake/HelperActions.hpp"
#include "engine/log/Log.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/KeychainOpenRouterKeyStore.hpp"

namespace tessarin::app {

namespace {

const engine::Logger& appLog() {
    static const engine::Logger log("com.tessarin.app", "lifecycle");
    return log;
}

constexpr double kMinimumUIScale = 1.0;
constexpr double kMaximumUIScale = 2.0;

// Where the running program was installed: the distribution's prefix, a local or /opt
// prefix, a home folder, or a build tree.
std::string installLocation() {
    std::error_code error;
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return "unknown";
    }
    const std::string path = executable.string();
    if (std::filesystem::exists(executable.parent_path().parent_path() / "CMakeCache.txt", error)) {
        return "development";
    }
    if (path.starts_with("/usr/local/") || path.starts_with("/opt/")) {
        return "shared";
    }
    if (path.starts_with("/usr/")) {
        return "system";
    }
    return "user";
}

std::string systemVersion() {
    struct utsname name {};
    if (::uname(&name) != 0) {
        return "unknown";
    }
    return fmt::format("{}-{}", name.sysname, name.release);
}

}  // namespace

const std::vector<SettingsKey>& settingsKeys() {
    static const std::vector<SettingsKey> keys{
        {"uiScale", "application", "interface scale, 1.0 to 2.0 (100–200%); never affects output"},
        {"diagnosticsConsent", "diagnostics", "collect crash reports locally; off by default"},
        {"recentEngineErrors", "diagnostics", "the last engine errors, redacted"},
        {"SUEnableAutomaticChecks", "updates", "automatic update checks"},
        {"presetOverrides", "presets", "edits of built-in presets"},
        {"customPresets", "presets", "the user's own presets"},
        {"externalSoftwareHEVCToolchain.v1", "presets", "the chosen software H.265 toolchain"},
        {"didMigrateFromOrchardineDefaults", "presets", "the one-time move from the old suite"},
        {"outputMode", "destinations", "where converted files go"},
        {"outputFolderBookmark", "destinations", "the chosen output folder"},
        {"outputFolderPath", "destinations", "the chosen folder's last path, for display"},
        {"frames.mode.v1", "frames", "where frames are taken: changes or interval"},
        {"frames.maxFrames.v1", "frames", "the frame budget, 2 to 1000; absent or 0 automatic"},
        {"frames.maxSize.v1", "frames", "the pictures' long edge, 64 to 2576 px"},
        {"frames.format.v1", "frames", "the pictures' format: jpeg or png"},
        {"frames.contactSheet.v1", "frames", "whether contact sheets are drawn; on by default"},
        {"quickActionSeededGrants", "file-manager actions", "actions set up once"},
        {"didMigrateQuickActionGrantsFromOrchardine", "file-manager actions",
         "the one-time move of action grants"},
        {"lastRunAppVersion", "file-manager actions", "the version that last ran"},
        {"openRouterModelCatalog", "transcription", "the service's model list"},
        {"transcription.roster.v1", "transcription", "the models offered"},
        {"transcription.activeModelID", "transcription", "the chosen model"},
        {"transcription.options.v1", "transcription", "transcription options"},
        {"transcription.promptMode", "transcription", "how the prompt is built"},
        {"transcription.customPrompt", "transcription", "the user's prompt"},
        {"transcription.language", "transcription", "the spoken language"},
        {"transcriptOutputMode", "transcripts", "where transcripts go"},
        {"transcriptFolderBookmark", "transcripts", "the chosen transcript folder"},
        {"transcriptFolderPath", "transcripts", "that folder's last path, for display"},
        {"transcriptionUploadConsentVersion", "transcription", "audio upload approval"},
        {"transcriptionUploadConsentGrantedAt", "transcription", "when it was given"},
        {"transcriptionVideoUploadConsentVersion", "transcription", "video upload approval"},
        {"transcriptionVideoUploadConsentGrantedAt", "transcription", "when it was given"},
        {"screenRecording.preferences.v1", "recording", "recording preferences"},
        {"screenRecording.unfinishedTakes", "recording", "takes to recover"},
        {"screenRecording.cleanupDirectories", "recording", "folders to clean up"},
    };
    return keys;
}

TessarinApp::Environment TessarinApp::Environment::standard() {
    Environment environment;
    environment.settings =
        std::make_shared<engine::SettingsStore>(engine::SettingsStore::standard());
    environment.tools = engine::Tools::fromEnvironment();
    if (!environment.tools) {
        try {
            environment.tools = engine::Tools::locate();
        } catch (const engine::ToolsError& error) {
            appLog().error(engine::KeyValues()
                               .add("event", "tools missing")
                               .add("checked", fmt::format("{}", error.checked.size()))
                               .str());
        }
    }
    environment.handoffFolder = IntakeHandoffServer::standardFolder();
    environment.transcriptionKeyStore = std::make_shared<engine::KeychainOpenRouterKeyStore>();
    environment.helperFolder = runningHelperFolder();
    try {
        environment.actionsDataHome = engine::dataHome();
    } catch (const std::exception&) {
        appLog().error("event=\"no data home\"");
    }
    environment.probeHardware = [](const engine::Tools& tools) {
        return engine::HardwareEncoderProbe{}.probe(tools.ffmpeg);
    };
    try {
        environment.recordingRoot = engine::RecordingNamespace::recordingRoot();
    } catch (const std::exception&) {
        appLog().error("event=\"no recording root\"");
    }
    return environment;
}

TessarinApp::TessarinApp(Environment environment, QObject* parent)
    : QObject(parent),
      settings_(environment.settings),
      tools_(environment.tools),
      environment_(std::move(environment)),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", appLog())) {
    if (!settings_) {
        throw std::invalid_argument("TessarinApp needs a settings store");
    }
    presetStore_ =
        std::make_unique<PresetStore>(settings_, engine::ExternalSoftwareHEVCValidator{},
                                      tools_ ? PresetStore::bundledSoftwareHEVCQuery(tools_->ffmpeg)
                                             : PresetStore::SoftwareHEVCSourceQuery{});
    outputDestination_ = std::make_unique<OutputDestination>(settings_);
    framesSettings_ = std::make_unique<FramesSettings>(settings_);
    notifier_ = std::make_unique<DesktopNotifier>();
    {
        std::filesystem::path home;
        try {
            home = environment_.home.value_or(engine::homeFolder());
        } catch (const std::exception&) {
        }
        const std::filesystem::path dataHome =
            environment_.actionsDataHome.value_or(home / ".local" / "share");
        const std::filesystem::path helper =
            environment_.helperFolder / std::string(engine::kActionHelperName);
        fileManagerActions_ =
            std::make_unique<FileManagerActionsModel>(settings_, helper, dataHome);
        std::error_code error;
        const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
        desktopServices_ = std::make_unique<DesktopServices>(
            settings_,
            DesktopServices::Paths{
                program,
                (environment_.helperFolder / ".." / ".." / "bin" / "tessarin").lexically_normal(),
                environment_.helperFolder, dataHome, home, engine::currentLogFilePath()});
    }
    queue_ = std::make_unique<QueueModel>(tools_);
    recordingRecovery_ = std::make_unique<RecordingRecoveryModel>(
        settings_, environment_.recordingRoot.value_or(std::filesystem::path()), tools_);
    RecordingSessionModel::OperationsFactory recordingOperations;
    if (tools_) {
        recordingOperations = [tools = *tools_] {
            engine::RecordingWork work;
            work.tools = tools;
            return engine::RecordingSessionOperations::platform(std::move(work));
        };
    }
    recordingSession_ = std::make_unique<RecordingSessionModel>(settings_, recordingOperations);

    QueueModel& queue = *queue_;
    queue.encoderCapabilityPolicy = [this] { return presetStore_->encoderPolicy(); };
    // The queue sees every preset, so that a refused one gets its sentence, not silence.
    queue.presetLookup = [this](std::string_view id) -> std::optional<engine::Preset> {
        for (engine::Preset& preset : presetStore_->allPresets()) {
            if (preset.id == id) {
                return std::move(preset);
            }
        }
        return std::nullopt;
    };
    queue.hardwareEncoders = [this] { return hardware_; };
    queue.externalSoftwareHEVCTools = [this]() -> std::optional<engine::Tools> {
        const auto& toolchain = presetStore_->persistedExternalSoftwareHEVC();
        if (!toolchain || !tools_) {
            return std::nullopt;
        }
        engine::Tools tools = *tools_;
        tools.ffmpeg = toolchain->ffmpeg.resolvedPath;
        tools.ffprobe = toolchain->ffprobe.resolvedPath;
        tools.externalSoftwareHEVCIdentity = toolchain;
        return tools;
    };
    queue.destinationResolver = outputDestination_->destinationResolver();
    queue.framesOptions = [this] { return framesSettings_->options(); };
    queue.isApplicationActive = environment_.isApplicationActive;
    queue.postNotification = environment_.postNotification
                                 ? environment_.postNotification
                                 : [this](const std::string& title, const std::string& body) {
                                       notifier_->post(title, body);
                                   };
    queue.recordEngineError = [this](const std::string& text) { recordEngineError(text); };
    if (environment_.transcriptionKeyStore) {
        transcription_ = std::make_unique<TranscriptionSettingsModel>(
            settings_, environment_.transcriptionKeyStore,
            engine::OpenRouterClient(std::make_shared<engine::CurlOpenRouterTransport>(
                engine::OpenRouterConfig::endpoint())),
            engine::temporaryRoot());
        queue.transcriptionPrerequisites = [this] { return transcription_->prerequisites(); };
        queue.transcriptionJobFactory = [this](const QueueItem& item) -> std::shared_ptr<QueueJob> {
            return tools_ ? transcription_->makeJob(item, *tools_) : nullptr;
        };
        connect(transcription_.get(), &TranscriptionSettingsModel::changed, this,
                &TessarinApp::actionCatalogChanged);
        // A row is bound to its file as it is queued: what is transcribed is what was dropped.
        connect(queue_.get(), &QueueModel::itemsChanged, this, [this] {
            if (queue_ && transcription_) {  // not while either is being torn down
                transcription_->bindQueued(queue_->items());
            }
        });
    }

    urlIntake_ = std::make_unique<URLIntake>(*queue_, engine::IntakeTokenStore::process(),
                                             engine::IntakeValidationAdmissionController::process());
    urlIntake_->knownPresets = [this] { return presetStore_->effectivePresets(); };

    connect(presetStore_.get(), &PresetStore::effectivePresetsChanged, this,
            &TessarinApp::actionCatalogChanged);
}

TessarinApp::~TessarinApp() {
    // The server's threads post deliveries through the handoff: stop them first.
    handoffServer_.reset();
    handoff_->detach();
    urlIntake_.reset();
    queue_.reset();
    transcription_.reset();
    recordingSession_.reset();
    recordingRecovery_.reset();
    (void)handoff_->waitUntilIdle(std::chrono::seconds(15));
}

void TessarinApp::launch() {
    const bool published = environment_.publishHandoffSocket ? environment_.publishHandoffSocket()
                           : environment_.handoffFolder      ? startHandoffServer()
                                                             : true;
    if (!published) {
        appLog().error("event=\"could not publish authenticated intake socket\"");
    }
    if (transcription_) {
        // Only whether a key is there; the key itself stays in the keyring until a job needs it.
        transcription_->refreshKeyPresence();
    }
    appLog().notice(engine::KeyValues()
                        .add("event", "launch")
                        .add("role", "gui")
                        .add("version", TESSARIN_VERSION)
                        .add("build", TESSARIN_BUILD)
                        .add("location", installLocation())
                        .add("os", systemVersion())
                        .str());
    // Desktop notifications need no authorisation here: the notification service shows what
    // the session allows.
    outputDestination_->refreshBookmark();
    if (environment_.startQuickActionRegistrar) {
        environment_.startQuickActionRegistrar();
    } else if (environment_.actionsDataHome) {
        fileManagerActions_->run();
    }
    desktopServices_->launch();
    if (!tools_) {
        appLog().error("event=\"engine tools unavailable\"");
        return;
    }
    if (environment_.recordingRoot) {
        recordingRecovery_->scan();
    }
    if (environment_.probeHardware) {
        handoff_->start([this, probe = environment_.probeHardware, tools = *tools_] {
            engine::HardwareEncoderSupport found = probe(tools);
            return MainThreadHandoff::Completion([this, found] {
                hardware_ = found;
                emit actionCatalogChanged();
            });
        });
    }
}

void TessarinApp::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

ActionAvailability TessarinApp::actionAvailability() {
    return queue_->actionAvailability();
}

std::vector<ActionDescriptor> TessarinApp::actionCatalog() {
    const std::vector<engine::Preset> presets = presetStore_->allPresets();
    return catalog(presets, actionAvailability());
}

void TessarinApp::openURLs(const QList<QUrl>& urls) {
    urlIntake_->handle(urls);
}

bool TessarinApp::startHandoffServer() {
    IntakeHandoffServer::Configuration configuration;
    configuration.folder = *environment_.handoffFolder;
    auto server = std::make_unique<IntakeHandoffServer>(
        configuration, engine::IntakeTokenStore::process(),
        engine::IntakeValidationAdmissionController::process().authenticatedHandoffGate);
    server->peerAuthenticator = [helper = installedActionHelper(environment_.helperFolder)](
                                    int socket) { return authenticatePeer(socket, helper); };
    const std::filesystem::path helper =
        environment_.helperFolder / std::string(engine::kActionHelperName);
    staleScans_ = std::make_unique<engine::StaleScanScheduler>(
        [helper] { engine::endStaleActionProcesses(helper); }, std::chrono::seconds(2));
    server->rejectedPeer = [scans = staleScans_.get()] { scans->request(); };
    server->delivery = [handoff = handoff_, this](IntakeHandoffDelivery delivery) {
        auto shared = std::make_shared<IntakeHandoffDelivery>(std::move(delivery));
        handoff->post([this, shared] { urlIntake_->deliver(std::move(*shared)); });
    };
    if (!server->start()) {
        return false;
    }
    handoffServer_ = std::move(server);
    return true;
}

TessarinApp::QuitDecision TessarinApp::quitDecision() const {
    if (queue_->hasUnfinishedWork()) {
        return QuitDecision::askConversionsInProgress;
    }
    if (transcription_ && !transcription_->unsavedTranscripts().entries().empty()) {
        return QuitDecision::askUnsavedTranscripts;
    }
    return QuitDecision::quitNow;
}

void TessarinApp::prepareForQuit() {
    queue_->prepareForQuit();
}

double TessarinApp::uiScale() const {
    const double stored = settings_->doubleValue(kUIScaleKey).value_or(kMinimumUIScale);
    return std::clamp(stored, kMinimumUIScale, kMaximumUIScale);
}

void TessarinApp::setUIScale(double scale) {
    try {
        settings_->setDouble(kUIScaleKey, std::clamp(scale, kMinimumUIScale, kMaximumUIScale));
    } catch (const std::exception& error) {
        appLog().error(engine::KeyValues()
                           .add("event", "ui scale not saved")
                           .add("error", error.what())
                           .str());
    }
}

void TessarinApp::recordEngineError(const std::string& redacted) {
    std::vector<std::string> recent =
        settings_->stringListValue(kRecentEngineErrorsKey).value_or(std::vector<std::string>{});
    recent.push_back(redacted);
    if (recent.size() > kRecentEngineErrorsLimit) {
        recent.erase(
            recent.begin(),
            recent.begin() + static_cast<std::ptrdiff_t>(recent.size() - kRecentEngineErrorsLimit));
    }
    try {
        settings_->setStringList(kRecentEngineErrorsKey, recent);
    } catch (const std::exception& error) {
        appLog().error(engine::KeyValues()
                           .add("event", "recent errors not saved")
                           .add("error", error.what())
                           .str());
    }
}

}  // namespace tessarin::app
