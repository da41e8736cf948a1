#include "fsa/suffix_automaton.h"

namespace tpa::fsa {

// The one instantiation the library uses, compiled once here.
template class SuffixAutomaton<int>;

}  // namespace tpa::fsa
