// Builders of every matcher from a workload, and the memory probes: each
// probe measures one build in a fresh process (this binary started again with
// --tpa_probe=KIND,SIZE), whose heap holds no freed memory of earlier work
// for the build to reuse unseen. KIND is a matcher (tpa, std_map, hash,
// marisa) or "reader". Single-threaded.
#ifndef TPA_BENCH_PROBES_H_
#define TPA_BENCH_PROBES_H_

#include <map>
#include <memory>
#include <string>

#include "fixtures.h"
#include "tpa/api/analyzer.h"

namespace tpa::bench {

// Each returns the built matcher, or null when the build failed.
[[nodiscard]] std::unique_ptr<api::Builder> makeLibrary(const Workload& w);
[[nodiscard]] std::unique_ptr<NaiveReference> makeNaive(const Workload& w);
[[nodiscard]] std::unique_ptr<HashMatcher> makeHash(const Workload& w);
[[nodiscard]] std::unique_ptr<MarisaMatcher> makeMarisa(const Workload& w);

// Parent side: runs the probe and returns its named measurements (empty when
// the probe failed). Matchers report peak_B_per_char, retained_B_per_char,
// allocated_B_per_char, peak_MB and key_chars; the reader reports doc_bytes,
// dict_reserved_B_per_byte, dict_filled_B_per_byte, parse_peak_B_per_byte and
// parse_retained_B_per_byte.
[[nodiscard]] std::map<std::string, double> runProbe(const std::string& kind, int size);

// Child side: measures the probe named by `probe` ("KIND,SIZE"), prints one
// "name value" line per measurement and returns the exit status.
int probeMain(const std::string& probe);

}  // namespace tpa::bench

#endif  // TPA_BENCH_PROBES_H_
