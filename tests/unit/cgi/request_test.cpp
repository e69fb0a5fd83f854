#include "cgi/request.h"

#include <sys/socket.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "cgi/waiting_browser.h"
#include "cgi/worker_archive.h"
#include "platform/vextor.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/named_child.h"
#include "tests/unit/cgi/threads.h"
#include "tests/unit/net/private_network.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/fake_dumper.h"

namespace {

// No request of these tests may make an archive, which would examine all processes of the machine. So
// archive_busy is set, except in a child in which no thread can be started.
class request : public testing::Test {
protected:
    void SetUp() override {
        archive_busy = 1;
        set_pop(false);
    }
    void TearDown() override {
        wait_for_workers();
        EXPECT_EQ(archive_busy, 1);
        archive_busy = 0;
        set_pop(false);
        close_listener();
        CGI_cleanup();
    }

    static std::string answer_to(std::string_view query, std::string_view path = "/cgi-bin/debug.cgi") {
        browser client;
        serve(client, path, query);
        return client.answer();
    }
    static std::string answer_to_message(const std::string& message) {
        browser client;
        serve_message(client, message);
        return client.answer();
    }
    static void expect_waits(const std::string& query, bool wants_pop) {
        browser client;
        set_pop(!wants_pop);
        serve(client, "/x/debug.tgz", query);
        EXPECT_TRUE(client.is_waiting()) << query;
        EXPECT_EQ(is_pop(), wants_pop) << query;
        close_listener();
        EXPECT_EQ(client.answer(), "") << query;
    }
};

std::string first_bytes(const browser& client, size_t count) {
    std::string got(count, '\0');
    ssize_t length = recv(client.own_end(), got.data(), count, MSG_WAITALL);
    got.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return got;
}

std::string numbered(const char* text, pid_t pid) {
    return text + std::to_string(pid);
}

TEST_F(request, without_a_zero_byte_gets_a_server_error) {
    EXPECT_EQ(answer_to_message("/cgi-bin/debug.tgz"), broken_server_answer);
    EXPECT_EQ(answer_to_message("x"), broken_server_answer);
    EXPECT_EQ(answer_to_message(std::string(4095, '/')), broken_server_answer);
}

TEST_F(request, without_a_zero_byte_does_not_end_at_the_one_after_the_message) {
    browser client;
    std::string buffer = request_message("/x", "listen");
    pre_process_request(client.hand_over(), buffer.data(), 2);
    EXPECT_EQ(client.answer(), broken_server_answer);
}

TEST_F(request, for_a_path_without_a_slash_gets_a_server_error) {
    for (const char* query : {"", "listen", "pop", "x=1"}) {
        EXPECT_EQ(answer_to(query, "debug.tgz"), broken_server_answer) << query;
        EXPECT_EQ(answer_to(query, ""), broken_server_answer) << query;
    }
    EXPECT_FALSE(is_pop());
}

TEST_F(request, with_a_command_needs_no_slash) {
    EXPECT_EQ(answer_to("cmd=nonsense", ""), bad_request_answer);
}

TEST_F(request, with_an_unknown_command_is_bad) {
    for (const char* cmd : {"", "nonsense", "p", "coredum", "Coredump", "pcapdum", "Ps", "strac", "rtrac",
                            "%20ps", " ps", "debug.tgz", "listen", "pop"}) {
        EXPECT_EQ(answer_to(std::string("cmd=") + cmd), bad_request_answer) << cmd;
    }
    EXPECT_EQ(answer_to("cmd"), bad_request_answer);
}

TEST_F(request, uses_the_first_command_anywhere_in_the_query) {
    EXPECT_EQ(answer_to("listen&cmd=nonsense"), bad_request_answer);
    EXPECT_EQ(answer_to("cmd=nonsense&cmd=coredump"), bad_request_answer);
    EXPECT_EQ(answer_to("%63md=nonsense"), bad_request_answer);
}

TEST_F(request, for_an_archive_while_one_is_made_gets_the_busy_page) {
    for (const char* path : {"/cgi-bin/debug.tgz", "/x/coredumps.tgz", "/x/debug.tar", "/x/anything", "/"}) {
        EXPECT_EQ(answer_to("", path), busy_answer) << path;
        EXPECT_EQ(archive_busy, 1);
    }
}

TEST_F(request, that_does_not_begin_with_listen_or_pop_is_for_an_archive) {
    for (const char* query : {"", "x", "po", "liste", "LISTEN", "Pop", "xlisten", "&listen", "a=pop",
                              "CMD=ps", "cmds=ps", "%70op"}) {
        EXPECT_EQ(answer_to(query), busy_answer) << query;
    }
    EXPECT_FALSE(is_pop());
}

TEST_F(request, to_listen_waits_even_while_an_archive_is_made) {
    for (const char* query : {"listen", "listen=1", "listening", "listen&pop", "listenpop"}) {
        expect_waits(query, false);
    }
}

TEST_F(request, to_pop_waits_for_a_stored_dump) {
    for (const char* query : {"pop", "pop=1", "popx", "pop&listen"}) {
        expect_waits(query, true);
    }
}

TEST_F(request, to_wait_replaces_the_browser_that_waited_before) {
    browser first;
    browser second;
    browser third;
    serve(first, "/x/debug.tgz", "pop");
    EXPECT_TRUE(first.is_waiting());
    serve(second, "/x/debug.tgz", "listen");
    EXPECT_EQ(first.answer(), "");
    EXPECT_TRUE(second.is_waiting());
    EXPECT_FALSE(is_pop());
    serve(third, "/x", "cmd=coredump");
    EXPECT_EQ(second.answer(), "");
    EXPECT_TRUE(third.is_waiting());
}

TEST_F(request, of_another_kind_does_not_affect_the_waiting_browser) {
    browser waiting;
    serve(waiting, "/x/debug.tgz", "pop");
    EXPECT_EQ(answer_to("cmd=nonsense"), bad_request_answer);
    EXPECT_EQ(answer_to(""), busy_answer);
    EXPECT_EQ(answer_to("listen", "x"), broken_server_answer);
    EXPECT_TRUE(waiting.is_waiting());
    EXPECT_TRUE(is_pop());
}

TEST_F(request, has_a_query_that_ends_at_its_zero_byte) {
    browser client;
    serve_message(client, request_message("/x/debug.tgz", request_message("listen", "cmd=nonsense")));
    EXPECT_TRUE(client.is_waiting());
    EXPECT_EQ(answer_to_message(request_message("/x", request_message("", "cmd=nonsense"))), busy_answer);
}

TEST_F(request, releases_its_parameters) {
    browser client;
    serve(client, "/x/debug.tgz", "listen&mark=1");
    EXPECT_EQ(CGI_get_value("mark"), nullptr);
    EXPECT_EQ(answer_to("mark=1"), busy_answer);
    EXPECT_EQ(CGI_get_value("mark"), nullptr);
    EXPECT_EQ(answer_to(numbered("mark=1&cmd=coredump&pid=", dead_pid())), bad_request_answer);
    EXPECT_EQ(CGI_get_value("mark"), nullptr);
    EXPECT_EQ(answer_to(numbered("mark=1&cmd=strace&pid=", dead_pid())), bad_request_answer);
    EXPECT_EQ(CGI_get_value("mark"), nullptr);
}

TEST_F(request, for_a_core_without_a_process_waits_and_keeps_the_pop_flag) {
    for (bool flag : {true, false}) {
        browser client;
        set_pop(flag);
        serve(client, "no/slash/needed", "cmd=coredump");
        EXPECT_TRUE(client.is_waiting());
        EXPECT_EQ(is_pop(), flag);
    }
    EXPECT_EQ(CGI_get_value("cmd"), nullptr);
}

TEST_F(request, for_a_core_of_a_missing_process_is_bad) {
    std::string overflow = "cmd=coredump&pid=99999999999";
    for (const std::string& query :
         {numbered("cmd=coredump&pid=", dead_pid()), numbered("cmd=coredump&pid=-", dead_pid()),
          std::string("cmd=coredump&pid="), std::string("cmd=coredump&pid=-1"),
          std::string("cmd=coredump&pid=no-such-process-here"), std::string("cmd=coredump&pid=%20%20"),
          std::string("cmd=coredump&pid"), "cmd=coredump&pid=" + std::string(3000, 'x'), overflow}) {
        EXPECT_EQ(answer_to(query), bad_request_answer) << query;
    }
}

TEST_F(request, for_a_trace_without_any_living_process_is_bad) {
    std::string dead = std::to_string(dead_pid());
    for (const std::string& list :
         {dead, dead + ",," + dead, std::string(), std::string(","), std::string("%20,+,"),
          std::string("no-such-process"), std::string("-1"), std::string("99999999999"),
          std::string("2147483647"), "no-such-process," + dead}) {
        EXPECT_EQ(answer_to("cmd=strace&pid=" + list), bad_request_answer) << list;
    }
}

// Requests that name a child process by its pid or its name.
class request_for_a_process : public request {
protected:
    // Expects a request for a core to find the child. The dumper's core holds the pid.
    void expect_found(const std::string& query) {
        EXPECT_EQ(answer_to(query), dump_head("core") + "core of " + number) << query;
    }
    // Expects a request for a trace to find the child, which is detached when the browser leaves.
    void expect_traced(const std::string& query) {
        expect_traced_with(query, download_head("text/plain", "stracedump.txt"));
    }
    // The same for an answer that begins with `head`.
    void expect_traced_with(const std::string& query, const std::string& head) {
        browser client;
        serve(client, "/x", query);
        EXPECT_EQ(first_bytes(client, head.size()), head) << query;
        client.go_away();
        wait_for_workers();
        std::ifstream status("/proc/" + number + "/status");
        std::string text((std::istreambuf_iterator<char>(status)), std::istreambuf_iterator<char>());
        EXPECT_NE(text.find("TracerPid:\t0\n"), std::string::npos) << query;
    }
    static void expect_not_found(const std::string& query) {
        EXPECT_EQ(answer_to(query), bad_request_answer) << query;
    }

