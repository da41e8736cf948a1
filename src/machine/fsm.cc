#include "machine/fsm.h"

namespace tpa::machine {

// The one instantiation the library uses, compiled once here.
template class FSM<std::string, int, int, int>;

}  // namespace tpa::machine
