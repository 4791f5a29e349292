// replay.cpp -- runs a fuzz target over the files of the folders given, and over broken forms of
// them: every beginning, and every byte changed in a few ways. No fuzzer is needed for that.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz.h"

namespace {

constexpr size_t kMostChanges = 400;  // of one file

void run(const std::vector<uint8_t>& bytes) {
    // An allocation of its own and of exactly that size: reading past its end is seen.
    const std::vector<uint8_t> copy(bytes);
    LLVMFuzzerTestOneInput(copy.data(), copy.size());
}

void run_with_changes(std::vector<uint8_t> bytes) {
    run(bytes);
    const size_t stride = bytes.size() / kMostChanges + 1;
    for (size_t i = 0; i < bytes.size(); i += stride) {
        run(std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(i)));
        const uint8_t old = bytes[i];
        for (const int change : {0x01, 0x80, 0xff}) {
            bytes[i] = static_cast<uint8_t>(old ^ change);
            run(bytes);
        }
        bytes[i] = old;
    }
}

}  // namespace

int main(int argc, char** argv) {
    size_t files = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream in(entry.path(), std::ios::binary);
            run_with_changes(
                {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()});
            ++files;
        }
    }
    printf("%zu files\n", files);
    return files > 0 ? 0 : 1;
}
