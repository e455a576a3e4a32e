#include "service/stores/ObjectId.h"

#include <uuid/uuid.h>

ObjectId ObjectId::generate() {
    uuid_t uuid;
    ::uuid_generate_random(uuid);
    ObjectId id;
    ::uuid_unparse_lower(uuid, id.m_text);
    return id;
}

std::optional<ObjectId> ObjectId::parse(std::string_view text) {
    uuid_t uuid;
    if (text.size() != kLength || ::uuid_parse_range(text.data(), text.data() + text.size(), uuid) != 0)
        return std::nullopt;
    ObjectId id;
    ::uuid_unparse_lower(uuid, id.m_text);
    return id;
}

std::string ObjectId::digits() const {
    std::string digits(text());
    std::erase(digits, '-');
    return digits;
}
