// Key framing: every string stored in or looked up from a keyed machine goes
// through these, so that stored and queried keys compare byte for byte.
// Application keys are "#" app "$"; destination keys are "#" domain "$", the
// rule number in decimal and '1' (include) or '0' (anything else). Nothing is
// escaped or trimmed. Stateless; the *Into variants reuse the caller's buffer
// (which the input must not be part of).
#ifndef TPA_MAPPER_TRANSFORM_H_
#define TPA_MAPPER_TRANSFORM_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace tpa::mapper {

[[nodiscard]] std::string tansformApp(const std::string& app);
void tansformAppInto(std::string& out, std::string_view app);

// `flag` is the list a destination belongs to: written '1' exactly when it
// equals 1, else '0'. The rule number is written as a stream writes an int.
[[nodiscard]] std::string transformDomain(const std::string& domain, int ruleNumber,
                                          std::uint8_t flag);
void transformDomainInto(std::string& out, std::string_view domain, int ruleNumber,
                         std::uint8_t flag);

// The stored key of a wildcard whose text after its '*' is `keyTail`, an end
// of a framed destination key: "#*" keyTail.
[[nodiscard]] std::string wildcardKey(std::string_view keyTail);

// Whether `text` is a rule number of 0 or more exactly as transformDomain
// writes it (no sign, no leading zero), and which.
[[nodiscard]] bool readRuleNumber(std::string_view text, int& number);

// The name part of a framed key "#NAME$...", or empty when `key` is none.
[[nodiscard]] std::string framedName(std::string_view key);

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_TRANSFORM_H_
