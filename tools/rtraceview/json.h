// Samples as lines of JSON, one object each:
//
//   {"time_ms":1,"offset":0,"smaps":{"1":{"Rss":4,...}},"status":{"1":{"Name":"init",...}},
//    "filenr":{"allocated":1,...},"meminfo":{"MemFree":1,...},"diskinfo":{"/":{"Used":1,...}},
//    "iostat":{"cpu":{"%user":1,...},"sda":{...}},"pidstat":{"init 1":{...}},"event":{"text":"..."}}
//
// Sizes are KiB. A process's smaps are the sums over its mappings; page sizes are the largest of any mapping.
// Masks and names are texts.
#pragma once

#include <string>

#include "tools/json/json_output.h"
#include "tools/rtraceview/output.h"
#include "tools/rtraceview/samples.h"

class json_writer : public sample_visitor {
public:
    explicit json_writer(text_output& out) : out_(out) {}

    void begin(int64_t time_ms, uint64_t offset) override;
    void value(const sample_place& place, double number, int64_t time_ms) override;
    void text(const sample_place& place, std::string_view text, int64_t time_ms) override;
    void end() override;

private:
    void open(const sample_place& place);
    void close_subject();
    void close_source();

    void pass_on();

    text_output& out_;
    json_output json_;
    std::string source_;   // open object; empty: none
    std::string subject_;  // the same within it
};
