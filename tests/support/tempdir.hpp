#pragma once
// A folder of its own for one test, removed with everything in it when the test ends.
#include <boost/filesystem.hpp>

#include <fstream>
#include <string>

namespace quorl_testing {

class TempDir {
public:
    TempDir()
        : path_(boost::filesystem::temp_directory_path() /
                boost::filesystem::unique_path("quorl-test-%%%%-%%%%-%%%%")) {
        boost::filesystem::create_directories(path_);
    }
    ~TempDir() {
        boost::system::error_code ec;
        boost::filesystem::remove_all(path_, ec);
    }
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    boost::filesystem::path const& path() const { return path_; }
    std::string str() const { return path_.string(); }
    // Writes `text` byte for byte into the file `name` of the folder; returns the file's path.
    std::string write(std::string const& name, std::string const& text) const {
        std::string const file = (path_ / name).string();
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }

private:
    boost::filesystem::path path_;
};

} // namespace quorl_testing
