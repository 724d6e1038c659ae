#include "cli/EventSink.hpp"

#include <cmath>
#include <iostream>
#include <nlohmann/json.hpp>

namespace tessarin::cli {

EventSink::EventSink(bool json) : json_(json) {}

void EventSink::emit(const nlohmann::json& event) {
    // Whole lines, flushed, so a reading program sees each event as it happens. A file name may
    // hold bytes that are not UTF-8; they are written as U+FFFD rather than failing the event.
    std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

void EventSink::start(const std::filesystem::path& file, const std::string& action) {
    file_ = file;
    lastPercent_ = -1;
    if (json_) {
        emit(nlohmann::json{{"event", "start"}, {"file", file.string()}, {"action", action}});
    } else {
        bar_ = std::make_unique<ProgressLine>(file.filename().string());
        bar_->update(std::nullopt);
    }
}

void EventSink::progress(std::optional<double> fraction) {
    if (!fraction) {
        return;  // nothing known: leave the display alone
    }
    if (json_) {
        // One event per whole percent is plenty for a reader and keeps the stream small.
        const int percent = static_cast<int>(std::floor(std::clamp(*fraction, 0.0, 1.0) * 100));
        if (percent != lastPercent_) {
            lastPercent_ = percent;
            emit(nlohmann::json{{"event", "progress"},
                                {"file", file_.string()},
                                {"fraction", std::round(*fraction * 1000) / 1000}});
        }
    } else if (bar_) {
        bar_->update(fraction);
    }
}

void EventSink::warning(const std::string& text) {
    if (json_) {
        emit(nlohmann::json{{"event", "warning"}, {"file", file_.string()}, {"text", text}});
        return;
    }
    if (bar_) {
        bar_->finish();
    }
    std::cerr << "tessarin: " << file_.string() << ": warning: " << text << "\n";
}

void EventSink::warning(const std::string& code, const std::string& sentence) {
    if (!json_) {
        warning(sentence);
        return;
    }
    emit(nlohmann::json{
        {"event", "warning"}, {"file", file_.string()}, {"text", code}, {"message", sentence}});
}

void EventSink::done(const std::filesystem::path& published,
                     const std::optional<nlohmann::json>& index) {
    if (json_) {
        nlohmann::json event{
            {"event", "done"}, {"file", file_.string()}, {"path", published.string()}};
        if (index) {
            event["index"] = *index;
        }
        emit(event);
        return;
    }
    if (bar_) {
        bar_->finish();
    }
    std::cout << published.string() << std::endl;
}

void EventSink::failed(const std::string& step, const std::string& text,
                       std::optional<int32_t> exitCode) {
    if (json_) {
        nlohmann::json event{
            {"event", "failed"}, {"file", file_.string()}, {"step", step}, {"text", text}};
        if (exitCode) {
            event["exitCode"] = *exitCode;
        }
        emit(event);
        return;
    }
    if (bar_) {
        bar_->finish();
    }
    std::cerr << "tessarin: " << file_.string() << ": failed at " << step;
    if (exitCode) {
        std::cerr << " (exit " << *exitCode << ")";
    }
    std::cerr << ": " << text << "\n";
}

void EventSink::cancelled() {
    if (json_) {
        emit(nlohmann::json{{"event", "cancelled"}, {"file", file_.string()}});
        return;
    }
    if (bar_) {
        bar_->finish();
    }
    std::cerr << "tessarin: " << file_.string() << ": cancelled; nothing was saved.\n";
}

void EventSink::suggestions(const std::vector<engine::ClipSelection>& clips,
                            const std::optional<std::filesystem::path>& clipList) {
    if (json_) {
        nlohmann::json list = nlohmann::json::array();
        for (const engine::ClipSelection& clip : clips) {
            list.push_back({{"start", clip.trim().start.value_or("")},
                            {"end", clip.trim().end.value_or("")},
                            {"name", clip.name()}});
        }
        nlohmann::json event{{"event", "done"}, {"file", file_.string()}, {"clips", list}};
        if (clipList) {
            event["path"] = clipList->string();
        }
        emit(event);
        return;
    }
    if (bar_) {
        bar_->finish();
    }
    for (const engine::ClipSelection& clip : clips) {
        std::cout << clip.trim().start.value_or("") << ' ' << clip.trim().end.value_or("") << '\n';
    }
    std::cout.flush();
    if (clips.empty()) {
        std::cerr << "tessarin: " << file_.string()
                  << ": no sound above the threshold; no clips.\n";
    }
    if (clipList) {
        std::cerr << "tessarin: clip list saved to " << clipList->string() << "\n";
    }
}

void EventSink::plan(const std::filesystem::path& file, const std::string& part,
                     const engine::FastCut::Plan& plan) {
    const std::string text = engine::FastCut::summary(plan);
    if (json_) {
        nlohmann::json event{{"event", "plan"},
                             {"file", file.string()},
                             {"text", text},
                             {"start", plan.start},
                             {"end", plan.end},
                             {"requestedStart", plan.requestedStart},
                             {"requestedEnd", plan.requestedEnd}};
        if (!part.empty()) {
            event["part"] = part;
        }
        emit(event);
        return;
    }
    // One paragraph per cut, so that several read apart.
    std::cerr << file.string();
    if (!part.empty()) {
        std::cerr << " (" << part << ")";
    }
    std::cerr << ": " << text << "\n\n";
}

void EventSink::refused(const std::filesystem::path& file, const std::string& step,
                        const std::string& text) {
    file_ = file;
    bar_.reset();
    failed(step, text, std::nullopt);
}

void EventSink::interrupted(const std::filesystem::path& file) {
    file_ = file;
    bar_.reset();
    cancelled();
}

}  // namespace tessarin::cli
