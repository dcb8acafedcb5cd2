// The heap commands of the diagnostic command line (debug, undebug, set and
// show heap) and their displays: the summaries of all heaps, one heap with
// its free lists, the block listings, the sanity walk and the help text.
//
// Displays read the heap without its lock, as walks do: a listing printed
// while other threads allocate may show a block half-changed, but never
// reads outside the heap's range. The sanity walk, which may panic, holds
// the lock so that it judges a heap at rest; it prints nothing meanwhile.
#include <cinttypes>

#include "host_cli.h"
#include "llist.h"
#include "priv_heap.h"
#include "priv_parser_items.h"
#include "priv_vty_selectors.h"

namespace corvex::heap {
namespace {

using namespace corvex::vty;

// The status of a walk that its walker stopped.
constexpr status_t kWalkStopped = 1001;

// The free-list size a listing shows for a block whose list is gone.
constexpr u_int32_t kNoFreelistSize = 4294967295u;

// part as a share of total, in percent. Totals of 100 bytes or more divide
// by total / 100, as every summary of the system does; smaller heaps would
// divide by zero there and are given their exact share instead.
u_int32_t percent_of(size_t part, size_t total) {
    if (total >= 100) {
        return static_cast<u_int32_t>(part / (total / 100));
    }
    return total == 0 ? 0 : static_cast<u_int32_t>(part * 100 / total);
}

u_int32_t low32(const void* pc) { return static_cast<u_int32_t>(reinterpret_cast<uintptr_t>(pc)); }

void summary_header(bool extensive) {
    if (extensive) {
        parser_printf("ID      Base      Total(b)       Free(b)       Used(b)   %%   Name         Peak used %%\n");
        parser_printf("--  --------     ---------     ---------     ---------  ---   -----------  -----------\n");
    } else {
        parser_printf("ID      Base      Total(b)       Free(b)       Used(b)   %%   Name\n");
        parser_printf("--  --------     ---------     ---------     ---------  ---   -----------\n");
    }
}

void summary_row(heap_t* heap, bool extensive) {
    const size_t total = heap->size;
    const size_t used = total - heap->free_bytes;
    if (extensive) {
        parser_printf("%2u  %8" PRIxPTR "  %12zu  %12zu  %12zu  %3u  %12s       %3u\n", heap->id, heap->base, total,
                      heap->free_bytes, used, percent_of(used, total), heap_display_name(heap),
                      percent_of(total - heap->available_bytes_watermark, total));
    } else {
        parser_printf("%2u  %8" PRIxPTR "  %12zu  %12zu  %12zu  %3u  %s\n", heap->id, heap->base, total,
                      heap->free_bytes, used, percent_of(used, total), heap_display_name(heap));
    }
}

// Every heap in creation order, or only `heap` when one is given.
void heap_display_summary(heap_t* heap, bool extensive) {
    summary_header(extensive);
    if (heap != nullptr) {
        summary_row(heap, extensive);
        return;
    }
    if (!heap_registry_exists()) {
        return;
    }
    for (auto* h = static_cast<heap_t*>(list_get_head(&heap_list)); h != nullptr;
         h = static_cast<heap_t*>(list_get_next(&heap_list, h))) {
        summary_row(h, extensive);
    }
}

boolean note_largest(heap_t* /*heap*/, heap_block_t* block, heap_walk_arg_t* arg) {
    auto* largest = static_cast<size_t*>(arg->context);
    if (block->size + kHeaderSize > *largest) {
        *largest = block->size + kHeaderSize;
    }
    return TRUE;
}

// Bytes of the largest free block, header included (0: nothing is free).
// The heap's record of it is gone once that block has been taken; the free
// lists then say.
size_t largest_contiguous(heap_t* heap) {
    if (heap->largest_block != nullptr) {
        return heap->largest_block->size + kHeaderSize;
    }
    size_t largest = 0;
    heap_walk_arg_t arg{};
    arg.noisy = TRUE;
    arg.context = &largest;
    for (auto* list = static_cast<heap_freelist_t*>(list_get_head(&heap->freelist)); list != nullptr;
         list = static_cast<heap_freelist_t*>(list_get_next(&heap->freelist, list))) {
        heap_freelist_walk(heap, list, note_largest, &arg);
    }
    return largest;
}

void heap_display(heap_t* heap) {
    heap_display_summary(heap, false);
    parser_printf("Available bytes watermark: %zu\n", heap->available_bytes_watermark);
    if (heap->low_watermark_bytes != 0) {
        parser_printf("\nWatermark:\n");
        parser_printf("  Low watermark(b): %zu\n", heap->low_watermark_bytes);
    }
    parser_printf("\nFreelists for Heap blocks:\n");
    parser_printf("  Size     Free(b)    Blocks    Allocs     Frees    (Min, Max)\n");
    parser_printf(" -----  ----------  --------  --------  --------  --------------\n");
    size_t free_bytes = 0;
    u_int32_t blocks = 0;
    u_int32_t allocs = 0;
    u_int32_t frees = 0;
    for (auto* list = static_cast<heap_freelist_t*>(list_get_head(&heap->freelist)); list != nullptr;
         list = static_cast<heap_freelist_t*>(list_get_next(&heap->freelist, list))) {
        if (list->size == 0) {
            parser_printf("     -  ");
        } else {
            parser_printf(" %5zu  ", list->size);
        }
        parser_printf("%10zu  %8u  %8u  %8u  (%5u, %5u)\n", list->free_bytes, list->blocks.item_count, list->allocs,
                      list->frees, list->smallest, list->largest);
        free_bytes += list->free_bytes;
        blocks += list->blocks.item_count;
        allocs += list->allocs;
        frees += list->frees;
    }
    parser_printf(" -----  ----------  --------  --------  --------  --------------\n");
    parser_printf(" Total  %10zu  %8u  %8u  %8u\n", free_bytes, blocks, allocs, frees);
    parser_printf("\n");
    parser_printf(" Largest Contiguous\n");
    parser_printf(" Block  %9zu\n", largest_contiguous(heap));
}

void heap_display_block_header() {
    parser_printf("   Block       Size(b)  Ref  PC        Prev      Next      Flist\n");
    parser_printf("   --------  ---------  ---  --------  --------  --------  -----\n");
}

// The walker of every listing and of the sanity walk; arg->magic holds the
// command's selector, arg->value its size (or the sanity count) and
// arg->pcaddr its PC.
boolean heap_display_block(heap_t* heap, heap_block_t* block, heap_walk_arg_t* arg) {
    void* data = data_of(block);
    const u_int32_t selector = arg->magic;
    if (selector >= kShowAlloc && selector <= kShowAllocSizePc && !block->header.allocated) {
        return TRUE;
    }
    if ((selector == kShowAllocPc || selector == kShowAllocSizePc) && low32(heap_get_pc(data)) != arg->pcaddr) {
        return TRUE;
    }
    if (selector == kShowSanity || selector == kShowSanityActive) {
        ++arg->value;
        return TRUE;
    }
    if ((selector == kShowBlocksSize || selector == kShowAllocSize || selector == kShowAllocSizePc) &&
        heap_block_size(data) != arg->value) {
        return TRUE;
    }
    const auto header = reinterpret_cast<uintptr_t>(block);
    if (block->header.allocated) {
        parser_printf(" A %08" PRIxPTR "  %9u  %3u", header, heap_block_size(data),
                      static_cast<unsigned>(block->header.refcount));
        parser_printf("  %08" PRIxPTR "\n", reinterpret_cast<uintptr_t>(heap_get_pc(data)));
        return TRUE;
    }
    parser_printf(" F %08" PRIxPTR "  %9u  %3u", header, heap_block_size(data),
                  static_cast<unsigned>(block->header.refcount));
    const heap_freelist_t* list = heap_freelist_find_by_id(heap, block->freelist_id, TRUE);
    parser_printf("            %08" PRIxPTR "  %08" PRIxPTR "  %u\n",
                  reinterpret_cast<uintptr_t>(block->x.free.links.prev),
                  reinterpret_cast<uintptr_t>(block->x.free.links.next),
                  list != nullptr ? static_cast<u_int32_t>(list->size) : kNoFreelistSize);
    return TRUE;
}

void heap_display_blocks(heap_t* heap, heap_walk_arg_t* arg) {
    parser_printf("\n Heap blocks\n");
    heap_display_block_header();
    heap_walk(heap, heap_display_block, arg);
}

// All free lists in order (free SIZE: only the list that serves SIZE).
void heap_display_freelist(heap_t* heap, heap_walk_arg_t* arg, bool one_size) {
    parser_printf("\n Heap blocks\n");
    heap_display_block_header();
    if (one_size) {
        heap_freelist_walk(heap, heap_freelist_find_by_size(heap, arg->value, FALSE), heap_display_block, arg);
        return;
    }
    for (auto* list = static_cast<heap_freelist_t*>(list_get_head(&heap->freelist)); list != nullptr;
         list = static_cast<heap_freelist_t*>(list_get_next(&heap->freelist, list))) {
        if (heap_freelist_walk(heap, list, heap_display_block, arg) == kWalkStopped) {
            return;
        }
    }
}

void heap_sanity_walk(heap_t* heap, heap_walk_arg_t* arg) {
    status_t status;
    {
        GlbLockGuard lock(heap_lock(), kSource, __LINE__);
        status = heap_walk(heap, heap_display_block, arg);
    }
    if (status == 0) {
        parser_printf("Heap %s passed Heap block sanity check (%9u blocks)\n", heap_display_name(heap), arg->value);
        return;
    }
    parser_printf("Heap %s ============  FAILURE  ==========\n", heap_display_name(heap));
    parser_printf("Heap %s failed Heap block sanity check\n", heap_display_name(heap));
    parser_printf("Heap %s ============  FAILURE  ==========\n", heap_display_name(heap));
}

constexpr const char* kHelpLines[] = {
    "\n ================ Heap Help Info ==================\n",
    "\n",
    "Summary of some useful debugging CLI commands:\n",
    "    show heap\n",
    "         - display memory usage for all heaps\n",
    "    show heap 0 \n",
    "         - display memory usage for system heap\n",
    "         - plus displays free list info\n",
    "    show heap 0 sanity\n",
    "         - checks sanity of all heap blocks and nodes\n",
    "    show heap 0 address 0xnnnnnnnn\n",
    "         - dispaly allocation header info\n",
    "    show heap 0 show heap 0 accounting size\n",
    "         - dispaly allocations by size\n",
    "    show heap 0 accounting pc\n",
    "         - dispaly allocations by PC\n",
    "\n",
    "\n",
    "The set heap 0 debug enable - is very useful when debugging\n",
    "data over run errors since it adds a TRAILER (0x55) to all \n",
    "allocations.  Checked when node is allocated and freed.\n",
    "Also checked during show heap 0 sanity\n",
    "\n",
    "\n",
    "The following test commands were used for testing, See\n",
    "    show heap 0 test-?\n",
    "\n",
};

}  // namespace
}  // namespace corvex::heap

