// Functions of evloop for the library's own modules.
#pragma once
#include "../evloop.h"

// Drops every pending event of this watcher, wherever it lies in the batch. Owners call it before they release the
// watcher: evloop_io_delete alone does not reach all events.
void evloop_forget(const evloop_io *io);
