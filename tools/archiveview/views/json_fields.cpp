#include "tools/archiveview/views/json_fields.h"

#include <charconv>

namespace archiveview {

void json_fields::address(std::string_view key, uint64_t value, bool is_known) {
    char digits[18] = "0x";
    const std::to_chars_result end = std::to_chars(digits + 2, digits + sizeof digits, value, 16);
    text(key, {digits, is_known ? static_cast<size_t>(end.ptr - digits) : 0});
}

void json_named_texts(json_fields* out, std::string_view key, const std::vector<named_text>& texts) {
    out->objects(key, texts, [](json_fields* one, const named_text& named) {
        one->text("name", named.name);
        one->text("text", named.text);
    });
}

}  // namespace archiveview