using namespace corvex::heap;
using corvex::parser_item_u32;
using corvex::parser_item_uintptr;

extern "C" {

void heap_parser_init(void) {}

void heap_display_help(heap_t* /*heap*/) {
    for (const char* line : kHelpLines) {
        parser_printf("%s", line);
    }
}

void heap_debug_command(parser_config* /*config*/, parser_result* result, u_int32_t magic) {
    const u_int32_t id = parser_item_u32(result, 0);
    heap_t* heap = heap_find_by_id(id);
    if (heap == nullptr) {
        parser_printf("Couldn't find heap ID %d\n", static_cast<int>(id));
        return;
    }
    heap->debug = magic != 0 ? TRUE : FALSE;
}

void heap_set_command(parser_config* /*config*/, parser_result* result, u_int32_t magic) {
    const u_int32_t id = parser_item_u32(result, 0);
    heap_t* heap = heap_find_by_id(id);
    if (heap == nullptr) {
        parser_printf("No heap with ID %u found\n", id);
        return;
    }
    switch (magic) {
        case kSetLowWatermark:
            heap_low_watermark_set(heap, parser_item_u32(result, 1));
            break;
        case kSetDebugEnable:
            heap_enable_debug(heap);
            break;
        case kSetDebugDisable:
            heap_disable_debug(heap);
            break;
        case kSetRecovery:
            // The limits are checked for the operator; no heap keeps them.
            if (parser_item_u32(result, 1) < parser_item_u32(result, 2)) {
                parser_printf("Usage Error: High mem > Low mem, e.g. 50 25\n");
            }
            break;
        default:
            parser_printf("Unknown magic number (%u)\n", magic);
            break;
    }
}

void heap_show_command(parser_config* /*config*/, parser_result* result, u_int32_t magic) {
    if (magic == kShowSummary || magic == kShowExtensive) {
        heap_display_summary(nullptr, magic == kShowExtensive);
        return;
    }
    const u_int32_t id = parser_item_u32(result, 0);
    heap_t* heap = heap_find_by_id(id);
    if (heap == nullptr) {
        parser_printf("Failed to find a heap with ID %u\n", id);
        return;
    }
    heap_walk_arg_t arg{};
    arg.noisy = TRUE;
    arg.magic = magic;
    switch (magic) {
        case kShowOne:
            heap_display(heap);
            break;
        case kShowHelp:
            heap_display_help(heap);
            break;
        case kShowBlocks:
        case kShowAlloc:
            heap_display_blocks(heap, &arg);
            break;
        case kShowBlocksSize:
        case kShowAllocSize:
            arg.value = parser_item_u32(result, 1);
            heap_display_blocks(heap, &arg);
            break;
        case kShowAllocPc:
            arg.pcaddr = static_cast<u_int32_t>(parser_item_uintptr(result, 1));
            heap_display_blocks(heap, &arg);
            break;
        case kShowAllocSizePc:
            arg.value = parser_item_u32(result, 1);
            arg.pcaddr = static_cast<u_int32_t>(parser_item_uintptr(result, 2));
            heap_display_blocks(heap, &arg);
            break;
        case kShowFree:
            heap_display_freelist(heap, &arg, false);
            break;
        case kShowFreeSize:
            arg.value = parser_item_u32(result, 1);
            heap_display_freelist(heap, &arg, true);
            break;
        case kShowSanity:
        case kShowSanityActive:
            arg.active = magic == kShowSanityActive ? TRUE : FALSE;
            heap_sanity_walk(heap, &arg);
            break;
        case kShowAddress:
            heap_show_block(heap, reinterpret_cast<void*>(parser_item_uintptr(result, 1)));
            break;
        default:
            if (magic >= kShowRates && magic <= kShowBySize) {
                heap_accounting_show(heap, magic);
            }
            break;
    }
}

}  // extern "C"
