// A chained hash table whose nodes are embedded in the caller's records.
//
// The table owns its copies of the keys. The caller owns the records, which must not move while they are in
// the table. A key is a byte pointer and a length. A length of 0 means a string that ends in a NUL, which is
// not part of the key. The number of buckets is fixed. `offset` is the position of the node in the record:
// offsetof(record, node).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

struct ehash_node {
    ehash_node* next;    // in the same chain; null at its end
    unsigned char* key;  // the table's copy, `length` bytes
    uint32_t length;
};

struct ehash {
    uint32_t count;         // nodes in the table
    uint32_t bucket_count;  // a power of two
    ehash_node* buckets[];  // bucket_count chains, then a null that ends an iteration
};

// All zero before the first step. Nodes that are added during an iteration may or may not be returned. The
// node that was returned last may be removed, but its memory must stay valid until the next step.
struct ehash_iterator {
    uint32_t bucket;
    ehash_node* node;
};

// Creates a table. The number of buckets is the smallest power of two above `hint`, or 16 if `hint` is 0.
// Null if memory runs out.
ehash* ehash_new(uint32_t hint);

// Frees the table, which may be null, and its copies of the keys, but no records.
void ehash_free(ehash* table);

// Adds `node` before all nodes with an equal key. Returns 0, or -1 if memory runs out; the table is then
// unchanged.
int ehash_insert_e(ehash* table, const void* key, uint32_t length, ehash_node* node);

// Removes `node`; its `next` does not change. Returns 0, or -2 if it is not in the table, which is then
// unchanged.
int ehash_remove(ehash* table, ehash_node* node);

// Returns the record with this key that was added last; null if there is none.
inline void* ehash_lookup_e(const ehash* table, const void* key, uint32_t length, size_t offset);

// Returns the next record, in no particular order; null at the end. Stores its key, which the table owns, and
// the key's length through the two pointers, which may be null.
inline void* ehash_iterate_e(const ehash* table, ehash_iterator* iterator, const void** key_out,
                             uint32_t* length_out, size_t offset);

// Inline, because a key of constant length is then hashed and compared in a few instructions.

inline uint32_t ehash_length_of(const void* key, uint32_t length) {
    return length ? length : static_cast<uint32_t>(strlen(static_cast<const char*>(key)));
}

// The number whose digits in base 65599 are the key's bytes. Takes four digits in one step: only one
// multiplication per step then depends on the step before.
inline uint32_t ehash_hash(const void* key, uint32_t length) {
    constexpr uint32_t base = 65599;
    constexpr uint32_t base2 = base * base;
    constexpr uint32_t base3 = base2 * base;
    constexpr uint32_t base4 = base3 * base;
    const unsigned char* at = static_cast<const unsigned char*>(key);
    uint32_t hash = 0;
    for (; length >= 4; length -= 4, at += 4) {
        hash = hash * base4 + (at[0] * base3 + at[1] * base2 + at[2] * base + at[3]);
    }
    for (; length > 0; length--, at++) {
        hash = hash * base + *at;
    }
    return hash;
}

inline uint32_t ehash_bucket_of(const ehash* table, const void* key, uint32_t length) {
    return ehash_hash(key, length) & (table->bucket_count - 1);
}

inline void* ehash_lookup_e(const ehash* table, const void* key, uint32_t length, size_t offset) {
    length = ehash_length_of(key, length);
    ehash_node* node = table->buckets[ehash_bucket_of(table, key, length)];
    while (node && (node->length != length || memcmp(node->key, key, length) != 0)) {
        node = node->next;
    }
    return node ? reinterpret_cast<char*>(node) - offset : nullptr;
}

inline void* ehash_iterate_e(const ehash* table, ehash_iterator* iterator, const void** key_out,
                             uint32_t* length_out, size_t offset) {
    uint32_t bucket = iterator->bucket;
    ehash_node* node = iterator->node ? iterator->node->next : table->buckets[bucket];
    while (!node) {
        if (bucket >= table->bucket_count) {
            iterator->bucket = bucket;
            return nullptr;
        }
        node = table->buckets[++bucket];
    }
    *iterator = {bucket, node};
    if (key_out) {
        *key_out = node->key;
    }
    if (length_out) {
        *length_out = node->length;
    }
    return reinterpret_cast<char*>(node) - offset;
}
