// bench_gzip: the archive's compressor as a program, from standard input to standard output.
#include "archive/gzip.h"

int main() {
    stream_gzip();
    return 0;
}
