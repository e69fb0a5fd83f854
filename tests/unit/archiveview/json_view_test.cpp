#include "tools/archiveview/views/json_view.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <limits>
#include <set>

#include "tests/unit/archiveview/rich_facts.h"

namespace archiveview {
namespace {

rapidjson::Document parsed(const std::string& text) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
    return document;
}

rapidjson::Document rich_json() {
    return parsed(json_view(rich_facts(), rich_findings()));
}

// Adds the paths of all values that are null, and of arrays and objects that are empty.
void find_empty(const rapidjson::Value& value, const std::string& path, std::set<std::string>* empty) {
    if (value.IsObject()) {
        for (const auto& member : value.GetObject()) {
            find_empty(member.value, path + "." + member.name.GetString(), empty);
        }
    } else if (value.IsArray()) {
        for (const auto& item : value.GetArray()) {
            find_empty(item, path + "[]", empty);
        }
    }
    const bool has_nothing = (value.IsObject() && value.ObjectEmpty()) || (value.IsArray() && value.Empty());
    if (value.IsNull() || has_nothing) {
        empty->insert(path);
    }
}

// The keys of objects, from the top: "processes[].descriptors.total".
void find_keys(const rapidjson::Value& value, const std::string& path, std::set<std::string>* keys) {
    if (value.IsObject()) {
        for (const auto& member : value.GetObject()) {
            keys->insert(path + member.name.GetString());
            find_keys(member.value, path + member.name.GetString() + ".", keys);
        }
    } else if (value.IsArray()) {
        for (const auto& item : value.GetArray()) {
            find_keys(item, path, keys);
        }
    }
}

TEST(json_view, is_one_line_of_valid_json_with_all_sections) {
    const std::string text = json_view(rich_facts(), rich_findings());
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    const rapidjson::Document json = parsed(text);
    ASSERT_TRUE(json.IsObject());
    std::vector<std::string> names;
    for (const auto& member : json.GetObject()) {
        names.emplace_back(member.name.GetString());
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{"archive", "device", "findings", "changes", "looks", "processes",
                                        "sockets", "trace", "capture", "cores", "kernel", "texts"}));
}

TEST(json_view, sections_are_the_values_of_its_top_level) {
    std::string joined;
    for (const json_section& section : json_sections(rich_facts(), rich_findings())) {
        joined += (joined.empty() ? "{\"" : ",\"") + section.name + "\":" + section.json;
    }
    EXPECT_EQ(joined + "}\n", json_view(rich_facts(), rich_findings()));
}

TEST(json_view, has_the_keys_of_the_schema) {
    std::set<std::string> keys;
    find_keys(rich_json(), "", &keys);
    for (const char* key : {"archive.state",
                            "archive.members",
                            "archive.bytes",
                            "archive.missing",
                            "processes.pid",
                            "processes.name",
                            "processes.state",
                            "processes.threads",
                            "processes.descriptors.total",
                            "processes.descriptors.file",
                            "processes.descriptors.socket",
                            "processes.descriptors.pipe",
                            "processes.descriptors.other",
                            "processes.calls",
                            "sockets.protocol",
                            "sockets.local",
                            "sockets.remote",
                            "sockets.state",
                            "sockets.inode",
                            "sockets.pid",
                            "capture.packets",
                            "capture.conversations.protocol",
                            "capture.conversations.a",
                            "capture.conversations.b",
                            "capture.conversations.packets",
                            "capture.conversations.bytes",
                            "capture.conversations.pid",
                            "findings.id",
                            "findings.severity",
                            "findings.pid",
                            "findings.name",
                            "findings.text",
                            "findings.evidence",
                            "findings.next"}) {
        EXPECT_TRUE(keys.contains(key)) << key;
    }
}

