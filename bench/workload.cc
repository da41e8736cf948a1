#include "workload.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <unordered_set>

namespace tpa::bench {

std::uint64_t Rng::next() {
  std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

std::uint32_t Rng::below(std::uint32_t n) {
  return static_cast<std::uint32_t>(((next() >> 32) * n) >> 32);
}

bool Rng::chance(double p) { return static_cast<double>(next() >> 11) * 0x1.0p-53 < p; }

namespace {

constexpr std::array<const char*, 10> kTlds = {"com", "net",  "org",     "io",   "dev",
                                               "app", "info", "example", "test", "site"};

// Networks are at least this long; IPv4 ones occupy one block of this size each.
constexpr int kMinV4Prefix = 26;
constexpr int kMaxV4Prefix = 30;
constexpr int kMinV6Prefix = 44;
constexpr int kMaxV6Prefix = 64;

using V6 = std::array<std::uint8_t, 16>;

std::string v4Text(std::uint32_t a) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255u, (a >> 8) & 255u,
                a & 255u);
  return buf;
}

std::string v6Text(const V6& a) {
  char buf[INET6_ADDRSTRLEN];
  inet_ntop(AF_INET6, a.data(), buf, sizeof buf);
  return buf;
}

// All eight groups written out, as another spelling of the same address.
std::string v6LongText(const V6& a) {
  char buf[48];
  int n = 0;
  for (int g = 0; g < 8; ++g) {
    n += std::snprintf(buf + n, sizeof buf - n, g ? ":%x" : "%x", (a[2 * g] << 8) | a[2 * g + 1]);
  }
  return buf;
}

std::uint32_t v4Mask(int prefix) { return prefix == 0 ? 0 : ~0u << (32 - prefix); }

void v6MaskInPlace(V6& a, int prefix) {
  for (int i = 0; i < 16; ++i) {
    const int keep = std::clamp(prefix - 8 * i, 0, 8);
    a[i] &= static_cast<std::uint8_t>(0xff00u >> keep);
  }
}

// Bits [0, n) of a 32-bit address as a number with an explicit length tag,
// for the set of bit runs that stored networks contain.
std::uint64_t runKey(std::uint32_t bits, int n) {
  return (static_cast<std::uint64_t>(n) << 32) | (n ? bits >> (32 - n) : 0);
}

// Builds one RuleSet; keeps the sets that make every label, address block
// and bit run unique.
class RuleMaker {
 public:
  RuleMaker(std::uint64_t seed, RuleSet& out) : rng_(seed), out_(out) {}

  void make(int destinations);

  std::string label() {
    static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    for (;;) {
      std::string s(5 + rng_.below(8), 'a');
      s[0] = kChars[rng_.below(26)];
      for (std::size_t i = 1; i < s.size(); ++i) s[i] = kChars[rng_.below(36)];
      if (labels_.insert(s).second) return s;
    }
  }
  std::string tld() { return kTlds[rng_.below(kTlds.size())]; }
  std::string domain() {
    return rng_.chance(0.5) ? label() + "." + tld() : label() + "." + label() + "." + tld();
  }
  std::uint32_t freshV4Block();
  V6 randomV6();

 private:
  void addEntry(std::uint32_t rule, bool include, DestKind kind, std::string text);
  std::string destination(DestKind kind);
  DestKind drawKind();

