// archiveview: reads a debug archive and says what is wrong.
#include "tools/archiveview/collect.h"

int main() {
    return 2;
}
