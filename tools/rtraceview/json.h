// Samples as lines of JSON, one object each:
//
//   {"time_ms":1,"offset":0,"smaps":{"1":{"Rss":4,...}},"status":{"1":{"Name":"init",...}},
//    "filenr":{"allocated":1,...},"meminfo":{"MemFree":1,...},"diskinfo":{"/":{"Used":1,...}},
//    "iostat":{"cpu":{"%user":1,...},"sda":{...}},"pidstat":{"init 1":{...}},"event":{"text":"..."}}
//
// Sizes are in KiB. The smaps numbers of a process are sums over its mappings; for page sizes, the largest of
// any mapping. Masks and names are strings.
#pragma once

#include <string>

#include "tools/json/json_output.h"
#include "tools/rtraceview/output.h"
#include "tools/rtraceview/sample_visitor.h"

class json_writer : public sample_visitor {
public:
    explicit json_writer(text_output* out) : out_(out) {}  // borrows `out`

    void begin(int64_t time_ms, uint64_t offset) override;
    void value(const sample_field& field, double number, int64_t time_ms) override;
    void text(const sample_field& field, std::string_view text, int64_t time_ms) override;
    void end() override;

private:
    void begin_field(const sample_field& field);
    void end_subject();
    void end_source();
    void pass_on();

    text_output* out_;
    json_output json_;
    std::string source_;   // whose object is open; empty: none
    std::string subject_;  // the same inside it
};