  Rng rng_;
  RuleSet& out_;
  std::unordered_set<std::string> labels_;
  std::unordered_set<std::uint32_t> v4Blocks_;  // top kMinV4Prefix bits in use
};

std::uint32_t RuleMaker::freshV4Block() {
  for (;;) {
    const std::uint32_t a = static_cast<std::uint32_t>(rng_.next());
    const std::uint32_t first = a >> 24;
    if (first == 0 || first == 10 || first == 127 || first >= 224) continue;
    if (v4Blocks_.insert(a >> (32 - kMinV4Prefix)).second) return a;
  }
}

V6 RuleMaker::randomV6() {
  V6 a;
  const std::uint64_t hi = rng_.next(), lo = rng_.next();
  for (int i = 0; i < 8; ++i) {
    a[i] = static_cast<std::uint8_t>(hi >> (56 - 8 * i));
    a[8 + i] = static_cast<std::uint8_t>(lo >> (56 - 8 * i));
  }
  a[0] = 0x20;  // global unicast, 2000::/4
  a[1] = static_cast<std::uint8_t>(a[1] | 0x01);
  return a;
}

DestKind RuleMaker::drawKind() {
  return rng_.pick<DestKind>({{60, DestKind::kDomain},
                              {20, DestKind::kWildcard},
                              {8, DestKind::kIPv4},
                              {4, DestKind::kIPv4Net},
                              {5, DestKind::kIPv6},
                              {3, DestKind::kIPv6Net}});
}

std::string RuleMaker::destination(DestKind kind) {
  switch (kind) {
    case DestKind::kDomain:
      return domain();
    case DestKind::kWildcard:
      return "*." +
             (rng_.chance(0.7) ? label() + "." + tld() : label() + "." + label() + "." + tld());
    case DestKind::kIPv4:
      return v4Text(freshV4Block());
    case DestKind::kIPv4Net: {
      const int prefix =
          kMinV4Prefix + static_cast<int>(rng_.below(kMaxV4Prefix - kMinV4Prefix + 1));
      return v4Text(freshV4Block() & v4Mask(prefix)) + "/" + std::to_string(prefix);
    }
    case DestKind::kIPv6:
      return v6Text(randomV6());
    case DestKind::kIPv6Net: {
      const int prefix =
          kMinV6Prefix + static_cast<int>(rng_.below(kMaxV6Prefix - kMinV6Prefix + 1));
      V6 a = randomV6();
      v6MaskInPlace(a, prefix);
      return v6Text(a) + "/" + std::to_string(prefix);
    }
  }
  return {};
}

void RuleMaker::addEntry(std::uint32_t rule, bool include, DestKind kind, std::string text) {
  DocumentRule& r = out_.rules[rule];
  (include ? r.include : r.exclude).push_back(text);
  out_.entries.push_back(Entry{rule, include, kind, std::move(text)});
}

void RuleMaker::make(int destinations) {
  const int perApp = std::clamp(destinations / 50, 20, 500);
  const int anyApp = std::max(2, perApp / 10);
  const int total = perApp + anyApp;
  std::vector<char> isAny(total, 0);
  std::fill(isAny.begin(), isAny.begin() + anyApp, 1);
  for (int i = total - 1; i > 0; --i) std::swap(isAny[i], isAny[rng_.below(i + 1)]);

  std::vector<std::uint32_t> perAppRules, anyAppRules;
  out_.rules.resize(total);
  for (int i = 0; i < total; ++i) {
    DocumentRule& r = out_.rules[i];
    r.id = 1000 + i;
    if (isAny[i]) {
      r.lambdaApp = anyAppRules.size() % 2 == 1;
      anyAppRules.push_back(i);
      continue;
    }
    perAppRules.push_back(i);
    const int apps = 1 + static_cast<int>(rng_.below(3));
    for (int a = 0; a < apps; ++a) r.apps.push_back("com." + label() + "." + label());
  }
  for (int i = 0; i < 200; ++i) out_.unknownApps.push_back("org." + label() + "." + label());

  // Every rule gets one entry in each list first, so that no list is empty.
  for (int i = 0; i < total; ++i) {
    addEntry(i, true, DestKind::kDomain, domain());
    addEntry(i, false, DestKind::kDomain, domain());
  }
  while (static_cast<int>(out_.entries.size()) < destinations) {
    const bool any = rng_.chance(0.2);
    const auto& pool = any ? anyAppRules : perAppRules;
    const std::uint32_t rule = pool[rng_.below(pool.size())];
    const bool include = rng_.chance(0.7);
    const DestKind kind = drawKind();
    std::string text = destination(kind);
    if (kind == DestKind::kWildcard && include && rng_.chance(0.05)) {
      // An excluded name under the rule's own included wildcard.
      addEntry(rule, false, DestKind::kDomain, label() + text.substr(1));
    }
    addEntry(rule, include, kind, std::move(text));
  }
  out_.destinations = out_.entries.size();
}

void appendList(std::string& json, const char* key, const std::vector<std::string>& values) {
  json += ", \"";
  json += key;
  json += "\": [";
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i) json += ", ";
    json += '"';
    json += values[i];
    json += '"';
  }
  json += ']';
}

