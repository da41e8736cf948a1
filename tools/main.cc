// tpa: shows how the analyzer reads a rules document and why it decides what
// it decides, before the rules reach phones. See `tpa --help`.
#include <unistd.h>

#include <cstdio>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "tools/cli.h"
#include "tools/line_io.h"
#include "tools/output_format.h"

namespace {

// Help and version texts end like every report: a full output is an error.
int writeText(const std::string& text) {
  tpa::tools::OutputSink out(STDOUT_FILENO, false);
  out.line(std::string_view(text).substr(0, text.size() - 1));  // line() adds the '\n'
  return tpa::tools::finishOutput(out, tpa::tools::kExitOk);
}

int run(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  const tpa::tools::ParseOutcome parsed = tpa::tools::parseArguments(args);
  if (!parsed.ok) {
    std::fprintf(stderr, "tpa: %s\n", parsed.error.c_str());
    return tpa::tools::kExitUsage;
  }
  const tpa::tools::Invocation& invocation = parsed.invocation;
  if (invocation.command != nullptr) return invocation.command->run(invocation);
  return writeText(invocation.version ? tpa::tools::versionText() + "\n"
                                      : tpa::tools::helpText(invocation.helpTopic));
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
