#include "run_tool.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tpa::testing {

std::string doc(std::string text) {
  for (char& c : text) c = c == '\'' ? '"' : c;
  return text;
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream stream(text);
  for (std::string word; stream >> word;) out.push_back(word == "''" ? "" : word);
  return out;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at; (at = text.find(from)) != std::string::npos;)
    text.replace(at, from.size(), to);
  return text;
}

TempFile::TempFile(const std::string& text) : path_("/tmp/tpa_cli_XXXXXX") {
  close(mkstemp(path_.data()));
  std::ofstream(path_, std::ios::binary) << text;
}

TempFile::~TempFile() { std::remove(path_.c_str()); }

pid_t startTool(const std::vector<std::string>& args, int in, int out, int err) {
  const char* tool = std::getenv("TPA_TOOL");
  std::vector<char*> argv{const_cast<char*>(tool != nullptr ? tool : "tpa")};
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

std::string contentOf(const TempFile& file) {
  std::ostringstream text;
  text << std::ifstream(file.path(), std::ios::binary).rdbuf();
  return text.str();
}

// Standard input comes from a file too: nothing to block on, no pipe to break.
ToolResult runTool(const std::vector<std::string>& args, const std::string& input,
                   const char* output) {
  const TempFile in(input), out(""), err("");
  const int fds[] = {open(in.path().c_str(), O_RDONLY | O_CLOEXEC),
                     open(output != nullptr ? output : out.path().c_str(), O_WRONLY | O_CLOEXEC),
                     open(err.path().c_str(), O_WRONLY | O_CLOEXEC)};
  const pid_t pid = startTool(args, fds[0], fds[1], fds[2]);
  for (int fd : fds) close(fd);
  int status = 0;
  waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(out), contentOf(err)};
}

}  // namespace tpa::testing
