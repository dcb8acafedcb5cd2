// Lets go of this process's view of a shared-memory table without touching
// the file: what a process that never deletes its handle leaves behind.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "itable_shm.h"

inline void shm_view_release(itable_shm_t* table) {
    munmap(itable_shm_get_start_addr(table), static_cast<size_t>(itable_shm_get_mmap_size(table)));
    close(table->shm_fd);
    free(table->shm_path);
    free(table);
}
