/*
 * Processor and interrupt hooks. In a Linux process there is nothing to
 * mask or flush: each hook does nothing or returns a fixed value, and the
 * exported variables exist for host code that reads them.
 */
#ifndef CORVEX_INTERRUPT_H
#define CORVEX_INTERRUPT_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

CORVEX_API extern volatile u_int32_t isr_nested_count;
CORVEX_API extern level_t platform_all_disable;
CORVEX_API extern level_t platform_nets_disable;

CORVEX_API level_t interrupt_raise_priority(level_t new_level);
CORVEX_API void interrupt_restore_priority(level_t old_level);
CORVEX_API void cpu_dcache_flush_range(void* start, void* end);
CORVEX_API void cpu_dcache_invalidate_range(void* start, void* end);
CORVEX_API boolean cpu_disable_interrupts(void);
CORVEX_API void cpu_restore_interrupts(boolean enable);
CORVEX_API void cpu_intr_lock_create(void);

CORVEX_END_DECLS

#endif /* CORVEX_INTERRUPT_H */
