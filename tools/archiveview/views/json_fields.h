// Fields of a JSON object. A value that is not known is null, so that all objects of a kind have the same
// keys.
#pragma once

#include <stdint.h>

#include <cmath>
#include <concepts>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/archive_summary.h"
#include "tools/json/json_output.h"

namespace archiveview {

class json_fields {
public:
    explicit json_fields(json_output* out) : out_(out) {}  // borrows `out`, in which an object is open

    // Null if the text is empty.
    void text(std::string_view key, std::string_view value) {
        out_->key(key);
        write(value);
    }

    // Null if the state is '?'.
    void state(std::string_view key, char value) { text(key, {&value, value == '?' ? size_t{0} : 1}); }

    void flag(std::string_view key, bool value) {
        out_->key(key);
        out_->boolean(value);
    }

    // Null unless `is_known`, and if it is not finite.
    template <typename Number>
    void number(std::string_view key, Number value, bool is_known = true) {
        out_->key(key);
        if (is_known) {
            write(value);
        } else {
            out_->null();
        }
    }

    // A number, null if it is negative.
    template <typename Number>
    void known(std::string_view key, Number value) {
        number(key, value, value >= 0);
    }

    // A pid or a similar number, null if it is 0.
    template <typename Number>
    void id(std::string_view key, Number value) {
        number(key, value, value != 0);
    }

    // An address or mask as text, which keeps all of its 64 bits in each reader of JSON: "0x7f00".
    void address(std::string_view key, uint64_t value, bool is_known = true);

    template <typename Value>
    void array(std::string_view key, const std::vector<Value>& values) {
        list(key, values, [this](const Value& value) { write(value); });
    }

    template <typename Value>
    void map(std::string_view key, const std::map<std::string, Value>& values) {
        out_->key(key);
        out_->begin_object();
        for (const auto& [name, value] : values) {
            out_->key(name);
            write(value);
        }
        out_->end_object();
    }

    // An array of objects: `each` writes the fields of one.
    template <typename Range, typename Each>
    void objects(std::string_view key, const Range& range, Each each) {
        list(key, range, [&](const auto& value) {
            out_->begin_object();
            each(this, value);
            out_->end_object();
        });
    }

    // An object: `inside` writes its fields.
    template <typename Inside>
    void object(std::string_view key, Inside inside) {
        out_->key(key);
        out_->begin_object();
        inside(this);
        out_->end_object();
    }

private:
    template <typename Range, typename Each>
    void list(std::string_view key, const Range& range, Each each) {
        out_->key(key);
        out_->begin_array();
        for (const auto& value : range) {
            each(value);
        }
        out_->end_array();
    }

    void write(std::string_view value) {
        if (value.empty()) {
            out_->null();
        } else {
            out_->string(value);
        }
    }
    void write(const std::string& value) { write(std::string_view(value)); }
    void write(std::unsigned_integral auto value) { out_->number(uint64_t{value}); }
    void write(std::signed_integral auto value) { out_->number(int64_t{value}); }
    void write(double value) {
        if (std::isfinite(value)) {
            out_->number(value);
        } else {
            out_->null();
        }
    }

    json_output* out_;
};

void json_named_texts(json_fields* out, std::string_view key, const std::vector<named_text>& texts);

}  // namespace archiveview
