// ten_threads: starts ten threads, which make system calls until standard input has a byte or ends. Then
// exits with status 7.
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

int main() {
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 10; i++) {
        threads.emplace_back([&done] {
            while (!done) {
                usleep(100);
            }
        });
    }
    char byte;
    (void)!read(STDIN_FILENO, &byte, 1);
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 7;
}
