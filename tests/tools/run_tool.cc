#include "run_tool.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

extern char** environ;

namespace tpa::testing {
namespace {

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string envOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : fallback;
}

}  // namespace

TempFile::TempFile(const std::string& text, const std::string& suffix) {
  std::string pattern = "/tmp/tpa_cli_XXXXXX" + suffix;
  const int fd = mkstemps(pattern.data(), static_cast<int>(suffix.size()));
  if (fd >= 0) {
    std::size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = write(fd, text.data() + done, text.size() - done);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    close(fd);
  }
  path_ = pattern;
}

TempFile::~TempFile() { std::remove(path_.c_str()); }

std::string toolPath() { return envOr("TPA_TOOL", ""); }

std::string examplesDir() { return envOr("TPA_EXAMPLES", "examples"); }

namespace {

// Feeds `input` into the write end of a pipe, then closes it. A child that
// stops reading early (exit) makes write fail, which ends the feeding.
void feed(int fd, const std::string& input, int repeat) {
  for (bool open = true; open && repeat > 0; --repeat) {
    std::size_t done = 0;
    while (open && done < input.size()) {
      const ssize_t n = write(fd, input.data() + done, input.size() - done);
      open = n > 0;
      done += open ? static_cast<std::size_t>(n) : 0;
    }
  }
  close(fd);
}

}  // namespace

ToolResult runTool(const std::vector<std::string>& args, const std::string& input, int repeat) {
  ToolResult result;
  // A child that exits before reading all its input must not kill the test
  // through SIGPIPE; the child itself gets the default disposition back.
  signal(SIGPIPE, SIG_IGN);
  TempFile out("", ".out"), err("", ".err");
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[0], 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.path().c_str(), O_WRONLY | O_TRUNC, 0);
  posix_spawn_file_actions_addopen(&actions, 2, err.path().c_str(), O_WRONLY | O_TRUNC, 0);
  std::vector<std::string> argv{toolPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (std::string& a : argv) pointers.push_back(a.data());
  pointers.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int spawned =
      posix_spawn(&pid, argv[0].c_str(), &actions, &attributes, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(pipeFds[0]);
  if (spawned != 0) {
    close(pipeFds[1]);
    return result;
  }
  std::thread writer(feed, pipeFds[1], std::cref(input), repeat);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  writer.join();
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = readAll(out.path());
  result.err = readAll(err.path());
  result.maxRssKiB = usage.ru_maxrss;
  return result;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

}  // namespace tpa::testing
