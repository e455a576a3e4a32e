#include "service/serve/RecallServiceClient.h"
#include "service/serve/ServeRules.h"
#include "service/stores/Encoding.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Progress.h"
#include "tools/qzhsm/Verbs.h"

#include <cstdio>

namespace {

/// The answer of a service, in which texts are ASCII, as it was meant.
Json decoded(Json json) {
    for (Json& value : json)
        if (value.is_structured())
            value = decoded(std::move(value));
        else if (value.is_string())
            value = percentBytes(value.get<std::string>()).value_or("?");
    return json;
}

void show(Report& report, const Json& status) {
    for (const Json& directory : status["serving"])
        report.line("serving " + directory.get<std::string>());
    const auto count = [&](const char* what, const char* key) {
        char text[64];
        std::snprintf(text, sizeof text, "%-24s  %14llu", what, status[key].get<unsigned long long>());
        report.line(text);
    };
    count("accesses looked at", "accesses");
    count("accesses that wait", "waiting");
    count("accesses refused", "refused");
    count("stubs in the queue", "queued");
    count("stubs recalled", "recalled");
    count("recalls that failed", "failed");
    count("bytes recalled", "bytes");
    if (const auto failure = status["lastFailure"].get<std::string>(); !failure.empty())
        report.line("last failure: " + failure);
    for (const Json& recall : status["running"])
        report.line("recalling " + recall["path"].get<std::string>() + " for " +
                    recall["cause"].get<std::string>() + ": " + sizeText(recall["bytes"].get<long long>()) +
                    ", " + sizeText(static_cast<long long>(recall["bytesPerSecond"].get<double>())) +
                    " a second, " + std::to_string(recall["waiting"].get<int>()) + " wait");
}

} // namespace

void addServiceVerbs(CommandLine& line) {
    const auto metrics = std::make_shared<bool>(false);
    CLI::App* verb = line.addVerb("status", "Tell what the recall services of this machine are doing",
                                  [metrics](StubKind&, Report& report) {
                                      const auto answers =
                                          RecallServiceClient::ask(ServeRules::readRuntimeDirectory(),
                                                                   *metrics ? "metrics" : "status");
                                      if (answers.empty())
                                          throw Failure(QZHSM_NOT_FOUND, "No recall service is running");
                                      for (const std::string& answer : answers) {
                                          if (*metrics)
                                              report.raw(answer);
                                          else if (report.isJson())
                                              report.json(decoded(Json::parse(answer)));
                                          else
                                              show(report, decoded(Json::parse(answer)));
                                      }
                                  });
    line.addJson(verb);
    verb->add_flag("--metrics", *metrics, "Print the counts in Prometheus' text form")->excludes("--json");
}
