// The leak monitor.
#pragma once

// Thread entry of the daemon's monitor; the argument is not used.
void* monitor_thread_run(void* unused);
