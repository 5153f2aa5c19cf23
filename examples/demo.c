/*
 * demo: a small host program. It registers a log sink, then exercises the
 * families the library offers, printing what it sees.
 */
#include <morbase.h>
#include <stdio.h>

static void print_sink(unsigned int level, const char *format, va_list args)
{
    printf("[sink level %u] ", level);
    vprintf(format, args);
    putchar('\n');
}

int main(void)
{
    qel_heap heap;
    void *block;
    volatile int32_t counter = 0;

    if (qel_log_output_register(print_sink) != 0)
        return 1;
    qel_log_output(1, "demo started, library byte order little-endian=%d", qel_check_os_endian());

    /* memory and atomics */
    qel_heap_mem_init(NULL, &heap);
    block = qel_heap_mem_alloc(heap, 0x6F6D6564u /* "demo" */, 64);
    printf("counted heap holds %d block(s)\n", (int)g_heap);
    qel_heap_mem_free(heap, block, 0x6F6D6564u);
    qel_atomic32_add_and_fetch(&counter, 41);
    printf("atomic counter: %d, round_up_power2(1000) = %u\n", (int)qel_atomic32_add_and_fetch(&counter, 1),
           qel_round_up_power2(1000));

    qel_log_output(7, "an unknown level %d arrives as a warning", 7);
    qel_log_output_unregister(print_sink);
    puts("demo done");
    return 0;
}