    fake_dumper dumper{"printf 'core of %s' \"$3\""};
    std::string name = "zarvo_sleeper_" + std::to_string(getpid());
    named_child child{name};
    std::string number = std::to_string(child.pid());
};

TEST_F(request_for_a_process, finds_it_by_number) {
    expect_found("cmd=coredump&pid=" + number);
    expect_found("cmd=coredump&pid=+" + number + "abc");
    expect_traced("cmd=strace&pid=" + number);
}

TEST_F(request_for_a_process, finds_it_by_name) {
    expect_found("cmd=coredump&pid=" + name);
    expect_traced("cmd=strace&pid=" + name);
}

TEST_F(request_for_a_process, trims_its_name) {
    expect_found("cmd=coredump&pid=+%09" + name + "%0a+");
    expect_traced("cmd=strace&pid=+%09" + name + "%0a+");
}

TEST_F(request_for_a_process, compares_names_exactly) {
    for (const std::string& other : {name + "x", name.substr(0, name.size() - 1), "Z" + name.substr(1)}) {
        expect_not_found("cmd=coredump&pid=" + other);
        expect_not_found("cmd=strace&pid=" + other);
    }
}

TEST_F(request_for_a_process, uses_the_living_process_of_a_list) {
    std::string dead = std::to_string(dead_pid());
    expect_traced("cmd=strace&pid=" + dead + ",,++" + number);
    expect_traced("cmd=strace&pid=" + name + "," + dead);
    expect_traced("cmd=strace&pid=" + std::string(40, 'x') + "," + number + ",");
    expect_traced("cmd=strace&pid=" + number + "trailing");
}

TEST_F(request_for_a_process, gets_a_timed_trace_if_times_is_a_positive_number) {
    const std::string whole = download_head("text/plain", "trace-" + name + "-" + number + "-");
    const std::string head = whole.substr(0, whole.rfind('"'));
    for (const char* times : {"1", "2", "+1", "1x", "2147483647"}) {
        expect_traced_with("cmd=strace&pid=" + number + "&times=" + times, head);
        expect_traced_with(std::string("times=") + times + "&cmd=strace&pid=" + name, head);
    }
    for (const char* times : {"", "0", "-1", "abc", "x1", "99999999999"}) {
        expect_traced("cmd=strace&pid=" + number + "&times=" + times);
    }
    expect_traced("cmd=strace&pid=" + number + "&times");
    expect_traced("cmd=strace&pid=" + number + "&time=1");
}

TEST_F(request_for_a_process, skips_an_item_of_32_characters) {
    std::string blanks(32 - number.size(), '+');
    expect_not_found("cmd=strace&pid=" + blanks + number);
    expect_traced("cmd=strace&pid=" + blanks.substr(1) + number);
}

TEST_F(request_for_a_process, matches_its_command_by_prefix) {
    expect_found("cmd=coredumpx&pid=" + number);
    expect_traced("cmd=stracefoo&pid=" + number);
    expect_not_found(numbered("cmd=coredumpx&pid=", dead_pid()));
    expect_not_found(numbered("cmd=stracefoo&pid=", dead_pid()));
}

TEST_F(request_for_a_process, does_not_affect_the_waiting_browser_or_the_pop_flag) {
    browser waiting;
    serve(waiting, "/x", "pop");
    expect_found("cmd=coredump&pid=" + number);
    expect_not_found(numbered("cmd=coredump&pid=", dead_pid()));
    EXPECT_TRUE(waiting.is_waiting());
    EXPECT_TRUE(is_pop());
}

TEST_F(request_for_a_process, does_not_touch_it) {
    expect_found("cmd=coredump&pid=" + number);
    expect_traced("cmd=strace&pid=" + number);
    EXPECT_EQ(kill(child.pid(), 0), 0);
    siginfo_t info = {};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WSTOPPED | WNOHANG), 0);
    EXPECT_EQ(info.si_pid, 0) << "it has stopped or ended";
}

