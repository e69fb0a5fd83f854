#include "platform/qorlink.h"

#include <sys/stat.h>

#include <thread>

#include "tests/unit/platform/qorlink_fixture.h"
#include "tests/unit/support/effort.h"

namespace {

class qorlink : public qorlink_fixture {};

}  // namespace

TEST_F(qorlink, message_and_descriptor_arrive) {
    passed_pipe passed;
    ASSERT_EQ(qorlink_send(path.c_str(), "kind=core", 9, passed.in.get()), 0) << strerror(errno);
    int length = receive(4095);
    ASSERT_EQ(length, 9);
    EXPECT_EQ(text(length), "kind=core");
    ASSERT_GE(received, 0);
    EXPECT_EQ(write(received, "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(read(passed.out.get(), &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    close(received);
    EXPECT_TRUE(passed.is_at_end());
}

TEST_F(qorlink, only_the_passed_descriptor_stays_open) {
    passed_pipe passed;
    std::set<int> before = open_fds();
    ASSERT_EQ(qorlink_send(path.c_str(), "a", 1, passed.in.get()), 0);
    EXPECT_EQ(open_fds(), before);
    ASSERT_EQ(receive(4095), 1);
    before.insert(received);
    EXPECT_EQ(open_fds(), before);
    close(received);
}

TEST_F(qorlink, bytes_after_the_message_are_unchanged) {
    passed_pipe passed;
    ASSERT_EQ(qorlink_send(path.c_str(), "abc", 3, passed.in.get()), 0);
    ASSERT_EQ(receive(6), 3);
    EXPECT_EQ(buffer, "abc###");
    close(received);
}

TEST_F(qorlink, descriptors_are_closed_on_exec) {
    passed_pipe passed;
    ASSERT_FALSE(is_cloexec(passed.in.get()));
    ASSERT_EQ(qorlink_send(path.c_str(), "a", 1, passed.in.get()), 0);
    ASSERT_EQ(receive(4095), 1);
    EXPECT_TRUE(is_cloexec(received));
    EXPECT_TRUE(is_cloexec(server));
    close(received);
}

TEST_F(qorlink, message_of_4095_bytes_fills_the_buffer) {
    passed_pipe passed;
    std::string message(4095, 'm');
    ASSERT_EQ(qorlink_send(path.c_str(), message.data(), 4095, passed.in.get()), 0);
    EXPECT_EQ(receive(4095), 4095);
    EXPECT_EQ(buffer, message);
    close(received);
}

TEST_F(qorlink, message_one_byte_below_the_buffer_is_whole) {
    passed_pipe passed;
    std::string message(4094, 'm');
    ASSERT_EQ(qorlink_send(path.c_str(), message.data(), 4094, passed.in.get()), 0);
    EXPECT_EQ(receive(4095), 4094);
    EXPECT_EQ(buffer, message + "#");
    close(received);
}

TEST_F(qorlink, longer_message_is_cut_at_the_buffer) {
    passed_pipe passed;
    std::string message = std::string(4095, 'm') + "rest";
    ASSERT_EQ(qorlink_send(path.c_str(), message.data(), 4099, passed.in.get()), 0);
    EXPECT_EQ(receive(4095), 4095);
    EXPECT_EQ(buffer, message.substr(0, 4095));
    close(received);
}

TEST_F(qorlink, full_buffer_does_not_wait_for_the_end_of_input) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("12345678", {passed.in.get()}));
    EXPECT_EQ(receive(8), 8);
    EXPECT_LT(took, milliseconds(1000));
    EXPECT_TRUE(far.sees_end(0));
    close(received);
}

TEST_F(qorlink, one_byte_fits_a_buffer_of_one_byte) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("1", {passed.in.get()}));
    EXPECT_EQ(receive(1), 1);
    EXPECT_EQ(buffer, "1");
    close(received);
}

TEST_F(qorlink, message_larger_than_a_socket_buffer_arrives_whole) {
    passed_pipe passed;
    std::string message;
    while (message.size() < effort<size_t>(3000000, 600000)) {
        message += std::to_string(message.size()) + " ";
    }
    int sent = -1;
    std::thread sender([&] {
        sent = qorlink_send(path.c_str(), message.data(), static_cast<int>(message.size()), passed.in.get());
    });
    int length = receive(message.size() + 1);
    sender.join();
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(length, static_cast<int>(message.size()));
    EXPECT_EQ(text(length), message);
    close(received);
}

TEST_F(qorlink, message_in_pieces_is_joined) {
    passed_pipe passed;
    peer far(path);
    ASSERT_TRUE(far.send("kin", {passed.in.get()}));
    ASSERT_TRUE(far.send("d=c"));
    ASSERT_TRUE(far.send("ore"));
    far.finish();
    EXPECT_EQ(receive(4095), 9);
    EXPECT_EQ(text(9), "kind=core");
    close(received);
}