TEST(json_view, writes_what_the_facts_say) {
    const rapidjson::Document json = rich_json();
    EXPECT_STREQ(json["archive"]["state"].GetString(), "cut");
    EXPECT_EQ(json["archive"]["cut_member_bytes"].GetUint64(), 1234567U);
    const auto& process = json["processes"][1];
    EXPECT_EQ(process["pid"].GetInt(), 412);
    EXPECT_EQ(process["descriptors"]["socket"].GetUint(), 1U);
    EXPECT_EQ(process["calls"].GetUint64(), 1510U);
    EXPECT_EQ(process["cpu_percent"].GetDouble(), 51.2);
    EXPECT_STREQ(json["cores"][0]["threads"][0]["pc"].GetString(), "0xffffffff7f001234");
    EXPECT_STREQ(json["cores"][0]["files"][0]["offset"].GetString(), "0x0");
    EXPECT_EQ(json["trace"]["processes"][0]["by_call"]["read"]["errors"].GetUint64(), 500U);
    EXPECT_EQ(json["capture"]["dns"][0]["questions"].GetUint64(), 6U);
    EXPECT_STREQ(json["kernel"]["oops"][0]["lines"][0]["text"].GetString(), "Oops[#1]:");
    EXPECT_STREQ(json["texts"][1]["text"].GetString(), "console=ttyS0 quiet\n");
    EXPECT_EQ(json["looks"][1]["memory_kb"]["MemAvailable"].GetUint64(), 15000U);
}

TEST(json_view, writes_findings_in_their_order_with_evidence) {
    const rapidjson::Document json = rich_json();
    ASSERT_EQ(json["findings"].Size(), 3U);
    const auto& first = json["findings"][0];
    EXPECT_STREQ(first["id"].GetString(), "deadlock");
    EXPECT_STREQ(first["severity"].GetString(), "critical");
    EXPECT_STREQ(first["evidence"][0]["place"].GetString(), "core/412");
    EXPECT_TRUE(json["findings"][2]["pid"].IsNull());
    EXPECT_TRUE(json["findings"][2]["evidence"][5]["place"].IsNull());
}

TEST(json_view, names_the_unit_of_a_change_in_its_key) {
    const rapidjson::Document json = rich_json();
    EXPECT_EQ(json["changes"][0]["percent"].GetDouble(), 81.5);
    EXPECT_EQ(json["changes"][1]["per_second"].GetDouble(), 299.4);
    EXPECT_EQ(json["changes"][2]["kb"].GetInt(), -15000);
    EXPECT_EQ(json["changes"][3]["bytes_per_second"].GetDouble(), 99800.4);
    EXPECT_STREQ(json["changes"][4]["second_text"].GetString(), "10");
    EXPECT_FALSE(json["changes"][4].HasMember("first"));
}

TEST(json_view, tells_queues_of_a_listening_socket_from_bytes) {
    const rapidjson::Document json = rich_json();
    EXPECT_EQ(json["sockets"][0]["receive_queue_bytes"].GetUint64(), 17U);
    EXPECT_TRUE(json["sockets"][0]["waiting_connections"].IsNull());
    EXPECT_TRUE(json["sockets"][1]["send_queue_bytes"].IsNull());
    EXPECT_EQ(json["sockets"][1]["waiting_connections"].GetUint64(), 6U);
    EXPECT_STREQ(json["sockets"][0]["process"].GetString(), "streamd");
    EXPECT_TRUE(json["sockets"][2]["pid"].IsNull());
}

TEST(json_view, of_nothing_has_the_same_keys_and_null_for_what_is_unknown) {
    const rapidjson::Document json = parsed(json_view({}, {}));
    EXPECT_TRUE(json["device"]["kernel"].IsNull());
    EXPECT_TRUE(json["device"]["busy_percent"].IsNull());
    EXPECT_TRUE(json["archive"]["span_seconds"].IsNull());
    EXPECT_TRUE(json["archive"]["cut_member_bytes"].IsNull());
    EXPECT_TRUE(json["trace"]["seconds"].IsNull());
    EXPECT_TRUE(json["looks"][0]["uptime_seconds"].IsNull());
    EXPECT_FALSE(json["capture"]["present"].GetBool());
    std::set<std::string> some;
    std::set<std::string> all;
    find_keys(json["device"], "", &some);
    find_keys(rich_json()["device"], "", &all);
    std::erase_if(all, [](const std::string& key) { return key.starts_with("file_systems."); });
    EXPECT_EQ(some, all);
}

