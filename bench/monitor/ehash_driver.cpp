// bench_ehash TABLE KEYS WORK REPEATS: repeats one kind of work on one table.
//
// TABLE: ehash, or map for std::unordered_map. KEYS: pids (1,000 four-byte numbers with random gaps, like
// those of processes that come and go), steps (the same with gaps of one size, which fall into a map's prime
// number of buckets without a collision) or names (1,000 texts of 12 to 20 characters). WORK: insert (into a
// fresh table, which is then freed), lookup (each key) or iterate. The records of both tables have the same
// size, and both get the same size hint.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "monitor/ehash.h"

namespace {

constexpr size_t count = 1000;
constexpr uint32_t hint = 512;

struct payload {
    int32_t numbers[8];
};

struct record {
    payload data;
    ehash_node node;
};

std::vector<int32_t> steps() {
    std::vector<int32_t> keys;
    for (size_t i = 0; i < count; i++) {
        keys.push_back(static_cast<int32_t>(300 + 7 * i));
    }
    return keys;
}

std::vector<int32_t> pids() {
    std::vector<int32_t> keys;
    uint32_t random = 1;
    for (int32_t pid = 300; keys.size() < count; pid += static_cast<int32_t>(1 + (random >> 16) % 60)) {
        keys.push_back(pid);
        random = random * 1103515245 + 12345;
    }
    return keys;
}

std::vector<std::string> names() {
    std::vector<std::string> keys;
    for (int32_t number : steps()) {
        keys.push_back("process-name" + std::to_string(number * 7919));
    }
    return keys;
}

struct bytes {
    const void* data;
    uint32_t length;
};
bytes bytes_of(const int32_t& key) {
    return {&key, sizeof key};
}
bytes bytes_of(const std::string& key) {
    return {key.data(), static_cast<uint32_t>(key.size())};
}

// Prevents the optimiser from removing a result.
void use(const void* result) {
    asm volatile("" : : "r"(result) : "memory");
}

template <typename Key>
struct with_ehash {
    explicit with_ehash(const std::vector<Key>& keys) : table(ehash_new(hint)), records(keys.size()) {
        for (size_t i = 0; i < keys.size(); i++) {
            bytes key = bytes_of(keys[i]);
            ehash_insert_e(table, key.data, key.length, &records[i].node);
        }
    }
    with_ehash(const with_ehash&) = delete;
    with_ehash& operator=(const with_ehash&) = delete;
    ~with_ehash() { ehash_free(table); }

    void lookup(const std::vector<Key>& keys) const {
        for (const Key& each : keys) {
            bytes key = bytes_of(each);
            use(ehash_lookup_e(table, key.data, key.length, offsetof(record, node)));
        }
    }
    void iterate() const {
        ehash_iterator at = {};
        while (void* found = ehash_iterate_e(table, &at, nullptr, nullptr, offsetof(record, node))) {
            use(found);
        }
    }

    ehash* table;
    std::vector<record> records;
};

template <typename Key>
struct with_map {
    explicit with_map(const std::vector<Key>& keys) : table(hint) {
        for (const Key& key : keys) {
            table.emplace(key, payload{});
        }
    }
    void lookup(const std::vector<Key>& keys) const {
        for (const Key& key : keys) {
            use(&table.find(key)->second);
        }
    }
    void iterate() const {
        for (const auto& [key, data] : table) {
            use(&data);
        }
    }

    std::unordered_map<Key, payload> table;
};

template <typename Table, typename Key>
void work(const std::vector<Key>& keys, std::string_view kind, int repeats) {
    const Table filled(keys);
    for (; repeats > 0; repeats--) {
        if (kind == "insert") {
            Table fresh(keys);
            use(&fresh);
        } else if (kind == "lookup") {
            filled.lookup(keys);
        } else {
            filled.iterate();
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        fputs("usage: bench_ehash ehash|map pids|steps|names insert|lookup|iterate REPEATS\n", stderr);
        return 2;
    }
    const bool is_map = strcmp(argv[1], "map") == 0;
    const std::string_view keys = argv[2];
    const int repeats = atoi(argv[4]);
    auto run = [&]<typename Key>(const std::vector<Key>& all) {
        is_map ? work<with_map<Key>>(all, argv[3], repeats) : work<with_ehash<Key>>(all, argv[3], repeats);
    };
    if (keys == "names") {
        run(names());
    } else {
        run(keys == "steps" ? steps() : pids());
    }
    return 0;
}
