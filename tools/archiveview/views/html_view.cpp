#include "tools/archiveview/views/html_view.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "tools/archiveview/limits.h"
#include "tools/archiveview/views/html_assets.h"
#include "tools/archiveview/views/html_summary.h"
#include "tools/archiveview/views/html_text.h"
#include "tools/archiveview/views/json_parts.h"
#include "tools/archiveview/views/json_view.h"
#include "tools/archiveview/views/text_lines.h"

namespace archiveview {
namespace {

constexpr char icon[] =
    "data:image/svg+xml,%3Csvg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 16 16'%3E%3Crect width='16' "
    "height='16' rx='4' fill='%230b6e75'/%3E%3Cpath d='M4 4.5h8M4 8h8M4 11.5h5' stroke='white' "
    "stroke-width='1.6'/%3E%3C/svg%3E";

std::string digest_source(std::string_view digest) {
    return "'sha256-" + base64(bytes_of_hex(digest)) + "'";
}

std::string head(const std::string& title) {
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; script-src " +
           digest_source(html_script_digest()) + "; style-src " + digest_source(html_style_digest()) +
           "; img-src data:; base-uri 'none'; form-action 'none'\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta name=\"color-scheme\" content=\"light dark\">\n"
           "<meta name=\"referrer\" content=\"no-referrer\">\n"
           "<link rel=\"icon\" href=\"" +
           std::string(icon) + "\">\n<title>" + html_escaped(title) + "</title>\n<style>" +
           std::string(html_style()) + "</style>\n</head>\n";
}

std::string page_header(const std::string& title) {
    return "<body>\n<a class=\"skip\" href=\"#findings\">Skip to the findings</a>\n<header>\n<h1>" +
           html_escaped(title) +
           "</h1>\n<div role=\"search\" class=\"search\" data-scripted hidden>\n"
           "<label for=\"search\">Search all</label>\n"
           "<input id=\"search\" type=\"search\" autocomplete=\"off\" spellcheck=\"false\" "
           "placeholder=\"process, address, path, any text\">\n"
           "<span id=\"found\" role=\"status\"></span>\n</div>\n</header>\n<main>\n"
           "<noscript><p class=\"remark\">Without JavaScript, this page shows the verdict and the findings. "
           "Tables, "
           "members as text and the search are missing.</p></noscript>\n"
           "<p id=\"news\" class=\"remark\" role=\"status\" hidden></p>\n";
}

std::string block(const std::string& name, std::string_view data) {
    return "<script type=\"application/octet-stream\" data-name=\"" + name + "\">" + std::string(data) +
           "</script>\n";
}

// Without the largest texts, so that the others have at most `bytes`.
archive_facts with_fewer_texts(const archive_facts& facts, size_t bytes) {
    archive_facts fewer;
    fewer.archive.texts = facts.archive.texts;
    std::vector<named_text*> by_size;
    size_t sum = 0;
    for (named_text& text : fewer.archive.texts) {
        by_size.push_back(&text);
        sum += text.text.size();
    }
    std::ranges::sort(by_size, std::greater(), [](const named_text* text) { return text->text.size(); });
    for (named_text* text : by_size) {
        if (sum <= bytes) {
            break;
        }
        sum -= text->text.size();
        text->text =
            "(" + size_text(text->text.size()) + ": left out, because the page would be too large)\n";
    }
    return fewer;
}

// The texts, as many as fit into `room`.
std::string texts_block(const archive_facts& facts, size_t room) {
    std::string data = packed(json_value(json_parts[std::size(json_parts) - 1], {facts, {}}));
    size_t bytes = 0;
    for (const named_text& text : facts.archive.texts) {
        bytes += text.text.size();
    }
    while (data.size() > room && bytes > 0) {
        const double share = static_cast<double>(room) / static_cast<double>(data.size());
        bytes = static_cast<size_t>(static_cast<double>(bytes) * std::min(share, 0.9) * 0.95);
        const archive_facts fewer = with_fewer_texts(facts, bytes);
        data = packed(json_value(json_parts[std::size(json_parts) - 1], {fewer, {}}));
    }
    return data;
}

std::string blocks(const json_input& in) {
    std::string html;
    for (const json_part& part : json_parts) {
        const size_t room = page_limit - std::min(page_limit, html.size());
        const bool is_texts = std::string_view(part.name) == "texts";
        const std::string data = is_texts ? texts_block(in.facts, room) : packed(json_value(part, in));
        if (data.size() <= room) {
            html += block(part.name, data);
        }
    }
    return html;
}

}  // namespace

std::string html_view(const archive_facts& facts, const std::vector<finding>& findings,
                      const std::string& title) {
    return head(title) + page_header(title) + html_summary(facts, findings) + html_sections(facts) +
           "</main>\n" + blocks({facts, findings}) + "<script>" + std::string(html_script()) +
           "</script>\n</body>\n</html>\n";
}

}  // namespace archiveview
