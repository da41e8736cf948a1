// DomainSearchResult: what searching one domain machine under one rule
// number found, and how two such results are weighed against each other.
// A plain value; copies share nothing.
#ifndef TPA_MAPPER_SEARCH_RESULT_H_
#define TPA_MAPPER_SEARCH_RESULT_H_

namespace tpa::mapper {

class DomainSearchResult {
 public:
  DomainSearchResult();
  DomainSearchResult(bool found, int matchedLength, int value, int storedLength);
  DomainSearchResult(const DomainSearchResult& other);
  DomainSearchResult& operator=(const DomainSearchResult& other);
  ~DomainSearchResult();

  // Results compare by found, matchedLength and storedLength; value is not
  // compared, so two matches of equal extent are equal whoever stored them.
  bool operator==(const DomainSearchResult& other) const;
  bool operator!=(const DomainSearchResult& other) const;
  // Longer on either count.
  bool operator>(const DomainSearchResult& other) const;
  // The negation of >: no longer on both counts, so also true for equal results.
  bool operator<(const DomainSearchResult& other) const;

  bool found;
  int matchedLength;  // characters of the searched key that matched
  int value;          // value at the matched entry's end (the rule's id)
  int storedLength;   // length of the stored key whose end was reached
};

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_SEARCH_RESULT_H_
