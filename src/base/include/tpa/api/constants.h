// The vocabulary every layer shares: error codes, the sentinel symbols that
// frame keys, the lookup kinds of a keyed machine and the default values of
// the matching and mapping layers.
//
// Each constant is an exported, read-only global defined once in
// constants.cc; code compares against these names, never against literals.
// All of them are immutable, so any thread may read them.
#ifndef TPA_API_CONSTANTS_H_
#define TPA_API_CONSTANTS_H_

#include <cstdint>

#include "tpa/api/export.h"

namespace tpa {

namespace error {
TPA_EXPORT extern const int TPA_ERROR_NONE;                  //  0 success
TPA_EXPORT extern const int TPA_ERROR_OOM;                   // -1 missing object
TPA_EXPORT extern const int TPA_ERROR_ARRAY_OUT_OF_INDEX;    // -2 automaton full
TPA_EXPORT extern const int TPA_ERROR_SA_INVALID_CAPACITTY;  // -3 no parsed array
TPA_EXPORT extern const int TPA_ERROR_JSON_PARSE_MISMATCH;   // -4 unbalanced text
TPA_EXPORT extern const int TPA_ERROR_KEY_NOT_FOUND;         // -5 cache miss
TPA_EXPORT extern const int TPA_ERROR_JSON_FILE_NOT_FOUND;   // -6 unreadable file

// The name of a code ("TPA_ERROR_OOM"), or "TPA_ERROR_UNKNOWN" for any other
// value, for messages and diagnostics.
TPA_EXPORT const char* name(int code);
}  // namespace error

namespace sigma::sentinel {
TPA_EXPORT extern const char PRECEDING_SYMBOL;   // '#': opens every key
TPA_EXPORT extern const char SUCCEEDING_SYMBOL;  // '$': closes a key's name
TPA_EXPORT extern const char* const LAMBDA_STRING;  // "#LAMBDA-APP": any app
}  // namespace sigma::sentinel

namespace machine {
TPA_EXPORT extern const int kFullKey;     // 10: cache sub-key of full lookups
TPA_EXPORT extern const int kPartialKey;  // 20: cache sub-key of partial lookups
}  // namespace machine

namespace fsa {
// The user-defined value of every state that ends no key.
TPA_EXPORT extern const int SA_DEFAULT_USER_DEFINED_VALUE;  // -1
}  // namespace fsa

namespace mapper {
TPA_EXPORT extern const std::uint8_t TPA_DECISION_INCLUDE;  // 1
TPA_EXPORT extern const std::uint8_t TPA_DECISION_EXCLUDE;  // 0
TPA_EXPORT extern const int TPA_RULE_NUMBER_ZERO;           // 0: any-application rule
TPA_EXPORT extern const int MAP_DEFAULT_DOMAIN_VALUE;       // -1: no rule matched
}  // namespace mapper

}  // namespace tpa

#endif  // TPA_API_CONSTANTS_H_
