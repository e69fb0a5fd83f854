#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/applets.h"
#include "app/test_applets.h"
#include "cgi/dbg_cgi.h"
#include "dump/coredump_handler.h"
#include "net/pcapdump.h"
#include "oops/oopslog.h"
#include "tests/unit/support/capture.h"

namespace {

const app_entry* find(const std::string& name) {
    for (const app_entry& entry : app_table) {
        if (entry.name == name) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

TEST(app_table, holds_every_applet_in_its_order) {
    std::vector<std::string> names;
    for (const app_entry& entry : app_table) {
        names.emplace_back(entry.name);
        EXPECT_NE(entry.run, nullptr) << entry.name;
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{"tstrace", "stopper", "pcapdump", "coredump-handler", "debugar.cgi",
                                        "mon", "ctest", "oopslog", "forkbomb", "fdleak", "segfault"}));
}

TEST(app_table, names_lead_to_their_functions) {
    const app_entry wanted[] = {
        {"debugar.cgi", run_dbg_cgi},
        {"ctest", run_ctest},
        {"forkbomb", run_forkbomb},
        {"fdleak", run_fdleak},
        {"segfault", run_segfault},
        {"pcapdump", run_pcapdump},
        {"coredump-handler", run_coredump_handler},
        {"oopslog", run_oopslog},
    };
    for (const app_entry& entry : wanted) {
        const app_entry* found = find(entry.name);
        ASSERT_NE(found, nullptr) << entry.name;
        EXPECT_EQ(found->run, entry.run) << entry.name;
    }
}

TEST(app_table, knows_neither_the_daemons_log_name_nor_its_own) {
    for (std::string name : {"dbg-cgi", "zarvo"}) {
        std::string toolbox = "zarvo";
        char* argv[] = {toolbox.data(), name.data(), nullptr};
        std::string out = capture_stdout([&] { EXPECT_EQ(app_dispatch(2, argv, app_table), 1); });
        EXPECT_EQ(out, name + ": unknown zarvo applet\n");
    }
}
