/*
 * Core and start-up: the global database, the table checks and queries, the
 * trace mechanism with its three sinks, assertion reports, debug control and
 * tcamwrap_init().
 */
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <execinfo.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include "tcamwrap_internal.h"

tcamwrap_gl_db_t tcamwrap_gl_db;
char tcamwrap_hist_str[512];
int tcamwrap_saved_errno;

namespace {

/* The library's key buffer: the caller's prefix, then four record bytes. */
uint8_t tcamwrap_kvs_key_buf[TCAMWRAP_KVS_KEY_BUF];

constexpr const char *TCAMWRAP_ASSERT_FILE = "/log/assert-backtrace";
constexpr const char *TCAMWRAP_SOURCE_FILE =
    "../platform/storage/linecard/common/uspace/lib/tcamwrap/tcamwrap_api";
constexpr off_t TCAMWRAP_ASSERT_FILE_MAX = 0x100000;
constexpr int TCAMWRAP_BACKTRACE_DEPTH = 50;

} // namespace

/* ---- tracing -------------------------------------------------------------- */

void tcamwrap_trace_history(const char *func, const char *fmt, ...)
{
    if (dbgsvc_hist_event_subtype_check(TCAMWRAP_HIST_SUBTYPE, tcamwrap_gl_db.debug_elem) != 0)
        return;

    char text[TCAMWRAP_TRACE_MAX];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);

    /* {u32 element; function name and one space; text and its zero}. Names are
     * the library's own and short; the cap only keeps the record in bounds. */
    constexpr size_t name_max = 128;
    uint8_t record[sizeof(uint32_t) + name_max + 1 + TCAMWRAP_TRACE_MAX];
    const size_t name_len = strnlen(func, name_max);
    const size_t text_len = strlen(text);
    uint8_t *p = record;
    memcpy(p, &tcamwrap_gl_db.debug_elem, sizeof(uint32_t));
    p += sizeof(uint32_t);
    memcpy(p, func, name_len);
    p += name_len;
    *p++ = ' ';
    memcpy(p, text, text_len + 1);
    dbgsvc_hist_event(TCAMWRAP_HIST_SUBTYPE,
                      (uint32_t)(sizeof(uint32_t) + name_len + 1 + text_len + 1), record);
}

bool tcamwrap_trace_wants_dbgout(void)
{
    return tcamwrap_gl_db.debug_elem == 0 ||
           dbgsvc_chk_int(tcamwrap_gl_db.debug_elem, 0, 0, 1) != 0;
}

void tcamwrap_trace_log(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(tcamwrap_hist_str, sizeof(tcamwrap_hist_str), fmt, ap);
    va_end(ap);
    dbgsvc_his_log_event_for_uuid_inst(TCAMWRAP_HIST_UUID, TCAMWRAP_HIST_EVENT_ID, 0, 0,
                                       (uint32_t)strlen(tcamwrap_hist_str) + 1,
                                       tcamwrap_hist_str);
}

/* ---- assertion reports ------------------------------------------------------ */

namespace {

/* One piece of the report, written with its terminating zero byte. */
void tcamwrap_assert_write(int fd, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void tcamwrap_assert_write(int fd, const char *fmt, ...)
{
    char piece[500];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(piece, sizeof(piece), fmt, ap);
    va_end(ap);
    ssize_t ignored = write(fd, piece, strlen(piece) + 1);
    (void)ignored;
}

} // namespace

void tcamwrap_assert_report(const char *func, int line)
{
    void *frames[TCAMWRAP_BACKTRACE_DEPTH];
    const int depth = backtrace(frames, TCAMWRAP_BACKTRACE_DEPTH);

    /* A host may send the report elsewhere; unset, the card's own file and log
     * are used. Read at each report, so a test can point them at its own place. */
    const char *file = getenv("TCAMWRAP_ASSERT_FILE");
    if (file == nullptr || *file == '\0')
        file = TCAMWRAP_ASSERT_FILE;
    const char *ident = getenv("TCAMWRAP_SYSLOG_IDENT");

    const int fd = open(file, O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd <= 0)
        return;
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size > TCAMWRAP_ASSERT_FILE_MAX) {
        close(fd);
        return;
    }

