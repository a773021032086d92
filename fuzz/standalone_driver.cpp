// Runs a fuzz target over given inputs without libFuzzer, so that the ordinary (sanitizer) test
// build replays every target's seeds and regression inputs. Arguments are files, folders (every
// file beneath them) or @LIST, a file of paths separated by commas or line ends (libFuzzer's
// -seed_inputs list, which the build writes for each target).

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

bool read_file(const fs::path& path, std::string& bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

void add_inputs(const std::string& argument, std::vector<fs::path>& inputs) {
    if (argument.starts_with('@')) {
        std::string list;
        if (!read_file(argument.substr(1), list)) {
            inputs.emplace_back(argument.substr(1));  // reported as unreadable below
            return;
        }
        std::string entry;
        for (char c : list + '\n') {
            if (c == ',' || c == '\n') {
                if (!entry.empty()) add_inputs(entry, inputs);
                entry.clear();
            } else {
                entry += c;
            }
        }
    } else if (fs::is_directory(argument)) {
        for (const auto& file : fs::recursive_directory_iterator(argument)) {
            if (file.is_regular_file()) inputs.push_back(file.path());
        }
    } else {
        inputs.emplace_back(argument);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) add_inputs(argv[i], inputs);
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s FILE|DIR|@LIST...\n", argv[0]);
        return 2;
    }
    for (const auto& path : inputs) {
        // Named before it runs, so that a crash's report says which input it was.
        std::printf("%s\n", path.c_str());
        std::fflush(stdout);
        std::string bytes;
        if (!read_file(path, bytes)) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 2;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs ran\n", inputs.size());
    return 0;
}
