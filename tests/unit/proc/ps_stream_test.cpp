#include "proc/ps_stream.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/private_world.h"

namespace {

// Replaces /bin/ps of a private world with a script. /bin/ps and the shell may be links to the same program,
// which the script then hides, so the script runs in a copy of the shell.
bool replace_ps(const std::string& body) {
    std::error_code error;
    return std::filesystem::copy_file("/bin/sh", "/tmp/sh", error) &&
           install_file("/tmp/ps", "#!/tmp/sh\n" + body) && chmod("/tmp/ps", 0755) == 0 &&
           mount("/tmp/ps", "/bin/ps", nullptr, MS_BIND, nullptr) == 0;
}

}  // namespace

TEST(stream_ps, writes_both_outputs_of_ps_without_arguments) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd out = memory_file();
    EXPECT_EQ(run_in_private_world([&] {
                  if (!replace_ps("echo \"$#:$*\"; echo err >&2")) {
                      return 3;
                  }
                  stream_ps(out.get());
                  return has_no_children() ? 0 : 4;
              }),
              0);
    EXPECT_EQ(content_of(out.get()), "0:\nerr\n");
}

TEST(stream_ps, first_line_of_the_real_ps_names_the_columns) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    if (access("/bin/ps", X_OK) != 0) {
        GTEST_SKIP() << "there is no /bin/ps";
    }
    unique_fd out = memory_file();
    EXPECT_EQ(run_in_private_world([&] {
                  stream_ps(out.get());
                  return 0;
              }),
              0);
    std::string text = content_of(out.get());
    EXPECT_NE(text.substr(0, text.find('\n')).find("PID"), std::string::npos) << text;
}
