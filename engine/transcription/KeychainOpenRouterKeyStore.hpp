// The API key in the system keyring, through libsecret's Secret Service client: one password of
// the schema "com.tessarin.openrouter" with the attribute `account` = "apiKey", in the default
// collection. No Secret Service on the session bus, or a locked item, reads as unreadable; nothing
// here ever prompts.
#pragma once

#include "engine/transcription/OpenRouterKeyStore.hpp"

namespace tessarin::engine {

class KeychainOpenRouterKeyStore final : public OpenRouterKeyStoring {
public:
    static constexpr const char* kSchema = "com.tessarin.openrouter";
    static constexpr const char* kAccountAttribute = "account";
    static constexpr const char* kAccount = "apiKey";
    static constexpr const char* kLabel = "Tessarin OpenRouter API key";

    OpenRouterKeyRead read() override;
    void save(const std::string& key) override;
    void remove() override;
};

}  // namespace tessarin::engine
