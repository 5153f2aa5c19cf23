// Replays fuzz inputs without libFuzzer: every file named on the command line,
// or every file in a named directory, is passed to LLVMFuzzerTestOneInput once.
#include <cstdint>
#include <cstdio>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

int run_file(const std::string &path)
{
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr) {
        perror(path.c_str());
        return 1;
    }
    std::vector<uint8_t> buf;
    uint8_t chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0)
        buf.insert(buf.end(), chunk, chunk + n);
    fclose(f);
    LLVMFuzzerTestOneInput(buf.data(), buf.size());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    int files = 0, failures = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat st;
        if (stat(argv[i], &st) != 0) {
            perror(argv[i]);
            return 1;
        }
        if (S_ISDIR(st.st_mode)) {
            DIR *d = opendir(argv[i]);
            while (struct dirent *e = d ? readdir(d) : nullptr) {
                if (e->d_name[0] == '.')
                    continue;
                failures += run_file(std::string(argv[i]) + "/" + e->d_name);
                ++files;
            }
            if (d)
                closedir(d);
        } else {
            failures += run_file(argv[i]);
            ++files;
        }
    }
    // An empty corpus still runs the target once on empty input.
    if (files == 0)
        LLVMFuzzerTestOneInput(nullptr, 0);
    printf("replayed %d input(s)\n", files);
    return failures ? 1 : 0;
}
