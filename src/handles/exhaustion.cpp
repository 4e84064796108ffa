#include "handles/exhaustion.h"

namespace {

struct module_state {
    bool noted = false; // since the newest exhaustion_met_at_end began
};
module_state state;

void note() noexcept
{
    state.noted = true;
}

} // namespace

exhaustion_met_at_end::exhaustion_met_at_end() noexcept : handler_{std::set_new_handler(note)}
{
    state.noted = false;
}

exhaustion_met_at_end::~exhaustion_met_at_end()
{
    std::set_new_handler(handler_);
    memory_is_exhausted_if(state.noted);
}
