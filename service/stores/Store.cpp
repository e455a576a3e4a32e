#include "service/stores/Store.h"

#include "service/Failure.h"

#include <utility>

ObjectReader::~ObjectReader() = default;

Store::Store(std::string name, std::string uuid) : m_name(std::move(name)), m_uuid(std::move(uuid)) {}

Store::~Store() = default;

std::string Store::about(std::string_view phrase, const ObjectId& object) const {
    return std::string(phrase).append(object.text()).append(" in store ").append(m_name);
}

ObjectRecord Store::readRecord(const ObjectId& object, std::string_view text) const {
    try {
        ObjectRecord record = ObjectRecord::fromText(text);
        if (record.object != object)
            throw Failure(QZHSM_FAILURE, "The record is another object's");
        return record;
    } catch (const Failure& failure) {
        throw Failure(failure.code(), about("Object ", object) + ": " + failure.what());
    }
}
