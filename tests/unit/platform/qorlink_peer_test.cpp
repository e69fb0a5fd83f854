// Peers that misbehave: they neither hold the caller for long nor leave anything open.
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <thread>

#include "tests/unit/platform/qorlink_fixture.h"

namespace {

class qorlink_peer : public qorlink_fixture {};

void ignore_signal(int) {}

// Interrupts the process every 100 ms for the length of a block.
class interruptions {
public:
    interruptions() {
        struct sigaction action = {};
        action.sa_handler = ignore_signal;  // no SA_RESTART: calls fail with EINTR
        sigaction(SIGALRM, &action, &old_action);
        itimerval every = {{0, 100000}, {0, 100000}};
        setitimer(ITIMER_REAL, &every, nullptr);
    }
    ~interruptions() {
        itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &old_action, nullptr);
    }

private:
    struct sigaction old_action;
};

// Lets only `count` more descriptors be opened.
class descriptor_shortage {
public:
    explicit descriptor_shortage(int count) {
        getrlimit(RLIMIT_NOFILE, &old_limit);
        std::vector<int> spare;
        for (int i = 0; i < count; i++) {
            spare.push_back(dup(STDIN_FILENO));
        }
        rlimit low = old_limit;
        low.rlim_cur = static_cast<rlim_t>(spare.back()) + 1;
        for (int fd : spare) {
            close(fd);
        }
        setrlimit(RLIMIT_NOFILE, &low);
    }
    ~descriptor_shortage() { setrlimit(RLIMIT_NOFILE, &old_limit); }

private:
    rlimit old_limit;
};

}  // namespace

TEST_F(qorlink_peer, silent_peer_holds_the_receiver_for_two_seconds) {
    peer far(path);
    expect_failure(ETIMEDOUT);
    expect_bounded();
    EXPECT_TRUE(far.sees_end(0));
}

TEST_F(qorlink_peer, descriptor_of_an_unfinished_message_is_closed) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("half a mess", {passed.in.get()}));
    expect_failure(ETIMEDOUT);
    expect_bounded();
    EXPECT_TRUE(passed.is_at_end());
}

TEST_F(qorlink_peer, slow_peer_holds_the_receiver_for_two_seconds) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("x", {passed.in.get()}));
    int trickled = 0;
    std::thread trickle([&] {
        while (!far.sees_end(250) && trickled < 40) {
            trickled += far.send("x") ? 1 : 0;
        }
    });
    expect_failure(ETIMEDOUT);
    expect_bounded();
    trickle.join();
    EXPECT_GE(trickled, 4);
    EXPECT_LE(trickled, 12);
}

TEST_F(qorlink_peer, interruptions_neither_end_nor_prolong_the_wait) {
    peer far(path);
    interruptions often;
    expect_failure(ETIMEDOUT);
    expect_bounded();
}

TEST_F(qorlink_peer, receiver_without_a_peer_times_out) {
    expect_failure(ETIMEDOUT);
    expect_bounded();
}

TEST_F(qorlink_peer, peer_that_hangs_up_at_once_is_a_failure) {
    peer(path).hang_up();
    expect_failure(0);
    EXPECT_LT(took, milliseconds(1000));
}

TEST_F(qorlink_peer, empty_message_is_a_failure) {
    peer far(path);
    far.finish();
    expect_failure(0);
    EXPECT_LT(took, milliseconds(1000));
}

// The receiver sees only the end of input, and takes the bytes before it as the message.
TEST_F(qorlink_peer, message_of_a_killed_peer_ends_where_it_died) {
    passed_pipe passed;
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t child = fork();
    if (child == 0) {
        peer far(path);
        bool sent = far.send("kind=co", {passed.in.get()});
        (void)!write(ready[1], sent ? "y" : "n", 1);
        for (;;) {
            pause();
        }
    }
    char sent = 0;
    ASSERT_EQ(read(ready[0], &sent, 1), 1);
    EXPECT_EQ(sent, 'y');
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    ASSERT_EQ(receive(4095), 7);
    EXPECT_EQ(text(7), "kind=co");
    EXPECT_LT(took, milliseconds(1000));
    close(received);
    EXPECT_TRUE(passed.is_at_end());
    close(ready[0]);
    close(ready[1]);
}

TEST_F(qorlink_peer, message_without_descriptor_is_a_failure) {
    peer far(path);
    ASSERT_TRUE(far.send("kind=core"));
    far.finish();
    expect_failure(EBADMSG);
}

TEST_F(qorlink_peer, message_without_descriptor_fails_before_it_is_complete) {
    peer far(path);
    ASSERT_TRUE(far.send("k"));
    expect_failure(EBADMSG);
    EXPECT_LT(took, milliseconds(1000));
}

TEST_F(qorlink_peer, two_descriptors_fail_and_are_both_closed) {
    passed_pipe one;
    passed_pipe two;
    peer far(path);
    ASSERT_TRUE(far.send("kind=core", {one.in.get(), two.in.get()}));
    far.finish();
    expect_failure(EBADMSG);
    EXPECT_TRUE(one.is_at_end());
    EXPECT_TRUE(two.is_at_end());
}

