#include "mapper/search_result.h"

namespace tpa::mapper {

DomainSearchResult::DomainSearchResult() : DomainSearchResult(false, 0, -1, 0) {}

DomainSearchResult::DomainSearchResult(bool found, int matchedLength, int value, int storedLength)
    : found(found), matchedLength(matchedLength), value(value), storedLength(storedLength) {}

DomainSearchResult::DomainSearchResult(const DomainSearchResult& other) = default;

DomainSearchResult& DomainSearchResult::operator=(const DomainSearchResult& other) {
  if (this != &other) {
    found = other.found;
    matchedLength = other.matchedLength;
    value = other.value;
    storedLength = other.storedLength;
  }
  return *this;
}

DomainSearchResult::~DomainSearchResult() {
  found = false;
  matchedLength = 0;
  value = -1;
  storedLength = 0;
}

bool DomainSearchResult::operator==(const DomainSearchResult& other) const {
  return found == other.found && matchedLength == other.matchedLength &&
         storedLength == other.storedLength;
}

bool DomainSearchResult::operator!=(const DomainSearchResult& other) const {
  return !(*this == other);
}

bool DomainSearchResult::operator>(const DomainSearchResult& other) const {
  return storedLength > other.storedLength || matchedLength > other.matchedLength;
}

bool DomainSearchResult::operator<(const DomainSearchResult& other) const {
  return storedLength <= other.storedLength && matchedLength <= other.matchedLength;
}

}  // namespace tpa::mapper
