// Where the OpenRouter API key is kept: the system keyring (KeychainOpenRouterKeyStore, through
// the Secret Service), or memory for tests. The key never goes into logs, settings, argument
// vectors or error texts; only its presence is reported.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tessarin::engine {

enum class TranscriptionKeyPresence { unknown, present, absent, unreadable };
[[nodiscard]] std::string_view rawValue(TranscriptionKeyPresence presence);

// What a read found: the key when `presence` is present.
struct OpenRouterKeyRead {
    TranscriptionKeyPresence presence = TranscriptionKeyPresence::absent;
    std::string key;
};

// Thrown by save and remove when the keyring refuses the change; what() is the user's sentence.
class OpenRouterKeySaveError : public std::exception {
public:
    static constexpr const char* kText = "The key couldn’t be saved to the system keyring.";
    [[nodiscard]] const char* what() const noexcept override { return kText; }
};

// Every member may be called from any thread; each blocks while the store answers.
class OpenRouterKeyStoring {
public:
    virtual ~OpenRouterKeyStoring() = default;
    // present with the key, absent when none is stored, unreadable when the store can't be asked
    // (no Secret Service, a locked collection) or holds something that isn't a key.
    [[nodiscard]] virtual OpenRouterKeyRead read() = 0;
    // Throws OpenRouterKeySaveError.
    virtual void save(const std::string& key) = 0;
    // Removing a key that isn't there succeeds. Throws OpenRouterKeySaveError.
    virtual void remove() = 0;
};

class InMemoryOpenRouterKeyStore final : public OpenRouterKeyStoring {
public:
    // `readable` false stands for a locked keyring: reads are unreadable, writes refused.
    explicit InMemoryOpenRouterKeyStore(std::optional<std::string> value = std::nullopt,
                                        bool readable = true)
        : value_(std::move(value)), readable_(readable) {}

    OpenRouterKeyRead read() override;
    void save(const std::string& key) override;
    void remove() override;
    void setReadable(bool readable);

private:
    std::mutex lock_;
    std::optional<std::string> value_;  // guarded by lock_
    bool readable_;                     // guarded by lock_
};

// The rule of the settings' key field when the user saves it: text (trimmed of white space) is
// stored as the key; an empty field removes the stored key, except that a key that can't be read
// right now is never touched by it (it may be perfectly good once the keyring is unlocked).
// Returns the presence after the change. Throws OpenRouterKeySaveError.
TranscriptionKeyPresence saveKeyField(OpenRouterKeyStoring& store, std::string_view field);

}  // namespace tessarin::engine
