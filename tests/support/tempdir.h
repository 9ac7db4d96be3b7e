// A directory of the test's own, removed with all it holds when the object goes.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kemsd::test {

class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "kemsd-test-XXXXXX").string();
        if (mkdtemp(pattern.data()))
            path_ = pattern;
        else
            ADD_FAILURE() << "cannot make a directory under " << std::filesystem::temp_directory_path();
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string path(const std::string& name = {}) const { return name.empty() ? path_ : path_ + "/" + name; }

    // Writes a file of this directory, making the directories of its name; returns its path.
    std::string write(const std::string& name, const std::string& content) const
    {
        const std::filesystem::path file = path(name);
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
        return file.string();
    }

    std::string read(const std::string& name) const
    {
        std::ifstream in(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

private:
    std::string path_;
};

} // namespace kemsd::test
