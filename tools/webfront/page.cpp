#include "tools/webfront/page.h"

#include <string_view>

#include "tools/webfront/target.h"

namespace {

struct request_kind {
    std::string_view target;
    std::string_view asked;  // a parameter that the user fills in; empty: a plain link
    std::string_view what;
};

constexpr request_kind request_kinds[] = {
    {"/debug.tgz", "", "the debug archive, compressed"},
    {"/debug.tar", "", "the debug archive, not compressed"},
    {"/debugar.cgi?cmd=ps", "", "the process list"},
    {"/debugar.cgi?cmd=pcapdump&duration=5&totalsize=100000", "",
     "a packet capture of at most 5 seconds and 100000 bytes"},
    {"/debugar.cgi?cmd=strace", "pid",
     "a system-call trace of processes: pids or names, with commas between"},
    {"/debugar.cgi?cmd=rtrace&interval=10", "", "a resource trace with a sample every 10 seconds"},
    {"/debugar.cgi?cmd=coredump", "pid", "the core dump of a running process: its pid or name"},
    {"/debugar.cgi?cmd=coredump", "", "waits for the next process that crashes and fetches its core dump"},
    {"/debug.tgz?listen", "", "waits for the next process that crashes, too"},
    {"/debug.tgz?pop", "", "fetches a stored dump and deletes it on the machine"},
};

std::string escaped(std::string_view text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string link(const request_kind& kind) {
    std::string target = escaped(kind.target);
    return "<a href=\"" + target + "\">" + target + "</a>";
}

// The query of such a row is one `name=value` pair: a form replaces its action's query by its own fields.
std::string form(const request_kind& kind) {
    webfront_target parts = webfront_split_target(kind.target);
    size_t equals = parts.query.find('=');
    std::string name = escaped(parts.query.substr(0, equals));
    std::string value = escaped(parts.query.substr(equals + 1));
    std::string asked = escaped(kind.asked);
    return "<form action=\"" + escaped(parts.path) + "\"><label>" + escaped(kind.target) + "&amp;" + asked +
           "=<input name=\"" + asked + "\" required></label><input type=\"hidden\" name=\"" + name +
           "\" value=\"" + value + "\"> <button>Fetch</button></form>";
}

// The empty icon keeps browsers from asking for one.
constexpr std::string_view page_start =
    "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>Debug downloads</title>\n"
    "<link rel=\"icon\" href=\"data:,\">\n</head>\n<body>\n<h1>Debug downloads</h1>\n<dl>\n";
constexpr std::string_view page_end = "</dl>\n</body>\n</html>\n";

}  // namespace

std::string webfront_page() {
    std::string page(page_start);
    for (const request_kind& kind : request_kinds) {
        page += "<dt>" + (kind.asked.empty() ? link(kind) : form(kind)) + "</dt>\n<dd>" + escaped(kind.what) +
                "</dd>\n";
    }
    return page.append(page_end);
}
