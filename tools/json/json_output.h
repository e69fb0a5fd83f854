// JSON, written by RapidJSON, from strings of any bytes.
#pragma once

#include <stdint.h>

#include <string_view>

// RapidJSON adds to a null pointer while one of its buffers is empty, which clang's sanitizer would report.
#ifdef __clang__
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#ifdef __clang__
#pragma clang attribute pop
#endif

// Collects JSON in memory. Calls follow the order of the output, and add commas and colons where needed.
class json_output {
public:
    void begin_object() { writer_.StartObject(); }
    void end_object() { writer_.EndObject(); }
    void begin_array() { writer_.StartArray(); }
    void end_array() { writer_.EndArray(); }
    // U+FFFD replaces each sequence of bytes that is not UTF-8.
    void key(std::string_view name);
    void string(std::string_view text);
    void number(int64_t number) { writer_.Int64(number); }
    void number(uint64_t number) { writer_.Uint64(number); }
    void number(double number);  // finite; whole numbers are written without a decimal point
    void boolean(bool value) { writer_.Bool(value); }
    void null() { writer_.Null(); }
    // Ends a complete value with a newline. Another value may follow.
    void end_line();

    // What has been written since clear(); valid until the next call.
    std::string_view text() const { return {buffer_.GetString(), buffer_.GetSize()}; }
    // Drops the output so far, to save memory. An object or array that has been begun stays open.
    void clear() { buffer_.Clear(); }

private:
    rapidjson::StringBuffer buffer_;
    rapidjson::Writer<rapidjson::StringBuffer> writer_{buffer_};
};
