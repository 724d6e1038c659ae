#include "app/intake/URLIntake.hpp"

#include <fmt/format.h>

#include <QTimer>
#include <filesystem>
#include <mutex>
#include <thread>

#include "app/queue/QueueModel.hpp"
#include "app/support/MainThreadHandoff.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::app {

namespace {

const engine::Logger& intakeLog() {
    static const engine::Logger log("com.tessarin.app", "url-intake");
    return log;
}

const engine::Logger& handoffLog() {
    static const engine::Logger log("com.tessarin.app", "handoff");
    return log;
}

// Makes sure that either a validation's result or its time-out goes through, never both.
struct URLIntakeValidationDelivery {
    std::mutex lock;
    bool delivered = false;  // guarded by lock

    bool claim() {
        std::lock_guard guard(lock);
        if (delivered) {
            return false;
        }
        delivered = true;
        return true;
    }
};

std::string actionToken(const engine::IntakeAction& action) {
    return action.kind == engine::IntakeActionKind::transcribe ? "action.transcribe"
                                                               : action.presetID;
}

}  // namespace

URLIntakeConfirmation untrustedConfirmation(const std::vector<std::string>& files,
                                            const std::string& displayName) {
    URLIntakeConfirmation confirmation;
    confirmation.heading =
        files.size() == 1
            ? fmt::format("Add “{}” to Tessarin?",
                          std::filesystem::path(files.front()).filename().string())
            : fmt::format("Add {} files to Tessarin?", files.size());
    confirmation.text = fmt::format("Preset: {}\n", displayName);
    for (std::size_t i = 0; i < files.size() && i < 10; ++i) {
        confirmation.text += "\n" + std::filesystem::path(files[i]).filename().string();
    }
    if (files.size() > 10) {
        confirmation.text += fmt::format("\n… and {} more", files.size() - 10);
    }
    return confirmation;
}

URLIntake::URLIntake(QueueModel& queue, engine::IntakeTokenStore& tokens,
                     engine::IntakeValidationAdmissionController& gates, QObject* parent)
    : QObject(parent),
      parse(&engine::parseIntakeURL),
      now(&engine::IntakeTokenStore::systemNow),
      queue_(queue),
      tokens_(tokens),
      gates_(gates),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", intakeLog())) {}

URLIntake::~URLIntake() {
    handoff_->detach();
}

void URLIntake::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

void URLIntake::handle(const QList<QUrl>& urls) {
    QList<QUrl> files;
    for (const QUrl& url : urls) {
        if (url.scheme() == QStringLiteral("tessarin")) {
            std::optional<engine::IntakeWorkCapacityLease> lease =
                gates_.publicURLGate->tryAcquire();
            if (!lease) {
                intakeLog().notice(
                    "event=\"rejected tessarin:// intake — public-filesystem-validation-capacity\"");
                continue;
            }
            validate(url.toString(QUrl::FullyEncoded).toStdString(), std::move(*lease));
            if (bringToFront) {
                bringToFront();
            }
        } else if (url.isLocalFile()) {
            files.push_back(url);
        } else {
            intakeLog().notice("event=\"rejected external URL with an unsupported scheme\"");
        }
    }
    if (files.isEmpty()) {
        return;
    }
    intakeLog().notice(fmt::format("event=\"received {} plain file URL(s)\"", files.size()));
    IntakeOptions options;
    options.isExternal = true;
    (void)queue_.intake(files, options);
}

void URLIntake::validate(std::string url, engine::IntakeWorkCapacityLease lease) {
    std::set<std::string> known;
    if (knownPresets) {
        for (const engine::Preset& preset : knownPresets()) {
            known.insert(preset.id);
        }
    }
    auto delivery = std::make_shared<URLIntakeValidationDelivery>();
    const engine::ConsumeToken consume = [&tokens = tokens_](std::string_view nonce) {
        return tokens.consume(nonce);
    };
    try {
        std::thread([url = std::move(url), known = std::move(known), consume, parse = parse,
                     when = now ? now() : engine::IntakeTokenStore::systemNow(), delivery,
                     handoff = handoff_, self = this,
                     lease = std::make_shared<engine::IntakeWorkCapacityLease>(
                         std::move(lease))]() mutable {
            engine::URLIntakeParseResult result =
                engine::URLIntakeRejectReason{
                    engine::URLIntakeRejectReason::Kind::malformedURL, std::nullopt, 0};
            try {
                result = parse(url, known, consume, when);
            } catch (const std::exception& error) {
                intakeLog().error(
                    engine::KeyValues().add("event", "link validation failed").add("error", error.what()).str());
            }
            if (delivery->claim()) {
                // Runs only through this object's slot, which detach() cuts off first.
                handoff->post([self, result = std::move(result)] { self->handleResult(result); });
            }
            lease->release();
        }).detach();
    } catch (const std::system_error&) {
        intakeLog().error("event=\"link validation not started\"");
        return;
    }
    QTimer::singleShot(validationTimeout, this, [this, delivery] {
        if (delivery->claim()) {
            intakeLog().notice(
                "event=\"rejected tessarin:// intake — filesystem-validation-timeout\"");
            emit validationSettled();
        }
    });
}

