// writes: writes 3, 64, 65 and a million bytes to descriptor 3, which is /dev/null.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

int main() {
    static char text[1000000];
    memset(text, 'x', sizeof text);
    int fd = open("/dev/null", O_WRONLY);
    if (fd != 3 && dup2(fd, 3) != 3) {
        return 1;
    }
    const size_t sizes[] = {3, 64, 65, sizeof text};
    for (size_t size : sizes) {
        if (write(3, text, size) != static_cast<ssize_t>(size)) {
            return 1;
        }
    }
    return 0;
}