    struct timeval now;
    struct tm local;
    char stamp[100] = "";
    gettimeofday(&now, nullptr);
    const time_t secs = now.tv_sec;
    if (localtime_r(&secs, &local) != nullptr)
        strftime(stamp, sizeof(stamp), "%F %T", &local);

    tcamwrap_assert_write(fd, "%s", "\n\n---------------------------------------------------------------\n");
    tcamwrap_assert_write(fd, "ASSERT: %s: file %s, function %s, line %d, pid: %d \n", stamp,
                          TCAMWRAP_SOURCE_FILE, func, line, (int)getpid());
    tcamwrap_assert_write(fd, "%s", "\nBacktrace:\n");
    backtrace_symbols_fd(frames, depth, fd);
    close(fd);

    char text[500];
    snprintf(text, sizeof(text), "Exception at: %s/%d", func, line);
    if (ident != nullptr && strcmp(ident, "none") == 0)
        return;
    const bool own_ident = ident != nullptr && *ident != '\0';
    if (own_ident)
        openlog(ident, LOG_PID, LOG_USER);
    /* The text goes to the log as it stands; "%s" keeps a '%' in a name inert. */
    syslog(LOG_DEBUG, "%s", text);
    if (own_ident)
        closelog();
}

/* ---- table checks ------------------------------------------------------------- */

tcam_info *tcamwrap_require_table(uint8_t inst, uint32_t tbl_type, const char *func, int line)
{
    tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    if (info == nullptr) {
        tcamwrap_assert_report(func, line);
        tcamwrap_saved_errno = EINVAL;
    }
    return info;
}

int tcamwrap_validate_tbl_type(uint32_t tbl_type)
{
    if (tbl_type - 1 < 3)
        return 0;
    tcamwrap_saved_errno = EINVAL;
    TCAMWRAP_TRACE(3, "*** tbl_type: %d is not valid ***\n", tbl_type);
    return -1;
}

int tcamwrap_validate_tbl_params(const tbl_params *params)
{
    if (tcamwrap_validate_tbl_type(params->tbl_type) != 0)
        return -1;
    if (params->num_entries == 0) {
        tcamwrap_saved_errno = EINVAL;
        TCAMWRAP_TRACE(3, "*** number of entries passed as 0 ***\n");
        return -1;
    }
    return 0;
}

int tcamwrap_validate_loc(uint8_t inst, uint32_t tbl_type, uint32_t loc)
{
    const tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    if (info == nullptr) {
        tcamwrap_saved_errno = EINVAL;
        return -1;
    }
    if (loc >= info->lmt_sz) {
        tcamwrap_saved_errno = EINVAL;
        TCAMWRAP_TRACE(3, "*** %s: inst %d tbl_type %d loc 0x%x is not less than lmt_sz %d ***\n",
                       __func__, inst, tbl_type, loc, info->lmt_sz);
        return -1;
    }
    return 0;
}

void tcamwrap_get_inst_lo_hi(const tbl_params *params, uint8_t *lo, uint8_t *hi)
{
    TCAMWRAP_ASSERT(params != nullptr && lo != nullptr && hi != nullptr, __func__, 192);
    /* After the report there is nothing to read or write: an empty range. */
    if (params == nullptr || lo == nullptr || hi == nullptr) {
        if (lo != nullptr && hi != nullptr)
            *lo = *hi = 0;
        return;
    }
    if (params->inst == TCAMWRAP_ALL_INSTS) {
        *lo = 0;
        *hi = (uint8_t)tcamwrap_gl_db.num_insts;
    } else {
        *lo = params->inst;
        *hi = (uint8_t)(params->inst + 1);
    }
}

/* ---- queries -------------------------------------------------------------------- */

