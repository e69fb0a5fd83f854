#include "monitor/ehash.h"

#include <stdlib.h>

#include <bit>

namespace {

constexpr uint32_t default_buckets = 16;
constexpr int not_in_table = -2;
constexpr size_t head_size = sizeof(void*);

// Copies a key and returns its bucket. The most frequent call passes a constant length.
inline ehash_node** copy_key(ehash* table, unsigned char* copy, const void* key, uint32_t length) {
    memcpy(copy, key, length);
    return &table->buckets[ehash_bucket_of(table, copy, length)];
}

}  // namespace

ehash* ehash_new(uint32_t hint) {
    constexpr uint32_t largest_hint = UINT32_MAX / 2;
    if (hint > largest_hint) {
        return nullptr;
    }
    uint32_t buckets = hint ? 1U << std::bit_width(hint) : default_buckets;
    constexpr size_t most_buckets = (SIZE_MAX - sizeof(ehash)) / head_size - 1;
    if (size_t{buckets} > most_buckets) {  // possible if size_t has 32 bits
        return nullptr;
    }
    ehash* table = static_cast<ehash*>(calloc(1, sizeof(ehash) + (size_t{buckets} + 1) * head_size));
    if (table) {
        table->bucket_count = buckets;
    }
    return table;
}

void ehash_free(ehash* table) {
    if (!table) {
        return;
    }
    for (uint32_t i = 0; i < table->bucket_count; i++) {
        for (ehash_node* node = table->buckets[i]; node; node = node->next) {
            free(node->key);
        }
    }
    free(table);
}

int ehash_insert_e(ehash* table, const void* key, uint32_t length, ehash_node* node) {
    length = ehash_length_of(key, length);
    unsigned char* copy = static_cast<unsigned char*>(malloc(length ? length : 1));
    if (!copy) {
        return -1;
    }
    constexpr uint32_t usual = sizeof(int32_t);
    ehash_node** head =
        length == usual ? copy_key(table, copy, key, usual) : copy_key(table, copy, key, length);
    *node = {*head, copy, length};
    *head = node;
    table->count++;
    return 0;
}

int ehash_remove(ehash* table, ehash_node* node) {
    ehash_node** link = &table->buckets[ehash_bucket_of(table, node->key, node->length)];
    while (*link && *link != node) {
        link = &(*link)->next;
    }
    if (!*link) {
        return not_in_table;
    }
    *link = node->next;
    table->count--;
    free(node->key);
    node->key = nullptr;
    node->length = 0;
    return 0;
}
