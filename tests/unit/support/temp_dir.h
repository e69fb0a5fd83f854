// A temporary folder for a test, removed with its content at the end of its life.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "common/unique_fd.h"

class temp_dir {
public:
    temp_dir() {
        std::error_code ignored;
        std::string name = (std::filesystem::temp_directory_path(ignored) / "zarvo-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            ADD_FAILURE() << "cannot create the temporary folder " << name;
            abort();  // the test would create and remove files elsewhere
        }
        path_ = name;
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    ~temp_dir() {
        std::error_code error;
        std::filesystem::remove_all(path_, error);
        EXPECT_FALSE(error) << path_ << ": " << error.message();
    }

    const std::string& path() const { return path_; }
    std::string path(std::string_view name) const { return path_ + "/" + std::string(name); }

    // Creates `name` (may contain slashes; missing folders are created) with exactly `bytes`; returns its
    // path.
    std::string write_file(std::string_view name, std::string_view bytes) const {
        std::string file = path(name);
        std::error_code error;
        std::filesystem::create_directories(std::filesystem::path(file).parent_path(), error);
        EXPECT_FALSE(error) << file << ": " << error.message();
        unique_fd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        EXPECT_TRUE(fd) << file;
        EXPECT_EQ(write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())) << file;
        return file;
    }
    std::string make_folder(std::string_view name) const {
        std::error_code error;
        std::filesystem::create_directories(path(name), error);
        EXPECT_FALSE(error) << path(name) << ": " << error.message();
        return path(name);
    }

private:
    std::string path_;
};
