#include "tools/archiveview/views/html_view.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>

#include "tests/unit/archiveview/rich_facts.h"
#include "tools/archiveview/limits.h"
#include "tools/archiveview/views/html_text.h"
#include "tools/archiveview/views/json_view.h"

namespace archiveview {
namespace {

std::string rich_page() {
    return html_view(rich_facts(), rich_findings(), "debug-cam1.tgz");
}

std::string bytes_of_base64(const std::string& text) {
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    uint32_t bits = 0;
    int count = 0;
    for (const char c : text.substr(0, text.find('='))) {
        bits = bits << 6 | static_cast<uint32_t>(letters.find(c));
        if (++count % 4 != 1) {
            bytes += static_cast<char>(bits >> (6 - 2 * ((count - 1) % 4)));
        }
    }
    return bytes;
}

std::string unpacked(const std::string& text, size_t limit = size_t{8} << 20) {
    const std::string small = bytes_of_base64(text);
    std::string bytes(limit, '\0');
    uLongf size = bytes.size();
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(bytes.data()), &size,
                         reinterpret_cast<const Bytef*>(small.data()), small.size()),
              Z_OK);
    bytes.resize(size);
    return bytes;
}

std::string between(const std::string& text, const std::string& before, const std::string& after) {
    const size_t start = text.find(before);
    if (start == std::string::npos) {
        return "";
    }
    const size_t from = start + before.size();
    return text.substr(from, text.find(after, from) - from);
}

// The data of a part, as a browser would unpack it.
std::string part_of(const std::string& page, const std::string& name) {
    return unpacked(between(page, "data-name=\"" + name + "\">", "</script>"));
}

size_t times(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        count++;
    }
    return count;
}

// Bytes that do not compress.
std::string noise(size_t size, uint32_t seed) {
    std::string text;
    while (text.size() < size) {
        seed = seed * 1664525 + 1013904223;
        text += static_cast<char>(' ' + (seed >> 24) % 95);
    }
    return text;
}

TEST(html_view, holds_each_section_of_the_json_compressed) {
    const std::string page = rich_page();
    for (const json_section& section : json_sections(rich_facts(), rich_findings())) {
        EXPECT_EQ(part_of(page, section.name), section.json) << section.name;
    }
}

TEST(html_view, shows_verdict_and_findings_without_a_script) {
    const std::string page = rich_page();
    const std::string main = between(page, "<main>", "<script");
    EXPECT_NE(main.find("The archive is cut"), std::string::npos);
    EXPECT_NE(main.find("core-streamd-412/core, after 1.2 MB"), std::string::npos);
    EXPECT_NE(main.find("Missing: manifest, kernel log."), std::string::npos);
    EXPECT_NE(main.find("Two threads of streamd (412) wait for one another."), std::string::npos);
    EXPECT_NE(main.find("<a href=\"#core/412\">412 waits for a lock of 413, and 413 for one of 412</a>"),
              std::string::npos);
    EXPECT_NE(main.find("See the stacks of both threads."), std::string::npos);
    EXPECT_NE(main.find("It is larger than 8 MiB."), std::string::npos);
    EXPECT_NE(main.find("<noscript>"), std::string::npos);
}

TEST(html_view, has_its_sections_in_the_documented_order) {
    const std::string page = rich_page();
    size_t last = page.find("id=\"verdict-title\"");
    for (const char* id :
         {"findings-title", "section-changes", "section-processes", "section-sockets", "section-trace",
          "section-capture", "section-cores", "section-kernel", "section-texts"}) {
        const size_t at = page.find("id=\"" + std::string(id) + "\"");
        ASSERT_NE(at, std::string::npos) << id;
        EXPECT_GT(at, last) << id;
        last = at;
    }
}

TEST(html_view, ranks_seven_findings_and_folds_the_others) {
    std::vector<finding> findings;
    for (int i = 0; i < 9; i++) {
        findings.push_back({"resets", severity::note, 0, "", "finding " + std::to_string(i), {}, "", 0});
    }
    const std::string page = html_view(rich_facts(), findings, "x");
    const size_t fold = page.find("2 more findings");
    ASSERT_NE(fold, std::string::npos);
    EXPECT_LT(page.find("finding 6"), fold);
    EXPECT_GT(page.find("finding 7"), fold);
    EXPECT_EQ(times(page, "<li class=\"finding note\">"), 9U);
}

TEST(html_view, of_a_healthy_archive_says_that_nothing_looks_wrong) {
    archive_facts facts = rich_facts();
    facts.archive.state = archive_state::whole;
    const std::string page = html_view(facts, {}, "x");
    EXPECT_NE(page.find("The archive is whole"), std::string::npos);
    EXPECT_NE(page.find("Nothing that was read looks wrong."), std::string::npos);
}

