/* A C host program: log sinks, the unprefixed twins, the counted heap and the
 * atomics, through the public headers and the shared library only. */
#include <qel_log.h>
#include <qel_mem.h>
#include <stdio.h>
#include <string.h>
#include "host_check.h"

static char last[256];
static unsigned last_level = 99;
static int calls;

static void sink(unsigned int level, const char *format, va_list args)
{
    vsnprintf(last, sizeof last, format, args);
    last_level = level;
    ++calls;
}


int main(void)
{
    qel_heap heap = 0;
    void *b;
    char *vm;
    volatile int32_t w = 3;
    int32_t before;

    CHECK(log_output_register(sink) == 0);
    log_output(5, "%s=%d", "answer", 42);
    CHECK(calls == 1 && last_level == 1 && strcmp(last, "answer=42") == 0);
    qel_log_output(3, "three");
    CHECK(last_level == 3 && strcmp(last, "three") == 0);
    CHECK(qel_log_output_unregister(sink) == 0);
    CHECK(qel_log_output_unregister(sink) == -1);
    qel_log_output(0, "nobody");
    CHECK(calls == 2);

    CHECK(qel_heap_mem_init(0, &heap) == QEL_OK && heap == &g_heap);
    before = g_heap;
    b = qel_heap_mem_alloc(heap, 0x6B6F6C66u, 12);
    CHECK(b != 0 && g_heap == before + 1);
    qel_heap_mem_free(heap, b, 0x6B6F6C66u);
    CHECK(g_heap == before);

    vm = (char *)qel_virtual_memory_malloc(10);
    CHECK(vm != 0);
    memcpy(vm, "0123456789", 10);
    vm = (char *)qel_virtual_memory_ralloc(vm, 5000);
    CHECK(vm != 0 && memcmp(vm, "0123456789", 10) == 0);
    CHECK(qel_virtual_memory_free(vm) == QEL_OK);

    CHECK(atomic_compare_and_swap(&w, 5, 3) == 3 && w == 5);
    CHECK(qel_atomic32_set(&w, 9) == 5 && qel_atomic32_get(&w) == 9);
    CHECK(atomic_add_and_fetch(&w, -10) == -1);
    CHECK(qel_round_up_power2(4097) == 8192 && qel_uint32_endianb2l(0x11223344u) == 0x44332211u);
    CHECK(qel_check_os_endian() == 1);
    CHECK(com_backtrace_dump_str() == 0);
    puts("base host ok");
    return 0;
}
