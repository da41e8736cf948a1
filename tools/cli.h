// The command line of the `tpa` tool: its exit codes, the table of its
// commands (name, help, the function that runs it) and the parsing of
// `tpa COMMAND RULES [APP DEST]...` into an Invocation.
// Plain functions over values; parsing never touches the analyzer.
#ifndef TPA_TOOLS_CLI_H_
#define TPA_TOOLS_CLI_H_

#include <string>
#include <utility>
#include <vector>

namespace tpa::tools {

// The exit codes are part of the tool's contract; README lists them.
inline constexpr int kExitOk = 0;
inline constexpr int kExitBuildFailed = 2;  // the build returned an error code
inline constexpr int kExitBuildThrew = 3;   // an address input made the build throw (only those)
inline constexpr int kExitWarnings = 4;     // check --strict: the document built, with warnings
inline constexpr int kExitUsage = 64;       // bad command line
inline constexpr int kExitBadQuery = 65;    // a query line without APP<TAB>DEST
inline constexpr int kExitNoInput = 66;     // RULES could not be read
inline constexpr int kExitNoMemory = 70;    // memory ran out outside the build (a build: 2)
inline constexpr int kExitIo = 74;          // standard output could not be written

inline constexpr int kExitChanged = 1;  // diff: some decision changed

enum class Command { kQuery, kShow, kCheck, kExplain, kDiff, kImport };

// How check, explain and diff write their report (--format=).
enum class OutputFormat { kText, kJson, kGithub };

// The formats a command offers with --format (kNone: no such option).
enum class Formats { kNone, kTextJson, kAll };

struct Invocation;

// One command of the tool: what it is called, its help and what runs it.
struct CommandEntry {
  Command command;
  const char* name;
  const char* help;
  Formats formats;
  int (*run)(const Invocation&);  // returns the exit code
};

// What the command line asked for. `rules` is a path or "-".
struct Invocation {
  const CommandEntry* command = nullptr;  // null: help or the version
  bool version = false;                  // --version (command null)
  std::string rules;
  std::vector<std::pair<std::string, std::string>> pairs;  // APP, DEST
  std::string helpTopic;  // the command whose help was asked, or empty
  // The operands after the command; diff: OLD NEW [QUERIES]; import: FORMAT FILE...
  std::vector<std::string> operands;
  OutputFormat format = OutputFormat::kText;
  bool strict = false;  // check only: warnings fail (kExitWarnings)
  // import only: --apps (comma-separated; empty: every application), --id,
  // and --exclude (the listed names go to the exclude list).
  std::string apps;
  bool appsGiven = false;  // "--apps=" names no application: an error, not "every"
  std::string id = "1";
  bool excludeNames = false;
};

// The outcome of parsing: an invocation, or a usage error message.
struct ParseOutcome {
  bool ok = false;
  Invocation invocation;
  std::string error;  // set when !ok
};

// Parses argv[1..]. "--" ends option processing, so that an APP or DEST may
// start with '-'; "-h"/"--help" anywhere before it asks for help, as does
// "tpa help [COMMAND]". A usage error's message names the help to read.
[[nodiscard]] ParseOutcome parseArguments(const std::vector<std::string>& args);

// The help text of the whole tool, or of one command ("query", ...).
[[nodiscard]] std::string helpText(const std::string& topic);

// "tpa VERSION", the project's version as the build configured it.
[[nodiscard]] std::string versionText();

}  // namespace tpa::tools

#endif  // TPA_TOOLS_CLI_H_
