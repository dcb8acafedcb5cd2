// Processor and interrupt hooks. A user-space process has no interrupts to
// mask and no caches to manage, so each hook is a fixed answer.
#include "interrupt.h"

extern "C" {

volatile u_int32_t isr_nested_count = 0;
level_t platform_all_disable = 0;
level_t platform_nets_disable = 0;

level_t interrupt_raise_priority(level_t /*new_level*/) { return 0; }

void interrupt_restore_priority(level_t /*old_level*/) {}

void cpu_dcache_flush_range(void* /*start*/, void* /*end*/) {}

void cpu_dcache_invalidate_range(void* /*start*/, void* /*end*/) {}

boolean cpu_disable_interrupts(void) { return 1; }

void cpu_restore_interrupts(boolean /*enable*/) {}

void cpu_intr_lock_create(void) {}

}  // extern "C"
