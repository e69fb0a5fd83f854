// Sends a stored dump to the waiting browser.
#pragma once

// Sends the first entry of the dump directory that is not a FIFO to the waiting browser and deletes it.
// Closes the browser's connection in any case. `dir` is the directory; null means the first of the device's
// own (SD card, hard disk, RAID, volatile) that opens. Progress and failures go to the system log.
void pop_stored_dump(const char* dir);
