#include "lru/lru.h"

namespace tpa::lru {

// The one instantiation the library uses, compiled once here.
template class LRU<std::string, int, std::pair<fsa::SAStateValue<int>, int>>;

}  // namespace tpa::lru
