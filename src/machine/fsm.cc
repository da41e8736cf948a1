#include "machine/fsm.h"

// The one instantiation the library uses, and its cache, compiled once here.
template class tpa::lru::LRU<std::string, int, std::pair<tpa::fsa::SAStateValue<int>, int>>;

namespace tpa::machine {

template class FSM<std::string, int, int, int>;

}  // namespace tpa::machine
