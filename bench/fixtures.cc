#include "fixtures.h"

#include <cstdio>
#include <cstdlib>

#include "parser/json_parser.h"

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

HashMatcher& Fixtures::hash(int size) {
  Entry& e = entry(size);
  if (!e.hash) {
    e.hash = std::make_unique<HashMatcher>();
    e.hash->build(e.workload->rules);
  }
  return *e.hash;
}

MarisaMatcher& Fixtures::marisa(int size) {
  Entry& e = entry(size);
  if (!e.marisa) {
    e.marisa = std::make_unique<MarisaMatcher>();
    e.marisa->build(e.workload->rules);
  }
  return *e.marisa;
}

NaiveReference& Fixtures::naive(int size) {
  Entry& e = entry(size);
  if (!e.naive) {
    e.naive = std::make_unique<NaiveReference>();
    if (const int code = e.naive->build(e.workload->json); code != 0) {
      fail("building the std::map reference", size, code);
    }
  }
  return *e.naive;
}

void Fixtures::release(int size) {
  Entry& e = entry(size);
  e.library.reset();
  e.hash.reset();
  e.marisa.reset();
  e.naive.reset();
}

}  // namespace tpa::bench
