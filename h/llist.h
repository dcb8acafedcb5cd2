/*
 * Intrusive doubly linked list: the container of every registry in the
 * library. The list never allocates per item and never owns what it links.
 *
 * The list takes no lock: whoever shares one between threads serialises
 * every call on it, walks included.
 *
 * Usual walk: list_get_head(), then list_get_next() on the item just
 * visited until it returns null. An item may be yanked during the walk only
 * after its successor has been fetched.
 */
#ifndef CORVEX_LLIST_H
#define CORVEX_LLIST_H

#include "llist_shared.h"

CORVEX_BEGIN_DECLS

/* Compares two item pointers; 0 means equal, > 0 means the first sorts after. */
typedef int32_t (*list_sort_fcn_t)(void* item, void* key);

CORVEX_API list_t* list_create(const char* name, u_int32_t link_offset);
/* Both initialisers expect zero-filled storage: they do not write head or tail. */
CORVEX_API void list_init(const char* name, u_int32_t link_offset, list_t* new_list);
CORVEX_API void list_init_static(const char* name, u_int32_t link_offset, list_t* new_list);
CORVEX_API void list_destroy(list_t* list);

/* These take link pointers. */
CORVEX_API void list_append(list_t* list, list_item_t* item);
CORVEX_API void list_prepend(list_t* list, list_item_t* item);
CORVEX_API void list_insert_before(list_t* list, list_item_t* next, list_item_t* item);
CORVEX_API void list_insert_after(list_t* list, list_item_t* prev, list_item_t* item);
CORVEX_API void list_yank(list_t* list, list_item_t* item);

/* These take and return item pointers. */
CORVEX_API void* list_get_head(list_t* list);
CORVEX_API void* list_get_tail(list_t* list);
CORVEX_API void* list_get_next(list_t* list, void* previous_item);
CORVEX_API void* list_get_prev(list_t* list, void* next_item);
CORVEX_API void* list_find(list_t* list, void* key_ptr, list_sort_fcn_t sort_fcn);
CORVEX_API void list_add_sorted(list_t* list, void* new_item, list_sort_fcn_t sort_fcn);
CORVEX_API void* list_yank_head(list_t* list);
CORVEX_API void* list_yank_tail(list_t* list);

CORVEX_END_DECLS

#endif /* CORVEX_LLIST_H */