// Parses an entry's network text ("a.b.c.d/p" or "x::/p").
bool parseNetwork(const std::string& text, bool v6, void* addr, int& prefix) {
  const std::size_t slash = text.find('/');
  prefix = std::stoi(text.substr(slash + 1));
  return inet_pton(v6 ? AF_INET6 : AF_INET, text.substr(0, slash).c_str(), addr) == 1;
}

// Draws queries aimed at the entries of a RuleSet.
class QueryMaker {
 public:
  QueryMaker(const RuleSet& rules, std::uint64_t seed, QueryStream& out);
  void add();

 private:
  Target drawTarget();
  std::uint32_t appFor(const Entry& e);
  std::string destinationFor(Target t, const Entry* e);
  std::string hostIn(const Entry& e);
  std::string freshLabel();

  const RuleSet& rules_;
  Rng rng_;
  QueryStream& out_;
  std::array<std::vector<std::uint32_t>, kDestKinds> byKind_;
  std::vector<std::uint32_t> knownAppBase_;  // first index in out_.apps per rule
  std::uint32_t unknownBase_ = 0;
  // Runs of kMinV4Prefix+1 .. kMaxV4Prefix+1 bits found anywhere inside a
  // stored network's bit string. An IPv4 query inside a network must not
  // continue the network's bits with such a run, or the engine would see a
  // longer run than the network (it tries only the longest run).
  std::unordered_set<std::uint64_t> runs_;
};

QueryMaker::QueryMaker(const RuleSet& rules, std::uint64_t seed, QueryStream& out)
    : rules_(rules), rng_(seed), out_(out) {
  for (std::uint32_t i = 0; i < rules.entries.size(); ++i) {
    byKind_[static_cast<int>(rules.entries[i].kind)].push_back(i);
  }
  for (const DocumentRule& r : rules.rules) {
    knownAppBase_.push_back(static_cast<std::uint32_t>(out_.apps.size()));
    out_.apps.insert(out_.apps.end(), r.apps.begin(), r.apps.end());
  }
  unknownBase_ = static_cast<std::uint32_t>(out_.apps.size());
  out_.apps.insert(out_.apps.end(), rules.unknownApps.begin(), rules.unknownApps.end());

  for (const Entry& e : rules.entries) {
    if (e.kind != DestKind::kIPv4Net && e.kind != DestKind::kIPv6Net) continue;
    std::string bits;
    int prefix = 0;
    if (e.kind == DestKind::kIPv4Net) {
      std::uint32_t a = 0;
      parseNetwork(e.text, false, &a, prefix);
      a = ntohl(a);
      for (int i = 0; i < prefix; ++i) bits += ((a >> (31 - i)) & 1u) ? '1' : '0';
    } else {
      V6 a{};
      parseNetwork(e.text, true, a.data(), prefix);
      for (int i = 0; i < prefix; ++i) bits += ((a[i / 8] >> (7 - i % 8)) & 1u) ? '1' : '0';
    }
    for (int n = kMinV4Prefix + 1; n <= kMaxV4Prefix + 1; ++n) {
      for (int at = 0; at + n <= static_cast<int>(bits.size()); ++at) {
        std::uint32_t v = 0;
        for (int i = 0; i < n; ++i) v = (v << 1) | (bits[at + i] == '1');
        runs_.insert(runKey(v << (32 - n), n));
      }
    }
  }
}

Target QueryMaker::drawTarget() {
  return rng_.pick<Target>({{25, Target::kDomain},
                            {15, Target::kWildcard},
                            {7, Target::kIPv4},
                            {5, Target::kIPv4Net},
                            {4, Target::kIPv6},
                            {4, Target::kIPv6Net},
                            {40, Target::kNothing}});
}

