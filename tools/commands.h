// The commands of the `tpa` tool. Each reads its RULES, builds them as
// the Android bridge does, writes its report on standard output and returns
// the process exit code (tools/cli.h). One command per process.
#ifndef TPA_TOOLS_COMMANDS_H_
#define TPA_TOOLS_COMMANDS_H_

#include "tools/cli.h"

namespace tpa::tools {

[[nodiscard]] int runQuery(const Invocation& invocation);
[[nodiscard]] int runShow(const Invocation& invocation);
[[nodiscard]] int runCheck(const Invocation& invocation);
[[nodiscard]] int runExplain(const Invocation& invocation);
[[nodiscard]] int runDiff(const Invocation& invocation);
// Reads lists, not RULES: writes a rules document made from them.
[[nodiscard]] int runImport(const Invocation& invocation);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_COMMANDS_H_
