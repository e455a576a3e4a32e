#include "service/serve/RecallServices.h"
#include "service/serve/ServeRules.h"
#include "service/stores/Encoding.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Progress.h"
#include "tools/qzhsm/Verbs.h"

#include <cstdio>

namespace {

std::string name(const Json& percent) {
    return percentBytes(percent.get<std::string>()).value_or("?");
}

void show(Report& report, const Json& status) {
    for (const Json& directory : status["serving"])
        report.line("serving " + name(directory));
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
    if (const std::string failure = name(status["lastFailure"]); !failure.empty())
        report.line("last failure: " + failure);
    for (const Json& recall : status["running"])
        report.line("recalling " + name(recall["path"]) + " for " + name(recall["cause"]) + ": " +
                    sizeText(recall["bytes"].get<long long>()) + ", " +
                    sizeText(static_cast<long long>(recall["bytesPerSecond"].get<double>())) + " a second, " +
                    std::to_string(recall["waiting"].get<int>()) + " wait");
}

} // namespace

void addServiceVerbs(CommandLine& line) {
    const auto metrics = std::make_shared<bool>(false);
    CLI::App* verb = line.addVerb("status", "Tell what the recall services of this machine are doing",
                                  [metrics](StubKind&, Report& report) {
                                      const auto answers =
                                          RecallServices::ask(ServeRules::readRuntimeDirectory(),
                                                              *metrics ? "metrics" : "status");
                                      if (answers.empty())
                                          throw Failure(QZHSM_NOT_FOUND, "No recall service is running");
                                      for (const std::string& answer : answers) {
                                          if (*metrics || report.isJson())
                                              report.raw(answer);
                                          else
                                              show(report, Json::parse(answer));
                                      }
                                  });
    line.addJson(verb);
    verb->add_flag("--metrics", *metrics, "Print the counts in Prometheus' text form");
}
