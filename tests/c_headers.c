/* Both public headers compile as C99, and the binary layout is pinned. */
#include <stddef.h>
#include "tcamwrap_api.h"
#include "tcamwrap_platform.h"

_Static_assert(sizeof(tbl_params) == 20, "tbl_params is 20 bytes");
_Static_assert(sizeof(tcamwrap_cb_handle) == 28, "tcamwrap_cb_handle is 28 bytes");
_Static_assert(sizeof(tcamwrap_parity_msg) == 53, "tcamwrap_parity_msg is 53 bytes");
_Static_assert(sizeof(fwd_cfg_info) == 80, "fwd_cfg_info is 80 bytes");
_Static_assert(offsetof(fwd_cfg_info, num_insts) == 1, "instance count at byte 1");
_Static_assert(offsetof(fwd_cfg_info, acli_size) == 0x44, "ACLI size at 0x44");
_Static_assert(offsetof(fwd_cfg_info, aclo_size) == 0x48, "ACLO size at 0x48");
_Static_assert(offsetof(fwd_cfg_info, fib_size) == 0x4C, "FIB size at 0x4C");
_Static_assert(offsetof(tcamwrap_parity_msg, inst) == 12, "parity inst at 12");
_Static_assert(offsetof(tcamwrap_parity_msg, locations) == 21, "parity locations at 21");
_Static_assert(offsetof(tcamwrap_cb_handle, oper) == 20, "handle oper at 20");

int tcamwrap_c_headers_probe(void);
int tcamwrap_c_headers_probe(void) { return (int)sizeof(tcamwrap_gl_db_t); }
