// Intrusive doubly linked list.
//
// Every operation but the initialisers first checks the head's magic. A bad
// head is reported at priority 0 and left untouched; list_get_tail and
// list_yank_head treat it as fatal. A null head counts as a bad head whose
// magic reads 0, so a missing list never becomes a null dereference.
#include <cstdlib>
#include <syslog.h>

#include "heap.h"
#include "llist.h"
#include "priv_assert.h"
#include "priv_list_links.h"

namespace {

constexpr const char kSource[] = "llist/llist";
constexpr const char kMagicExpr[] = "list->magic == 0x48746162 || list->magic == (0x53744c6c)";

using corvex::list_magic_valid;

// Reports a bad head on behalf of `operation`; true when the list may be used.
bool list_check(const list_t* list, const char* operation) {
    if (list_magic_valid(list)) {
        return true;
    }
    syslog(LOG_EMERG, "%s, list has bad magic (%#x)\n", operation, list ? list->magic : 0u);
    return false;
}

void* item_of(const list_t* list, list_item_t* link) {
    return link ? reinterpret_cast<char*>(link) - list->offset : nullptr;
}

list_item_t* link_of(const list_t* list, void* item) {
    return reinterpret_cast<list_item_t*>(static_cast<char*>(item) + list->offset);
}

// Orders by address: 0 exactly when both are the same pointer.
int32_t default_cmp(void* item, void* key) {
    return static_cast<int32_t>(reinterpret_cast<uintptr_t>(item) - reinterpret_cast<uintptr_t>(key));
}

}  // namespace

extern "C" {

void list_init(const char* name, u_int32_t link_offset, list_t* new_list) {
    if (new_list == nullptr) {
        return;
    }
    new_list->magic = LIST_MAGIC;
    new_list->offset = link_offset;
    new_list->item_count = 0;
    new_list->name = name;
}

void list_init_static(const char* name, u_int32_t link_offset, list_t* new_list) {
    if (new_list == nullptr) {
        return;
    }
    list_init(name, link_offset, new_list);
    new_list->magic = LIST_STATIC_MAGIC;
}

list_t* list_create(const char* name, u_int32_t link_offset) {
    auto* list = static_cast<list_t*>(kzalloc(sizeof(list_t)));
    list_init(name, link_offset, list);
    return list;
}

void list_destroy(list_t* list) {
    if (!list_check(list, "list_destroy")) {
        return;
    }
    if (list->item_count != 0) {
        syslog(LOG_EMERG, "list_destroy(): %s: non-empty list (%u)\n", list->name, list->item_count);
        return;
    }
    if (list->magic == LIST_MAGIC) {
        free(list);
    }
}

void list_append(list_t* list, list_item_t* item) {
    if (!list_check(list, "list_append")) {
        return;
    }
    corvex::list_links_append(list, item);
}

void list_prepend(list_t* list, list_item_t* item) {
    if (!list_check(list, "list_prepend")) {
        return;
    }
    corvex::list_links_prepend(list, item);
}

void list_insert_before(list_t* list, list_item_t* next, list_item_t* item) {
    if (!list_check(list, "list_insert_before")) {
        return;
    }
    if (next == nullptr) {
        list_prepend(list, item);
        return;
    }
    list_item_t* prev = next->prev;
    item->next = next;
    item->prev = prev;
    next->prev = item;
    if (prev == nullptr) {
        list->head = item;
    } else {
        prev->next = item;
    }
    list->item_count++;
}

void list_insert_after(list_t* list, list_item_t* prev, list_item_t* item) {
    if (!list_check(list, "list_insert_after")) {
        return;
    }
    if (prev == nullptr) {
        list_append(list, item);
        return;
    }
    list_item_t* next = prev->next;
    item->prev = prev;
    item->next = next;
    prev->next = item;
    if (next == nullptr) {
        list->tail = item;
    } else {
        next->prev = item;
    }
    list->item_count++;
}

void* list_get_head(list_t* list) {
    if (!list_check(list, "list_get_head")) {
        return nullptr;
    }
    return item_of(list, list->head);
}

void* list_get_tail(list_t* list) {
    CORVEX_ASSERT(list_magic_valid(list), kMagicExpr, kSource);
    return item_of(list, list->tail);
}

void* list_get_next(list_t* list, void* previous_item) {
    if (!list_check(list, "list_get_next") || previous_item == nullptr) {
        return nullptr;
    }
    return item_of(list, link_of(list, previous_item)->next);
}

void* list_get_prev(list_t* list, void* next_item) {
    if (!list_check(list, "list_get_prev") || next_item == nullptr) {
        return nullptr;
    }
    return item_of(list, link_of(list, next_item)->prev);
}

void* list_find(list_t* list, void* key_ptr, list_sort_fcn_t sort_fcn) {
    list_sort_fcn_t cmp = sort_fcn ? sort_fcn : default_cmp;
    for (void* item = list_get_head(list); item != nullptr; item = list_get_next(list, item)) {
        if (cmp(item, key_ptr) == 0) {
            return item;
        }
    }
    return nullptr;
}

// Ascending order; a new item goes after every item that compares equal,
// so equal keys keep their order of insertion.
void list_add_sorted(list_t* list, void* new_item, list_sort_fcn_t sort_fcn) {
    list_sort_fcn_t cmp = sort_fcn ? sort_fcn : default_cmp;
    void* stop = list_get_head(list);
    while (stop != nullptr && cmp(stop, new_item) <= 0) {
        stop = list_get_next(list, stop);
    }
    if (stop == nullptr) {
        list_append(list, link_of(list, new_item));
    } else if (link_of(list, stop) == list->head) {
        list_prepend(list, link_of(list, new_item));
    } else {
        list_insert_after(list, link_of(list, stop)->prev, link_of(list, new_item));
    }
}

// The removed item's own links are left as they were.
void* list_yank_head(list_t* list) {
    CORVEX_ASSERT(list_magic_valid(list), kMagicExpr, kSource);
    return item_of(list, corvex::list_links_yank_head(list));
}

// The removed item's own links are left as they were.
void* list_yank_tail(list_t* list) {
    if (!list_check(list, "list_yank_tail") || list->head == nullptr) {
        return nullptr;
    }
    list_item_t* old_tail = list->tail;
    list->tail = old_tail->prev;
    if (list->tail == nullptr) {
        list->head = nullptr;
    } else {
        list->tail->next = nullptr;
    }
    list->item_count--;
    return item_of(list, old_tail);
}

void list_yank(list_t* list, list_item_t* item) {
    if (!list_check(list, "list_yank") || item == nullptr) {
        return;
    }
    corvex::list_links_yank(list, item);
}

}  // extern "C"