TEST(html_view, makes_nothing_of_the_archive_a_part_of_its_markup) {
    const std::string evil = "</script><script>alert(1)</script>\"'><img src=x onerror=alert(1)><!--";
    const std::string plain_page = rich_page();
    archive_facts facts = rich_facts();
    std::vector<finding> findings = rich_findings();
    facts.archive.reason = facts.archive.cut_member = facts.device.host = facts.device.kernel = evil;
    facts.device.addresses[0] = facts.archive.missing[0] = facts.archive.started = facts.device.load = evil;
    facts.archive.member_errors[0] = facts.archive.not_examined[0] = {evil, evil};
    facts.archive.texts[0] = {evil, evil};
    facts.processes.by_pid[412].name = facts.capture.damage = evil;
    for (finding& found : findings) {
        found.id = found.name = found.text = found.next = evil;
        found.proof = {{evil, evil}, {evil, "member/" + evil}};
    }
    const std::string page = html_view(facts, findings, evil);
    EXPECT_EQ(times(page, "<script"), times(plain_page, "<script"));
    EXPECT_EQ(times(page, "</script"), times(plain_page, "</script"));
    EXPECT_EQ(times(page, "<img"), 0U);
    EXPECT_EQ(times(page, "<!--"), 0U);
    EXPECT_EQ(times(page, "onerror=alert(1)>"), 0U);
}

TEST(html_view, is_utf8_without_control_characters_whatever_the_archive_holds) {
    archive_facts facts = rich_facts();
    facts.device.host = "a\xff\x01\x1b[31m\u202eb";
    const std::string page = html_view(facts, {}, facts.device.host);
    EXPECT_NE(page.find("<h1>a??"), std::string::npos);
    EXPECT_EQ(page.find("\u202e"), std::string::npos);
    EXPECT_TRUE(std::ranges::none_of(page, [](char c) { return c == 1 || c == '\x1b' || c == '\0'; }));
}

TEST(html_view, allows_only_its_own_style_and_script_and_no_request) {
    const std::string page = rich_page();
    const std::string policy = between(page, "http-equiv=\"Content-Security-Policy\" content=\"", "\"");
    EXPECT_EQ(policy.substr(0, 20), "default-src 'none'; ");
    EXPECT_EQ(times(policy, "'sha256-"), 2U);
    EXPECT_EQ(policy.find("unsafe"), std::string::npos);
    EXPECT_EQ(policy.find("http"), std::string::npos);
    EXPECT_EQ(times(page, " src="), 0U);
    EXPECT_EQ(times(page, "rel=\"stylesheet\""), 0U);
}

TEST(html_view, says_why_a_section_is_empty) {
    archive_facts facts;
    facts.archive.state = archive_state::cut;
    const std::string cut = html_view(facts, {}, "x");
    EXPECT_NE(cut.find("The archive has no capture of packets: it ends before it."), std::string::npos);
    facts.archive.state = archive_state::whole;
    const std::string whole = html_view(facts, {}, "x");
    EXPECT_NE(whole.find("The archive has no capture of packets.<"), std::string::npos);
    EXPECT_EQ(times(whole, "data-needs=\"\""), 8U);
}

TEST(html_view, leaves_out_the_largest_texts_of_a_page_that_would_be_too_large) {
    archive_facts facts;
    for (uint32_t i = 0; i < 60; i++) {
        facts.archive.texts.push_back({"large" + std::to_string(i), noise(100 * 1024 - i, i)});
    }
    facts.archive.texts.push_back({"small", "this stays"});
    const std::string page = html_view(facts, {}, "x");
    EXPECT_LT(page.size(), 5000000U);
    EXPECT_GT(page.size(), 2000000U);
    const std::string texts = part_of(page, "texts");
    EXPECT_NE(texts.find("this stays"), std::string::npos);
    EXPECT_NE(texts.find("left out, because the page would be too large"), std::string::npos);
    EXPECT_NE(texts.find("\"large59\""), std::string::npos);
}

TEST(html_view, stays_within_its_size_if_a_part_other_than_texts_is_too_large) {
    archive_facts facts;
    for (uint32_t i = 0; i < 70; i++) {
        facts.kernel.log.push_back({6, 1, noise(100 * 1024, i)});
    }
    facts.archive.texts.push_back({"small", "this stays"});
    const std::string page = html_view(facts, {}, "x");
    EXPECT_LT(page.size(), 5000000U);
    EXPECT_EQ(page.find("data-name=\"kernel\""), std::string::npos);
    EXPECT_NE(part_of(page, "texts").find("this stays"), std::string::npos);
}

TEST(html_text, escapes_what_has_a_meaning) {
    EXPECT_EQ(html_escaped("a<b>&\"c"), "a&lt;b&gt;&amp;&quot;c");
    EXPECT_EQ(html_escaped("\xff"), "?");
}

TEST(html_text, makes_links_of_places) {
    EXPECT_EQ(html_fragment("process/412"), "#process/412");
    EXPECT_EQ(html_fragment("member/proc/\"<\xff"), "#member/proc%2F%22%3C%FF");
    EXPECT_EQ(html_fragment("log"), "#log");
}

TEST(html_text, writes_base64) {
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("f"), "Zg==");
    EXPECT_EQ(base64("fo"), "Zm8=");
    EXPECT_EQ(base64("foo"), "Zm9v");
    EXPECT_EQ(base64(std::string_view("\0\xff\x10\x80", 4)), "AP8QgA==");
    EXPECT_EQ(bytes_of_hex("00ff1a"), std::string("\0\xff\x1a", 3));
}

}  // namespace
}  // namespace archiveview
