/* A client built against an installed tree: libtcamwrap on the installed
 * simulated card writes one FIB route and reads it back. */
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "sim_card.h"
#include "tcamwrap_api.h"

#if TCAMWRAP_VERSION != TCAMWRAP_VERSION_MAJOR * 10000 + TCAMWRAP_VERSION_MINOR * 100 + TCAMWRAP_VERSION_PATCH
#error "the version macros disagree"
#endif

int main(void)
{
    static uint8_t prefix_bytes[] = "install/";
    static kvs_buf prefix = {prefix_bytes, 8};
    const int32_t tables[] = {(int32_t)TCAMWRAP_TBL_FIB};
    /* 10.1.0.0/16: value {04, VRF 0, network}, mask {ff, ffffffff, prefix mask} */
    uint8_t key[18] = {4, 0, 0, 0, 0, 10, 1, 0, 0, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0, 0};
    uint8_t result[5] = {1, 192, 0, 2, 1};
    uint16_t prio = 16, prio_back = 0;
    uint8_t back[18];
    tbl_params p;

    memset(&p, 0, sizeof p);
    p.inst = 0;
    p.tbl_type = TCAMWRAP_TBL_FIB;
    p.num_entries = 1;
    p.start_addr = 7;
    if (sim_card_open() != 0 || tcamwrap_init(tables, 1, 1, &prefix, 0, 0, 0, 0) != 0 ||
        tcamwrap_fwd_tcam_ssram_write(&p, key, &prio, result, NULL) != 0 ||
        tcamwrap_fwd_tcam_read_with_priority(&p, back, &prio_back) != 0) {
        fprintf(stderr, "client: %s\n", strerror(errno));
        return 1;
    }
    if (memcmp(back, key, sizeof key) != 0 || prio_back != prio) {
        fprintf(stderr, "client: loc 7 reads back differently\n");
        return 1;
    }
    printf("tcamwrap %s client: loc 7 at sloc %d\n", TCAMWRAP_VERSION_STRING,
           (int)tcamwrap_lmt_get_sloc(0, TCAMWRAP_TBL_FIB, 7));
    return 0;
}
