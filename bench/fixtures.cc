#include "fixtures.h"

#include <cstdio>
#include <cstdlib>

#include "parser/json_parser.h"
#include "probes.h"

namespace tpa::bench {

namespace {

[[noreturn]] void fail(const char* what, int size, int code) {
  std::fprintf(stderr, "tpa_bench: %s failed for %d destinations: %d\n", what, size, code);
  std::exit(2);
}

}  // namespace

Fixtures& Fixtures::get() {
  static Fixtures fixtures;
  return fixtures;
}

Workload makeRulesWorkload(int size) {
  Workload w;
  w.size = size;
  w.rules = generateRules(kSeed + size, size);
  w.json = toJson(w.rules);
  return w;
}

std::int64_t keyCharacters(const std::string& json) {
  parser::JsonParser parser;
  if (parser.parse(json, false) != 0) return 0;
  return static_cast<std::int64_t>(parser.grossAppBytesCount()) + parser.grossIncludeBytesCount() +
         parser.grossExcludeBytesCount();
}

Fixtures::Entry& Fixtures::entry(int size) {
  Entry& e = entries_[size];
  if (e.workload) return e;
  auto w = std::make_unique<Workload>(makeRulesWorkload(size));
  w->repeated = repeatedQueries(w->rules, kSeed + 2 * size, streamLength_);
  w->distinct = distinctQueries(w->rules, kSeed + 3 * size, streamLength_);
  w->keyCharacters = keyCharacters(w->json);
  if (w->keyCharacters == 0) fail("reading the rules", size, 0);
  e.workload = std::move(w);
  return e;
}

const Workload& Fixtures::workload(int size) { return *entry(size).workload; }

Library& Fixtures::library(int size) {
  Entry& e = entry(size);
  if (!e.library) {
    auto lib = std::make_unique<Library>();
    if (const int code = lib->builder.build(e.workload->json, false); code != 0) {
      fail("building the library", size, code);
    }
    if (const int code = lib->analyzer.build(e.workload->json, false); code != 0) {
      fail("building the analyzer", size, code);
    }
    e.library = std::move(lib);
  }
  return *e.library;
}

// The matcher in `slot`, made by `make` on first use.
template <typename T, typename Make>
T& Fixtures::lazy(int size, std::unique_ptr<T> Entry::*slot, Make make, const char* what) {
  Entry& e = entry(size);
  if (!(e.*slot)) {
    e.*slot = make(*e.workload);
    if (!(e.*slot)) fail(what, size, -1);
  }
  return *(e.*slot);
}

HashMatcher& Fixtures::hash(int size) {
  return lazy(size, &Entry::hash, makeHash, "building the hash matcher");
}

MarisaMatcher& Fixtures::marisa(int size) {
  return lazy(size, &Entry::marisa, makeMarisa, "building the MARISA matcher");
}

NaiveReference& Fixtures::naive(int size) {
  return lazy(size, &Entry::naive, makeNaive, "building the std::map reference");
}

void Fixtures::release(int size) {
  Entry& e = entry(size);
  e.library.reset();
  e.hash.reset();
  e.marisa.reset();
  e.naive.reset();
}

}  // namespace tpa::bench
