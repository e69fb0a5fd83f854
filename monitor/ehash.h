// A chained hash table whose nodes are embedded in the caller's records.
//
// The table owns its copies of the keys; the records are the caller's, who allocates them, keeps them where
// they are while they are in the table and frees them. A key is a byte pointer and a length; a length of 0
// means a zero-terminated string, whose terminator is not part of the key. The number of buckets is fixed.
// `offset` is the position of the node in the record: offsetof(record, node).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

struct ehash_node {
    ehash_node* next;    // of the same chain; null at its end
    unsigned char* key;  // the table's copy, `length` bytes without a terminator
    uint32_t length;
};

struct ehash {
    uint32_t count;         // nodes in the table
    uint32_t bucket_count;  // a power of two
    ehash_node* buckets[];  // bucket_count chains, then a null on which an iteration ends
};

// All zero before the first step. A table that grew meanwhile may or may not show the new nodes; the node
// that was returned last may be removed as long as its memory stays valid until the next step.
struct ehash_iterator {
    uint32_t bucket;
    ehash_node* node;
};

// A table with the smallest power of two of buckets above `hint`, 16 for a hint of 0. Null when there is no
// memory for it.
ehash* ehash_new(uint32_t hint);

// Frees the table and its key copies, none of the records. Null is accepted.
void ehash_free(ehash* table);

// Puts `node` into the table, in front of those with an equal key. Returns 0, or -1 when there is no memory
// for the copy of the key; the table is then unchanged.
int ehash_insert_e(ehash* table, const void* key, uint32_t length, ehash_node* node);

// Takes `node` out; its `next` stays as it was. Returns 0, or -2 when it is not in the table, which is then
// unchanged.
int ehash_remove(ehash* table, ehash_node* node);

// The record with this key that was inserted last; null when there is none.
inline void* ehash_lookup_e(const ehash* table, const void* key, uint32_t length, size_t offset);

// The next record, in no particular order; null at the end. Its key, which stays the table's, is stored
// through `key_out` and `length_out` where these are not null.
inline void* ehash_iterate_e(const ehash* table, ehash_iterator* iterator, const void** key_out,
                             uint32_t* length_out, size_t offset);

// What is called most is defined here, so that a key of a fixed length is hashed and compared in a few
// instructions.

inline uint32_t ehash_length_of(const void* key, uint32_t length) {
    return length ? length : static_cast<uint32_t>(strlen(static_cast<const char*>(key)));
}

// The number whose digits to the base of 65599 are the key's bytes. Four digits at a time, so that only one
// multiplication in four has to wait for the one before it.
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