TEST_F(request_for_a_process, streams_a_core_as_it_arrives) {
    fake_dumper large("head -c 3000000 /dev/zero");
    browser client;
    std::string core;
    std::thread reader([&] { core = client.answer(); });
    serve(client, "no/slash/needed", "cmd=coredump&pid=" + number);
    reader.join();
    EXPECT_EQ(core, dump_head("core") + std::string(3000000, '\0'));
}

TEST_F(request_for_a_process, gets_only_the_header_without_a_core) {
    std::string error = "dump error for pid " + number + "\n";
    for (const auto& [script, report] : std::vector<std::pair<std::string, std::string>>{
             {"exit 1", error}, {"kill -9 $$", error}, {announce(0), ""}}) {
        fake_dumper coreless(script);
        std::string answer;
        std::string said = capture_stderr([&] { answer = answer_to("cmd=coredump&pid=" + number); });
        EXPECT_EQ(answer, dump_head("core")) << script;
        EXPECT_EQ(said, report) << script;
    }
}

TEST_F(request_for_a_process, releases_its_parameters_after_the_core) {
    expect_found("mark=1&cmd=coredump&pid=" + number);
    EXPECT_EQ(CGI_get_value("mark"), nullptr);
}

TEST_F(request_for_a_process, from_a_browser_that_has_gone_leaves_nothing_behind) {
    fake_dumper large("head -c 3000000 /dev/zero");
    browser client;
    client.go_away();
    std::set<int> before = open_fds();
    before.erase(client.daemon_end());
    serve(client, "/x", "cmd=coredump&pid=" + number);
    EXPECT_EQ(open_fds(), before);
}

