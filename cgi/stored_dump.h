// Handing a stored dump to the waiting browser.
#pragma once

// Sends the first entry of the dump directory that is no FIFO to the waiting browser, deletes it and closes
// the browser's connection, whatever happens. `dir` is the directory; null searches the device's own (SD
// card, hard disk, RAID, volatile) for the first that opens. Progress and trouble go to the system log.
void pop_stored_dump(const char* dir);
