#pragma once
// A directory of its own under /tmp for one test, removed with all it holds when the test ends.

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace kestrix_test {

class ScratchDir {
public:
    explicit ScratchDir(const std::string& name) {
        std::string pattern = "/tmp/kestrix-" + name + "-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make " + pattern);
        path_ = pattern;
    }
    ~ScratchDir() {
        std::error_code error;
        std::filesystem::remove_all(path_, error);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace kestrix_test
