// Runs a fuzz target without libFuzzer: every file of the folders and files
// named on the command line, then a number of generated inputs (--random N,
// default 200): random bytes, and valid streams with random damage.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool RunFile(const std::string& path)
{
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    std::vector<uint8_t> bytes;
    uint8_t buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
        bytes.insert(bytes.end(), buffer, buffer + n);
    std::fclose(f);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

int RunPath(const std::string& path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return 0;
    if (!S_ISDIR(st.st_mode))
        return RunFile(path) ? 1 : 0;
    int count = 0;
    if (DIR* dir = opendir(path.c_str())) {
        while (dirent* e = readdir(dir)) {
            if (e->d_name[0] == '.')
                continue;
            count += RunPath(path + "/" + e->d_name);
        }
        closedir(dir);
    }
    return count;
}

}  // namespace

int main(int argc, char** argv)
{
    int random = 200;
    std::vector<std::string> paths;
    std::vector<std::vector<uint8_t>> seeds;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--random") && i + 1 < argc)
            random = std::atoi(argv[++i]);
        else
            paths.push_back(argv[i]);
    }
    int files = 0;
    for (const auto& p : paths)
        files += RunPath(p);

    // Mutations of the corpus files and plain random inputs.
    std::mt19937 rng(12345);
    for (const auto& p : paths) {
        struct stat st {};
        if (stat(p.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            continue;
        if (DIR* dir = opendir(p.c_str())) {
            while (dirent* e = readdir(dir)) {
                if (e->d_name[0] == '.')
                    continue;
                std::FILE* f = std::fopen((p + "/" + e->d_name).c_str(), "rb");
                if (!f)
                    continue;
                std::vector<uint8_t> bytes;
                int c;
                while ((c = std::fgetc(f)) != EOF)
                    bytes.push_back(static_cast<uint8_t>(c));
                std::fclose(f);
                seeds.push_back(bytes);
            }
            closedir(dir);
        }
    }
    for (int k = 0; k < random; ++k) {
        std::vector<uint8_t> input;
        if (!seeds.empty() && k % 2 == 0) {
            input = seeds[rng() % seeds.size()];
            const int edits = 1 + static_cast<int>(rng() % 16);
            for (int e = 0; e < edits && !input.empty(); ++e) {
                const size_t at = rng() % input.size();
                switch (rng() % 4) {
                case 0:
                    input[at] = static_cast<uint8_t>(rng());
                    break;
                case 1:
                    input.erase(input.begin() + static_cast<long>(at),
                                input.begin() + static_cast<long>(std::min(input.size(), at + 1 + rng() % 64)));
                    break;
                case 2:
                    input.insert(input.begin() + static_cast<long>(at), 1 + rng() % 64, static_cast<uint8_t>(rng()));
                    break;
                default:
                    input.resize(at);
                    break;
                }
            }
        } else {
            input.resize(rng() % 20000);
            for (auto& b : input)
                b = static_cast<uint8_t>(rng());
        }
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("replayed %d corpus files and %d generated inputs\n", files, random);
    return 0;
}