TEST_F(request, for_a_trace_accepts_names_of_up_to_31_characters) {
    fake_dumper dumper("printf '%s' \"$3\"");
    std::string longest(31, 'n');
    named_child found(longest);
    named_child not_found(longest + "n");
    browser client;
    serve(client, "/x", "cmd=strace&pid=" + longest);
    EXPECT_EQ(first_bytes(client, 15), "HTTP/1.0 200 OK");
    client.go_away();
    wait_for_workers();  // the tracer may be the one that sees the child's end
    EXPECT_EQ(answer_to("cmd=strace&pid=" + longest + "n"), bad_request_answer);
    EXPECT_EQ(answer_to("cmd=coredump&pid=" + longest + "n"),
              dump_head("core") + std::to_string(not_found.pid()))
        << "a core has no such limit";
}

// Only with sources that do not examine other processes and start no program.
TEST_F(request, for_a_resource_trace_starts_a_download_of_its_records) {
    const std::string head = download_head("application/octet-stream", "rtrace");
    for (const char* query : {"cmd=rtrace&trace=meminfo", "cmd=rtrace&interval=abc&trace=meminfo",
                              "cmd=rtracefoo&interval=1&trace=%20meminfo%20,bogus"}) {
        browser client;
        serve(client, "/x", query);
        std::string answer = first_bytes(client, head.size() + 4);
        EXPECT_EQ(answer, head + std::string("\x08\0\0\0", 4)) << query;
    }
}