std::uint32_t QueryMaker::appFor(const Entry& e) {
  const DocumentRule& rule = rules_.rules[e.rule];
  const bool unknown = rule.apps.empty() ? rng_.chance(0.5) : rng_.chance(0.15);
  if (unknown)
    return unknownBase_ + rng_.below(static_cast<std::uint32_t>(rules_.unknownApps.size()));
  if (rule.apps.empty()) return rng_.below(unknownBase_ ? unknownBase_ : 1);
  return knownAppBase_[e.rule] + rng_.below(static_cast<std::uint32_t>(rule.apps.size()));
}

std::string QueryMaker::freshLabel() {
  static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::string s(3 + rng_.below(10), 'a');
  s[0] = kChars[rng_.below(26)];
  for (std::size_t i = 1; i < s.size(); ++i) s[i] = kChars[rng_.below(36)];
  return s;
}

std::string QueryMaker::hostIn(const Entry& e) {
  int prefix = 0;
  if (e.kind == DestKind::kIPv6Net) {
    V6 a{};
    parseNetwork(e.text, true, a.data(), prefix);
    for (int i = prefix; i < 128; ++i) {
      if (rng_.chance(0.5)) a[i / 8] = static_cast<std::uint8_t>(a[i / 8] | (0x80u >> (i % 8)));
    }
    return v6Text(a);
  }
  std::uint32_t net = 0;
  parseNetwork(e.text, false, &net, prefix);
  net = ntohl(net);
  for (int attempt = 0; attempt < 8; ++attempt) {
    const std::uint32_t host = net | (static_cast<std::uint32_t>(rng_.next()) & ~v4Mask(prefix));
    if (!runs_.count(runKey(host & v4Mask(prefix + 1), prefix + 1))) return v4Text(host);
  }
  return {};  // every host continues some stored run: let the caller draw again
}

std::string QueryMaker::destinationFor(Target t, const Entry* e) {
  switch (t) {
    case Target::kDomain:
    case Target::kIPv4:
      return e->text;
    case Target::kIPv6: {
      V6 a{};
      inet_pton(AF_INET6, e->text.c_str(), a.data());
      return rng_.chance(0.5) ? e->text : v6LongText(a);
    }
    case Target::kWildcard:
      return freshLabel() + e->text.substr(1);
    case Target::kIPv4Net:
    case Target::kIPv6Net:
      return hostIn(*e);
    case Target::kNothing:
      break;
  }
  const std::uint32_t r = rng_.below(10);
  if (r < 7) return freshLabel() + "." + freshLabel() + "." + kTlds[rng_.below(kTlds.size())];
  if (r < 9) return v4Text(static_cast<std::uint32_t>(rng_.next()) | 0x01000000u);
  V6 a{};
  const std::uint64_t bits = rng_.next();
  for (int i = 0; i < 8; ++i) a[i] = static_cast<std::uint8_t>(bits >> (8 * i));
  // fd00::/8: outside the 2000::/4 of the rules' IPv6 entries, and its first
  // bits match no rule's IPv4 network either (their first octets stay below
  // 224). Addresses are compared as bare bit strings, so an IPv6 address can
  // otherwise fall into an IPv4 network.
  a[0] = 0xfd;
  return v6Text(a);
}

void QueryMaker::add() {
  for (;;) {
    const Target t = drawTarget();
    const Entry* e = nullptr;
    std::uint32_t app;
    if (t != Target::kNothing) {
      const auto& pool = byKind_[static_cast<int>(t)];
      if (pool.empty()) continue;
      e = &rules_.entries[pool[rng_.below(static_cast<std::uint32_t>(pool.size()))]];
      app = appFor(*e);
    } else {
      app = rng_.below(static_cast<std::uint32_t>(out_.apps.size()));
    }
    std::string destination = destinationFor(t, e);
    if (destination.empty()) continue;
    out_.queries.push_back(Query{app, static_cast<std::uint32_t>(out_.destinations.size()), t});
    out_.destinations.push_back(std::move(destination));
    return;
  }
}

}  // namespace

