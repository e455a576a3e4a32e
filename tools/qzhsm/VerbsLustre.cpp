#include "service/FileIo.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Verbs.h"

void addLustreVerbs(CommandLine& line) {
    line.addPathsVerb("release", "Have Lustre give the data of archived files up (Lustre only)",
                      [](StubKind& kind, Report&, const std::string& path) {
                          statFollowing(path);
                          kind.release(path);
                      });
    line.addJson(line.addPathsVerb("hsm-state", "Show Lustre's state of files (Lustre only)",
                                   [](StubKind& kind, Report& report, const std::string& path) {
                                       statFollowing(path);
                                       const std::string state = kind.hsmState(path);
                                       if (report.isJson())
                                           report.json({{"path", path}, {"state", state}});
                                       else
                                           report.line(path + ": " + state);
                                   }));
}