TEST_F(qorlink_peer, largest_possible_number_of_descriptors_is_closed) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("kind=core", std::vector<int>(253, passed.in.get())));
    far.finish();
    expect_failure(EBADMSG);
    EXPECT_TRUE(passed.is_at_end());
}

TEST_F(qorlink_peer, descriptor_on_a_later_byte_is_a_failure) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("k"));
    ASSERT_TRUE(far.send("ind=core", {passed.in.get()}));
    far.finish();
    expect_failure(EBADMSG);
    far.hang_up();
    EXPECT_TRUE(passed.is_at_end());
}

TEST_F(qorlink_peer, second_descriptor_on_a_later_byte_is_a_failure) {
    passed_pipe one;
    passed_pipe two;
    peer far(path);
    ASSERT_TRUE(far.send("kind", {one.in.get()}));
    ASSERT_TRUE(far.send("=core", {two.in.get()}));
    far.finish();
    expect_failure(EBADMSG);
    EXPECT_TRUE(one.is_at_end());
    EXPECT_TRUE(two.is_at_end());
}

TEST_F(qorlink_peer, descriptor_beyond_the_limit_of_open_files_is_a_failure) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("kind=core", {passed.in.get()}));
    far.finish();
    std::set<int> before = open_fds();
    {
        descriptor_shortage only_the_connection(1);
        EXPECT_EQ(receive(4095), -1);
    }
    EXPECT_EQ(error, EBADMSG);
    EXPECT_EQ(received, -1);
    EXPECT_EQ(open_fds(), before);
}

TEST_F(qorlink_peer, two_descriptors_fail_even_if_only_one_can_be_opened) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("kind=core", {passed.in.get(), passed.in.get()}));
    far.finish();
    std::set<int> before = open_fds();
    {
        descriptor_shortage connection_and_one_more(2);
        EXPECT_EQ(receive(4095), -1);
    }
    EXPECT_EQ(error, EBADMSG);
    EXPECT_EQ(received, -1);
    EXPECT_EQ(open_fds(), before);
    far.hang_up();
    EXPECT_TRUE(passed.is_at_end());
}

TEST_F(qorlink_peer, failure_does_not_affect_the_next_connection) {
    passed_pipe passed;
    peer bad(path);
    ASSERT_TRUE(bad.send("no descriptor"));
    ASSERT_EQ(qorlink_send(path.c_str(), "good", 4, passed.in.get()), 0);
    expect_failure(EBADMSG);
    EXPECT_EQ(receive(4095), 4);
    EXPECT_EQ(text(4), "good");
    close(received);
}

TEST_F(qorlink_peer, receiver_that_hangs_up_does_not_kill_the_sender) {
    passed_pipe passed;
    std::string message(4000000, 'm');
    int sent = 0;
    int send_error = 0;
    std::thread sender([&] {
        sent = qorlink_send(path.c_str(), message.data(), static_cast<int>(message.size()), passed.in.get());
        send_error = errno;
    });
    EXPECT_EQ(receive(4095), 4095);
    sender.join();
    close(received);
    EXPECT_EQ(sent, -1);
    EXPECT_TRUE(send_error == EPIPE || send_error == ECONNRESET) << strerror(send_error);
}

TEST_F(qorlink_peer, stuck_receiver_holds_the_sender_for_ten_seconds) {
    std::string full_path = folder + "/full";
    int full = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const unix_address address(full_path);
    ASSERT_EQ(bind(full, address.get(), address.size()), 0);
    ASSERT_EQ(listen(full, 0), 0);
    peer fills_the_queue(full_path);
    passed_pipe passed;
    std::set<int> before = open_fds();

    struct {
        const char* path;
        int result;
        int error;
        milliseconds took;
    } cases[] = {{full_path.c_str(), 0, 0, {}}, {path.c_str(), 0, 0, {}}};
    std::string message(4000000, 'm');
    std::vector<std::thread> senders;
    for (auto& one : cases) {
        senders.emplace_back([&] {
            auto start = steady_clock::now();
            one.result =
                qorlink_send(one.path, message.data(), static_cast<int>(message.size()), passed.in.get());
            one.error = errno;
            one.took = since(start);
        });
    }
    for (size_t i = 0; i < senders.size(); i++) {
        senders[i].join();
        EXPECT_EQ(cases[i].result, -1) << cases[i].path;
        EXPECT_EQ(cases[i].error, ETIMEDOUT) << cases[i].path;
        EXPECT_GE(cases[i].took, send_limit - milliseconds(50)) << cases[i].path;
        EXPECT_LE(cases[i].took, send_limit + slack) << cases[i].path;
    }
    EXPECT_EQ(open_fds(), before);
    close(full);
    unlink(full_path.c_str());
}
