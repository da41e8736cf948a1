// A peer matcher: the rules document held whole as the arena every key views,
// applications to rule numbers, addresses in an AddressTable, and names in
// `Names` (HashNames or MarisaNames), the one part in which the peers differ.
// A query finds its application's rule number (0 when unknown), reads the
// destination as an IPv4/IPv6 address or else a name, asks that rule number's
// tables and, without a hit there, rule 0's: the any-application rules merged.
// The most specific hit wins: a whole name before its parent suffixes'
// wildcards, longest first; a longer network prefix before a shorter one.
// Answers equal the library's inside the region the workload generator keeps
// to (bench_test checks it). Build once; queries run one at a time when
// `Names` keeps scratch (MarisaNames does).
#ifndef TPA_BENCH_PEER_MATCHER_H_
#define TPA_BENCH_PEER_MATCHER_H_

#include <cctype>
#include <string>
#include <string_view>
#include <utility>

#include "peer_common.h"
#include "peer_tables.h"
#include "workload.h"

namespace tpa::bench {

template <typename Names>
class PeerMatcher {
 public:
  // Builds from a document that toJson wrote, kept as the arena of the
  // names when `Names` views them in place.
  void build(std::string document) {
    document_ = std::move(document);
    apps_ = AppTable();
    addresses_ = AddressTable();
    names_ = Names();
    reserve();
    scanDocument(document_, [this](const RuleText& r, std::size_t index) { addRule(r, index); });
    if constexpr (!Names::kViewsDocument) std::string().swap(document_);
    names_.finish();
  }

  [[nodiscard]] Answer query(std::string_view app, std::string_view destination) const {
    const int rule = apps_.find(app);
    const Destination d = parseQuery(destination);
    if (d.kind != Destination::kDomain) {
      return decide(rule, [&](int r) { return addresses_.find(r, d); });
    }
    typename Names::Query q;
    names_.prepare(destination, q);
    return decide(rule, [&](int r) { return names_.find(r, q); });
  }

  // Bytes of the tables and the document they view.
  [[nodiscard]] std::size_t sizeInBytes() const {
    return document_.capacity() + apps_.bytes() + addresses_.bytes() + names_.bytes();
  }

 private:
  // The verdict under `rule`, else under rule 0, else the default answer.
  template <typename Find>
  static Answer decide(int rule, Find find) {
    Verdict v = find(rule);
    if (!v.found() && rule != 0) v = find(0);
    return v.found() ? v.answer() : Answer{};
  }

  // Sizes the tables before the first add, from a first pass over the
  // document: a table that grows holds its old and new arrays at once. An
  // entry ending in a digit or holding a ':' is counted as an address.
  void reserve() {
    std::size_t apps = 0, appBytes = 0, names = 0, nameBytes = 0, addresses = 0;
    scanDocument(document_, [&](const RuleText& r, std::size_t) {
      apps += r.apps.size();
      for (const std::string_view a : r.apps) appBytes += a.size();
      for (const auto* list : {&r.include, &r.exclude}) {
        for (const std::string_view e : *list) {
          const bool address = !e.empty() && (std::isdigit(static_cast<unsigned char>(e.back())) ||
                                              e.find(':') != std::string_view::npos);
          ++(address ? addresses : names);
          nameBytes += address ? 0 : e.size();
        }
      }
    });
    apps_.reserve(apps, appBytes);
    addresses_.reserve(addresses);
    names_.reserve(names, nameBytes);
  }

  void addRule(const RuleText& r, std::size_t index) {
    const int rule = ruleNumberOf(r.apps.empty(), index);
    for (const std::string_view a : r.apps) apps_.add(a, rule);
    for (const std::string_view e : r.include) addEntry(rule, e, {r.id, Verdict::kInclude});
    for (const std::string_view e : r.exclude) addEntry(rule, e, {r.id, Verdict::kExclude});
  }

  void addEntry(int rule, std::string_view text, Verdict v) {
    const Destination d = parseDestination(text);
    if (d.kind == Destination::kDomain) {
      names_.add(rule, text, false, v);
    } else if (d.kind == Destination::kWildcard) {
      names_.add(rule, text.substr(2), true, v);  // "*.b.c" is kept as "b.c"
    } else {
      addresses_.add(rule, d, v);
    }
  }

  std::string document_;  // the names' arena when Names views it, else empty
  AppTable apps_;
  AddressTable addresses_;
  Names names_;
};

}  // namespace tpa::bench

#endif  // TPA_BENCH_PEER_MATCHER_H_
