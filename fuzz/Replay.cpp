// Runs a fuzz target's LLVMFuzzerTestOneInput once on every file of the folders given, in name
// order: the committed corpus, replayed as a test in every build. Fails when it finds no input,
// so that a wrong folder cannot pass.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzSupport.h"

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : fs::directory_iterator(argv[i])) {
            if (entry.is_regular_file())
                inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        printf("%s\n", path.filename().c_str());
        fflush(stdout);  // the input a crash happened on is the last one named
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
