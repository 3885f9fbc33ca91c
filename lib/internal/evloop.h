// What evloop keeps for the library's own modules.
#pragma once
#include "../evloop.h"

// Drops every fetched event of this watcher that still waits for its turn, wherever it lies in the
// batch. For owners that release the watcher next; evloop_io_delete alone does not reach all of them.
void evloop_forget(const evloop_io *io);
