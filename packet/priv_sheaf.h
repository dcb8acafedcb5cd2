// Shared by the sheaf sources: the registry that the background task walks.
#pragma once

#include "llist.h"
#include "priv_packet.h"

namespace corvex::packet {

// Every sheaf, in creation order (made by sheaf_init).
extern list_t* sheaflist;

}  // namespace corvex::packet