void URLIntake::handleResult(const engine::URLIntakeParseResult& result) {
    if (const auto* reason = std::get_if<engine::URLIntakeRejectReason>(&result)) {
        intakeLog().notice(fmt::format("event=\"rejected tessarin:// intake — reason={}\"",
                                       reason->text()));
        emit validationSettled();
        return;
    }
    const auto& request = std::get<engine::URLIntakeRequest>(result);
    const engine::IntakeAuthorization authorization = engine::authorize(
        request, [this](std::string_view nonce) { return tokens_.consume(nonce); },
        now ? now() : engine::IntakeTokenStore::systemNow());
    const std::string action = actionToken(request.action);
    intakeLog().notice(fmt::format(
        "event=\"tessarin:// intake action={} files={} candidates={} trusted={} provenance={}\"",
        engine::sanitizedLogValue(action), request.files.size(), request.candidatePaths.size(),
        authorization.trusted, authorization.provenance));
    if (authorization.trusted) {
        enqueue(request);
    } else if (request.action.kind == engine::IntakeActionKind::transcribe) {
        intakeLog().notice(fmt::format(
            "event=\"refused untrusted tessarin:// intake action={} files={} — non-convert "
            "actions are never confirmable\"",
            action, request.files.size()));
        queue_.notice(kUntrustedTranscriptionNotice);
    } else {
        std::string displayName = request.action.presetID;
        if (knownPresets) {
            for (const engine::Preset& preset : knownPresets()) {
                if (preset.id == request.action.presetID) {
                    displayName = preset.displayName;
                }
            }
        }
        if (bringToFront) {
            bringToFront();
        }
        if (confirmUntrusted &&
            confirmUntrusted(untrustedConfirmation(request.files, displayName))) {
            enqueue(request);
        }
    }
    emit validationSettled();
}

void URLIntake::enqueue(const engine::URLIntakeRequest& request) {
    QList<QUrl> urls;
    for (const std::string& file : request.files) {
        urls.push_back(QUrl::fromLocalFile(QString::fromStdString(file)));
    }
    IntakeOptions options;
    options.action = request.action.kind == engine::IntakeActionKind::transcribe
                         ? ActionID::transcribe()
                         : ActionID::preset(request.action.presetID);
    options.isExternal = true;
    options.startRequested = true;
    if (queue_.intake(urls, options)) {
        return;
    }
    const std::string action = engine::sanitizedLogValue(actionToken(request.action));
    if (!queue_.hasTools()) {
        intakeLog().notice(fmt::format(
            "event=\"trusted tessarin:// intake action={} dropped — engine tools unavailable "
            "(helper folder incomplete?)\"",
            action));
    } else {
        intakeLog().notice(fmt::format(
            "event=\"trusted tessarin:// intake action={} enqueued nothing — deduped against "
            "in-flight queue\"",
            action));
    }
}

void URLIntake::deliver(IntakeHandoffDelivery delivery) {
    handoffLog().notice("event=\"authenticated IPC delivery reached app\"");
    if (!engine::isPlausibleNonce(delivery.nonce)) {
        handoffLog().error("event=\"rejected authenticated IPC delivery with invalid URL components\"");
        return;
    }
    if (!delivery.validationLease) {
        handoffLog().error(
            "event=\"rejected authenticated IPC delivery without reserved validation capacity\"");
        return;
    }
    validate(engine::deliveryURL(delivery.actionKind, delivery.presetID, delivery.nonce),
             std::move(*delivery.validationLease));
    if (bringToFront) {
        bringToFront();
    }
}

}  // namespace tessarin::app
