#include "net/netlink_list.h"

#include <errno.h>
#include <string.h>

#include <vector>

#include "tests/unit/net/netlink_messages.h"

namespace {

struct answered {
    int result;
    std::vector<std::string> bodies;
};

answered list_from(int fd) {
    answered seen = {};
    seen.result = netlink_list(
        fd, RTM_GETROUTE,
        [](void* context, const nlmsghdr* entry) {
            static_cast<std::vector<std::string>*>(context)->emplace_back(
                static_cast<const char*>(NLMSG_DATA(entry)), entry->nlmsg_len - NLMSG_HDRLEN);
        },
        &seen.bodies);
    return seen;
}

answered list(const std::vector<std::string>& pieces) {
    fake_kernel kernel;
    for (const std::string& piece : pieces) {
        kernel.answer(piece);
    }
    return list_from(kernel.fd());
}

std::string entry(const std::string& body) {
    return netlink_message(RTM_NEWROUTE, body);
}

using bodies = std::vector<std::string>;

}  // namespace

TEST(netlink_list, asks_for_the_whole_table_of_all_families) {
    fake_kernel kernel;
    kernel.answer(netlink_end());
    EXPECT_EQ(list_from(kernel.fd()).result, 0);
    nlmsghdr head;
    const std::string request = kernel.request();
    ASSERT_EQ(request.size(), 20u);
    memcpy(&head, request.data(), sizeof head);
    EXPECT_EQ(head.nlmsg_len, 17u);
    EXPECT_EQ(head.nlmsg_type, RTM_GETROUTE);
    EXPECT_EQ(head.nlmsg_flags, NLM_F_REQUEST | NLM_F_DUMP);
    EXPECT_EQ(request[16], AF_UNSPEC);
}

TEST(netlink_list, adds_the_entries_of_all_pieces_in_order) {
    answered seen = list({entry("one") + entry("two!"), entry("three"), entry("") + netlink_end()});
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.bodies, (bodies{"one", "two!", "three", ""}));
}

TEST(netlink_list, may_be_empty) {
    EXPECT_EQ(list({netlink_end()}).result, 0);
    EXPECT_EQ(list({netlink_message(NLMSG_DONE, "")}).result, 0);
    EXPECT_TRUE(list({netlink_end()}).bodies.empty());
}

TEST(netlink_list, returns_the_error_of_the_kernel) {
    EXPECT_EQ(list({netlink_message(NLMSG_ERROR, netlink_bytes(-EPERM))}).result, EPERM);
    answered seen = list({entry("one"), netlink_end(-EINTR)});
    EXPECT_EQ(seen.result, EINTR);
    EXPECT_EQ(seen.bodies, bodies{"one"});
}

TEST(netlink_list, never_waits) {
    EXPECT_EQ(list({}).result, EAGAIN);
    answered seen = list({entry("one")});
    EXPECT_EQ(seen.result, EAGAIN);
    EXPECT_EQ(seen.bodies, bodies{"one"});
}

TEST(netlink_list, stops_at_a_malformed_answer) {
    const std::string good = entry("one");
    for (size_t size = 1; size < good.size() - 1; size++) {
        EXPECT_EQ(list({good.substr(0, size), netlink_end()}).result, EBADMSG) << size;
    }
    std::string too_long = good;
    too_long[0] = 21;
    EXPECT_EQ(list({too_long, netlink_end()}).result, EBADMSG);
    std::string too_short = good;
    too_short[0] = 15;
    EXPECT_EQ(list({too_short, netlink_end()}).result, EBADMSG);
    too_short[0] = 0;
    EXPECT_EQ(list({good + too_short, netlink_end()}).bodies, bodies{"one"});
}

TEST(netlink_list, takes_an_entry_without_the_padding_at_its_end) {
    answered seen = list({entry("one").substr(0, 19), netlink_end()});
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.bodies, bodies{"one"});
}

TEST(netlink_list, does_not_take_a_piece_that_its_buffer_cuts) {
    EXPECT_EQ(list({entry(std::string(16000, 'x')), netlink_end()}).bodies.size(), 1u);
    answered seen = list({entry(std::string(20000, 'x')), netlink_end()});
    EXPECT_EQ(seen.result, EBADMSG);
    EXPECT_TRUE(seen.bodies.empty());
}

TEST(netlink_list, is_limited_to_2000_entries) {
    std::string half;
    for (unsigned i = 0; i < netlink_entry_limit / 4; i++) {
        half += entry("e");
    }
    answered seen = list({half, half, half, half, netlink_end()});
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.bodies.size(), 2000u);
    seen = list({half, half, half, half, entry("last"), netlink_end()});
    EXPECT_EQ(seen.result, EFBIG);
    EXPECT_EQ(seen.bodies.size(), 2000u);
}

TEST(netlink_list, ends_at_an_empty_piece) {
    answered seen = list({entry("one"), "", netlink_end()});
    EXPECT_EQ(seen.result, EBADMSG);
    EXPECT_EQ(seen.bodies, bodies{"one"});
}

TEST(netlink_list, fails_without_a_socket_and_without_a_kernel) {
    EXPECT_EQ(list_from(-1).result, EBADF);
    fake_kernel kernel;
    kernel.go_away();
    EXPECT_EQ(list_from(kernel.fd()).result, EPIPE);
}
