#include "service/stores/StubMetadata.h"

#include "service/stores/Encoding.h"

#include <map>

StubMetadata::StubMetadata(const Store& in, const ObjectRecord& record)
    : store(in.name()), storeUuid(in.uuid()), object(record.object), xxh128(record.checksums.whole) {}

std::string StubMetadata::toText() const {
    std::string text = "versionGuid=" + object.digits() + ";store=" + percentText(store);
    if (!storeUuid.empty())
        text.append(";storeUuid=").append(storeUuid);
    return text.append(";object=").append(object.text()).append(";xxh128=").append(xxh128);
}

std::optional<StubMetadata> StubMetadata::fromText(std::string_view text) {
    std::map<std::string_view, std::string_view> fields;
    while (!text.empty()) {
        const std::string_view field = text.substr(0, text.find(';'));
        const size_t equals = field.find('=');
        if (equals == std::string_view::npos ||
            !fields.emplace(field.substr(0, equals), field.substr(equals + 1)).second)
            return std::nullopt;
        text.remove_prefix(std::min(field.size() + 1, text.size()));
    }
    const auto storeName = percentBytes(fields["store"]);
    const auto objectId = ObjectId::parse(fields["object"]);
    const auto whole = hexBytes(fields["xxh128"]);
    const bool hasUuid = fields.contains("storeUuid");
    const auto uuid = hasUuid ? ObjectId::parse(fields["storeUuid"]) : std::nullopt;
    if (!storeName || storeName->empty() || !objectId || objectId->digits() != fields["versionGuid"] ||
        !whole || whole->size() != 16 || hasUuid != uuid.has_value())
        return std::nullopt;
    StubMetadata metadata;
    metadata.store = *storeName;
    metadata.storeUuid = uuid ? std::string(uuid->text()) : "";
    metadata.object = *objectId;
    metadata.xxh128 = fields["xxh128"];
    return metadata;
}
