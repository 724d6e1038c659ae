#include "engine/clips/Uuid.hpp"

#include <uuid/uuid.h>

namespace tessarin::engine {

static_assert(sizeof(uuid_t) == sizeof(Uuid::bytes));

Uuid Uuid::random() {
    Uuid uuid;
    uuid_generate_random(uuid.bytes.data());
    return uuid;
}

std::optional<Uuid> Uuid::fromText(std::string_view text) {
    // The range form reads no further than `text` (which need not end in a NUL) and takes
    // nothing but the 8-4-4-4-12 form.
    Uuid uuid;
    if (uuid_parse_range(text.data(), text.data() + text.size(), uuid.bytes.data()) != 0) {
        return std::nullopt;
    }
    return uuid;
}

std::string Uuid::text() const {
    char text[UUID_STR_LEN];
    uuid_unparse_lower(bytes.data(), text);
    return text;
}

}  // namespace tessarin::engine