TEST_F(qorlink, queued_connections_are_received_in_order) {
    passed_pipe first;
    passed_pipe second;
    ASSERT_EQ(qorlink_send(path.c_str(), "first", 5, first.in.get()), 0);
    ASSERT_EQ(qorlink_send(path.c_str(), "second", 6, second.in.get()), 0);
    ASSERT_EQ(receive(4095), 5);
    EXPECT_EQ(text(5), "first");
    close(received);
    EXPECT_TRUE(first.is_at_end());
    ASSERT_EQ(receive(4095), 6);
    EXPECT_EQ(text(6), "second");
    close(received);
    EXPECT_TRUE(second.is_at_end());
}

TEST_F(qorlink, threads_may_send_at_the_same_time) {
    constexpr int count = 16;
    passed_pipe passed;
    std::vector<std::thread> senders;
    for (int i = 0; i < count; i++) {
        senders.emplace_back([this, i, &passed] {
            std::string message(1000, static_cast<char>('a' + i));
            EXPECT_EQ(qorlink_send(path.c_str(), message.data(), 1000, passed.in.get()), 0);
        });
    }
    std::set<char> seen;
    for (int i = 0; i < count; i++) {
        ASSERT_EQ(receive(4095), 1000);
        close(received);
        EXPECT_EQ(text(1000), std::string(1000, buffer[0]));
        seen.insert(buffer[0]);
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(count));
}

TEST_F(qorlink, empty_buffer_is_refused) {
    expect_failure(EINVAL, 0);
    EXPECT_LT(took, milliseconds(1000));
}

TEST_F(qorlink, socket_that_does_not_listen_is_a_failure) {
    int other = socket(AF_UNIX, SOCK_STREAM, 0);
    char byte;
    int fd = 1;
    EXPECT_EQ(qorlink_recv(other, &byte, 1, &fd), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(fd, -1);
    close(other);
    EXPECT_EQ(qorlink_recv(other, &byte, 1, &fd), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(qorlink, mode_does_not_depend_on_the_umask) {
    std::string other = folder + "/open";
    mode_t before = umask(077);
    int sock = qorlink_server_socket(other.c_str(), 0666);
    umask(before);
    ASSERT_GE(sock, 0);
    struct stat info;
    ASSERT_EQ(stat(other.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0666u);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    close(sock);
    unlink(other.c_str());
}

TEST_F(qorlink, longest_path_works_and_one_byte_more_is_too_long) {
    std::string longest = folder + "/";
    longest.resize(sizeof(sockaddr_un::sun_path) - 1, 'p');
    int sock = qorlink_server_socket(longest.c_str(), 0600);
    EXPECT_GE(sock, 0) << strerror(errno);
    passed_pipe passed;
    EXPECT_EQ(qorlink_send(longest.c_str(), "a", 1, passed.in.get()), 0);
    close(sock);
    EXPECT_EQ(unlink(longest.c_str()), 0);

    std::set<int> before = open_fds();
    longest += 'p';
    EXPECT_EQ(qorlink_server_socket(longest.c_str(), 0600), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(qorlink_send(longest.c_str(), "a", 1, passed.in.get()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(open_fds(), before);
}

TEST_F(qorlink, empty_path_names_no_socket) {
    EXPECT_EQ(qorlink_server_socket("", 0600), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(qorlink_send("", "a", 1, server), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(qorlink, existing_file_is_an_error_and_is_kept) {
    std::set<int> before = open_fds();
    EXPECT_EQ(qorlink_server_socket(path.c_str(), 0666), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(open_fds(), before);
    struct stat info;
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
}

TEST_F(qorlink, missing_folder_is_an_error) {
    std::set<int> before = open_fds();
    EXPECT_EQ(qorlink_server_socket((folder + "/none/control").c_str(), 0666), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open_fds(), before);
}

TEST_F(qorlink, send_to_a_missing_receiver_fails) {
    passed_pipe passed;
    std::set<int> before = open_fds();
    EXPECT_EQ(qorlink_send((folder + "/none").c_str(), "a", 1, passed.in.get()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open_fds(), before);
    close(server);
    server = -1;
    EXPECT_EQ(qorlink_send(path.c_str(), "a", 1, passed.in.get()), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(qorlink, send_refuses_arguments_that_no_receiver_would_accept) {
    passed_pipe passed;
    EXPECT_EQ(qorlink_send(path.c_str(), "a", 0, passed.in.get()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(qorlink_send(path.c_str(), "a", 1, -1), -1);
    EXPECT_EQ(errno, EBADF);
    int closed = dup(passed.in.get());
    close(closed);
    EXPECT_EQ(qorlink_send(path.c_str(), "a", 1, closed), -1);
    EXPECT_EQ(errno, EBADF);
}
