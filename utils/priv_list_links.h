// The link surgery of the intrusive list, shared by the list's exported
// operations (which check the head first) and by the heap's free lists,
// whose heads the heap made itself and checks with list_magic_valid before
// linking inline on its hot paths.
#pragma once

#include "llist_shared.h"

namespace corvex {

inline bool list_magic_valid(const list_t* list) {
    return list != nullptr && (list->magic == LIST_MAGIC || list->magic == LIST_STATIC_MAGIC);
}

inline void list_links_append(list_t* list, list_item_t* item) {
    item->next = nullptr;
    if (list->head == nullptr) {
        item->prev = nullptr;
        list->head = item;
    } else {
        item->prev = list->tail;
        list->tail->next = item;
    }
    list->tail = item;
    list->item_count++;
}

inline void list_links_prepend(list_t* list, list_item_t* item) {
    item->prev = nullptr;
    if (list->head == nullptr) {
        item->next = nullptr;
        list->tail = item;
    } else {
        item->next = list->head;
        list->head->prev = item;
    }
    list->head = item;
    list->item_count++;
}

// Unlinks whatever the item's links and the head and tail say; an unlisted
// item (both links null, neither head nor tail) changes nothing. The item's
// links are always cleared.
inline void list_links_yank(list_t* list, list_item_t* item) {
    bool removed = false;
    if (list->head == item) {
        list->head = item->next;
        removed = true;
    }
    if (list->tail == item) {
        list->tail = item->prev;
        removed = true;
    }
    if (item->prev != nullptr) {
        item->prev->next = item->next;
        removed = true;
    }
    if (item->next != nullptr) {
        item->next->prev = item->prev;
        removed = true;
    }
    item->next = nullptr;
    item->prev = nullptr;
    if (removed) {
        list->item_count--;
    }
}

// The first link, unlinked (its own links are left as they were), or null.
inline list_item_t* list_links_yank_head(list_t* list) {
    list_item_t* old_head = list->head;
    if (old_head == nullptr) {
        return nullptr;
    }
    list->head = old_head->next;
    if (list->head == nullptr) {
        list->tail = nullptr;
    } else {
        list->head->prev = nullptr;
    }
    list->item_count--;
    return old_head;
}

}  // namespace corvex