TEST_F(request, for_the_process_list_matches_by_prefix) {
    if (access("/bin/ps", X_OK) != 0) {
        GTEST_SKIP() << "needs /bin/ps";
    }
    std::string head = download_head("text/plain", "psdump.txt");
    for (const char* query : {"cmd=ps", "cmd=psx", "cmd=%70s&pid=1"}) {
        EXPECT_EQ(answer_to(query).substr(0, head.size()), head) << query;
    }
}

TEST_F(request, without_a_thread_gets_a_server_error) {
    int status = run_in_child([] {
        if (!forbid_new_threads()) {
            return 2;
        }
        for (std::string query : {std::string("cmd=ps"), std::string("cmd=pcapdump"),
                                  std::string("cmd=rtrace"), numbered("cmd=strace&pid=", getpid())}) {
            EXPECT_EQ(answer_to(query), broken_server_answer) << query;
        }
        return HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

TEST_F(request, for_an_archive_without_a_thread_does_not_block_the_next_one) {
    int status = run_in_child([] {
        if (!forbid_new_threads()) {
            return 2;
        }
        for (const char* path : {"/x/debug.tgz", "/x/debug.tar"}) {
            archive_busy = 0;
            EXPECT_EQ(answer_to("", path), broken_server_answer) << path;
            EXPECT_EQ(archive_busy, 0) << path;
        }
        return HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

TEST_F(request, for_a_capture_is_exact_if_its_number_is_above_0) {
    SKIP_WITHOUT_PRIVATE_NETWORK();
    const std::string head = dump_head("");
    const std::string up_to_name = head.substr(0, head.find("\"\"") + 1);
    auto name_begins_with = [&up_to_name](const std::string& parameter, const std::string& name) {
        browser client;
        serve(client, "/x", "cmd=pcapdump&duration=1&totalsize=24&interface=near0" + parameter);
        EXPECT_EQ(first_bytes(client, up_to_name.size() + name.size()), up_to_name + name) << parameter;
    };
    in_private_network([&name_begins_with] {
        for (const char* exact : {"1", "2", "%201x", "2147483647"}) {
            name_begins_with(std::string("&exact=") + exact, "capture-near0-");
        }
        for (const char* usual : {"", "&exact", "&exact=", "&exact=0", "&exact=-1", "&exact=yes",
                                  "&exact=99999999999", "&exact=0&exact=1"}) {
            name_begins_with(usual, "pcapdump.cap");
        }
    });
}

TEST_F(request, leaves_no_descriptor_open) {
    answer_to("cmd=nonsense");
    std::set<int> before = open_fds();
    answer_to("");
    answer_to("listen", "x");
    answer_to("cmd=nonsense");
    answer_to(numbered("cmd=coredump&pid=", dead_pid()));
    answer_to(numbered("cmd=strace&pid=", dead_pid()));
    answer_to_message("/no/zero");
    browser client;
    serve(client, "/x", "listen");
    close_listener();
    client.go_away();
    EXPECT_EQ(open_fds(), before);
}

TEST_F(request, from_a_browser_that_has_gone_does_no_harm) {
    std::set<int> before = open_fds();
    for (const char* query : {"", "cmd=nonsense", "cmd=coredump&pid=no-such-process", "cmd=strace&pid="}) {
        browser client;
        client.go_away();
        serve(client, "/x/debug.tgz", query);
    }
    EXPECT_EQ(open_fds(), before);
}

}  // namespace
