// An archive with a manifest.
#pragma once

#include "archive/manifest.h"
#include "tests/unit/archive/archive_fixture.h"

class listed_archive {
public:
    listed_archive() { manifest_begin(&manifest_, archive_.handle()); }
    listed_archive(const listed_archive&) = delete;
    listed_archive& operator=(const listed_archive&) = delete;

    tar_handle* handle() const { return archive_.handle(); }

    // Stores the manifest, closes the archive and reads it back.
    tar_listing finish() {
        manifest_store(&manifest_, archive_.handle());
        return archive_.finish();
    }

private:
    manifest manifest_;
    test_archive archive_;
};

// What the manifest of `listing` says of errors: a line "MEMBER: REASON" for each.
inline std::string manifest_errors(const tar_listing& listing) {
    const tar_entry* list = listing.find("manifest.txt");
    std::string errors;
    std::string rest = list ? list->data : "no manifest";
    for (size_t end; (end = rest.find('\n')) != std::string::npos; rest.erase(0, end + 1)) {
        const std::string line = rest.substr(0, end);
        const size_t at = line.find("        error              ");
        errors += at == std::string::npos ? "" : line.substr(at + 27) + "\n";
    }
    return errors;
}
