/* A host program built against an installed libmorbase. */
#include <morbase.h>
#include <stdio.h>
#include <string.h>

static int lines;

static void sink(unsigned int level, const char *format, va_list args)
{
    char buf[256];
    vsnprintf(buf, sizeof buf, format, args);
    if (level == 1 && strcmp(buf, "hello 42") == 0)
        ++lines;
}

int main(void)
{
    if (qel_log_output_register(sink) != 0)
        return 1;
    qel_log_output(9, "hello %d", 42);
    if (lines != 1)
        return 2;
    if (qel_round_up_power2(5) != 8)
        return 3;
    puts("consumer ok");
    return 0;
}