RuleSet generateRules(std::uint64_t seed, int destinations) {
  RuleSet out;
  RuleMaker(seed, out).make(destinations);
  return out;
}

std::string toJson(const RuleSet& rules) {
  std::string json = "[\n";
  for (std::size_t i = 0; i < rules.rules.size(); ++i) {
    const DocumentRule& r = rules.rules[i];
    json += "{\"id\": \"" + std::to_string(r.id) + "\"";
    if (!r.apps.empty()) {
      appendList(json, "match_apps", r.apps);
    } else if (r.lambdaApp) {
      appendList(json, "match_apps", {"#LAMBDA-APP"});
    }
    appendList(json, "include", r.include);
    appendList(json, "exclude", r.exclude);
    json += i + 1 < rules.rules.size() ? "},\n" : "}\n";
  }
  json += "]\n";
  return json;
}

void scanDocument(std::string_view json,
                  const std::function<void(const RuleText&, std::size_t)>& visit) {
  RuleText rule;
  std::size_t index = 0;
  std::vector<std::string_view>* list = nullptr;  // the list being read, if any
  bool id = false;                                // the next string is the id
  for (std::size_t i = 0; i < json.size(); ++i) {
    const char c = json[i];
    if (c == '{') {
      rule.id = 0;
      rule.apps.clear();
      rule.include.clear();
      rule.exclude.clear();
    } else if (c == '}') {
      rule.lambdaApp = rule.apps.size() == 1 && rule.apps[0] == "#LAMBDA-APP";
      if (rule.lambdaApp) rule.apps.clear();
      visit(rule, index++);
    } else if (c == ']') {
      list = nullptr;
    } else if (c == '"') {
      const std::size_t end = json.find('"', i + 1);
      if (end == std::string_view::npos) break;
      const std::string_view s = json.substr(i + 1, end - i - 1);
      i = end;
      if (list != nullptr) {
        list->push_back(s);
      } else if (id) {
        rule.id = std::atoi(std::string(s).c_str());
        id = false;
      } else if (s == "id") {
        id = true;
      } else if (s == "match_apps" || s == "include" || s == "exclude") {
        list = s == "match_apps" ? &rule.apps : s == "include" ? &rule.include : &rule.exclude;
      }
    }
  }
}

RuleSet fromJson(const std::string& json) {
  RuleSet out;
  scanDocument(json, [&out](const RuleText& t, std::size_t index) {
    DocumentRule r;
    r.id = t.id;
    r.lambdaApp = t.lambdaApp;
    r.apps.assign(t.apps.begin(), t.apps.end());
    r.include.assign(t.include.begin(), t.include.end());
    r.exclude.assign(t.exclude.begin(), t.exclude.end());
    const auto n = static_cast<std::uint32_t>(index);
    for (const std::string& d : r.include) out.entries.push_back({n, true, DestKind::kDomain, d});
    for (const std::string& d : r.exclude) out.entries.push_back({n, false, DestKind::kDomain, d});
    out.rules.push_back(std::move(r));
  });
  out.destinations = out.entries.size();
  return out;
}

QueryStream distinctQueries(const RuleSet& rules, std::uint64_t seed, std::size_t count) {
  QueryStream out;
  out.queries.reserve(count);
  out.destinations.reserve(count);
  QueryMaker maker(rules, seed, out);
  for (std::size_t i = 0; i < count; ++i) maker.add();
  return out;
}

QueryStream repeatedQueries(const RuleSet& rules, std::uint64_t seed, std::size_t count, int hot) {
  QueryStream out = distinctQueries(rules, seed, static_cast<std::size_t>(hot));
  const std::vector<Query> pairs = out.queries;
  Rng rng(seed ^ 0x5eedull);
  out.queries.clear();
  out.queries.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    out.queries.push_back(pairs[rng.below(static_cast<std::uint32_t>(pairs.size()))]);
  }
  return out;
}

}  // namespace tpa::bench
