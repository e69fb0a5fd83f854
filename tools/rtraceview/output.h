// Text on its way out, in large pieces.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// Whether a time is between 1970 and the year 10000.
bool is_date(int64_t time_ms);

class text_output {
public:
    // Takes all of the text; throws when it can't.
    using byte_sink = std::function<void(std::string_view text)>;

    explicit text_output(byte_sink sink);

    void put(std::string_view text);
    void put(char character);
    void put_number(double number);       // whole ones without a decimal point
    void put_csv(std::string_view text);  // quoted where it has to be
    // 2026-11-21 14:25:38.123 in UTC; far-off times as their milliseconds.
    void put_time(int64_t time_ms);
    void flush();

private:
    byte_sink sink_;
    std::string buffer_;
};
