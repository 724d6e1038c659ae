#include "engine/transcription/OpenRouterKeyStore.hpp"

namespace tessarin::engine {

std::string_view rawValue(TranscriptionKeyPresence presence) {
    switch (presence) {
        case TranscriptionKeyPresence::unknown: return "unknown";
        case TranscriptionKeyPresence::present: return "present";
        case TranscriptionKeyPresence::absent: return "absent";
        case TranscriptionKeyPresence::unreadable: return "unreadable";
    }
    return "unknown";
}

OpenRouterKeyRead InMemoryOpenRouterKeyStore::read() {
    const std::lock_guard guard(lock_);
    if (!readable_) {
        return {TranscriptionKeyPresence::unreadable, {}};
    }
    if (!value_ || value_->empty()) {
        return {TranscriptionKeyPresence::absent, {}};
    }
    return {TranscriptionKeyPresence::present, *value_};
}

void InMemoryOpenRouterKeyStore::save(const std::string& key) {
    const std::lock_guard guard(lock_);
    if (!readable_) {
        throw OpenRouterKeySaveError();
    }
    value_ = key;
}

void InMemoryOpenRouterKeyStore::remove() {
    const std::lock_guard guard(lock_);
    if (!readable_) {
        throw OpenRouterKeySaveError();
    }
    value_.reset();
}

void InMemoryOpenRouterKeyStore::setReadable(bool readable) {
    const std::lock_guard guard(lock_);
    readable_ = readable;
}

TranscriptionKeyPresence saveKeyField(OpenRouterKeyStoring& store, std::string_view field) {
    constexpr std::string_view kBlank = " \t\r\n\f\v";
    const std::size_t first = field.find_first_not_of(kBlank);
    if (first == std::string_view::npos) {
        if (store.read().presence == TranscriptionKeyPresence::unreadable) {
            return TranscriptionKeyPresence::unreadable;
        }
        store.remove();
        return TranscriptionKeyPresence::absent;
    }
    const std::size_t last = field.find_last_not_of(kBlank);
    store.save(std::string(field.substr(first, last - first + 1)));
    return TranscriptionKeyPresence::present;
}

}  // namespace tessarin::engine
