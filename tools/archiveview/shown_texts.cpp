#include "tools/archiveview/shown_texts.h"

#include <algorithm>

#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

bool is_command_line(std::string_view name) {
    return name.ends_with("/cmdline") || name.ends_with("/environ");
}

// A text has no control characters but blanks, and escapes for colours.
bool is_text(std::string_view text) {
    return std::ranges::none_of(text, [](char c) {
        return static_cast<unsigned char>(c) < '\t' || (c > '\r' && c < ' ' && c != '\x1b');
    });
}

// Arguments end with a NUL; they are shown with blanks between them.
std::string shown(std::string_view name, std::string_view text) {
    std::string copy(text);
    if (is_command_line(name)) {
        std::ranges::replace(copy, '\0', ' ');
    }
    return copy;
}

}  // namespace

void shown_texts::skip(std::string_view name, std::string_view reason) {
    if (skipped_.size() < skipped_limit) {
        skipped_.push_back({std::string(name), std::string(reason)});
    } else {
        more_skipped_++;
    }
}

void shown_texts::add(std::string_view name, std::string_view text, uint64_t size, bool is_parsed) {
    if (text.size() == text_limit && size > text_limit) {
        skip(name, "only its first " + std::to_string(text_limit >> 20) + " MiB were read");
        return;
    }
    const char* reason = nullptr;
    std::string copy = text.size() <= shown_text_limit ? shown(name, text) : "";
    if (text.size() > shown_text_limit) {
        reason = "too large to show";
    } else if (!is_text(copy)) {
        reason = "not text";
    } else if (bytes_ + name.size() + copy.size() > shown_texts_limit) {
        reason = "the texts before it are as many as can be shown";
    }
    if (!reason) {
        bytes_ += name.size() + copy.size();
        texts_.push_back({std::string(name), std::move(copy)});
    } else if (!is_parsed) {
        skip(name, reason);
    }
}

void shown_texts::move_to(archive_summary* summary) {
    if (more_skipped_ != 0) {
        skipped_.push_back({std::to_string(more_skipped_) + " more", "as those above"});
    }
    summary->texts = std::move(texts_);
    summary->not_examined = std::move(skipped_);
}

}  // namespace archiveview
