// Runs a target on files, for compilers that have no libFuzzer:  definition FILE...

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char *argv[])
{
    LLVMFuzzerInitialize(&argc, &argv);
    for (int at = 1; at < argc; ++at) {
        std::ifstream file(argv[at], std::ios::binary);
        const std::string input(std::istreambuf_iterator<char>(file), {});
        if (!file) {
            perror(argv[at]);
            return 2;
        }
        fprintf(stderr, "%s\n", argv[at]);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
    printf("%d inputs replayed\n", argc - 1);
    return argc > 1 ? 0 : 2;
}
