// tpa: shows how the analyzer reads a rules document and why it decides what
// it decides, before the rules reach phones. See `tpa --help`.
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "tools/cli.h"
#include "tools/commands.h"

namespace {

int dispatch(const tpa::tools::Invocation& invocation) {
  using tpa::tools::Command;
  switch (invocation.command) {
    case Command::kQuery:
      return tpa::tools::runQuery(invocation);
    case Command::kShow:
      return tpa::tools::runShow(invocation);
    case Command::kCheck:
      return tpa::tools::runCheck(invocation);
    case Command::kExplain:
      return tpa::tools::runExplain(invocation);
    case Command::kDiff:
      return tpa::tools::runDiff(invocation);
    case Command::kImport:
      return tpa::tools::runImport(invocation);
    case Command::kHelp:
      break;
  }
  std::fputs(tpa::tools::helpText(invocation.helpTopic).c_str(), stdout);
  return tpa::tools::kExitOk;
}

int run(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  const tpa::tools::ParseOutcome parsed = tpa::tools::parseArguments(args);
  if (!parsed.ok) {
    std::fprintf(stderr, "tpa: %s\nRun 'tpa --help' for usage.\n", parsed.error.c_str());
    return tpa::tools::kExitUsage;
  }
  return dispatch(parsed.invocation);
}

}  // namespace

int main(int argc, char** argv) {
  // A build that runs out of memory fails with its code (exit 2); anything
  // else the tool itself cannot allocate ends here.
  try {
    return run(argc, argv);
  } catch (const std::bad_alloc&) {
    std::fputs("tpa: out of memory\n", stderr);
    return tpa::tools::kExitNoMemory;
  }
}