extern "C" int tcamwrap_is_orvex_tcam(uint32_t tbl_type, uint32_t *is_orvex)
{
    if (is_orvex == nullptr) {
        TCAMWRAP_TRACE(3, "*** NULL params ***\n");
        errno = EINVAL;
        return -1;
    }
    if (tcamwrap_validate_tbl_type(tbl_type) != 0) {
        errno = EINVAL;
        return -1;
    }
    *is_orvex = tcamwrap_gl_db.is_orvex[tbl_type];
    return 0;
}

extern "C" int32_t tcamwrap_lmt_get_sloc(uint32_t inst, uint32_t tbl_type, uint32_t loc)
{
    const tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    if (info == nullptr)
        return (int32_t)loc;
    if (loc >= info->lmt_sz)
        return -1;
    return (int32_t)tcamwrap_lmt_of(info)[loc];
}

/* ---- debug control --------------------------------------------------------------- */

extern "C" int tcamwrap_set_debug_level(uint32_t level)
{
    if (level >= 8) {
        TCAMWRAP_TRACE(3, "*** invalid debug_level: %d ***\n", level);
        errno = EINVAL;
        return -1;
    }
    tcamwrap_gl_db.debug_level = level;
    return 0;
}

extern "C" int tcamwrap_set_debug_elem(uint32_t elem)
{
    tcamwrap_gl_db.debug_elem = elem;
    return 0;
}

extern "C" int tcamwrap_show_history(void *ctx)
{
    uint32_t pair[2] = {0xFE000000u, static_cast<const uint32_t *>(ctx)[11]};
    return dbgshim_show_hist_inst(ctx, pair, TCAMWRAP_HIST_UUID, 0, 0);
}

extern "C" int tcamwrap_hist_print_event(const char *text, uint32_t value1, uint32_t value2,
                                         const uint32_t *stamp, uint32_t value5)
{
    (void)value2;
    uint32_t stamp_copy[2] = {stamp[0], stamp[1]};
    dbgsvc_hist_print_event_header(value5, "tcamwrap", value1, stamp_copy);
    return printf("    %s\n", text);
}

extern "C" void tcamwrap_print_key(const char *prefix, uint32_t tbl_type, const uint8_t *key,
                                   const uint16_t *prio)
{
    if (tbl_type == TCAMWRAP_TBL_FIB) {
        const uint8_t *m = key + TCAMWRAP_FIB_KEY_BYTES / 2;
        TCAMWRAP_TRACE(7, "%s: val[%2.2x%8.8x%8.8x] mask[%2.2x%8.8x%8.8x] prio: %4x\n", prefix,
                       key[0], tcamwrap_be32(key + 1), tcamwrap_be32(key + 5), m[0],
                       tcamwrap_be32(m + 1), tcamwrap_be32(m + 5), *prio);
        return;
    }
    const uint8_t *m = key + TCAMWRAP_ACL_KEY_BYTES / 2;
    TCAMWRAP_TRACE(7,
                   "%s: val[%2.2x%8.8x%8.8x%2.2x%8.8x%8.8x] "
                   "mask[%2.2x%8.8x%8.8x%2.2x%8.8x%8.8x] prio: %4x\n",
                   prefix, key[0], tcamwrap_be32(key + 1), tcamwrap_be32(key + 5), key[9],
                   tcamwrap_be32(key + 10), tcamwrap_be32(key + 14), m[0], tcamwrap_be32(m + 1),
                   tcamwrap_be32(m + 5), m[9], tcamwrap_be32(m + 10), tcamwrap_be32(m + 14),
                   *prio);
}

/* ---- start-up --------------------------------------------------------------------- */

void tcamwrap_set_cb_handle(uint8_t inst, uint32_t tbl_type, uint32_t loc, uint8_t acl_prio,
                            const uint8_t *ssram, uint32_t oper)
{
    tcam_info *info = tcamwrap_tcam_info(inst, tbl_type);
    TCAMWRAP_ASSERT(info != nullptr, __func__, 1216);
    if (info == nullptr)
        return; /* no handle to prepare */
    tcamwrap_cb_handle *h = &info->cb_handle;
    memset(h, 0, sizeof(*h));
    h->inst = inst;
    h->tbl_type = tbl_type;
    h->loc = loc;
    h->acl_prio = acl_prio;
    if (ssram != nullptr)
        memcpy(h->ssram_data, ssram, sizeof(h->ssram_data));
    h->oper = oper;
}

