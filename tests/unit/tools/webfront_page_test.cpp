#include <gtest/gtest.h>

#include "tools/webfront/page.h"

TEST(webfront_page, links_to_every_kind_of_request) {
    std::string page = webfront_page();
    for (const char* target : {"/debug.tgz", "/debug.tar", "/debugar.cgi?cmd=ps",
                               "/debugar.cgi?cmd=pcapdump&amp;duration=5&amp;totalsize=100000",
                               "/debugar.cgi?cmd=rtrace&amp;interval=10", "/debugar.cgi?cmd=coredump",
                               "/debug.tgz?listen", "/debug.tgz?pop"}) {
        EXPECT_NE(page.find("<a href=\"" + std::string(target) + "\">" + target + "</a>"), std::string::npos)
            << target;
    }
}

TEST(webfront_page, asks_for_the_pids_of_traces_and_cores) {
    std::string page = webfront_page();
    for (const char* command : {"strace", "coredump"}) {
        std::string form = std::string("<form action=\"/debugar.cgi\"><label>/debugar.cgi?cmd=") + command +
                           "&amp;pid=<input name=\"pid\" required></label>"
                           "<input type=\"hidden\" name=\"cmd\" value=\"" +
                           command + "\">";
        EXPECT_NE(page.find(form), std::string::npos) << command;
    }
}

TEST(webfront_page, keeps_browsers_from_asking_for_an_icon) {
    EXPECT_NE(webfront_page().find("<link rel=\"icon\" href=\"data:,\">"), std::string::npos);
}
