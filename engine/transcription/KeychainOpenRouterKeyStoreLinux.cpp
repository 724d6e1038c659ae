#include <libsecret/secret.h>

#include <fmt/format.h>

#include <memory>

#include "engine/log/Log.hpp"
#include "engine/transcription/KeychainOpenRouterKeyStore.hpp"

namespace tessarin::engine {

namespace {

const Logger& keyLog() {
    static const Logger log("com.tessarin.transcription", "key");
    return log;
}

const SecretSchema* schema() {
    static const SecretSchema value = {
        KeychainOpenRouterKeyStore::kSchema,
        SECRET_SCHEMA_NONE,
        {{KeychainOpenRouterKeyStore::kAccountAttribute, SECRET_SCHEMA_ATTRIBUTE_STRING},
         {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
        0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    return &value;
}

struct ErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPointer = std::unique_ptr<GError, ErrorFree>;

struct TableFree {
    void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};

std::unique_ptr<GHashTable, TableFree> attributes() {
    GHashTable* table = g_hash_table_new(g_str_hash, g_str_equal);
    g_hash_table_insert(table, const_cast<char*>(KeychainOpenRouterKeyStore::kAccountAttribute),
                        const_cast<char*>(KeychainOpenRouterKeyStore::kAccount));
    return std::unique_ptr<GHashTable, TableFree>(table);
}

// Only the error's domain and code reach the log: its message may quote what was sent.
void logFailure(std::string_view what, const GError* error) {
    keyLog().error(fmt::format("keyring {} failed: domain={} code={}", what,
                               error != nullptr ? g_quark_to_string(error->domain) : "none",
                               error != nullptr ? error->code : 0));
}

}  // namespace

OpenRouterKeyRead KeychainOpenRouterKeyStore::read() {
    GError* raw = nullptr;
    // The shared service is never asked to unlock anything, so no prompt can appear.
    SecretService* service = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &raw);
    ErrorPointer error(raw);
    if (service == nullptr) {
        logFailure("read", error.get());
        return {TranscriptionKeyPresence::unreadable, {}};
    }
    const auto query = attributes();
    raw = nullptr;
    GList* items = secret_service_search_sync(service, schema(), query.get(),
                                              SECRET_SEARCH_LOAD_SECRETS, nullptr, &raw);
    error.reset(raw);
    g_object_unref(service);
    if (error) {
        logFailure("read", error.get());
        return {TranscriptionKeyPresence::unreadable, {}};
    }
    if (items == nullptr) {
        return {TranscriptionKeyPresence::absent, {}};
    }
    OpenRouterKeyRead result{TranscriptionKeyPresence::unreadable, {}};
    auto* item = static_cast<SecretItem*>(items->data);
    if (secret_item_get_locked(item)) {
        keyLog().notice("keyring read refused: item locked");
    } else if (SecretValue* value = secret_item_get_secret(item); value != nullptr) {
        // Not UTF-8 gives NULL: unreadable rather than a key that would be sent garbled.
        if (const gchar* text = secret_value_get_text(value); text != nullptr) {
            result = *text == '\0' ? OpenRouterKeyRead{TranscriptionKeyPresence::absent, {}}
                                   : OpenRouterKeyRead{TranscriptionKeyPresence::present, text};
        }
        secret_value_unref(value);
    }
    g_list_free_full(items, g_object_unref);
    return result;
}

void KeychainOpenRouterKeyStore::save(const std::string& key) {
    GError* raw = nullptr;
    const auto table = attributes();
    const gboolean stored = secret_password_storev_sync(schema(), table.get(),
                                                        SECRET_COLLECTION_DEFAULT, kLabel,
                                                        key.c_str(), nullptr, &raw);
    ErrorPointer error(raw);
    if (!stored || error) {
        logFailure("save", error.get());
        throw OpenRouterKeySaveError();
    }
    keyLog().notice("keyring key saved");
}

void KeychainOpenRouterKeyStore::remove() {
    GError* raw = nullptr;
    const auto table = attributes();
    secret_password_clearv_sync(schema(), table.get(), nullptr, &raw);
    ErrorPointer error(raw);
    if (error) {
        logFailure("delete", error.get());
        throw OpenRouterKeySaveError();
    }
    keyLog().notice("keyring key removed");
}

}  // namespace tessarin::engine