namespace {

/* Ask the line-card service which table types live in an Orvex TCAM. */
int tcamwrap_check_for_orvex_tcam(void)
{
    TCAMWRAP_TRACE(7, "querying tcam type by table type ...\n");
    uint32_t types[3] = {0, 0, 0};
    const int rc = get_card_tcam_types(types);
    if (rc != 0) {
        tcamwrap_save_errno();
        TCAMWRAP_TRACE(3, "*** get_card_tcam_types() failed: %s ***\n",
                       strerror(tcamwrap_saved_errno));
        return rc;
    }
    struct {
        uint32_t tbl_type;
        uint32_t word;
        const char *orvex_text;
        const char *tcam3_text;
    } const order[] = {
        {TCAMWRAP_TBL_FIB, 2, "FIB tcam is Orvex!\n", "FIB tcam is tcam3!\n"},
        {TCAMWRAP_TBL_ACLI, 0, "ACLI tcam is Orvex!\n", "ACLI tcam is tcam3!\n"},
        {TCAMWRAP_TBL_ACLO, 1, "ACLO tcam is Orvex!\n", "ACLO tcam is tcam3!\n"},
    };
    for (const auto &t : order) {
        const bool orvex = types[t.word] == 1;
        TCAMWRAP_TRACE(6, "%s", orvex ? t.orvex_text : t.tcam3_text);
        tcamwrap_gl_db.is_orvex[t.tbl_type] = orvex ? 1 : 0;
    }
    return 0;
}

/* Allocate the maps of one table, all unused. */
int tcamwrap_lmt_init(uint8_t inst, uint32_t tbl_type, uint32_t lmt_sz, bool restore)
{
    tcam_info *info = tcamwrap_require_table(inst, tbl_type, __func__, 330);
    if (info == nullptr)
        return -1;
    info->lmt = static_cast<uint32_t *>(malloc(sizeof(uint32_t) * (size_t)lmt_sz));
    info->rlmt = static_cast<uint32_t *>(malloc(sizeof(uint32_t) * (size_t)lmt_sz));
    info->sloc_valid = nullptr;
    if (info->lmt == nullptr || info->rlmt == nullptr) {
        TCAMWRAP_TRACE(2, "*** could not allocate memory for LMT<%d %d> ***\n", inst, tbl_type);
        tcamwrap_saved_errno = ENOMEM;
        return -1; /* lmt_sz stays 0, so no later call indexes a missing map */
    }
    if (restore) {
        info->sloc_valid = static_cast<uint8_t *>(malloc(lmt_sz));
        if (info->sloc_valid == nullptr) {
            TCAMWRAP_TRACE(2, "*** could not allocate memory for sloc valid table<%d %d> ***\n",
                           inst, tbl_type);
            tcamwrap_saved_errno = ENOMEM;
            return -1;
        }
        memset(info->sloc_valid, 0, lmt_sz);
    }
    memset(info->lmt, 0xFF, sizeof(uint32_t) * (size_t)lmt_sz);
    memset(info->rlmt, 0xFF, sizeof(uint32_t) * (size_t)lmt_sz);
    info->lmt_sz = lmt_sz;
    return 0;
}

/* Table size of a type in the driver's configuration record. */
uint32_t tcamwrap_cfg_table_size(const fwd_cfg_info &cfg, uint32_t tbl_type)
{
    switch (tbl_type) {
    case TCAMWRAP_TBL_FIB:
        return cfg.fib_size;
    case TCAMWRAP_TBL_ACLI:
        return cfg.acli_size;
    default:
        return cfg.aclo_size;
    }
}

/* Allocate the records of every instance for the client's table types. */
int tcamwrap_alloc_tables(const int32_t *tbl_types, uint32_t num_tcams)
{
    for (uint32_t i = 0; i < num_tcams; i++) {
        const uint32_t type = (uint32_t)tbl_types[i];
        if (tcamwrap_validate_tbl_type(type) != 0)
            return tcamwrap_return_saved(-1);
        if (!tcamwrap_gl_db.is_orvex[type]) {
            TCAMWRAP_TRACE_AS("tcamwrap_init", 6,
                              "Orvex TCAM is not present. Skipping remaining initialization ..\n");
            continue;
        }
        /* A type named twice gets its tables once (a second set would drop the
         * first without freeing it). */
        if (tcamwrap_gl_db.tcam_info[0][type] != nullptr) {
            TCAMWRAP_TRACE_AS("tcamwrap_init", 6, "tbl_type %d is named twice; set up once\n", type);
            continue;
        }
        for (uint32_t inst = 0; inst < tcamwrap_gl_db.num_insts; inst++) {
            /* Zeroed, so a record whose maps never got allocated reads as an
             * empty table rather than as garbage pointers. */
            auto *info = static_cast<tcam_info *>(calloc(1, sizeof(tcam_info)));
            tcamwrap_gl_db.tcam_info[inst][type] = info;
            if (info == nullptr) {
                TCAMWRAP_TRACE_AS("tcamwrap_init", 2,
                                  "*** could not allocate memory for tcam info structure ***\n");
                errno = ENOMEM;
                return -1;
            }
        }
    }
    return 0;
}

/* Maps, store restore, engine registration and reconciliation of one table. */
int tcamwrap_init_table(uint8_t inst, uint32_t tbl_type, const fwd_cfg_info &cfg, bool restore)
{
    const uint32_t lmt_sz = tcamwrap_cfg_table_size(cfg, tbl_type);
    TCAMWRAP_TRACE_AS("tcamwrap_init", 6, "inst: %d tbl_type: %d lmt_sz: %d\n", inst, tbl_type,
                      lmt_sz);
    if (tcamwrap_lmt_init(inst, tbl_type, lmt_sz, restore) != 0)
        return tcamwrap_return_saved(-1);

    if (restore) {
        const int rc = tcamwrap_lmt_restore(inst, tbl_type);
        if (rc != 0) {
            TCAMWRAP_TRACE_AS("tcamwrap_init", 3, "*** restore failed for LMT<%d %d> ***\n", inst,
                              tbl_type);
            return tcamwrap_return_saved(rc);
        }
    }

    tcamwrap_set_cb_handle(inst, tbl_type, 0, 0, nullptr, TCAMWRAP_OPER_INIT);
    tcam_info *info = tcamwrap_gl_db.tcam_info[inst][tbl_type];
    void *handle = &info->cb_handle;
    const uint32_t width =
        tbl_type == TCAMWRAP_TBL_FIB ? TCAMWRAP_FIB_KEY_BITS : TCAMWRAP_ACL_KEY_BITS;
    const int rc = orvex_tcam_init(inst, tbl_type, width, tcamwrap_cb_validate, handle,
                                   tcamwrap_cb_orvex_tcam_camindex, handle, restore ? 1 : 0,
                                   tcamwrap_cb_orvex_tcam_restore, handle,
                                   tcamwrap_gl_db.debug_elem, tcamwrap_gl_db.debug_level);
    if (rc != 0) {
        tcamwrap_save_errno();
        TCAMWRAP_TRACE_AS("tcamwrap_init", 3, "*** orvex_tcam_init() failed: %s ***\n",
                          strerror(tcamwrap_saved_errno));
        return tcamwrap_return_saved(rc);
    }

    if (restore) {
        TCAMWRAP_TRACE_AS("tcamwrap_init", 6, "!! <%d, %d> restore complete !!\n", inst, tbl_type);
        TCAMWRAP_TRACE_AS("tcamwrap_init", 3, "inst: %d tbl_type: %d restored %u entries from HW\n",
                          inst, tbl_type, info->cb_handle.restored_entries);
        (void)tcamwrap_post_restore(inst, tbl_type);
        TCAMWRAP_TRACE_AS("tcamwrap_init", 6, "!! <%d, %d> post restore complete !!\n", inst,
                          tbl_type);
        free(info->sloc_valid);
        info->sloc_valid = nullptr;
    }
    return 0;
}

} // namespace

