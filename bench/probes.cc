#include "probes.h"

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "json/dawg.h"
#include "memory.h"
#include "parser/json_parser.h"

extern char** environ;

namespace tpa::bench {

std::unique_ptr<api::Builder> makeLibrary(const Workload& w) {
  auto b = std::make_unique<api::Builder>();
  if (b->build(w.json, false) != 0) b.reset();
  return b;
}

std::unique_ptr<NaiveReference> makeNaive(const Workload& w) {
  auto m = std::make_unique<NaiveReference>();
  if (m->build(w.json) != 0) m.reset();
  return m;
}

std::unique_ptr<HashMatcher> makeHash(const Workload& w) {
  auto m = std::make_unique<HashMatcher>();
  m->build(w.json);
  return m;
}

std::unique_ptr<MarisaMatcher> makeMarisa(const Workload& w) {
  auto m = std::make_unique<MarisaMatcher>();
  m->build(w.json);
  return m;
}

namespace {

void print(const char* name, double value) { std::printf("%s %.6g\n", name, value); }

template <typename Make>
int probeMatcher(const Workload& w, Make make) {
  MemoryUse use;
  decltype(make(w)) built;
  use = measureResident([&] { built = make(w); });
  if (!built) return 1;
  built.reset();
  const double chars = static_cast<double>(keyCharacters(w.json));
  print("key_chars", chars);
  print("peak_B_per_char", static_cast<double>(use.peak) / chars);
  print("retained_B_per_char", static_cast<double>(use.retained) / chars);
  print("allocated_B_per_char", static_cast<double>(use.allocated) / chars);
  print("peak_MB", static_cast<double>(use.peak) / 1e6);
  return 0;
}

// The reader's dictionary reserved alone (no state touched) and filled with
// the whole document; then a whole parse, and what outlives the parser.
int probeReader(const Workload& w) {
  const std::string& json = w.json;
  MemoryUse reserved, filled, parse;
  {
    json_config::dawg empty(static_cast<int>(json.size()));
    reserved = measureResident([&] { benchmark::DoNotOptimize(empty.construct()); });
  }
  {
    json_config::dawg full(static_cast<int>(json.size()));
    filled = measureResident([&] {
      benchmark::DoNotOptimize(full.construct());
      benchmark::DoNotOptimize(full.insert(json));
    });
  }
  parse = measureResident([&] {
    parser::JsonParser parser;
    benchmark::DoNotOptimize(parser.parse(json, false));
  });
  const double bytes = static_cast<double>(json.size());
  print("doc_bytes", bytes);
  print("dict_reserved_B_per_byte", static_cast<double>(reserved.peak) / bytes);
  print("dict_filled_B_per_byte", static_cast<double>(filled.peak) / bytes);
  print("parse_peak_B_per_byte", static_cast<double>(parse.peak) / bytes);
  print("parse_retained_B_per_byte", static_cast<double>(parse.retained) / bytes);
  return 0;
}

}  // namespace

int probeMain(const std::string& probe) {
  const std::size_t comma = probe.find(',');
  if (comma == std::string::npos) return 2;
  const std::string kind = probe.substr(0, comma);
  const Workload w = makeRulesWorkload(std::atoi(probe.c_str() + comma + 1));
  if (kind == "tpa") return probeMatcher(w, makeLibrary);
  if (kind == "std_map") return probeMatcher(w, makeNaive);
  if (kind == "hash") return probeMatcher(w, makeHash);
  if (kind == "marisa") return probeMatcher(w, makeMarisa);
  if (kind == "reader") return probeReader(w);
  return 2;
}

std::map<std::string, double> runProbe(const std::string& kind, int size) {
  std::map<std::string, double> values;
  int out[2];
  if (pipe(out) != 0) return values;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::string self = "tpa_bench", flag = "--tpa_probe=" + kind + "," + std::to_string(size);
  char* argv[] = {self.data(), flag.data(), nullptr};
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  if (spawned == 0) {
    if (std::FILE* f = fdopen(out[0], "r")) {
      char name[64];
      double value = 0;
      while (std::fscanf(f, "%63s %lf", name, &value) == 2) values[name] = value;
      std::fclose(f);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) values.clear();
  } else {
    close(out[0]);
  }
  return values;
}

}  // namespace tpa::bench