TEST(json_view, a_process_of_which_nothing_is_known_has_null_for_each_unknown_value) {
    archive_facts facts;
    facts.processes.by_pid[7].pid = 7;
    const rapidjson::Document json = parsed(json_view(facts, {}));
    for (const char* key : {"name", "state", "threads", "cpu_percent", "resident_kb", "resident_growth_kb",
                            "calls", "descriptor_limit", "core", "waits_in"}) {
        EXPECT_TRUE(json["processes"][0][key].IsNull()) << key;
    }
}

TEST(json_view, loses_no_field_of_facts_that_are_all_set) {
    std::set<std::string> empty;
    find_empty(rich_json(), "", &empty);
    empty.erase(".device.busy_percent");  // it is computed, and has its own tests
    const std::set<std::string> expected = {".capture.conversations[].pid",
                                            ".capture.conversations[].process",
                                            ".capture.arp[].pid",
                                            ".capture.arp[].asker",
                                            ".capture.arp[].process",
                                            ".capture.dns[].asker",
                                            ".capture.dns[].process",
                                            ".capture.conversations[].peer_pid",
                                            ".capture.conversations[].peer_process",
                                            ".cores[].damage",
                                            ".cores[].stack_remark",
                                            ".cores[].threads[].signal",
                                            ".findings[].evidence[].place",
                                            ".findings[].name",
                                            ".findings[].pid",
                                            ".kernel.log[].level",
                                            ".kernel.log[].seconds",
                                            ".looks[].softirqs[].device",
                                            ".processes[].calls",
                                            ".processes[].core",
                                            ".processes[].errors",
                                            ".processes[].thread_list[].wait_channel",
                                            ".processes[].waits_in",
                                            ".sockets[].pid",
                                            ".sockets[].process",
                                            ".sockets[].receive_queue_bytes",
                                            ".sockets[].remote",
                                            ".sockets[].send_queue_bytes",
                                            ".sockets[].state",
                                            ".sockets[].waiting_connections",
                                            ".processes[].descriptor_list[].inode"};
    EXPECT_EQ(empty, expected);
}

TEST(json_view, replaces_bytes_that_are_not_utf8_and_escapes_control_characters) {
    archive_facts facts;
    facts.archive.texts = {
        {"a\xff"
         "b",
         std::string("\x01\0\"\\\n", 5)}};
    facts.trace.by_pid[1].by_errno["E\xc0\x80"] = 1;
    const std::string text = json_view(facts, {});
    const rapidjson::Document json = parsed(text);
    ASSERT_FALSE(json.HasParseError());
    EXPECT_STREQ(json["texts"][0]["name"].GetString(), "a\ufffdb");
    EXPECT_EQ(std::string(json["texts"][0]["text"].GetString(), json["texts"][0]["text"].GetStringLength()),
              std::string("\x01\0\"\\\n", 5));
    EXPECT_EQ(text.find('\x01'), std::string::npos);
}

TEST(json_view, has_null_for_numbers_that_json_cannot_express) {
    archive_facts facts;
    facts.changes = {{"cpu", "x", "percent", std::numeric_limits<double>::infinity(), 0,
                      std::numeric_limits<double>::quiet_NaN(), "", ""}};
    facts.capture.is_present = true;
    facts.capture.seconds = -std::numeric_limits<double>::infinity();
    const rapidjson::Document json = parsed(json_view(facts, {}));
    ASSERT_FALSE(json.HasParseError());
    EXPECT_TRUE(json["changes"][0]["first"].IsNull());
    EXPECT_TRUE(json["changes"][0]["percent"].IsNull());
    EXPECT_TRUE(json["capture"]["seconds"].IsNull());
}

}  // namespace
}  // namespace archiveview
