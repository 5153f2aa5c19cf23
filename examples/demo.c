/*
 * demo: a small host program. It registers a log sink, then exercises the
 * families of the library the way an agent program would, printing what it
 * sees.
 */
#include <morbase.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

static void print_sink(unsigned int level, const char *format, va_list args)
{
    printf("  [sink, level %u] ", level);
    vprintf(format, args);
    putchar('\n');
}

static qel_mutex *g_lock;
static volatile int32_t g_hits;

static void *worker(void *arg)
{
    int i;
    for (i = 0; i < 1000; ++i) {
        qel_mutex_lock(g_lock);
        ++*(int *)arg;
        qel_mutex_unlock(g_lock);
        qel_atomic32_add_and_fetch(&g_hits, 1);
    }
    return NULL;
}

static int by_string(const void *a, const void *b)
{
    return strcmp((const char *)a, (const char *)b);
}

static int print_entry(const void *key, uint32_t key_len, void *value, void *context)
{
    (void)context;
    printf("  %.*s -> %s\n", (int)key_len, (const char *)key, (const char *)value);
    return 0;
}

int main(void)
{
    qel_heap heap;
    void *block;
    uint8_t uuid[QEL_UUID_SIZE];
    char uuid_text[QEL_UUID_CSTR_SIZE];
    char line[128];
    char **argv;
    int argc, i, shared = 0;
    pthread_t threads[2];
    qel_xhash *table;
    qel_xmsg *msg, *copy;
    void *packed;
    uint32_t packed_size, vlen = 0;
    const char *value;
    wchar_t *wide;
    char *narrow;
    qel_rbtree *tree;
    qel_rbtree_node *node;
    qel_vector *vec;

    if (qel_log_output_register(print_sink) != 0)
        return 1;
    puts("logging:");
    qel_log_output(1, "demo started on a %s-endian machine", qel_check_os_endian() ? "little" : "big");
    qel_log_output(7, "an unknown level %d arrives as a warning", 7);

    puts("memory:");
    qel_heap_mem_init(NULL, &heap);
    block = qel_heap_mem_alloc(heap, 0x6F6D6564u /* "demo" */, 64);
    printf("  counted heap holds %d block(s); round_up_power2(1000) = %u\n", (int)g_heap,
           qel_round_up_power2(1000));
    qel_heap_mem_free(heap, block, 0x6F6D6564u);

    puts("strings:");
    qel_str_snprintf(line, sizeof line, "service %s %s", "agentd", "status");
    printf("  formatted \"%s\"; stristr(\"AgentD\") %s; strlen(NULL) = %u\n", line,
           qel_stristr(line, "AgentD") ? "found" : "missing", (unsigned)qel_strlen(NULL));
    printf("  ipv4 check of \"10.0.0.300\": %s\n",
           qel_string_check_ipv4("10.0.0.300", 16) == QEL_OK ? "valid" : "rejected");

    puts("encodings:");
    wide = qel_str_utf8_to_unicode("abc");
    narrow = qel_str_unicode_to_utf8(L"abc");
    printf("  is_utf8(\"h\\xc3\\xa9\") = %d, is_ascii(\"plain\") = %d, conversions %s\n",
           qel_str_is_utf8("h\xc3\xa9", 3), qel_str_is_ascii("plain", 5),
           wide && narrow ? "done" : "failed");
    qel_str_free(wide);
    qel_str_free(narrow);

    puts("clocks and UUIDs:");
    qel_uuid_create(uuid);
    qel_uuid_make_cstr(uuid, uuid_text);
    printf("  tick %llu ms, uuid %s\n", (unsigned long long)qel_time_get_tick_cout(), uuid_text);

    puts("threads:");
    qel_mutex_init(&g_lock);
    for (i = 0; i < 2; ++i)
        qel_thread_start(&threads[i], worker, &shared);
    for (i = 0; i < 2; ++i)
        qel_thread_join(&threads[i], NULL);
    qel_mutex_destroy(g_lock);
    printf("  two threads counted %d under the mutex, %d atomically\n", shared, (int)g_hits);

    puts("hash table:");
    table = qel_xhash_create(NULL, NULL);
    qel_xhash_insert(table, "alpha", 5, "first");
    qel_xhash_insert(table, "beta", 4, "second");
    qel_xhash_walk(table, NULL, print_entry);
    printf("  %u entries in %u slots\n", qel_xhash_count(table), qel_xhash_slotcount(table));
    qel_xhash_destroy(table);

    puts("ordered tree:");
    tree = qel_rbtree_create(NULL, NULL, 0);
    qel_rbtree_insert(tree, "pear", 4, "3");
    qel_rbtree_insert(tree, "apple", 5, "1");
    qel_rbtree_insert(tree, "fig", 3, "2");
    for (node = qel_rbtree_first(tree); node != NULL; node = qel_rbtree_next(node))
        printf("  %.*s = %s\n", (int)node->key_len, (const char *)node->key, (const char *)node->value);
    node = qel_rbtree_lower_bound(tree, "b", 1);
    printf("  first key not below \"b\": %.*s\n", node ? (int)node->key_len : 0, node ? (const char *)node->key : "");
    qel_rbtree_destroy(tree);

    puts("vector:");
    if (qel_vector_create(&vec, 0) == QEL_OK) {
        qel_vector_push_back(vec, "delta");
        qel_vector_push_back(vec, "alpha");
        qel_vector_push_back(vec, "charlie");
        qel_vector_qsort(vec, by_string);
        printf("  sorted: %s %s %s (capacity %u)\n", (const char *)qel_vector_pos_at(vec, 0),
               (const char *)qel_vector_pos_at(vec, 1), (const char *)qel_vector_pos_at(vec, 2),
               qel_vector_capacity(vec));
        qel_vector_destroy(vec);
    }

    puts("message:");
    msg = qel_xmsg_new("demo");
    qel_xmsg_add(msg, "host", 4, "agent-17", 9);
    qel_xmsg_add(msg, "state", 5, "running", 8);
    packed = qel_xmsg_pack_aux(msg, &packed_size);
    copy = packed ? qel_xmsg_unpack(packed, packed_size) : NULL;
    value = copy ? (const char *)qel_xmsg_get(copy, "state", 5, &vlen, NULL) : NULL;
    printf("  packed %u bytes beginning \"%.4s\"; unpacked state = %s, creator = %s\n", packed_size,
           packed ? (const char *)packed : "", value ? value : "(none)",
           copy ? qel_xmsg_get_creator(copy) : "(none)");
    free(packed);
    qel_xmsg_release(copy);
    qel_xmsg_release(msg);

    puts("command line:");
    argv = qel_cmd_parse("run \"two words\" three", &argc);
    for (i = 0; argv && i < argc; ++i)
        printf("  argv[%d] = %s\n", i, argv[i]);
    qel_cmd_free(argv);

    qel_log_output_unregister(print_sink);
    puts("demo done");
    return 0;
}
