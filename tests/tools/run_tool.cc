#include "run_tool.h"

#include <fcntl.h>
#include <signal.h>
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

bool writeAll(int fd, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

TempFile::TempFile(const std::string& text) : path_("/tmp/tpa_cli_XXXXXX") {
  const int fd = mkstemp(path_.data());
  writeAll(fd, text);
  close(fd);
}

TempFile::~TempFile() { std::remove(path_.c_str()); }

pid_t startTool(const std::vector<std::string>& args, int in, int out, int err) {
  const char* tool = std::getenv("TPA_TOOL");
  std::vector<char*> argv{const_cast<char*>(tool != nullptr ? tool : "tpa")};
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    signal(SIGPIPE, SIG_DFL);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

ToolResult runTool(const std::vector<std::string>& args, const std::string& input) {
  signal(SIGPIPE, SIG_IGN);  // a child that stops reading early must not kill the test
  ToolResult result;
  const TempFile out(""), err("");
  const int outFd = open(out.path().c_str(), O_WRONLY | O_CLOEXEC);
  const int errFd = open(err.path().c_str(), O_WRONLY | O_CLOEXEC);
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return result;
  const pid_t pid = startTool(args, pipeFds[0], outFd, errFd);
  close(pipeFds[0]);
  close(outFd);
  close(errFd);
  writeAll(pipeFds[1], input);
  close(pipeFds[1]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ostringstream outText, errText;
  outText << std::ifstream(out.path()).rdbuf();
  errText << std::ifstream(err.path()).rdbuf();
  result.out = outText.str();
  result.err = errText.str();
  return result;
}

}  // namespace tpa::testing
