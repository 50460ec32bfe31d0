// A folder of its own for a test, removed with all that it holds.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace vx::test {

class TempDir {
public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "vxtest.XXXXXX").string();
        if (mkdtemp(name.data())) path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // Path of a file or folder inside, as in dir / "config/proxysetting.conf".
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Writes a file inside; its folders are made. The path.
    std::string write(const std::string& name, const std::string& content) const {
        const std::string file = *this / name;
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }
    // Content of a file inside, empty when it cannot be read.
    std::string read(const std::string& name) const {
        std::ostringstream content;
        content << std::ifstream(*this / name, std::ios::binary).rdbuf();
        return content.str();
    }

private:
    std::string path_;
};

}  // namespace vx::test
