/*
 * The intrusive list's records, shared by every header whose records embed
 * a link or a list head.
 *
 * A listed record carries a list_item_t inside itself; the head remembers
 * at which byte offset. An "item pointer" is the start of the record, a
 * "link pointer" is the address of the link inside it:
 *     link = item + offset,   item = link - offset.
 * head, tail, next and prev always hold link pointers.
 */
#ifndef CORVEX_LLIST_SHARED_H
#define CORVEX_LLIST_SHARED_H

#include "corvex_types.h"

CORVEX_BEGIN_DECLS

#define LIST_MAGIC 0x48746162u        /* made by list_create or list_init */
#define LIST_STATIC_MAGIC 0x53744c6cu /* made by list_init_static: caller-owned storage */

typedef struct list_item_ {
    struct list_item_* next;
    struct list_item_* prev;
} list_item_t;

/*
 * Invariants on a head with a valid magic: empty exactly when head is null
 * (then tail is null too); head->prev and tail->next are null; item_count
 * is the number of links reachable from head.
 */
typedef struct list_ {
    u_int32_t magic;
    u_int32_t offset;
    list_item_t* head;
    list_item_t* tail;
    u_int32_t item_count;
    const char* name;
} list_t;

CORVEX_END_DECLS

#endif /* CORVEX_LLIST_SHARED_H */
