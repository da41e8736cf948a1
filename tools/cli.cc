#include "tools/cli.h"

#include <algorithm>

#include "tools/commands.h"

namespace tpa::tools {
namespace {

constexpr char kToolHelp[] =
    "usage: tpa COMMAND RULES [ARGS]...\n"
    "       tpa help [COMMAND] | --help | --version\n"
    "\n"
    "Reads a rules document exactly as the analyzer on the phone does and shows\n"
    "how it is read and what it decides. RULES is a file, or '-' for standard input.\n"
    "\n"
    "commands:\n"
    "  query RULES [APP DEST]...    decide each pair (or APP<TAB>DEST lines from stdin)\n"
    "  show RULES                   print the rules as read, one JSON object per line\n"
    "  check RULES                  build, measure and lint the document\n"
    "  explain RULES APP DEST...    show how each decision is reached\n"
    "  diff OLD NEW [QUERIES]       list the decisions that differ between two documents\n"
    "  import FORMAT FILE...        write a rules document from hosts, domain or AdBlock lists\n"
    "\n"
    "Run 'tpa COMMAND --help' (or 'tpa help COMMAND') for the details of a command.\n"
    "\n"
    "exit codes:\n"
    "  0   success\n"
    "  1   diff: some decision changed\n"
    "  2   the build failed          (stderr: tpa: build failed: CODE NAME)\n"
    "  3   the build threw           (stderr: tpa: build threw: WHAT ...)\n"
    "  4   check --strict: the document built but has warnings\n"
    "  64  usage error\n"
    "  65  a query line has no TAB between APP and DEST; import: no name to import\n"
    "  66  RULES (or a list, or QUERIES) cannot be read\n"
    "  70  out of memory outside the build (stderr: tpa: out of memory); a build\n"
    "      that runs out fails with 2 and TPA_ERROR_OOM\n"
    "  74  standard output cannot be written (stderr: tpa: cannot write standard\n"
    "      output: REASON)\n";

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
    "usage: tpa check [--format=text|json|github] [--strict] RULES\n"
    "\n"
    "Builds RULES and reports the result code, the number of rules, the sizes of\n"
    "the three automata, the build's time and memory, and warnings about\n"
    "constructs that are read differently from what they seem to say, each as\n"
    "FILE:LINE:COLUMN: warning: [CODE] explanation.\n"
    "\n"
    "--format=json writes one JSON object per line instead: one per warning,\n"
    "  {\"file\":F,\"line\":L,\"column\":C,\"code\":CODE,\"message\":M}\n"
    "and a last one for the build,\n"
    "  {\"file\":F,\"result\":CODE,\"result_name\":NAME,\"rules\":N,\"warnings\":W}\n"
    "(result_name \"threw\" and result -1 when the build threw).\n"
    "--format=github writes each warning as a workflow annotation,\n"
    "  ::warning file=F,line=L,col=C::[CODE] message\n"
    "and a failed build as ::error file=F::message (at the value that threw,\n"
    "::error file=F,line=L,col=C::message).\n"
    "\n"
    "--strict makes warnings fail: exit status 4 when the document builds but\n"
    "has a warning (a failed build keeps its own status, 2 or 3).\n";

constexpr char kExplainHelp[] =
    "usage: tpa explain [--format=text|json] RULES APP DEST [APP DEST]...\n"
    "\n"
    "Answers each query as 'tpa query' does and shows how the answer was reached:\n"
    "the application's rule number, each list searched under each rule number\n"
    "(whole key, network prefix, wildcard), the include/exclude precedence, the\n"
    "fallback to the rules of every application, and the deciding rule.\n"
    "\n"
    "--format=json writes one JSON object per query and line:\n"
    "  app, destination     the query\n"
    "  searched_as          the destination after address normalisation\n"
    "  app_rule_number      the rule number the application selects (0: every application)\n"
    "  decision, id         \"include\" or \"exclude\", and the value (-1: no rule decided)\n"
    "  rule_number          the rule number of the deciding step (null: no rule decided)\n"
    "  list, match          the deciding list and its search: \"whole_key\",\n"
    "                       \"network_prefix\" or \"wildcard\" (null: no rule decided)\n"
    "  fallback             the rules of every application decided after the\n"
    "                       application's own rule matched nothing\n"
    "  positions            the positions of the rules that can have decided\n"
    "  reason               the one-line summary that 'tpa diff' prints\n";

constexpr char kDiffHelp[] =
    "usage: tpa diff [--format=text|json|github] OLD NEW [QUERIES]\n"
    "\n"
    "Builds both rules documents as a phone does and lists every decision that\n"
    "differs. Without QUERIES the diff is complete: a query reads the stored keys\n"
    "only as text, so the destinations fall into classes that both documents'\n"
    "keys cut, and each class is asked once per document for each application\n"
    "either document names and for every other application ('*'). A class is\n"
    "  name     one NAME (an address stored whole: ADDRESS/32 or /128)\n"
    "  ending   *ENDING: names that end in ENDING (byte for byte) and fall in\n"
    "           the class; endings are told apart as far as a wildcard search\n"
    "           sees them (the texts after a stored '*' they end in, and the\n"
    "           character before each)\n"
    "  network  ADDRESS/BITS: the addresses of a network cut by the stored\n"
    "           networks, optionally only those whose fixed-width text ends in\n"
    "           ENDING (where a stored wildcard could match that text)\n"
    "Each changed class is one line,\n"
    "  APP [(and N more)] CLASS PATTERN [ending in E] (e.g. EXAMPLE): OLD-DECISION\n"
    "  OLD-ID -> NEW-DECISION NEW-ID; old: REASON; new: REASON\n"
    "where each REASON says which rule number, list and search decided (or that\n"
    "no rule did); then a summary with the count of each kind of change:\n"
    "include to exclude, exclude to include, id changed. Destinations that\n"
    "contain '#' are left to QUERIES. On a terminal, progress goes to stderr.\n"
    "\n"
    "QUERIES, in the 'tpa query' stream format (APP<TAB>DEST lines), asks those\n"
    "questions instead, one line each: APP DEST: OLD -> NEW; old: ...; new: ...\n"
    "\n"
    "--format=json writes one JSON object per change,\n"
    "  {\"app\":A,\"class\":C,\"pattern\":P,\"example\":E[,\"ending\":T][,\"also\":[...]],\n"
    "   \"change\":KIND,\"old\":{\"decision\":..,\"id\":..,\"reason\":..},\"new\":{...}}\n"
    "(with QUERIES \"destination\" in place of class to ending), KIND being\n"
    "\"include_to_exclude\", \"exclude_to_include\" or \"id_changed\", A \"*\" for every\n"
    "application no document names, \"also\" the other applications with the same\n"
    "change; and a last object {\"summary\":{\"classes\":N,\"changed\":N,KIND:N,...}}\n"
    "(\"questions\" in place of \"classes\" with QUERIES).\n"
    "--format=github writes each change as a workflow annotation on NEW, at the\n"
    "entry that now decides (else at NEW's rule where OLD's deciding one stood):\n"
    "  ::warning file=F,line=L,col=C::message\n"
    "A document that does not build is, besides its message on stderr, one\n"
    "JSON object {\"file\":F,\"error\":\"build_failed\",\"code\":C,\"code_name\":N,...}\n"
    "or {\"file\":F,\"error\":\"build_threw\",\"exception\":X,\"key\":K,\"value\":V,\n"
    "\"line\":L,\"column\":C,...}, or an ::error annotation at the value.\n"
    "\n"
    "Exit status: 0 when no decision changed, 1 when some did, 2/3 when a\n"
    "document does not build, 65 for a QUERIES line without a TAB, 66 when a\n"
    "file cannot be read. At most one of OLD, NEW and QUERIES may be '-'.\n";

constexpr char kImportHelp[] =
    "usage: tpa import [--apps=A,B] [--id=N] [--include|--exclude] [--format=F]\n"
    "                  FORMAT FILE...\n"
    "\n"
    "Writes a rules document on standard output in which every name gets the\n"
    "decision the lists mean ('tpa check' finds nothing in it but what is\n"
    "written on purpose: the id a second rule shares, \"*TAIL\" entries that\n"
    "keep a wildcard from being hidden). FILE may be '-' for standard input.\n"
    "FORMAT is one of:\n"
    "  hosts     ADDRESS NAME [NAME]... per line, '#' comments: each name is\n"
    "            listed; the local names (localhost, ...) are skipped\n"
    "  domains   one name per line, '#' and '!' comments: the name is listed;\n"
    "            *.NAME lists every name under NAME\n"
    "  adblock   ||NAME^ lists NAME and every name under it; @@||NAME^ takes\n"
    "            them back whatever the length of the block, unless the block\n"
    "            is ||NAME^$important; no other rule is representable\n"
    "\n"
    "options:\n"
    "  --apps=A,B      the rule's applications (default: every application)\n"
    "  --id=N          the rule's id, 1 to 2147483646 (default 1)\n"
    "  --include       listed names are included, all others excluded (default)\n"
    "  --exclude       listed names are excluded, all others included; exceptions\n"
    "                  then need --apps (a second rule includes the rest)\n"
    "  --format=F      the warnings as text (default), json or github\n"
    "\n"
    "Names are lower-cased, trailing dots and a byte order mark dropped, Unicode\n"
    "names converted by UTS-46. On standard error: FILE:LINE: warning: [code]\n"
    "for every line or word not taken, and for every name whose meaning the\n"
    "document cannot keep (the tool builds it and asks it back), then a summary\n"
    "line. A progress line shows on a terminal.\n"
    "\n"
    "The document is built before it is written; when its automata would run\n"
    "out of states (many short names that share their ends), names under\n"
    ".invalid, which no destination has, are added until it builds. Exit status:\n"
    "0 written, 2 it cannot be built, 64 usage, 65 the lists give no name,\n"
    "66 a FILE cannot be read.\n";

// Every command: its name, help, options and the function that runs it.
constexpr CommandEntry kCommands[] = {
    {Command::kQuery, "query", kQueryHelp, Formats::kNone, runQuery},
    {Command::kShow, "show", kShowHelp, Formats::kNone, runShow},
    {Command::kCheck, "check", kCheckHelp, Formats::kAll, runCheck},
    {Command::kExplain, "explain", kExplainHelp, Formats::kTextJson, runExplain},
    {Command::kDiff, "diff", kDiffHelp, Formats::kAll, runDiff},
    {Command::kImport, "import", kImportHelp, Formats::kAll, runImport},
};

const CommandEntry* commandNamed(const std::string& name) {
  for (const CommandEntry& entry : kCommands) {
    if (name == entry.name) return &entry;
  }
  return nullptr;
}

bool isHelpFlag(const std::string& arg) { return arg == "-h" || arg == "--help"; }

bool isOption(const std::string& arg) { return arg.size() > 1 && arg[0] == '-'; }

ParseOutcome usageError(std::string message) {
  ParseOutcome outcome;
  outcome.error = std::move(message);
  return outcome;
}

// Help (of `topic`, or of the tool), or the version.
ParseOutcome help(const std::string& topic, bool version = false) {
  ParseOutcome outcome;
  outcome.ok = true;
  outcome.invocation.helpTopic = topic;
  outcome.invocation.version = version;
  return outcome;
}

// The value of "--NAME=VALUE", or of "--NAME VALUE" (taking the next
// argument); false when args[i] is not the option NAME.
bool optionValue(const std::vector<std::string>& args, std::size_t& i, const std::string& name,
                 std::string& value) {
  const std::string& arg = args[i];
  if (arg.rfind(name + "=", 0) == 0) {
    value = arg.substr(name.size() + 1);
    return true;
  }
  if (arg != name || i + 1 >= args.size()) return false;
  value = args[++i];
  return true;
}

bool formatFromName(const std::string& name, Formats formats, OutputFormat& format) {
  if (name == "text")
    format = OutputFormat::kText;
  else if (name == "json")
    format = OutputFormat::kJson;
  else if (name == "github" && formats == Formats::kAll)
    format = OutputFormat::kGithub;
  else
    return false;
  return true;
}

// Takes the option at args[i] if the command has it. Returns false for an
// option the command does not have, or a bad value (`bad` is then set).
bool takeOption(const std::vector<std::string>& args, std::size_t& i, Invocation& invocation,
                bool& bad) {
  const CommandEntry& entry = *invocation.command;
  std::string value;
  if (entry.formats != Formats::kNone && optionValue(args, i, "--format", value)) {
    bad = !formatFromName(value, entry.formats, invocation.format);
    return !bad;
  }
  if (entry.command == Command::kCheck && args[i] == "--strict") {
    invocation.strict = true;
    return true;
  }
  if (entry.command != Command::kImport) return false;
  if (optionValue(args, i, "--apps", value)) {
    invocation.apps = value;
    invocation.appsGiven = true;
  } else if (optionValue(args, i, "--id", value)) {
    invocation.id = value;
  } else if (args[i] == "--include" || args[i] == "--exclude") {
    invocation.excludeNames = args[i] == "--exclude";
  } else {
    return false;
  }
  return true;
}

// Splits the operands after the command, honouring "--", into `invocation`.
bool collectOperands(const std::vector<std::string>& args, Invocation& invocation, bool& wantsHelp,
                     std::string& unknown) {
  bool literal = false;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    bool bad = false;
    if (!literal && arg == "--") {
      literal = true;
    } else if (!literal && isHelpFlag(arg)) {
      wantsHelp = true;
    } else if (!literal && isOption(arg)) {
      if (takeOption(args, i, invocation, bad)) continue;
      unknown = !bad ? "unknown option '" + arg + "'"
                     : "bad value in option '" + arg + "' (expected " +
                           (invocation.command->formats == Formats::kAll ? "text, json or github"
                                                                         : "text or json") +
                           ")";
      return false;
    } else {
      invocation.operands.push_back(arg);
    }
  }
  return true;
}

// diff and import: files, of which at most one is standard input.
std::string checkFiles(const Invocation& invocation) {
  const std::vector<std::string>& operands = invocation.operands;
  const bool import = invocation.command->command == Command::kImport;
  if (!import && (operands.size() < 2 || operands.size() > 3)) {
    return "diff: takes OLD NEW [QUERIES]";
  }
  if (import && operands.size() < 2) return "import: missing FORMAT or FILE";
  if (std::count(operands.begin() + (import ? 1 : 0), operands.end(), "-") > 1) {
    return std::string(invocation.command->name) + ": only one file can come from standard input";
  }
  return "";
}

// query, show, check and explain: RULES, then APP DEST pairs.
std::string checkPairs(Invocation& invocation) {
  const std::vector<std::string>& operands = invocation.operands;
  const Command command = invocation.command->command;
  const std::string name = invocation.command->name;
  if (operands.empty()) return name + ": missing RULES";
  invocation.rules = operands[0];
  const std::size_t rest = operands.size() - 1;
  if (command == Command::kShow || command == Command::kCheck) {
    if (rest != 0) return name + ": takes RULES only";
  } else if (rest % 2 != 0) {
    return name + ": APP and DEST come in pairs";
  } else if (command == Command::kExplain && rest == 0) {
    return "explain: missing APP DEST";
  }
  for (std::size_t i = 1; i + 1 < operands.size(); i += 2) {
    invocation.pairs.emplace_back(operands[i], operands[i + 1]);
  }
  if (command == Command::kQuery && invocation.pairs.empty() && invocation.rules == "-") {
    return "query: RULES and the queries cannot both come from standard input";
  }
  return "";
}

// "help [COMMAND]": the same text as "COMMAND --help".
ParseOutcome helpCommand(const std::vector<std::string>& args) {
  if (args.size() > 2) return usageError("help: takes one COMMAND at most");
  if (args.size() == 1) return help("");
  if (commandNamed(args[1]) == nullptr) {
    return usageError("help: unknown command '" + args[1] + "'");
  }
  return help(args[1]);
}

ParseOutcome parseCommand(const std::vector<std::string>& args) {
  if (args.empty()) return usageError("missing COMMAND");
  if (isHelpFlag(args[0])) return help("");
  if (args[0] == "help") return helpCommand(args);
  if (args[0] == "--version") return help("", true);
  ParseOutcome outcome;
  Invocation& invocation = outcome.invocation;
  invocation.command = commandNamed(args[0]);
  if (invocation.command == nullptr) return usageError("unknown command '" + args[0] + "'");
  bool wantsHelp = false;
  std::string error;
  if (!collectOperands(args, invocation, wantsHelp, error)) {
    return usageError(args[0] + ": " + error);
  }
  if (wantsHelp) return help(args[0]);
  const Command command = invocation.command->command;
  error = command == Command::kDiff || command == Command::kImport ? checkFiles(invocation)
                                                                   : checkPairs(invocation);
  if (!error.empty()) return usageError(error);
  outcome.ok = true;
  return outcome;
}

}  // namespace

ParseOutcome parseArguments(const std::vector<std::string>& args) {
  ParseOutcome outcome = parseCommand(args);
  if (outcome.ok) return outcome;
  // What a usage error tells to read: the command's help when it names one.
  const bool named = !args.empty() && commandNamed(args[0]) != nullptr;
  outcome.error += named ? " (see 'tpa " + args[0] + " --help')" : " (see 'tpa --help')";
  return outcome;
}

std::string helpText(const std::string& topic) {
  const CommandEntry* entry = commandNamed(topic);
  return entry != nullptr ? entry->help : kToolHelp;
}

std::string versionText() { return std::string("tpa ") + TPA_VERSION; }

}  // namespace tpa::tools
