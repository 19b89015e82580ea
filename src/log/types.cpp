#include "zqcomponents/types.h"

using components::eSeverity;

template <> const int SuperEnum<eSeverity>::SIZE = 6;
template <> const int SuperEnum<eSeverity>::ROWS = 6;
template <> const eSeverity SuperEnum<eSeverity>::_vals[] = {
    components::NONE, components::LOG, components::INFO,
    components::WARNING, components::ERROR, components::PANIC};
template <> const char* const SuperEnum<eSeverity>::_texts[] = {".", "L", "I", "W", "E", "P"};
template <> const char* const SuperEnum<eSeverity>::_descr[] = {"NONE",    "LOG",   "INFO",
                                                                "WARNING", "ERROR", "PANIC"};
