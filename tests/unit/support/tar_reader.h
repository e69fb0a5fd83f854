// A small reader of ustar streams for tests, written from the format's description.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

struct tar_entry {
    std::string name;
    size_t size = 0;       // from the header
    long long mtime = 0;   // seconds since the epoch
    size_t header_at = 0;  // offset of the header in the stream
    std::string header;    // its 512 bytes
    std::string data;
};

struct tar_listing {
    std::vector<tar_entry> entries;
    std::string trouble;  // what is wrong with the stream; empty if it is complete

    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const tar_entry& entry : entries) {
            all.push_back(entry.name);
        }
        return all;
    }
    // The last entry of that name, which an extraction would keep; null if there is none.
    const tar_entry* find(const std::string& name) const {
        const tar_entry* found = nullptr;
        for (const tar_entry& entry : entries) {
            found = entry.name == name ? &entry : found;
        }
        return found;
    }
};

// The sum of a header's bytes, with spaces for those of the checksum.
inline unsigned tar_header_sum(const std::string& header) {
    unsigned sum = 0;
    for (size_t i = 0; i < header.size(); i++) {
        bool in_checksum = i >= 148 && i < 156;
        sum += in_checksum ? static_cast<unsigned>(' ') : static_cast<unsigned char>(header[i]);
    }
    return sum;
}

inline std::string tar_text_field(const std::string& header, size_t at, size_t size) {
    std::string field = header.substr(at, size);
    return field.substr(0, field.find('\0'));
}

inline long long tar_octal_field(const std::string& header, size_t at, size_t size) {
    return strtoll(tar_text_field(header, at, size).c_str(), nullptr, 8);
}

inline tar_listing tar_read(const std::string& stream) {
    tar_listing listing;
    size_t at = 0;
    while (at < stream.size()) {
        tar_entry entry;
        entry.header_at = at;
        entry.header = stream.substr(at, 512);
        std::string where = "at " + std::to_string(at) + ": ";
        if (entry.header.size() != 512 || entry.header.compare(257, 5, "ustar") != 0) {
            listing.trouble = where + "no header";
            return listing;
        }
        if (tar_octal_field(entry.header, 148, 8) != static_cast<long long>(tar_header_sum(entry.header))) {
            listing.trouble = where + "wrong checksum";
            return listing;
        }
        entry.name = tar_text_field(entry.header, 0, 100);
        entry.size = static_cast<size_t>(tar_octal_field(entry.header, 124, 12));
        entry.mtime = tar_octal_field(entry.header, 136, 12);
        size_t whole = (entry.size + 511) / 512 * 512;
        at += 512;
        entry.data = stream.substr(at, entry.size);
        std::string padding = stream.substr(at + entry.data.size(), whole - entry.size);
        bool is_whole = entry.data.size() == entry.size && padding == std::string(whole - entry.size, '\0');
        listing.entries.push_back(std::move(entry));
        if (!is_whole) {
            listing.trouble = where + "data or padding cut short";
            return listing;
        }
        at += whole;
    }
    return listing;
}

// The header that a member must have, byte for byte.
inline std::string tar_expected_header(const std::string& whole_name, long long size, long long mtime) {
    std::string block(512, '\0');
    auto put = [&block](size_t at, const std::string& bytes) { block.replace(at, bytes.size(), bytes); };
    auto octal = [](long long value, int digits) {
        char text[32];
        snprintf(text, sizeof text, "%0*llo", digits, static_cast<unsigned long long>(value));
        return std::string(text);
    };
    put(0, whole_name.substr(0, 100));
    put(100, "0000644");
    put(108, "0000100");
    put(116, "0000100");
    put(124, octal(size, 11));
    put(136, octal(mtime, 11));
    put(156, "0");
    put(257, "ustar");
    put(263, "  ");
    put(265, "admin");
    put(297, "admin");
    put(148, octal(tar_header_sum(block), 6));
    put(155, " ");
    return block;
}
