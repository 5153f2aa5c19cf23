/* A host program's view of the message and the splitter: the worked example
 * byte for byte, a round trip through the wire form, and one split line. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qel_cmd.h"
#include "qel_xmsg.h"
#include "host_check.h"

static const unsigned char agent[44] = {
    'X', 'M', 'S', 'G', 0x94, 0x6F, 0x48, 0xA5, 1, 0, 0, 0, 28, 0, 0, 0,
    0, 0, 0, 0, 6, 0, 0, 0, 7, 0, 0, 2,
    'c', 'r', 'e', 'a', 't', 'o', 'r', 'a', 'g', 'e', 'n', 't', 0, 0, 0, 0};


int main(void)
{
    unsigned char buf[256];
    uint32_t vlen = 0, size = 0;
    qel_xmsg *m = qel_xmsg_new("agent");
    qel_xmsg *u;
    void *aux;
    const char *v;
    char **argv;
    int count = 0;

    CHECK(m != NULL);
    CHECK(qel_xmsg_pack(m, buf, sizeof buf) == 44);
    CHECK(memcmp(buf, agent, 44) == 0);
    CHECK(qel_xmsg_add(m, "pid", 3, "4242", 5) == 0);
    aux = qel_xmsg_pack_aux(m, &size);
    CHECK(aux != NULL && size == 44 + 24);
    u = qel_xmsg_unpack(aux, size);
    CHECK(u != NULL);
    v = (const char *)qel_xmsg_get(u, "pid", 3, &vlen, NULL);
    CHECK(v != NULL && vlen == 5 && strcmp(v, "4242") == 0);
    CHECK(strcmp(qel_xmsg_get_creator(u), "agent") == 0);
    CHECK(qel_xmsg_pack(u, buf, sizeof buf) == (int)size && memcmp(buf, aux, size) == 0);
    free(aux);
    qel_xmsg_release(u);
    qel_xmsg_release(m);

    argv = qel_cmd_parse("run \"a b\" c", &count);
    CHECK(argv != NULL && count == 3);
    CHECK(strcmp(argv[1], "\"a b\"") == 0 && argv[3] == NULL);
    qel_cmd_free(argv);
    CHECK(g_symbols[0] == '\'' && g_wsymbols[2] == L'\\');
    return 0;
}
