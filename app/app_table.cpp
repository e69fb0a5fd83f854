#include "app/applets.h"
#include "app/test_applets.h"
#include "cgi/dbg_cgi.h"
#include "dump/coredump_handler.h"
#include "monitor/mon.h"
#include "net/pcapdump.h"
#include "oops/oopslog.h"
#include "trace/stopper.h"
#include "trace/tstrace.h"

namespace {

constexpr app_entry entries[] = {
    {"tstrace", run_tstrace},     {"stopper", run_stopper},
    {"pcapdump", run_pcapdump},   {"coredump-handler", run_coredump_handler},
    {"debugar.cgi", run_dbg_cgi}, {"mon", run_mon},
    {"ctest", run_ctest},         {"oopslog", run_oopslog},
    {"forkbomb", run_forkbomb},   {"fdleak", run_fdleak},
    {"segfault", run_segfault},
};

}  // namespace

constexpr std::span<const app_entry> app_table = entries;
