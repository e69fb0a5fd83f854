// Buffered text output.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// True if a time is between 1970 and the year 10000.
bool is_plausible_time(int64_t time_ms);

class text_output {
public:
    // Writes all of the text, or throws.
    using byte_sink = std::function<void(std::string_view text)>;

    explicit text_output(byte_sink sink);

    void write(std::string_view text);
    void write(char character);
    void write_number(double number);
    void write_csv(std::string_view text);  // in quotes where CSV requires them
    // 2026-11-21 14:25:38.123 in UTC; an implausible time in milliseconds.
    void write_time(int64_t time_ms);
    void flush();

private:
    byte_sink sink_;
    std::string buffer_;
};
