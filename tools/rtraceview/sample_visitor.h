// What a sample of a resource trace consists of.
#pragma once

#include <cstdint>
#include <string_view>

// Names one number or text of a sample.
struct sample_field {
    std::string_view source;   // "meminfo", "smaps", "iostat"...
    std::string_view subject;  // a process id, a mount, a device, "COMMAND PID"; empty if there is only one
    std::string_view key;      // the kernel's or the program's name for it
    std::string_view unit;     // "KiB", "%" or empty
};

// Receives samples: for each one begin(), then its fields, ordered by source and subject, then end().
struct sample_visitor {
    virtual ~sample_visitor() = default;
    virtual void begin(int64_t time_ms, uint64_t offset) = 0;
    virtual void value(const sample_field& field, double number, int64_t time_ms) = 0;
    virtual void text(const sample_field& field, std::string_view text, int64_t time_ms) = 0;
    virtual void end() = 0;
};
