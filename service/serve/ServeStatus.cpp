#include "service/serve/ServeStatus.h"

#include "service/stores/Encoding.h"

#include <nlohmann/json.hpp>

std::string ServeStatus::toJson(const std::vector<std::string>& directories) const {
    nlohmann::ordered_json json;
    for (const std::string& directory : directories)
        json["serving"].push_back(percentText(directory));
    json["waiting"] = waiting;
    json["queued"] = queued;
    json["accesses"] = accesses;
    json["recalled"] = recalled;
    json["failed"] = failed;
    json["refused"] = refused;
    json["bytes"] = bytes;
    json["lastFailure"] = percentText(lastFailure);
    json["stubs"] = stubs;
    json["running"] = nlohmann::ordered_json::array();
    constexpr size_t kRoom = 100'000; // half of what the kernel lets a message have
    size_t length = json.dump().size();
    for (const Running& recall : running) {
        const double rate = recall.seconds > 0 ? static_cast<double>(recall.bytes) / recall.seconds : 0;
        nlohmann::ordered_json entry = {
            {"path", percentText(recall.path)}, {"cause", percentText(recall.cause)},
            {"waiting", recall.waiting},        {"bytes", recall.bytes},
            {"seconds", recall.seconds},        {"bytesPerSecond", rate}};
        length += entry.dump().size() + 1;
        if (length > kRoom)
            break;
        json["running"].push_back(std::move(entry));
    }
    return json.dump() + '\n';
}

std::string ServeStatus::toMetrics() const {
    std::string text;
    const auto add = [&](const char* name, const char* type, const char* help, std::uint64_t value) {
        const std::string whole = std::string("qzhsmd_") + name;
        text.append("# HELP " + whole + ' ' + help + "\n# TYPE " + whole + ' ' + type + '\n');
        text.append(whole + ' ' + std::to_string(value) + '\n');
    };
    add("accesses_total", "counter", "Accesses that were looked at.", accesses);
    add("recalled_total", "counter", "Stubs that were recalled.", recalled);
    add("failed_total", "counter", "Recalls that failed.", failed);
    add("refused_total", "counter", "Accesses by programs that must not cause recalls.", refused);
    add("recalled_bytes_total", "counter", "Bytes that recalls wrote.", bytes);
    add("waiting", "gauge", "Accesses that wait.", waiting);
    add("queued", "gauge", "Stubs that nobody works on.", queued);
    add("running", "gauge", "Stubs that are waited for or recalled.", stubs);
    return text;
}
