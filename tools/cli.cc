#include "tools/cli.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tpa::tools {
namespace {

constexpr char kToolHelp[] =
    "usage: tpa COMMAND RULES [ARGS]...\n"
    "\n"
    "Reads a rules document exactly as the analyzer on the phone does and shows\n"
    "how it is read and what it decides. RULES is a file, or '-' for standard input.\n"
    "\n"
    "commands:\n"
    "  query RULES [APP DEST]...    decide each pair (or APP<TAB>DEST lines from stdin)\n"
    "  show RULES                   print the rules as read, one JSON object per line\n"
    "  check RULES                  build, measure and lint the document\n"
    "  explain RULES APP DEST...    show how each decision is reached\n"
    "\n"
    "Run 'tpa COMMAND --help' for the details of a command.\n"
    "\n"
    "exit codes:\n"
    "  0   success\n"
    "  2   the build failed          (stderr: tpa: build failed: CODE NAME)\n"
    "  3   the build threw           (stderr: tpa: build threw: WHAT ...)\n"
    "  64  usage error\n"
    "  65  a query line on stdin has no TAB between APP and DEST\n"
    "  66  RULES cannot be read\n"
    "  70  out of memory outside the build (stderr: tpa: out of memory); a build\n"
    "      that runs out fails with 2 and TPA_ERROR_OOM\n"
    "  74  standard output cannot be written\n";

constexpr char kQueryHelp[] =
    "usage: tpa query RULES [APP DEST]...\n"
    "\n"
    "Builds RULES as JSON text (as the Android bridge does) and answers each query\n"
    "with one line: include<TAB>VALUE or exclude<TAB>VALUE, where VALUE is the id\n"
    "of the deciding rule, or -1 when no rule decided.\n"
    "\n"
    "Without pairs on the command line the queries are read from standard input,\n"
    "one APP<TAB>DEST per line (split at the first TAB; a trailing CR is dropped;\n"
    "blank lines are skipped). Answers stream: memory stays constant, and output\n"
    "is flushed before each wait for more input and at the end.\n";

constexpr char kShowHelp[] =
    "usage: tpa show RULES\n"
    "\n"
    "Prints each rule as the analyzer reads it, one JSON object per line:\n"
    "  {\"position\":1,\"rule_number\":1,\"apps\":[...],\"include\":[...],\"exclude\":[...],"
    "\"id\":7}\n"
    "include and exclude are shown after address normalisation and defaults.\n"
    "rule_number is 0 for a rule of every application, else the position.\n";

constexpr char kCheckHelp[] =
    "usage: tpa check RULES\n"
    "\n"
    "Builds RULES and reports the result code, the number of rules, the sizes of\n"
    "the three automata, the build's time and memory, and warnings about\n"
    "constructs that are read differently from what they seem to say, each as\n"
    "FILE:LINE:COLUMN: warning: [CODE] explanation.\n";

constexpr char kExplainHelp[] =
    "usage: tpa explain RULES APP DEST [APP DEST]...\n"
    "\n"
    "Answers each query as 'tpa query' does and shows how the answer was reached:\n"
    "the application's rule number, each list searched under each rule number\n"
    "(whole key, network prefix, wildcard), the include/exclude precedence, the\n"
    "fallback to the rules of every application, and the deciding rule.\n";

bool isHelpFlag(const std::string& arg) { return arg == "-h" || arg == "--help"; }

bool isOption(const std::string& arg) { return arg.size() > 1 && arg[0] == '-'; }

bool commandFromName(const std::string& name, Command& command) {
  if (name == "query")
    command = Command::kQuery;
  else if (name == "show")
    command = Command::kShow;
  else if (name == "check")
    command = Command::kCheck;
  else if (name == "explain")
    command = Command::kExplain;
  else
    return false;
  return true;
}

ParseOutcome usageError(std::string message) {
  ParseOutcome outcome;
  outcome.error = std::move(message);
  return outcome;
}

ParseOutcome help(const std::string& topic) {
  ParseOutcome outcome;
  outcome.ok = true;
  outcome.invocation.command = Command::kHelp;
  outcome.invocation.helpTopic = topic;
  return outcome;
}

// Splits the operands after the command, honouring "--".
bool collectOperands(const std::vector<std::string>& args, std::vector<std::string>& operands,
                     bool& wantsHelp, std::string& unknown) {
  bool literal = false;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (!literal && arg == "--") {
      literal = true;
    } else if (!literal && isHelpFlag(arg)) {
      wantsHelp = true;
    } else if (!literal && isOption(arg)) {
      unknown = arg;
      return false;
    } else {
      operands.push_back(arg);
    }
  }
  return true;
}

ParseOutcome withOperands(Command command, const std::string& name,
                          const std::vector<std::string>& operands) {
  if (operands.empty()) return usageError(name + ": missing RULES");
  ParseOutcome outcome;
  outcome.invocation.command = command;
  outcome.invocation.rules = operands[0];
  const std::size_t rest = operands.size() - 1;
  if (command == Command::kShow || command == Command::kCheck) {
    if (rest != 0) return usageError(name + ": takes RULES only");
  } else if (rest % 2 != 0) {
    return usageError(name + ": APP and DEST come in pairs");
  } else if (command == Command::kExplain && rest == 0) {
    return usageError("explain: missing APP DEST");
  }
  for (std::size_t i = 1; i + 1 < operands.size(); i += 2) {
    outcome.invocation.pairs.emplace_back(operands[i], operands[i + 1]);
  }
  if (command == Command::kQuery && outcome.invocation.pairs.empty() &&
      outcome.invocation.rules == "-") {
    return usageError("query: RULES and the queries cannot both come from standard input");
  }
  outcome.ok = true;
  return outcome;
}

}  // namespace

ParseOutcome parseArguments(const std::vector<std::string>& args) {
  if (args.empty()) return usageError("missing COMMAND");
  if (isHelpFlag(args[0])) return help("");
  Command command;
  if (!commandFromName(args[0], command)) return usageError("unknown command '" + args[0] + "'");
  std::vector<std::string> operands;
  bool wantsHelp = false;
  std::string unknown;
  if (!collectOperands(args, operands, wantsHelp, unknown)) {
    return usageError(args[0] + ": unknown option '" + unknown + "'");
  }
  if (wantsHelp) return help(args[0]);
  return withOperands(command, args[0], operands);
}

std::string helpText(const std::string& topic) {
  if (topic == "query") return kQueryHelp;
  if (topic == "show") return kShowHelp;
  if (topic == "check") return kCheckHelp;
  if (topic == "explain") return kExplainHelp;
  return kToolHelp;
}

bool readRules(const std::string& path, std::string& text, std::string& error) {
  const bool fromStdin = path == "-";
  const int fd = fromStdin ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const std::string name = fromStdin ? "standard input" : path;
  if (fd < 0) {
    error = "cannot read " + name + ": " + std::strerror(errno);
    return false;
  }
  text.clear();
  char block[64 * 1024];
  ssize_t n;
  while ((n = ::read(fd, block, sizeof block)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(block, static_cast<std::size_t>(n));
  }
  const int readError = n < 0 ? errno : 0;
  if (!fromStdin) ::close(fd);
  if (readError != 0) error = "cannot read " + name + ": " + std::strerror(readError);
  return readError == 0;
}

bool loadRules(const std::string& path, std::string& text) {
  std::string error;
  if (readRules(path, text, error)) return true;
  std::fprintf(stderr, "tpa: %s\n", error.c_str());
  return false;
}

std::string displayName(const std::string& path) { return path == "-" ? "<stdin>" : path; }

}  // namespace tpa::tools
