#include "tpa/api/constants.h"

namespace tpa {

namespace error {
const int TPA_ERROR_NONE = 0;
const int TPA_ERROR_OOM = -1;
const int TPA_ERROR_ARRAY_OUT_OF_INDEX = -2;
const int TPA_ERROR_SA_INVALID_CAPACITTY = -3;
const int TPA_ERROR_JSON_PARSE_MISMATCH = -4;
const int TPA_ERROR_KEY_NOT_FOUND = -5;
const int TPA_ERROR_JSON_FILE_NOT_FOUND = -6;

const char* name(int code) {
  switch (code) {
    case 0: return "TPA_ERROR_NONE";
    case -1: return "TPA_ERROR_OOM";
    case -2: return "TPA_ERROR_ARRAY_OUT_OF_INDEX";
    case -3: return "TPA_ERROR_SA_INVALID_CAPACITTY";
    case -4: return "TPA_ERROR_JSON_PARSE_MISMATCH";
    case -5: return "TPA_ERROR_KEY_NOT_FOUND";
    case -6: return "TPA_ERROR_JSON_FILE_NOT_FOUND";
    default: return "TPA_ERROR_UNKNOWN";
  }
}
}  // namespace error

namespace sigma::sentinel {
const char PRECEDING_SYMBOL = '#';
const char SUCCEEDING_SYMBOL = '$';
const char* const LAMBDA_STRING = "#LAMBDA-APP";
}  // namespace sigma::sentinel

namespace machine {
const int kFullKey = 10;
const int kPartialKey = 20;
}  // namespace machine

namespace fsa {
const int SA_DEFAULT_USER_DEFINED_VALUE = -1;
}  // namespace fsa

namespace mapper {
const std::uint8_t TPA_DECISION_INCLUDE = 1;
const std::uint8_t TPA_DECISION_EXCLUDE = 0;
const int TPA_RULE_NUMBER_ZERO = 0;
const int MAP_DEFAULT_DOMAIN_VALUE = -1;
}  // namespace mapper

}  // namespace tpa
