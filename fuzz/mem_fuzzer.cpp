// Drives page-backed blocks through a byte-coded sequence of grow, write and
// free operations, checking that growth keeps contents and never shrinks.
#include <cstdint>
#include <cstring>
#include <string>

#include "qel_mem.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *block = nullptr;
    std::string model;
    for (size_t i = 0; i + 2 < size; i += 3) {
        uint32_t arg = static_cast<uint32_t>(data[i + 1]) << 8 | data[i + 2];
        switch (data[i] % 3) {
        case 0: { // grow or keep
            size_t want = arg + 1u;
            char *nb = static_cast<char *>(qel_virtual_memory_ralloc(block, want));
            if (nb == nullptr)
                __builtin_trap();
            if (want > model.size())
                model.resize(want, '\0');
            else if (nb != block)
                __builtin_trap(); // never moves when not growing
            if (memcmp(nb, model.data(), model.size()) != 0)
                __builtin_trap();
            block = nb;
            break;
        }
        case 1: // write a byte
            if (!model.empty()) {
                model[arg % model.size()] = static_cast<char>(data[i + 2]);
                block[arg % model.size()] = static_cast<char>(data[i + 2]);
            }
            break;
        default: // free
            if (block != nullptr && qel_virtual_memory_free(block) != QEL_OK)
                __builtin_trap();
            block = nullptr;
            model.clear();
            if (qel_round_up_power2(arg) < arg && qel_round_up_power2(arg) != 0)
                __builtin_trap();
            break;
        }
    }
    if (block != nullptr)
        qel_virtual_memory_free(block);
    return 0;
}
