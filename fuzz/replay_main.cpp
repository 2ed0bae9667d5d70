// Feeds every file of the given directories to LLVMFuzzerTestOneInput once, after
// LLVMFuzzerInitialize (where targets that touch files enter the sandbox) as libFuzzer does.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize != nullptr) {
        (void)LLVMFuzzerInitialize(&argc, &argv);
    }
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto &e : std::filesystem::directory_iterator(argv[i])) {
                inputs.push_back(e.path());
            }
        } else {
            inputs.emplace_back(argv[i]);
        }
    }
    for (const auto &path : inputs) {
        std::ifstream in(path, std::ios::binary);
        // Exactly the file's bytes, so that a read past the input is a sanitizer finding.
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        (void)LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
