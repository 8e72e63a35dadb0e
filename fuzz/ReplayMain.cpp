// The main() of a fuzz target built without libFuzzer (gcc, the normal presets): runs the
// target once on each file named on the command line (a directory stands for its files), so a
// corpus replays as ordinary tests. Each input is copied into an allocation of exactly its size,
// so that AddressSanitizer reports a read past its end.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool isDirectory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> filesOf(const std::string& dir) {
    std::vector<std::string> files;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != ".." && !isDirectory(dir + "/" + name)) {
                files.push_back(dir + "/" + name);
            }
        }
        ::closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool runFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> content((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    // An allocation of exactly the input's size (at least one byte, so that an empty input has
    // an address of its own); nothing after it belongs to the input.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[content.empty() ? 1 : content.size()]);
    std::copy(content.begin(), content.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), content.size());
    std::fprintf(stderr, "replayed %s (%zu bytes)\n", path.c_str(), content.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s INPUT_FILE_OR_DIRECTORY...\n", argv[0]);
        return 2;
    }
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (isDirectory(arg)) {
            for (const std::string& file : filesOf(arg)) {
                ok = runFile(file) && ok;
            }
        } else {
            ok = runFile(arg) && ok;
        }
    }
    return ok ? 0 : 1;
}
