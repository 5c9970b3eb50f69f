// Runs a fuzz target over every file of the directories (or files) named on the command line,
// so that the corpus is replayed by ctest in builds without libFuzzer.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int RunFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Copy into an exact-size heap block so that ASan sees any read past the input.
    std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
    return 0;
}

int main(int argc, char** argv) {
    int files = 0;
    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat st {};
        if (stat(argv[i], &st) != 0) {
            fprintf(stderr, "missing %s\n", argv[i]);
            return 1;
        }
        if (!S_ISDIR(st.st_mode)) {
            failures += RunFile(argv[i]);
            ++files;
            continue;
        }
        DIR* d = opendir(argv[i]);
        if (d == nullptr) return 1;
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            failures += RunFile(std::string(argv[i]) + "/" + e->d_name);
            ++files;
        }
        closedir(d);
    }
    printf("replayed %d inputs\n", files);
    return failures == 0 ? 0 : 1;
}