extern "C" int tcamwrap_init(const int32_t *tbl_types, uint32_t num_tcams, uint32_t kvs_handle,
                             kvs_buf *key_prefix, uint32_t init_type, uint32_t debug_elem,
                             uint32_t debug_level, uint32_t fac_num)
{
    TCAMWRAP_TRACE(7, "num_tcams: %d init_type: 0x%x debug_elem: %d fac_num: %d\n", num_tcams,
                   init_type, debug_elem, fac_num);
    if (num_tcams == 0) {
        TCAMWRAP_TRACE(3, "*** number of tcams passed are 0 ***\n");
        errno = EINVAL;
        return -1;
    }

    memset(&tcamwrap_gl_db, 0, sizeof(tcamwrap_gl_db));
    for (auto &per_inst : tcamwrap_gl_db.tcam_info)
        for (auto &slot : per_inst)
            slot = nullptr;
    tcamwrap_pending_reset();
    tcamwrap_gl_db.kvs_handle = kvs_handle;
    tcamwrap_gl_db.debug_elem = debug_elem;
    tcamwrap_gl_db.debug_level = debug_level;
    tcamwrap_gl_db.fac_num = fac_num;
    tcamwrap_gl_db.init_type = init_type;
    tcamwrap_gl_db.kvs_key_prefix = key_prefix;

    dbgsvc_hist_init_for_uuid(TCAMWRAP_HIST_UUID, TCAMWRAP_HIST_SIZE);

    const uint32_t prefix_len = tcamwrap_kvs_prefix_len(key_prefix);
    tcamwrap_gl_db.kvs_key.data = tcamwrap_kvs_key_buf;
    tcamwrap_gl_db.kvs_key.len = prefix_len;
    if (prefix_len != 0)
        memcpy(tcamwrap_kvs_key_buf, key_prefix->data, prefix_len);

    fwd_cfg_info cfg;
    memset(&cfg, 0, sizeof(cfg));
    int rc = fwd_get_cfg_info(0, &cfg);
    if (rc != 0) {
        tcamwrap_save_errno();
        TCAMWRAP_TRACE(3, "*** fwd_get_cfg_info() failed for inst 0 ***\n");
        return tcamwrap_return_saved(rc);
    }
    tcamwrap_gl_db.num_insts = cfg.num_insts;
    TCAMWRAP_TRACE(6, "total number of fwd instances in the linecard: %d\n",
                   tcamwrap_gl_db.num_insts);
    if (tcamwrap_gl_db.num_insts > TCAMWRAP_MAX_INSTS) {
        TCAMWRAP_TRACE(2, "*** total fwd instances %d are more than supported by tcamwrap library %d ***\n",
                       tcamwrap_gl_db.num_insts, TCAMWRAP_MAX_INSTS);
        errno = EINVAL;
        return -1;
    }

    TCAMWRAP_TRACE(7, "checking for orvex tcam..\n");
    rc = tcamwrap_check_for_orvex_tcam();
    if (rc != 0) {
        TCAMWRAP_TRACE(3, "*** could not check for orvex tcam ***\n");
        return tcamwrap_return_saved(rc);
    }

    const bool restore = init_type != 0;
    rc = tcamwrap_alloc_tables(tbl_types, num_tcams);
    if (rc != 0)
        return rc;

    for (uint32_t inst = 0; inst < tcamwrap_gl_db.num_insts; inst++) {
        rc = fwd_get_cfg_info((uint8_t)inst, &cfg);
        if (rc != 0) {
            tcamwrap_save_errno();
            TCAMWRAP_TRACE(3, "*** fwd_get_cfg_info() failed for inst %d ***\n", inst);
            return tcamwrap_return_saved(rc);
        }
        for (uint32_t type = 0; type < TCAMWRAP_MAX_TBLS; type++) {
            if (tcamwrap_gl_db.tcam_info[inst][type] == nullptr)
                continue;
            rc = tcamwrap_init_table((uint8_t)inst, type, cfg, restore);
            if (rc != 0)
                return rc;
        }
    }
    return 0;
}
