// bench_round ROUNDS [STATUS]: runs rounds of the leak monitor.
#include <stdlib.h>

#include "monitor/monitor.h"

int main(int argc, char** argv) {
    monitor* m = monitor_create(argc > 2 ? argv[2] : nullptr);
    for (int i = argc > 1 ? atoi(argv[1]) : 1; m && i > 0; i--) {
        monitor_run(m);
    }
    monitor_destroy(m);
    return m ? 0 : 1;
}
