/* A C program using libcorvex through its public headers. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef CORVEX_INCLUDE_ALL
#include "include_all.h"
#else
#include <corvex/heap.h>
#include <corvex/kdebug.h>
#include <corvex/llist.h>
#endif

struct port {
    int number;
    list_item_t link;
};

int main(void) {
    struct port ports[3];
    list_t* list = list_create("Ports", (u_int32_t)offsetof(struct port, link));
    int expected = 0;
    struct port* p;
    int i;

    if (list == NULL) {
        return 1;
    }
    memset(ports, 0, sizeof ports);
    for (i = 0; i < 3; i++) {
        ports[i].number = i;
        list_append(list, &ports[i].link);
    }
    for (p = list_get_head(list); p != NULL; p = list_get_next(list, p)) {
        if (p->number != expected++) {
            return 2;
        }
    }
    while (list_yank_head(list) != NULL) {
    }
    list_destroy(list);
    if (expected != 3) {
        return 3;
    }
    p = kzalloc(sizeof *p);
    if (p == NULL || p->number != 0) {
        return 4;
    }
    sn_free(p);
    puts("consumer ok");
    return 0;
}
