/* Runs a door on every file of the folders, and on the files, that are named. */
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/platform.h"

namespace {

void replay(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // a copy of exactly its size, so that a read beyond it is seen
    const std::vector<uint8_t> bytes(content.begin(), content.end());
    for (const bool replaying : {false, true}) {
        fuzz::replaying = replaying;
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
}

std::vector<std::filesystem::path> files_of(const char *argument) {
    if (!std::filesystem::is_directory(argument))
        return {argument};
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(argument))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int count, char **arguments) {
    int replayed = 0;
    for (int i = 1; i < count; i++)
        for (const std::filesystem::path &path : files_of(arguments[i])) {
            fprintf(stderr, "%s\n", path.c_str());
            replay(path);
            replayed++;
        }
    fprintf(stderr, "%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
